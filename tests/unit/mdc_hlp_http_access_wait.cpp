// The waits that the units of md::HttpAccess share, on descriptors of their own.

#include "mdc_hlp_http_access_impl.h"
#include "support/trace_capture.h"
#include "support/wait.h"

#include <cerrno>
#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <limits>

namespace {

using md::MdchCurlDescriptor_struct;
using support::TraceCapture;
using support::waitUntil;

constexpr const char* kWaits = "waitForHeader(): wait for header on fd 7\n";
constexpr const char* kTimedOut = "waitForHeader(): wait for header fd 7 timed out\n";
constexpr time_t kLast = std::numeric_limits<time_t>::max();

timespec now()
{
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return time;
}

// --- Deadlines ---

TEST(Deadline, liesThatManySecondsAhead)
{
    for (const std::int64_t seconds : {0, 1, 330, -5}) {
        const timespec before = now();
        const timespec deadline = md::deadlineIn(seconds);
        const timespec after = now();
        EXPECT_GE(deadline.tv_sec, before.tv_sec + seconds);
        EXPECT_LE(deadline.tv_sec, after.tv_sec + seconds);
        EXPECT_GE(deadline.tv_nsec, 0);
        EXPECT_LT(deadline.tv_nsec, 1'000'000'000);
    }
}

TEST(Deadline, liesThatManyMillisecondsAhead)
{
    const auto nanoseconds = [](const timespec& time) {
        return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
    };
    for (const std::int64_t milliseconds : {0, 1, 999, 1000, 2500}) {
        const timespec before = now();
        const timespec deadline = md::deadlineInMilliseconds(static_cast<long>(milliseconds));
        const timespec after = now();
        EXPECT_GE(nanoseconds(deadline), nanoseconds(before) + milliseconds * 1'000'000);
        EXPECT_LE(nanoseconds(deadline), nanoseconds(after) + milliseconds * 1'000'000);
        EXPECT_LT(deadline.tv_nsec, 1'000'000'000);
    }
}

TEST(Deadline, isTheLastThereIsWhenNoClockReachesIt)
{
    EXPECT_EQ(md::deadlineIn(std::numeric_limits<std::int64_t>::max()).tv_sec, kLast);
    timespec deadline{kLast - 5, 17};
    md::extendDeadline(deadline, 6);
    EXPECT_EQ(deadline.tv_sec, kLast);
    md::extendDeadline(deadline, 1);
    EXPECT_EQ(deadline.tv_sec, kLast);
    EXPECT_EQ(deadline.tv_nsec, 17);
}

TEST(Deadline, isMovedOnByWholeSeconds)
{
    timespec deadline{1000, 999'999'999};
    md::extendDeadline(deadline, 7);
    EXPECT_EQ(deadline.tv_sec, 1007);
    EXPECT_EQ(deadline.tv_nsec, 999'999'999);
    md::extendDeadline(deadline, 0);
    EXPECT_EQ(deadline.tv_sec, 1007);
    md::extendDeadline(deadline, -8);
    EXPECT_EQ(deadline.tv_sec, 999);
}

// --- Waiting for the header ---

class HeaderWait : public testing::Test
{
protected:
    HeaderWait()
    {
        m_desc.fd = 7;
        m_desc.url = "http://127.0.0.1/";
        m_desc.headerTimeout = 1000;
    }

    int wait()
    {
        MdpLock lock = md::lockDescriptor(m_desc);
        return md::waitForHeader(m_desc, lock);
    }

    std::future<int> waitAside()
    {
        return std::async(std::launch::async, [this] { return wait(); });
    }

    // Changes the descriptor and wakes whoever waits on it.
    template <class Change>
    void signal(Change change)
    {
        const MdpLock lock = md::lockDescriptor(m_desc);
        change(m_desc);
        pthread_cond_broadcast(&m_desc.cond);
    }

    bool waitForPass(std::size_t count) const
    {
        return waitUntil([this, count] { return m_trace.count(kWaits) >= count; });
    }

    MdchCurlDescriptor_struct m_desc;
    TraceCapture m_trace;
};

TEST_F(HeaderWait, isOverWhenTheHeaderIsComplete)
{
    m_desc.headerComplete = 1;
    EXPECT_EQ(wait(), 0);
    EXPECT_TRUE(m_trace.texts().empty());
}

TEST_F(HeaderWait, isOverWhenTheTransferIsDoneEvenWithoutAUrl)
{
    m_desc.done = 1;
    m_desc.url.clear();
    EXPECT_EQ(wait(), 0);
    EXPECT_TRUE(m_trace.texts().empty());
}

TEST_F(HeaderWait, withoutAUrlGivesMinus11AndLeavesTheError)
{
    m_desc.url.clear();
    EXPECT_EQ(wait(), -11);
    EXPECT_EQ(m_desc.error, 0);
    EXPECT_EQ(m_trace.texts(), std::vector<std::string>{"waitForHeader(): no url specified on fd 7\n"});
    EXPECT_EQ(m_trace.severityOf("waitForHeader(): no url specified on fd 7\n"), 3000U);
}

TEST_F(HeaderWait, inNonBlockingModeGivesMinus11WithoutAConnection)
{
    m_desc.dataTimeout = 0;
    EXPECT_EQ(wait(), -11);
    EXPECT_EQ(m_desc.error, 11);
    EXPECT_EQ(m_trace.texts(),
              std::vector<std::string>{"waitForHeader(): no reconnect on fd 7 up to now (done=0)\n"});
}

TEST_F(HeaderWait, inNonBlockingModeIsOverWithAConnection)
{
    m_desc.dataTimeout = 0;
    m_desc.connected = 1;
    EXPECT_EQ(wait(), 0);
    EXPECT_EQ(m_desc.error, 0);
    EXPECT_TRUE(m_trace.texts().empty());
}

TEST_F(HeaderWait, thatTimesOutGivesMinus14)
{
    m_desc.headerTimeout = 0;
    EXPECT_EQ(wait(), -14);
    EXPECT_EQ(m_desc.error, 14);
    EXPECT_EQ(m_trace.texts(), (std::vector<std::string>{kWaits, kTimedOut}));
    EXPECT_EQ(m_trace.severityOf(kWaits), 5000U);
    EXPECT_EQ(m_trace.severityOf(kTimedOut), 3000U);
}

TEST_F(HeaderWait, ofAConnectedTransferTimesOutLikeAnyOther)
{
    m_desc.headerTimeout = 0;
    m_desc.connected = 1;
    EXPECT_EQ(wait(), -14) << "a seek's header may be awaited on a connected transfer";
}

TEST_F(HeaderWait, endsWithTheTransfer)
{
    auto waiting = waitAside();
    ASSERT_TRUE(waitForPass(1));
    signal([](auto& desc) { desc.done = 1; });
    EXPECT_EQ(waiting.get(), 0);
    EXPECT_EQ(m_desc.error, 0);
}

TEST_F(HeaderWait, endsWithTheConnectionsHeader)
{
    auto waiting = waitAside();
    ASSERT_TRUE(waitForPass(1));
    signal([](auto& desc) {
        desc.connected = 1;
        desc.headerComplete = 1;
    });
    EXPECT_EQ(waiting.get(), 0);
    EXPECT_EQ(m_trace.texts(), std::vector<std::string>{kWaits});
}

TEST_F(HeaderWait, endsWithAHeaderWithoutConnectionAndSaysSo)
{
    auto waiting = waitAside();
    ASSERT_TRUE(waitForPass(1));
    signal([](auto& desc) { desc.headerComplete = 1; });
    EXPECT_EQ(waiting.get(), 0);
    EXPECT_TRUE(m_trace.has("waitForHeader(): header complete on fd 7 (redirect?)\n"));
}

TEST_F(HeaderWait, inWhichTheModeBecomesNonBlockingIsOver)
{
    auto waiting = waitAside();
    ASSERT_TRUE(waitForPass(1));
    signal([](auto& desc) { desc.dataTimeout = 0; });
    EXPECT_EQ(waiting.get(), -11);
    EXPECT_EQ(m_desc.error, 11);
}

TEST_F(HeaderWait, goesOnAfterAWakeUpThatBringsNoHeader)
{
    auto waiting = waitAside();
    for (std::size_t pass = 1; pass <= 5; ++pass) {
        ASSERT_TRUE(waitForPass(pass));
        signal([](auto& desc) { desc.connected = 1; });
    }
    ASSERT_TRUE(waitForPass(6));
    signal([](auto& desc) { desc.headerComplete = 1; });
    EXPECT_EQ(waiting.get(), 0);
}

// Each pass adds its header time-out to the deadline, as the one before left it: 1000 s and -960 s are 40 s ahead,
// not 960 s ago.
TEST_F(HeaderWait, movesItsDeadlineOnWithEveryPass)
{
    auto waiting = waitAside();
    ASSERT_TRUE(waitForPass(1));
    signal([](auto& desc) { desc.headerTimeout = -960; });
    ASSERT_TRUE(waitForPass(2));
    signal([](auto& desc) { desc.headerTimeout = -1000; });
    ASSERT_TRUE(waitForPass(3)) << "the second pass did not wait";
    EXPECT_EQ(waiting.get(), -14);
    EXPECT_EQ(m_trace.count(kTimedOut), 1U);
}

TEST_F(HeaderWait, doesNotOverflowItsDeadline)
{
    m_desc.headerTimeout = std::numeric_limits<std::int32_t>::max();
    auto waiting = waitAside();
    for (std::size_t pass = 1; pass <= 3; ++pass) {
        ASSERT_TRUE(waitForPass(pass));
        signal([](auto&) {});
    }
    ASSERT_TRUE(waitForPass(4));
    signal([](auto& desc) { desc.done = 1; });
    EXPECT_EQ(waiting.get(), 0);
}

} // namespace
