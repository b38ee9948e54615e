// Every trace line of a failure, and the fault that caused it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// While it lives, all trace lines up to severity 3000 come here. A line that names a stream is kept under the stream's
// number; any other belongs to the fault that its thread is causing just then, or waits for one. What no fault explains is unexplained.
class Ledger
{
public:
    Ledger();
    ~Ledger();
    Ledger(const Ledger&) = delete;
    Ledger& operator=(const Ledger&) = delete;

    struct Count
    {
        std::uint64_t caused = 0;
        std::uint64_t matched = 0; // each of its lines came, and no other
    };
    std::map<std::string, Count> counts() const;
    std::uint64_t caused() const;

    // Lines that no fault explains. They count when closeAll() is called: between faults, with all streams gone. The
    // first ones are kept.
    void closeAll();
    std::uint64_t unexplainedCount() const;
    std::vector<std::string> unexplained() const;

    // "file.cpp:12:f(): text of fd 100\n" as "file.cpp:#:f(): text of fd #", and the number, if one is named.
    static std::string normal(const std::string& text, std::optional<int>& number);

private:
    friend class Fault;
    struct Stream
    {
        std::vector<std::string> lines;
        bool claimed = false; // by a fault that did not know its number
    };
    using Streams = std::map<int, Stream>;

    static void sink(void* self, unsigned int level, const char* text);
    void take(const std::string& text);
    void addUnexplained(const std::string& line);
    static bool hasAll(const Stream& stream, const std::vector<std::string>& lines);

    mutable std::mutex m_mutex; // guards all below
    Streams m_streams;
    std::vector<std::string> m_loose; // of no stream, and on a thread that causes no fault
    std::map<std::string, Count> m_counts;
    std::vector<std::string> m_unexplained;
    std::uint64_t m_unexplainedCount = 0;
};

// One fault that the calling thread causes, from before it happens until its stream is closed. Lines are written as
// Ledger::normal gives them.
class Fault
{
public:
    Fault(Ledger& ledger, std::string kind);
    ~Fault(); // settles it, if that was not done
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

    Fault& must(std::string line);      // of the stream, once
    Fault& may(std::string line);       // of the stream, once at most: it depends on who is faster
    Fault& says(std::string line);      // of this thread, without a stream's number
    Fault& elsewhere(std::string line); // of another thread, without one

    // Waits for the lines that must come and for the end of the stream, which is closed; any line that came beyond
    // these is unexplained. Without a number: the stream is the one that has all of the lines, so no other fault may
    // have the same.
    void settle(std::optional<int> number = std::nullopt);

private:
    friend class Ledger;
    std::optional<int> findStream(std::optional<int> number);
    bool explain(std::vector<std::string> came, std::vector<std::string> must,
                 const std::vector<std::string>& may);

    Ledger& m_ledger;
    std::string m_kind;
    std::vector<std::string> m_must;
    std::vector<std::string> m_may;
    std::vector<std::string> m_says;
    std::vector<std::string> m_elsewhere;
    std::vector<std::string> m_said; // guarded by the ledger's mutex
    bool m_settled = false;
};
