// What a player does with one kind of medium, again and again, on a thread of its own.
#pragma once

#include "ledger.h"
#include "site.h"

#include "support/media.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <utility>
#include <vector>

class MdchUrlBase;

// Lets the activities go on, rest together, and end.
class Beat
{
public:
    explicit Beat(std::size_t activities) : m_activities(activities) {}

    // Called by each activity between two rounds; waits while there is a rest. False: that was all.
    bool goOn();
    void leave(); // an activity that ends by itself

    // Asks for a rest, and waits until all rest; false when that does not come about.
    bool rest(std::chrono::seconds patience);
    void wakeUp();
    void end();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::size_t m_activities;
    std::size_t m_resting = 0;
    bool m_rest = false;
    bool m_end = false;
};

class Activity
{
public:
    Activity(std::string name, const Site& site, Ledger& ledger, std::uint32_t seed);
    virtual ~Activity() = default;
    Activity(const Activity&) = delete;
    Activity& operator=(const Activity&) = delete;

    void run(Beat& beat);

    const std::string& name() const { return m_name; }
    std::uint64_t rounds() const { return m_rounds; }
    std::uint64_t streams() const { return m_streams; }
    std::uint64_t bytes() const { return m_bytes; }     // compared with what they have to be
    virtual std::uint64_t bitRate() const { return 0; } // of such media, in bits per second; 0: none
    bool hadEachFault() const { return m_hadEachFault; }

    // What went wrong; empty: nothing. After run().
    const std::string& failure() const { return m_failure; }
    bool hasFailed() const { return m_hasFailed; }

protected:
    using Fallible = std::function<void(Fault&)>;

    virtual void round() = 0;
    // Between two rounds, so that those who need no network leave the others their turn.
    virtual std::chrono::milliseconds breath() const { return std::chrono::milliseconds(0); }
    // Every kFaultEvery-th round is one of these, in turn.
    void fault(std::string kind, Fallible cause);

    std::uint64_t below(std::uint64_t count);
    // Throws a failure.
    static void demand(bool holds, const std::string& what);
    template <class A, class B>
    static void demandEqual(const A& is, const B& shall, const std::string& what)
    {
        demand(is == shall, what + " is " + std::to_string(is) + ", not " + std::to_string(shall));
    }
    // These bytes came, and must be those at the position.
    void check(const support::Media& media, std::uint64_t position, const unsigned char* bytes, int count);
    void opened() { ++m_streams; }
    void count(std::uint64_t bytes) { m_bytes += bytes; }
    // Room for one read.
    unsigned char* buffer() { return m_buffer.data(); }
    static constexpr unsigned int kMost = 100'000;

    const Site& m_site;

private:
    static constexpr std::uint64_t kFaultEvery = 4;

    std::string m_name;
    Ledger& m_ledger;
    std::mt19937_64 m_random;
    std::vector<unsigned char> m_buffer;
    std::vector<std::pair<std::string, Fallible>> m_faults;
    std::size_t m_nextFault = 0;
    std::atomic<std::uint64_t> m_rounds{0};
    std::atomic<std::uint64_t> m_streams{0};
    std::atomic<std::uint64_t> m_bytes{0};
    std::atomic<bool> m_hadEachFault{false};
    std::atomic<bool> m_hasFailed{false};
    std::string m_failure;
};

// All of them.
std::vector<std::unique_ptr<Activity>> allActivities(const Site& site, Ledger& ledger, std::uint32_t seed,
                                                     bool multicast);

// Those of one file each.
using Activities = std::vector<std::unique_ptr<Activity>>;
void addHttpActivities(Activities& all, const Site& site, Ledger& ledger, std::uint32_t seed);
void addRadioActivities(Activities& all, const Site& site, Ledger& ledger, std::uint32_t seed);
void addLocalActivities(Activities& all, const Site& site, Ledger& ledger, std::uint32_t seed);
void addNetworkActivities(Activities& all, const Site& site, Ledger& ledger, std::uint32_t seed,
                          bool multicast);
