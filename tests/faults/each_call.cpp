#include "each_call.h"

#include "mdc_hlp_http_access.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

namespace faults {

namespace {

// Ends the program when a run takes too long, and says which.
class Watchdog
{
public:
    Watchdog() : m_thread([this] { watch(); }) {}
    ~Watchdog()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_over = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void begin(const std::string& what)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_what = what;
        ++m_run;
        m_changed.notify_all();
    }

private:
    void watch()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_over) {
            const long run = m_run;
            const bool changed =
                m_changed.wait_for(lock, std::chrono::seconds(60), [&] { return m_over || m_run != run; });
            if (!changed) {
                const char* failed = failedCall();
                std::fprintf(stderr, "hung: %s (%s failed)\n", m_what.c_str(),
                             failed != nullptr ? failed : "nothing");
                std::abort();
            }
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_over = false; // guarded by m_mutex, as is all below
    long m_run = 0;
    std::string m_what;
    std::thread m_thread; // last: it uses the others
};

const char* nameOf(Outcome::Kind kind)
{
    switch (kind) {
    case Outcome::Kind::kRight:
        return "right";
    case Outcome::Kind::kFailed:
        return "failed";
    default:
        return "WRONG";
    }
}

} // namespace

void eachCallFails(Kind kind, const std::function<Outcome()>& scenario, const EachCall& how)
{
    Watchdog watchdog;
    const auto isAsItShouldBe = [&how](const Outcome& outcome) {
        return how.neverRight ? outcome.kind == Outcome::Kind::kFailed : outcome.isRight();
    };
    watchdog.begin("without a failing call");
    const Outcome healthy = scenario(); // sets up what is set up once
    ASSERT_TRUE(isAsItShouldBe(healthy)) << healthy.why;
    md::HttpAccess::shutdown();              // each run starts its own worker thread
    const int open = descriptorsOfLibrary(); // for good
    int problems = 0;
    const char* first = std::getenv("FAULTS_FROM"); // to look at one
    long n = first != nullptr ? std::atol(first) : 1;
    int told = 0;
    for (;; n += how.step) {
        const std::string what = std::string(nameOf(kind)) + " fails for the " + std::to_string(n) + ". time";
        watchdog.begin(what);
        const auto start = std::chrono::steady_clock::now();
        arm(kind, n, how.andLater);
        const Outcome outcome = scenario();
        const auto failed = disarm();
        const auto middle = std::chrono::steady_clock::now();
        told += outcome.isRight() ? 0 : 1;
        if (std::getenv("FAULTS_SHOW") != nullptr) {
            using std::chrono::duration_cast;
            using std::chrono::milliseconds;
            std::fprintf(stderr, "%s: %s: %s %s (%lld ms)\n", what.c_str(),
                         failed.value_or("nothing").c_str(), nameOf(outcome.kind), outcome.why.c_str(),
                         static_cast<long long>(duration_cast<milliseconds>(middle - start).count()));
        }
        if (outcome.kind == Outcome::Kind::kWrong || (how.neverRight && outcome.isRight())) {
            ADD_FAILURE() << what << ", " << failed.value_or("nothing") << ": " << outcome.why;
            ++problems;
        }
        if (!failed) {
            EXPECT_TRUE(isAsItShouldBe(outcome)) << what << ": " << outcome.why;
            break;
        }
        watchdog.begin(what + ", and then no more");
        const Outcome again = scenario();
        if (!isAsItShouldBe(again)) {
            ADD_FAILURE() << what << ", " << *failed << ", and after that: " << nameOf(again.kind) << ", "
                          << again.why;
            ++problems;
        }
        md::HttpAccess::shutdown();
        if (descriptorsOfLibrary() != open) {
            ADD_FAILURE() << what << ", " << *failed << ": open before " << open << ", now "
                          << descriptorsOfLibrary();
            ++problems;
        }
        if (problems >= 5 || testing::Test::HasFatalFailure()) {
            return;
        }
    }
    md::HttpAccess::shutdown();
    std::printf("%s: %ld calls, a failure each %ld, %d runs told an error\n", nameOf(kind), n - 1, how.step,
                told);
    EXPECT_GE(n - 1, how.fewest) << "nothing ever failed";
}

} // namespace faults
