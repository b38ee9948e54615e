// Threads of the platform: their name, their signals, their end.
#include "mdp_thread.h"

#include "support/trace_capture.h"
#include "support/wait.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <gtest/gtest.h>
#include <limits>
#include <set>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

using support::waitUntil;

timespec inSeconds(long seconds)
{
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    time.tv_sec += seconds;
    return time;
}

pid_t ownId()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

std::string taskFile(pid_t task, const std::string& name)
{
    return "/proc/self/task/" + std::to_string(task) + "/" + name;
}

// The text behind "name:" in the task's status file, without the blanks in front.
std::string taskStatus(pid_t task, const std::string& name)
{
    std::ifstream file(taskFile(task, "status"));
    std::string line;
    while (std::getline(file, line)) {
        if (line.compare(0, name.size() + 1, name + ":") == 0) {
            return line.substr(line.find_first_not_of(" \t", name.size() + 1));
        }
    }
    return {};
}

// What a test's thread tells, and the sign to go on.
struct Probe
{
    std::atomic<pid_t> task{0};
    std::atomic<bool> go{false};
    std::atomic<bool> ended{false};

    static void* run(void* argument)
    {
        auto* probe = static_cast<Probe*>(argument);
        probe->task = ownId();
        waitUntil([probe] { return probe->go.load(); });
        probe->ended = true;
        return nullptr;
    }
    bool waitForTask() const
    {
        return waitUntil([this] { return task != 0; });
    }
};

std::set<int> blockedSignals(pid_t task)
{
    const std::uint64_t mask = std::stoull(taskStatus(task, "SigBlk"), nullptr, 16);
    std::set<int> signals;
    for (int number = 1; number <= 64; ++number) {
        if ((mask >> static_cast<unsigned int>(number - 1) & 1U) != 0) {
            signals.insert(number);
        }
    }
    return signals;
}

} // namespace

TEST(Thread, itsNameIsVisibleToTheSystem)
{
    Probe probe;
    MdpThread thread;
    ASSERT_EQ(thread.start("mdch_urlhttp", __FILE__, __LINE__, Probe::run, &probe), 0);
    ASSERT_TRUE(probe.waitForTask());
    std::string name;
    std::getline(std::ifstream(taskFile(probe.task, "comm")), name);
    EXPECT_EQ(name, "mdch_urlhttp");
    probe.go = true;
}

TEST(Thread, ofALongName15CharactersReachTheSystem)
{
    Probe probe;
    MdpThread thread;
    ASSERT_EQ(thread.start("abcdefghijklmnopqrstuvwxyz", __FILE__, __LINE__, Probe::run, &probe), 0);
    ASSERT_TRUE(probe.waitForTask());
    std::string name;
    std::getline(std::ifstream(taskFile(probe.task, "comm")), name);
    EXPECT_EQ(name, "abcdefghijklmno");
    probe.go = true;
}

TEST(Thread, runsWithAllSignalsBlockedButThoseOfItsOwnFaults)
{
    const std::set<int> before = blockedSignals(ownId());
    Probe probe;
    MdpThread thread;
    ASSERT_EQ(thread.start("signals", __FILE__, __LINE__, Probe::run, &probe), 0);
    ASSERT_TRUE(probe.waitForTask());
    const std::set<int> blocked = blockedSignals(probe.task);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
        EXPECT_EQ(blocked.count(fault), 0U) << "signal " << fault;
    }
    // The C library keeps the two below SIGRTMIN for itself, and two can never be blocked.
    const std::set<int> never{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS, SIGKILL, SIGSTOP};
    for (int number = 1; number <= SIGRTMAX; ++number) {
        if (never.count(number) == 0 && (number < 32 || number >= SIGRTMIN)) {
            EXPECT_EQ(blocked.count(number), 1U) << "signal " << number;
        }
    }
    EXPECT_EQ(blockedSignals(ownId()), before) << "the creating thread's mask has changed";
    probe.go = true;
}

TEST(Thread, getsItsArgumentAndRunsOnAThreadOfItsOwn)
{
    Probe probe;
    probe.go = true;
    MdpThread thread;
    ASSERT_EQ(thread.start("argument", __FILE__, __LINE__, Probe::run, &probe), 0);
    thread.join();
    EXPECT_TRUE(probe.ended);
    EXPECT_NE(probe.task, ownId());
}

TEST(Thread, secondStartWhileItRunsIsBusy)
{
    Probe probe;
    Probe other;
    MdpThread thread;
    ASSERT_EQ(thread.start("first", __FILE__, __LINE__, Probe::run, &probe), 0);
    EXPECT_EQ(thread.start("second", __FILE__, __LINE__, Probe::run, &other), EBUSY);
    EXPECT_EQ(other.task, 0);
    probe.go = true;
    thread.join();
    other.go = true;
    EXPECT_EQ(thread.start("third", __FILE__, __LINE__, Probe::run, &other), 0);
    thread.join();
    EXPECT_TRUE(other.ended);
}

TEST(Thread, joinMayComeBeforeTheStartAndTwice)
{
    MdpThread thread;
    thread.join();
    EXPECT_TRUE(thread.joinUntil(nullptr));
    EXPECT_FALSE(thread.isRunning());
    Probe probe;
    probe.go = true;
    ASSERT_EQ(thread.start("join", __FILE__, __LINE__, Probe::run, &probe), 0);
    EXPECT_TRUE(thread.isRunning());
    thread.join();
    EXPECT_FALSE(thread.isRunning());
    thread.join();
    EXPECT_TRUE(thread.joinUntil(nullptr));
}

TEST(Thread, joinUntilTellsWhetherTheThreadHasEnded)
{
    Probe probe;
    MdpThread thread;
    ASSERT_EQ(thread.start("deadline", __FILE__, __LINE__, Probe::run, &probe), 0);
    ASSERT_TRUE(probe.waitForTask());
    const timespec past = inSeconds(-1);
    EXPECT_FALSE(thread.joinUntil(&past));
    EXPECT_TRUE(thread.isRunning());
    EXPECT_FALSE(probe.ended);
    probe.go = true;
    const timespec farAway = inSeconds(60);
    EXPECT_TRUE(thread.joinUntil(&farAway));
    EXPECT_FALSE(thread.isRunning());
    EXPECT_TRUE(probe.ended);
    EXPECT_TRUE(thread.joinUntil(&past)) << "none is running";
}

TEST(Thread, destructorJoins)
{
    Probe probe;
    std::thread opener;
    {
        MdpThread thread;
        ASSERT_EQ(thread.start("destroyed", __FILE__, __LINE__, Probe::run, &probe), 0);
        opener = std::thread([&probe] {
            probe.waitForTask();
            probe.go = true;
        });
    }
    EXPECT_TRUE(probe.ended);
    opener.join();
}

TEST(Thread, isCurrentOnlyWithinItself)
{
    struct Self
    {
        MdpThread thread;
        Probe probe;
        std::atomic<bool> current{false};
    } self;
    EXPECT_FALSE(self.thread.isCurrent());
    const auto entry = [](void* argument) -> void* {
        auto* state = static_cast<Self*>(argument);
        waitUntil([state] { return state->probe.go.load(); }); // start() has returned
        state->current = state->thread.isCurrent();
        return nullptr;
    };
    ASSERT_EQ(self.thread.start("current", __FILE__, __LINE__, entry, &self), 0);
    EXPECT_FALSE(self.thread.isCurrent());
    self.probe.go = true;
    self.thread.join();
    EXPECT_TRUE(self.current);
    EXPECT_FALSE(self.thread.isCurrent());
}

TEST(Thread, aFailedCreationIsReturnedAndTracedWithItsPlace)
{
    // No address space holds such a stack.
    pthread_attr_t former;
    pthread_attr_t huge;
    ASSERT_EQ(pthread_getattr_default_np(&former), 0);
    ASSERT_EQ(pthread_attr_init(&huge), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&huge, std::numeric_limits<std::size_t>::max() / 16 * 15), 0);
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    const support::TraceCapture traces;
    Probe probe;
    MdpThread thread;
    const int result = thread.start("too big", "player.cpp", 42, Probe::run, &probe);
    EXPECT_EQ(pthread_setattr_default_np(&former), 0);
    pthread_attr_destroy(&huge);
    pthread_attr_destroy(&former);

    EXPECT_EQ(result, EAGAIN);
    EXPECT_FALSE(thread.isRunning());
    const std::string expected =
        "player.cpp:42: cannot create thread too big: Resource temporarily unavailable\n";
    EXPECT_EQ(traces.count(expected), 1U);
    EXPECT_EQ(traces.severityOf(expected), 1000U);
    probe.go = true;
    EXPECT_EQ(thread.start("again", __FILE__, __LINE__, Probe::run, &probe), 0);
}
