// A long run of everything side by side: bytes are compared, failures must have a cause, and what the process holds
// must stay the same.
//
// Every now and then all activities rest; memory, descriptors and threads are counted then, with nothing under way.
#include "activity.h"
#include "ledger.h"
#include "meter.h"
#include "site.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_url.h"
#include "support/engine.h"
#include "support/network_namespace.h"
#include "support/wait.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <numeric>
#include <random>
#include <stdexcept>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kUsageError = 2;
constexpr std::chrono::seconds kPatience{150}; // for a rest, and for the faults that are missing at the end
constexpr double kKiB = 1024;

#if defined(MDC_SANITIZED)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

struct Options
{
    double seconds = 900;
    std::uint32_t seed = std::random_device{}();
    int rests = 30;
    std::string only; // the name of one activity; empty: all
};

bool parse(int argc, char** argv, Options& options)
{
    try {
        if (const char* asked = std::getenv("MDC_SOAK_SECONDS")) {
            options.seconds = std::stod(asked);
        }
        for (int i = 1; i < argc; i += 2) {
            const std::string name = argv[i];
            if (i + 1 == argc) {
                return false;
            }
            const std::string value = argv[i + 1];
            if (name == "--seconds") {
                options.seconds = std::stod(value);
            } else if (name == "--seed") {
                options.seed = static_cast<std::uint32_t>(std::stoul(value));
            } else if (name == "--only") {
                options.only = value;
            } else if (name == "--rests") {
                options.rests = std::stoi(value);
            } else {
                return false;
            }
        }
    } catch (const std::logic_error&) {
        return false;
    }
    return options.seconds > 0 && options.rests >= 8;
}

// What may be more at the end than after the warm-up. A short run is hardly warm when it ends: libcurl's and OpenSSL's
// stores fill with the first 500 streams or so, by some 200 KiB. After that, what is held at rest stays within some KiB,
// and a long run notices a leak of one byte per stream.
Limits limitsFor(double seconds)
{
    constexpr double kLong = 300;
    const bool isLong = seconds >= kLong;
    Limits result;
    result.residentGrowth = (isLong ? 2048 : 8192) * kKiB;
    result.residentExcess = (isLong ? 4096 : 16384) * kKiB;
    result.allocatedGrowth = (isLong ? 48 : 384) * kKiB;
    result.allocatedExcess = (isLong ? 128 : 768) * kKiB;
    result.descriptorExcess = 8;
    result.judgesResident = !kIsSanitized;
    return result;
}

Activities chosen(Activities all, const std::string& only)
{
    all.erase(std::remove_if(all.begin(), all.end(),
                             [&only](const auto& one) { return !only.empty() && one->name() != only; }),
              all.end());
    if (all.empty()) {
        throw std::invalid_argument("no such activity: " + only);
    }
    return all;
}

class Soak
{
public:
    Soak(const Options& options, const Site& site, bool multicast)
        : m_options(options),
          m_activities(chosen(allActivities(site, m_ledger, options.seed, multicast), options.only)),
          m_beat(m_activities.size()), m_begin(Clock::now())
    {
    }

    bool run()
    {
        printHead();
        std::vector<std::thread> threads;
        for (const auto& activity : m_activities) {
            threads.emplace_back([this, &activity] { activity->run(m_beat); });
        }
        const double period = m_options.seconds / m_options.rests;
        for (int i = 1; !hasFailed() && (i <= m_options.rests || !hadEachFault()); ++i) {
            watchUntil(i <= m_options.rests ? period * i : secondsNow() + period);
            if (secondsNow() > m_options.seconds + static_cast<double>(kPatience.count())) {
                fail("not every fault came about in time");
            }
            rest();
        }
        m_beat.end();
        for (std::thread& thread : threads) {
            thread.join();
        }
        md::HttpAccess::shutdown();
        m_ledger.closeAll();
        printUnexplained();
        return report();
    }

private:
    double secondsNow() const { return std::chrono::duration<double>(Clock::now() - m_begin).count(); }
    bool hasFailed() const
    {
        return !m_failures.empty() || std::any_of(m_activities.begin(), m_activities.end(),
                                                  [](const auto& one) { return one->hasFailed(); });
    }
    bool hadEachFault() const
    {
        return std::all_of(m_activities.begin(), m_activities.end(),
                           [](const auto& one) { return one->hadEachFault(); });
    }
    void fail(const std::string& why) { m_failures.push_back(why); }
    std::uint64_t sum(std::uint64_t (Activity::*value)() const) const
    {
        return std::accumulate(
            m_activities.begin(), m_activities.end(), std::uint64_t{0},
            [value](std::uint64_t all, const auto& one) { return all + (one.get()->*value)(); });
    }

    void watchUntil(double seconds)
    {
        while (secondsNow() < seconds && !hasFailed()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            const Holding now = holdingNow();
            m_most.residentBytes = std::max(m_most.residentBytes, now.residentBytes);
            m_most.allocatedBytes = std::max(m_most.allocatedBytes, now.allocatedBytes);
            m_most.descriptors = std::max(m_most.descriptors, now.descriptors);
            m_most.threads = std::max(m_most.threads, now.threads);
        }
    }

    void rest()
    {
        if (!m_beat.rest(kPatience)) {
            std::cout << "An activity does not come back." << std::endl;
            _exit(EXIT_FAILURE);
        }
        // The worker lets go of a stream's memory a moment after the stream has left the registry.
        const bool isEmpty = support::waitUntil([] { return support::registeredCount() == 0; }, kPatience) &&
                             support::workerRests(std::chrono::milliseconds(50));
        if (!isEmpty) {
            fail("streams that were closed are not gone");
        }
        m_ledger.closeAll();
        m_samples.push_back({secondsNow(), holdingNow(), m_most});
        m_most = {};
        printProgress();
        m_beat.wakeUp();
    }

    static void printHead()
    {
        std::cout
            << "                                                         resting                      | "
               "most between\n"
               "   time   rounds  streams      MiB  faults  unexplained   RSS KiB  malloc KiB  fds  thr | "
               "  RSS KiB  fds  thr"
            << std::endl;
    }

    void printUnexplained()
    {
        const std::vector<std::string> unexplained = m_ledger.unexplained();
        for (; m_unexplainedPrinted < unexplained.size(); ++m_unexplainedPrinted) {
            std::cout << "        unexplained: " << unexplained[m_unexplainedPrinted] << "\n";
        }
    }

    void printProgress()
    {
        printUnexplained();
        const Sample& last = m_samples.back();
        std::array<char, 200> line{};
        std::snprintf(
            line.data(), line.size(),
            "%5.0f s %8llu %8llu %8llu %7llu %12llu %9.0f %11.0f %4llu %4llu | %9.0f %4llu %4llu",
            last.seconds, number(sum(&Activity::rounds)), number(sum(&Activity::streams)),
            number(sum(&Activity::bytes) >> 20U), number(m_ledger.caused()),
            number(m_ledger.unexplainedCount()), static_cast<double>(last.resting.residentBytes) / kKiB,
            static_cast<double>(last.resting.allocatedBytes) / kKiB, number(last.resting.descriptors),
            number(last.resting.threads), static_cast<double>(last.most.residentBytes) / kKiB,
            number(last.most.descriptors), number(last.most.threads));
        std::cout << line.data() << std::endl;
    }
    static unsigned long long number(std::uint64_t value) { return value; }

    bool report()
    {
        std::printf("\nActivity          rounds   streams       MiB   plays for\n");
        for (const auto& one : m_activities) {
            std::printf("%-14s %9llu %9llu %9llu", one->name().c_str(), number(one->rounds()),
                        number(one->streams()), number(one->bytes() >> 20U));
            if (one->bitRate() > 0) {
                const double seconds =
                    static_cast<double>(one->bytes()) * 8 / static_cast<double>(one->bitRate());
                std::printf("   %6.1f h at %.3f Mbit/s", seconds / 3600,
                            static_cast<double>(one->bitRate()) / 1e6);
            }
            std::printf("\n");
        }
        std::printf("\nFault                                 caused   matched by its traces\n");
        for (const auto& [kind, count] : m_ledger.counts()) {
            std::printf("%-35s %8llu  %8llu\n", kind.c_str(), number(count.caused), number(count.matched));
        }
        std::printf("\nHeld after the warm-up, at rest   first third    growth      most   limit\n");
        bool passed = !hasFailed();
        for (const Finding& finding : judge(m_samples, limitsFor(m_options.seconds))) {
            std::printf("%-32s %12.0f %9.0f %11.0f   %s%s\n", finding.what.c_str(), finding.first,
                        finding.growth, finding.most, finding.limit.c_str(),
                        finding.holds ? "" : "  <- BROKEN");
            passed = passed && finding.holds;
        }
        std::fflush(stdout);
        for (const auto& one : m_activities) {
            if (one->hasFailed()) {
                std::cout << "Failed: " << one->failure() << "\n";
            }
        }
        for (const std::string& failure : m_failures) {
            std::cout << "Failed: " << failure << "\n";
        }
        if (m_ledger.unexplainedCount() > 0) {
            passed = false;
            std::cout << "Failed: " << m_ledger.unexplainedCount() << " unexplained traces, see above\n";
        }
        std::cout << (passed ? "Passed" : "FAILED") << ", seed " << m_options.seed << std::endl;
        return passed;
    }

    const Options& m_options;
    Ledger m_ledger;
    Activities m_activities;
    Beat m_beat;
    Clock::time_point m_begin;
    std::vector<Sample> m_samples;
    Holding m_most;
    std::size_t m_unexplainedPrinted = 0;
    std::vector<std::string> m_failures;
};

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parse(argc, argv, options)) {
        std::cerr << "Usage: " << argv[0]
                  << " [--seconds S] [--seed N] [--rests N, 8 at least] [--only ACTIVITY]\n"
                  << "MDC_SOAK_SECONDS: the seconds, unless given. 900 unless set.\n";
        return kUsageError;
    }
    try {
        const support::NetworkNamespace network; // before there are threads, and before the servers
        const Site site;
        std::cout << options.seconds << " s, seed " << options.seed;
        if (!network) {
            std::cout << "; no multicast: " << network.problem();
        }
        std::cout << std::endl;
        const mdch_UrlInit_struct init{"soak/1.0"};
        mdch_UrlInit(&init);
        return Soak(options, site, static_cast<bool>(network)).run() ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& problem) {
        std::cerr << "The run cannot start: " << problem.what() << std::endl;
        return EXIT_FAILURE;
    }
}
