// Random operations on an HTTP stream against the same on a local copy.
//
// After every operation the next byte that is read must be the byte that stands at tell(). Run it with --seed to repeat
// a failed run.

#include "operations.h"
#include "servers.h"

#include "mdp_debug.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <random>
#include <thread>
#include <unistd.h>

namespace {

constexpr int kUsageError = 2;
constexpr int kNothingToTest = 77;

struct Options
{
    std::uint64_t operations = 500;
    std::uint32_t seed = std::random_device{}();
    std::string server = "all";
};

void printUsage(const char* program)
{
    std::cerr << "Usage: " << program
              << " [--operations N] [--seed S] [--server KIND] [--trace SEVERITY]\nKIND: all";
    for (const Kind& kind : allKinds()) {
        std::cerr << ", " << kind.name;
    }
    std::cerr << "\n";
}

bool parse(int argc, char** argv, Options& options)
{
    try {
        for (int i = 1; i < argc; i += 2) {
            const std::string name = argv[i];
            if (i + 1 == argc) {
                return false;
            }
            const std::string value = argv[i + 1];
            if (name == "--operations") {
                options.operations = std::stoull(value);
            } else if (name == "--seed") {
                options.seed = static_cast<std::uint32_t>(std::stoul(value));
            } else if (name == "--trace") {
                mdpDebugSetSeverity(static_cast<unsigned int>(std::stoul(value)));
            } else if (name == "--server") {
                options.server = value;
            } else {
                return false;
            }
        }
    } catch (const std::logic_error&) {
        return false;
    }
    return options.server == "all" ||
           std::any_of(allKinds().begin(), allKinds().end(),
                       [&options](const Kind& kind) { return options.server == kind.name; });
}

void printFailure(const Kind& kind, const Options& options, const History& history, const std::string& reason)
{
    std::cout << "The last operations:\n";
    for (const std::string& operation : history.last()) {
        std::cout << "  " << operation << "\n";
    }
    std::cout << "Failed: " << reason << "\nAgain: differential --operations " << options.operations
              << " --seed " << options.seed << " --server " << kind.name << std::endl;
}

// Ends the process with a report when an operation does not come back.
class Watch
{
public:
    Watch(const Kind& kind, const Options& options, const History& history)
        : m_thread([this, &kind, &options, &history] { run(kind, options, history); })
    {
    }
    ~Watch()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_ended = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

private:
    void run(const Kind& kind, const Options& options, const History& history)
    {
        constexpr std::chrono::seconds kLimit{100};
        std::unique_lock<std::mutex> lock(m_mutex);
        std::uint64_t seen = history.count();
        while (!m_changed.wait_for(lock, kLimit, [this] { return m_ended; })) {
            const std::uint64_t now = history.count();
            if (now == seen) {
                printFailure(kind, options, history, "the last operation does not come back");
                _exit(EXIT_FAILURE);
            }
            seen = now;
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_ended = false;
    std::thread m_thread; // last: it uses the others
};

bool run(const Kind& kind, const Options& options)
{
    History history;
    try {
        const std::unique_ptr<TestedServer> server = TestedServer::make(kind, options.seed);
        Operations operations(kind, *server, options.seed, history);
        const Watch watch(kind, options, history);
        while (history.count() < options.operations) {
            operations.next();
        }
        const std::optional<std::size_t> connections = server->connections();
        std::cout << "server " << kind.name << ", seed " << options.seed << ": " << history.count()
                  << " operations, " << operations.bytesRead() << " bytes, "
                  << (connections ? std::to_string(*connections) : "uncounted") << " connections"
                  << std::endl;
        return true;
    } catch (const std::exception& failure) {
        printFailure(kind, options, history, failure.what());
        return false;
    }
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parse(argc, argv, options)) {
        printUsage(argv[0]);
        return kUsageError;
    }
    std::vector<Kind> kinds;
    std::copy_if(
        allKinds().begin(), allKinds().end(), std::back_inserter(kinds), [&options](const Kind& kind) {
            return (options.server == "all" || options.server == kind.name) && TestedServer::isThere(kind);
        });
    if (kinds.empty()) {
        std::cout << "Not installed: " << options.server << std::endl;
        return kNothingToTest;
    }
    options.operations = std::max<std::uint64_t>(1, options.operations / kinds.size());
    bool passed = true;
    for (const Kind& kind : kinds) {
        passed = run(kind, options) && passed;
    }
    md::HttpAccess::shutdown();
    return passed ? EXIT_SUCCESS : EXIT_FAILURE;
}
