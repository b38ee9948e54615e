// md::HttpAccess::select: readiness of several streams.

#include "support/engine.h"
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <initializer_list>

namespace {

using md::HttpAccess;
using support::At;
using support::Gate;
using support::HttpServer;
using support::HttpStream;
using support::inspect;
using support::Reply;
using support::TraceCapture;
using support::waitForDescriptor;
using support::waitUntil;

// The stream numbers of an fd_set.
class Numbers
{
public:
    Numbers() { FD_ZERO(&m_set); }
    Numbers(std::initializer_list<int> numbers) : Numbers()
    {
        for (const int number : numbers) {
            FD_SET(number, &m_set);
        }
    }

    fd_set* set() { return &m_set; }

    std::vector<int> list() const
    {
        std::vector<int> numbers;
        for (int number = 0; number < FD_SETSIZE; ++number) {
            if (FD_ISSET(number, &m_set)) {
                numbers.push_back(number);
            }
        }
        return numbers;
    }

private:
    fd_set m_set{};
};

using List = std::vector<int>;
constexpr int kAll = FD_SETSIZE;

class Select : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;

    // A stream whose one byte comes when the gate opens.
    void openGated(HttpStream& stream, const std::string& path, const Gate& gate)
    {
        m_server.on(path, Reply().body("x").wait(At::body(), gate));
        stream.start(m_server.url(path));
        ASSERT_EQ(stream.getResponseCode(), 200);
    }

    // One with bytes in its buffer.
    void openReady(HttpStream& stream)
    {
        m_server.on("/ready", Reply().body("ready"));
        stream.start(m_server.url("/ready"));
        ASSERT_TRUE(
            waitForDescriptor(stream.number(), [](auto& desc) { return desc.ringBuffer.usedBytes() > 0; }));
    }

    static int poll(Numbers& numbers, int nfds = kAll)
    {
        timeval none{0, 0};
        return HttpAccess::select(nfds, numbers.set(), nullptr, nullptr, &none);
    }

    static std::size_t waiters(int number)
    {
        return inspect(number, [](auto& desc) { return desc.selectWaiters.size(); });
    }
    static bool waitForWaiters(int number, std::size_t count)
    {
        return waitUntil([number, count] { return waiters(number) == count; });
    }

    // A select without limit on another thread.
    static std::future<std::pair<int, List>> selectAside(Numbers numbers)
    {
        return std::async(std::launch::async, [numbers]() mutable {
            const int count = HttpAccess::select(kAll, numbers.set(), nullptr, nullptr, nullptr);
            return std::make_pair(count, numbers.list());
        });
    }
};

// --- Arguments ---

TEST_F(Select, withoutReadSetGivesMinus22)
{
    timeval none{0, 0};
    Numbers others{3};
    EXPECT_EQ(HttpAccess::select(kAll, nullptr, others.set(), others.set(), &none), -22);
    EXPECT_EQ(HttpAccess::select(0, nullptr, nullptr, nullptr, nullptr), -22);
    EXPECT_EQ(others.list(), List{3}) << "nothing was touched";
}

TEST_F(Select, withZeroOrNegativeCountClearsTheSetsAndGivesZero)
{
    HttpStream stream;
    openReady(stream);
    for (const int nfds : {0, -1, -2147483647}) {
        Numbers read{100, 5};
        Numbers write{100};
        Numbers except{7};
        timeval none{0, 0};
        EXPECT_EQ(HttpAccess::select(nfds, read.set(), write.set(), except.set(), &none), 0);
        EXPECT_TRUE(read.list().empty());
        EXPECT_TRUE(write.list().empty());
        EXPECT_TRUE(except.list().empty());
    }
}

TEST_F(Select, aboveTheSizeOfASetGivesMinus22)
{
    Numbers numbers{1};
    timeval none{0, 0};
    EXPECT_EQ(HttpAccess::select(FD_SETSIZE + 1, numbers.set(), nullptr, nullptr, &none), -22);
    EXPECT_EQ(HttpAccess::select(2147483647, numbers.set(), nullptr, nullptr, &none), -22);
    EXPECT_EQ(numbers.list(), List{1});
}

TEST_F(Select, clearsTheWriteAndExceptionSets)
{
    HttpStream stream;
    openReady(stream);
    Numbers read{100};
    Numbers write{100, 101};
    Numbers except{100, 900};
    timeval none{0, 0};
    EXPECT_EQ(HttpAccess::select(kAll, read.set(), write.set(), except.set(), &none), 1);
    EXPECT_EQ(read.list(), List{100});
    EXPECT_TRUE(write.list().empty());
    EXPECT_TRUE(except.list().empty());
}

TEST_F(Select, ignoresNumbersThatAreNoStreams)
{
    HttpStream stream;
    openReady(stream);
    Numbers numbers{0, 1, 99, 100, 101, 1023};
    EXPECT_EQ(poll(numbers), 1);
    EXPECT_EQ(numbers.list(), List{100});
    Numbers others{0, 1, 1023};
    EXPECT_EQ(poll(others), 0);
    EXPECT_TRUE(others.list().empty());
}

TEST_F(Select, looksOnlyAtNumbersBelowTheCount)
{
    HttpStream first;
    HttpStream second;
    openReady(first);
    openReady(second);
    Numbers numbers{100, 101};
    EXPECT_EQ(poll(numbers, 101), 1);
    EXPECT_EQ(numbers.list(), List{100});
    Numbers none{100, 101};
    EXPECT_EQ(poll(none, 100), 0);
    EXPECT_TRUE(none.list().empty());
    Numbers both{100, 101};
    EXPECT_EQ(poll(both, 102), 2);
}

// --- Readiness ---

TEST_F(Select, reportsExactlyTheStreamsThatHoldBytes)
{
    const Gate gate;
    HttpStream empty;
    HttpStream ready;
    HttpStream another;
    openGated(empty, "/gated", gate);
    openReady(ready);
    openReady(another);
    Numbers numbers{100, 101, 102};
    EXPECT_EQ(poll(numbers), 2);
    EXPECT_EQ(numbers.list(), (List{101, 102}));
    EXPECT_EQ(waiters(100), 0U) << "nobody is left in the queues";
    Numbers chosen{100, 102};
    EXPECT_EQ(poll(chosen), 1);
    EXPECT_EQ(chosen.list(), List{102});
}

TEST_F(Select, doesNotWaitWhenAStreamIsReady)
{
    const Gate gate;
    HttpStream empty;
    HttpStream ready;
    openGated(empty, "/gated", gate);
    openReady(ready);
    Numbers numbers{100, 101};
    EXPECT_EQ(HttpAccess::select(kAll, numbers.set(), nullptr, nullptr, nullptr), 1);
    timeval hour{3600, 0};
    Numbers again{100, 101};
    EXPECT_EQ(HttpAccess::select(kAll, again.set(), nullptr, nullptr, &hour), 1);
    EXPECT_EQ(again.list(), List{101});
}

TEST_F(Select, aStreamThatHasEndedIsReady)
{
    HttpStream stream;
    m_server.on("/missing", Reply::error(404).body(""));
    stream.start(m_server.url("/missing"));
    ASSERT_TRUE(stream.waitDone());
    Numbers numbers{100};
    EXPECT_EQ(HttpAccess::select(kAll, numbers.set(), nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(numbers.list(), List{100});
}

TEST_F(Select, timesOutWithEmptySets)
{
    const Gate gate;
    HttpStream stream;
    openGated(stream, "/gated", gate);
    Numbers numbers{100};
    timeval soon{0, 50'000};
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(HttpAccess::select(kAll, numbers.set(), nullptr, nullptr, &soon), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
    EXPECT_TRUE(numbers.list().empty());
    EXPECT_EQ(waiters(100), 0U);
}

TEST_F(Select, aSumOfNanosecondsThatCarriesIsWaitedFor)
{
    const Gate gate;
    HttpStream stream;
    openGated(stream, "/gated", gate);
    const TraceCapture trace;
    Numbers numbers{100};
    timeval almostOne{0, 999'999}; // with almost any clock reading this carries into the seconds
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(HttpAccess::select(kAll, numbers.set(), nullptr, nullptr, &almostOne), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(990));
    EXPECT_FALSE(trace.hasAnywhere("cannot wait on condvar"));
}

// --- Wake-ups ---

TEST_F(Select, returnsWhenDataArrives)
{
    Gate gate;
    HttpStream quiet;
    HttpStream stream;
    const Gate never;
    openGated(quiet, "/quiet", never);
    openGated(stream, "/gated", gate);
    const TraceCapture trace;
    auto selecting = selectAside({100, 101});
    ASSERT_TRUE(waitForWaiters(100, 1));
    ASSERT_TRUE(waitForWaiters(101, 1));
    gate.open();
    EXPECT_EQ(selecting.get(), std::make_pair(1, List{101}));
    EXPECT_TRUE(trace.has("mdchHttpCurl_writeCallback(): wakeup select...\n"));
    EXPECT_EQ(waiters(100), 0U);
    EXPECT_EQ(waiters(101), 0U);
    EXPECT_EQ(stream.readAll(), "x");
}

TEST_F(Select, returnsWhenAStreamIsClosed)
{
    const Gate gate;
    HttpStream stream;
    HttpStream other;
    openGated(stream, "/gated", gate);
    openGated(other, "/other", gate);
    const TraceCapture trace;
    auto selecting = selectAside({100, 101});
    ASSERT_TRUE(waitForWaiters(101, 1));
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(selecting.get(), std::make_pair(1, List{100}));
    EXPECT_TRUE(trace.has("close(): wakeup select...\n"));
}

TEST_F(Select, returnsWhenTheTransferEnds)
{
    Gate gate;
    m_server.on("/", Reply().contentLength(5).closeConnection().wait(At::body(), gate).keepOpen());
    HttpStream stream;
    stream.start(m_server.url("/"));
    ASSERT_EQ(stream.getResponseCode(), 200);
    auto selecting = selectAside({100});
    ASSERT_TRUE(waitForWaiters(100, 1));
    m_server.dropConnections();
    EXPECT_EQ(selecting.get(), std::make_pair(1, List{100}));
    EXPECT_EQ(stream.readSome(5), "");
    EXPECT_EQ(stream.error(), 153);
}

TEST_F(Select, wakesEveryThreadThatWaitsOnAStream)
{
    Gate gate;
    HttpStream stream;
    openGated(stream, "/gated", gate);
    constexpr std::size_t kThreads = 8;
    std::vector<std::future<std::pair<int, List>>> threads;
    for (std::size_t i = 0; i < kThreads; ++i) {
        threads.push_back(selectAside({100}));
    }
    ASSERT_TRUE(waitForWaiters(100, kThreads)) << "each has its own record in the queue";
    gate.open();
    for (auto& thread : threads) {
        EXPECT_EQ(thread.get(), std::make_pair(1, List{100}));
    }
    EXPECT_EQ(waiters(100), 0U);
}

TEST_F(Select, aWakeUpWithoutABitWaitsAgain)
{
    Gate gate;
    HttpStream stream;
    openGated(stream, "/gated", gate);
    auto selecting = selectAside({100});
    ASSERT_TRUE(waitForWaiters(100, 1));
    for (int i = 0; i < 100; ++i) {
        inspect(100, [](auto& desc) {
            for (md::MdchHttpSelect_struct* waiter : desc.selectWaiters) {
                const MdpLock lock(waiter->mutex, md::kSelectWaiterLock);
                pthread_cond_broadcast(&waiter->cond);
            }
            return 0;
        });
    }
    EXPECT_EQ(waiters(100), 1U);
    EXPECT_EQ(selecting.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    gate.open();
    EXPECT_EQ(selecting.get(), std::make_pair(1, List{100}));
}

// A bit that is set before the thread begins to wait: the descriptor's lock holds it back between the two.
TEST_F(Select, aBitSetBetweenJoiningAndWaitingIsNotMissed)
{
    Gate gate;
    HttpStream first;
    HttpStream second;
    openGated(first, "/first", gate);
    openGated(second, "/second", gate);
    const auto desc = mdchHttpCurl_getContext(100);
    const auto held = mdchHttpCurl_getContext(101);
    for (int round = 0; round < 50; ++round) {
        pthread_mutex_lock(&held->mutex);
        auto selecting = selectAside({100, 101}); // joins the first's queue, then stands at the second's lock
        const bool woken = waitUntil([&desc] {
            const MdpLock lock = md::lockDescriptor(*desc);
            const bool joined = !desc->selectWaiters.empty();
            mdchHttpCurl_wakeSelectWaiters(*desc, "test");
            return joined;
        });
        pthread_mutex_unlock(&held->mutex);
        ASSERT_TRUE(woken);
        ASSERT_EQ(selecting.wait_for(support::defaultDeadline), std::future_status::ready)
            << "round " << round;
        EXPECT_EQ(selecting.get(), std::make_pair(1, List{100}));
    }
    gate.open();
}

TEST_F(Select, servesAReaderOfManyStreams)
{
    constexpr int kStreams = 20;
    m_server.on("/", Reply::resource(support::Media(3), 300'000).pieces(7000));
    std::vector<std::unique_ptr<HttpStream>> streams;
    std::vector<std::string> received(kStreams);
    Numbers open;
    for (int i = 0; i < kStreams; ++i) {
        streams.push_back(std::make_unique<HttpStream>());
        streams.back()->start(m_server.url("/"));
        streams.back()->fcntl(MDCH_FCNTL_NONBLOCKING);
        FD_SET(100 + i, open.set());
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!open.list().empty() && std::chrono::steady_clock::now() < deadline) {
        Numbers ready = open;
        timeval limit{10, 0};
        ASSERT_GT(HttpAccess::select(100 + kStreams, ready.set(), nullptr, nullptr, &limit), 0);
        for (const int number : ready.list()) {
            const auto index = static_cast<std::size_t>(number - 100);
            received[index] += streams[index]->readSome(20'000);
            if (streams[index]->eof() == 1) {
                FD_CLR(number, open.set());
            }
        }
    }
    for (const std::string& bytes : received) {
        EXPECT_EQ(bytes.size(), 300'000U);
        EXPECT_TRUE(support::Media(3).matches(0, bytes));
    }
}

} // namespace
