// The worker's loop, seen through streams on a scripted server.

#include "support/engine.h"
#include "support/http_server.h"
#include "support/sockets.h"
#include "support/trace_capture.h"

#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using md::HttpAccess;
using support::At;
using support::Gate;
using support::HttpServer;
using support::inspect;
using support::Media;
using support::Reply;
using support::TraceCapture;
using support::waitForDescriptor;
using support::waitUntil;

constexpr const char* kPrefix = "mdc_hlp_http_curl_worker.cpp:#:mdchHttpCurl_fillBuffer(): ";
const Media kMedia(11);
constexpr std::uint64_t kMegabyte = 1U << 20U;

std::string at(const std::string& text)
{
    return kPrefix + text;
}

class Worker : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;

    int open(HttpAccess& stream, const std::string& path) const
    {
        return stream.open(m_server.url(path).c_str(), 0);
    }

    // Makes the worker look at all transfers, and waits for a pass that began after that.
    static void look()
    {
        const std::uint64_t before = mdchHttpCurl_passCount();
        ASSERT_TRUE(waitUntil([before] {
            mdchHttpCurl_wakeupWorkerThread();
            return mdchHttpCurl_passCount() >= before + 3;
        }));
    }

    // As if no data had come for that long.
    static void setIdle(int number, time_t seconds)
    {
        inspect(number, [seconds](md::MdchCurlDescriptor_struct& desc) {
            desc.lastDataTime = time(nullptr) - seconds;
            return 0;
        });
        look();
    }
};

TEST_F(Worker, tracesItsStartAndItsEnd)
{
    TraceCapture trace;
    {
        const HttpAccess stream;
        EXPECT_TRUE(trace.waitFor(at("Start curl thread\n")));
    }
    HttpAccess::shutdown();
    EXPECT_EQ(trace.count(at("Finish curl thread\n")), 1U);
    EXPECT_EQ(trace.severityOf(at("Start curl thread\n")), 4000U);
}

TEST_F(Worker, startsRunsReportsAndFinalisesATransfer)
{
    m_server.on("/", Reply().body("hello"));
    TraceCapture trace;
    HttpAccess stream;
    ASSERT_EQ(open(stream, "/"), 100);
    EXPECT_EQ(support::readAll(stream), "hello");
    EXPECT_EQ(inspect(100, [](auto& desc) { return desc.state; }), md::kStateRunning);
    EXPECT_EQ(inspect(100, [](auto& desc) { return desc.inMulti; }), 1);
    EXPECT_EQ(stream.close(), 0);
    EXPECT_TRUE(support::waitForEmptyRegistry());
    EXPECT_TRUE(trace.waitFor(at("connection is finalized on fd 100.\n")));

    std::vector<std::string> story;
    for (const std::string& text : trace.texts()) {
        const std::string line = TraceCapture::withoutLineNumber(text);
        if (line.find("fillBuffer") != std::string::npos && line.find("wakeup") == std::string::npos) {
            story.push_back(line);
        }
    }
    const std::vector<std::string> expected = {
        at("Start curl thread\n"),
        at("Start MultiHandle on fd 100.\n"),
        "mdchHttpCurl_fillBuffer(): data transfer done on fd 100. msg=1 result=0\n",
        at("Before cleanup of fd 100.\n"),
        at("After cleanup of fd 100.\n"),
        at("connection is finalized on fd 100.\n"),
    };
    EXPECT_EQ(story, expected);
}

TEST_F(Worker, finalisesAStreamThatWasNeverOpened)
{
    TraceCapture trace;
    {
        HttpAccess stream;
        EXPECT_EQ(stream.close(), 0);
    }
    EXPECT_TRUE(trace.waitFor(at("connection is finalized on fd 100.\n")));
    EXPECT_FALSE(trace.hasAnywhere("Before cleanup")) << "there was nothing to clean up";
    EXPECT_TRUE(support::waitForEmptyRegistry());
}

TEST_F(Worker, tracesThatAWakeupEndedItsSleep)
{
    TraceCapture trace;
    const HttpAccess stream;
    ASSERT_TRUE(trace.waitFor(at("Start curl thread\n")));
    mdchHttpCurl_wakeupWorkerThread();
    EXPECT_TRUE(trace.waitFor("mdchHttpCurl_fillBuffer(): returned from wakeup select\n"));
}

TEST_F(Worker, mapsANetworkFailureAndTracesIt)
{
    const support::LoopbackPort closed = support::closedPort();
    TraceCapture trace;
    HttpAccess stream;
    stream.open(("http://127.0.0.1:" + std::to_string(closed.port()) + "/").c_str(), 0);
    EXPECT_EQ(stream.error(), 152);
    EXPECT_EQ(stream.eof(), 1);
    EXPECT_TRUE(trace.waitFor("mdchHttpCurl_fillBuffer(): data transfer done on fd 100. msg=1 result=7\n"));
    EXPECT_TRUE(trace.waitFor("MDCH_HTTP_ENETWORK for fd 100\n"));
    EXPECT_TRUE(trace.waitFor("mdchHttpCurl_fillBuffer(): received error on fd 100 (7=>152)\n"));
    EXPECT_EQ(trace.severityOf("mdchHttpCurl_fillBuffer(): received error on fd 100 (7=>152)\n"), 3000U);
}

TEST_F(Worker, keepsTheErrorThatTheHeaderSet)
{
    m_server.on("/", Reply::error(404));
    TraceCapture trace;
    HttpAccess stream;
    open(stream, "/");
    EXPECT_EQ(stream.error(), 2);
    EXPECT_TRUE(trace.waitFor("mdchHttpCurl_fillBuffer(): already done with error on fd 100: 2\n"));
    EXPECT_EQ(stream.error(), 2);
}

TEST_F(Worker, reportsABodyThatEndsEarlyAsBrokenOff)
{
    m_server.on("/", Reply().body("hello").contentLength(9));
    HttpAccess stream;
    open(stream, "/");
    EXPECT_EQ(support::readSome(stream, 9), "hello");
    EXPECT_EQ(stream.error(), 153);
    EXPECT_EQ(stream.eof(), 1);
    EXPECT_EQ(stream.size(), 9);
}

TEST_F(Worker, pausesOnAFullBufferAndContinuesAsTheReaderDrainsIt)
{
    m_server.on("/", Reply::resource(kMedia, 4 * kMegabyte));
    TraceCapture trace;
    HttpAccess stream;
    open(stream, "/");
    EXPECT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.paused != 0; }));
    EXPECT_TRUE(trace.has("mdchHttpCurl_writeCallback(): pause connection on fd 100\n"));
    EXPECT_EQ(inspect(100, [](auto& desc) { return desc.state; }), md::kStatePaused);
    const std::string all = support::readAll(stream);
    EXPECT_EQ(all.size(), 4 * kMegabyte);
    EXPECT_TRUE(kMedia.matches(0, all));
    EXPECT_TRUE(trace.has(at("continue fd 100.\n")));
    EXPECT_EQ(m_server.requests().size(), 1U);
}

TEST_F(Worker, closesASeekableStreamAfter20SecondsOfPauseWithPauseBuffering)
{
    m_server.on("/", Reply::resource(kMedia, 4 * kMegabyte));
    TraceCapture trace;
    HttpAccess stream;
    stream.fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
    open(stream, "/");
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.paused != 0; }));
    setIdle(100, 20);
    EXPECT_FALSE(inspect(100, [](auto& desc) { return desc.closedInPause; })) << "not before more than 20 s";
    setIdle(100, 22);
    EXPECT_TRUE(trace.waitFor(at("close (in pause) fd 100.\n")));
    EXPECT_TRUE(inspect(100, [](auto& desc) { return desc.closedInPause && desc.inMulti == 0; }));
    EXPECT_TRUE(m_server.waitForOpenConnections(0));
    setIdle(100, 400);
    EXPECT_EQ(trace.count(at("close (in pause) fd 100.\n")), 1U);
    EXPECT_FALSE(trace.hasAnywhere("continue (in pause)"))
        << "a seekable stream is never continued by the worker";
    const std::string all = support::readAll(stream);
    EXPECT_EQ(all.size(), 4 * kMegabyte);
    EXPECT_TRUE(kMedia.matches(0, all));
    EXPECT_EQ(m_server.requests().size(), 2U);
}

TEST_F(Worker, letsAStreamThatCannotSeekFlowAfter320SecondsOfPause)
{
    m_server.on("/", Reply().closeDelimited().body(kMedia, 4 * kMegabyte));
    TraceCapture trace;
    HttpAccess stream;
    stream.fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
    open(stream, "/");
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.paused != 0; }));
    setIdle(100, 320);
    EXPECT_FALSE(trace.hasAnywhere("(in pause)")) << "not before more than 320 s";
    setIdle(100, 322);
    EXPECT_TRUE(trace.waitFor(at("continue (in pause) fd 100.\n")));
    EXPECT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.backBuffer.usedBytes() > 0; }));
    EXPECT_EQ(inspect(100, [](auto& desc) { return desc.state; }), md::kStatePaused) << "still held";
    const std::string all = support::readAll(stream);
    EXPECT_EQ(all.size(), 4 * kMegabyte);
    EXPECT_TRUE(kMedia.matches(0, all));
    EXPECT_EQ(m_server.connectionCount(), 1U);
}

// Nobody wakes the worker for that.
TEST_F(Worker, looksAtAllTransfersWithEachBeat)
{
    m_server.on("/", Reply::resource(kMedia, 4 * kMegabyte));
    TraceCapture trace;
    HttpAccess stream;
    stream.fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
    open(stream, "/");
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.paused != 0; }));
    inspect(100, [](auto& desc) { return desc.lastDataTime = time(nullptr) - 22; });
    EXPECT_TRUE(trace.waitFor(at("close (in pause) fd 100.\n")));
}

// More of them than a wake-up notes.
TEST_F(Worker, startsContinuesAndFinalisesAllThatChangeAtATime)
{
    m_server.on("/", Reply::resource(kMedia, kMegabyte));
    constexpr std::size_t kCount = 70;
    std::vector<std::unique_ptr<HttpAccess>> streams(kCount);
    for (auto& stream : streams) {
        stream = std::make_unique<HttpAccess>();
    }
    md::HttpEngine& engine = md::httpEngine();
    {
        const MdpFairLock lock(engine.mutex); // the worker waits
        for (const auto& stream : streams) {
            open(*stream, "/");
        }
    }
    for (const auto& stream : streams) {
        EXPECT_TRUE(kMedia.matches(0, support::readAll(*stream)));
    }
    {
        const MdpFairLock lock(engine.mutex);
        for (const auto& stream : streams) {
            EXPECT_EQ(stream->close(), 0);
        }
        EXPECT_GE(support::registeredCount(), kCount);
    }
    EXPECT_TRUE(support::waitForEmptyRegistry());
}

TEST_F(Worker, leavesAPausedStreamWithoutPauseBufferingAlone)
{
    m_server.on("/", Reply::resource(kMedia, 4 * kMegabyte));
    TraceCapture trace;
    HttpAccess stream;
    open(stream, "/");
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.paused != 0; }));
    setIdle(100, 1000);
    EXPECT_FALSE(trace.hasAnywhere("(in pause)"));
    EXPECT_EQ(m_server.openConnections(), 1U);
}

// --- It rests when there is nothing to do ---

TEST_F(Worker, restsWithoutTransfers)
{
    const HttpAccess stream;
    EXPECT_TRUE(support::workerRests());
}

TEST_F(Worker, restsWhileATransferIsPaused)
{
    m_server.on("/", Reply::endless());
    HttpAccess stream;
    open(stream, "/");
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.paused != 0; }));
    EXPECT_TRUE(support::workerRests());
}

TEST_F(Worker, restsWhileAPausedTransfersServerHasGone)
{
    m_server.on("/", Reply::endless());
    HttpAccess stream;
    open(stream, "/");
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.paused != 0; }));
    m_server.resetConnections();
    EXPECT_TRUE(m_server.waitForOpenConnections(0));
    EXPECT_TRUE(support::workerRests());
}

TEST_F(Worker, restsWhileAFinishedTransferIsStillOpen)
{
    m_server.on("/", Reply().body("hello"));
    HttpAccess stream;
    open(stream, "/");
    EXPECT_EQ(support::readAll(stream), "hello");
    EXPECT_TRUE(support::workerRests());
    m_server.dropConnections();
    EXPECT_TRUE(support::workerRests());
}

TEST_F(Worker, restsWhileAServerStalls)
{
    m_server.on("/", Reply::silence());
    HttpAccess stream;
    open(stream, "/");
    ASSERT_TRUE(m_server.waitForRequests(1));
    EXPECT_TRUE(support::workerRests());
}

// --- Hard conditions ---

TEST_F(Worker, sleepsAndPollsWithoutAPipe)
{
    TraceCapture trace;
    HttpAccess stream;
    {
        md::HttpEngine& engine = md::httpEngine();
        const MdpLock lock(engine.wakeupMutex);
        engine.wakeupPipe.reset();
    }
    m_server.on("/", Reply().body("hello"));
    stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 40);
    open(stream, "/");
    EXPECT_EQ(support::readAll(stream), "hello");
    EXPECT_TRUE(trace.waitFor("mdchHttpCurl_fillBuffer(): returned from sleep\n"));
}

TEST_F(Worker, worksInAProcessWithThousandsOfOpenDescriptors)
{
    constexpr rlim_t kWanted = 5100;
    rlimit former{};
    getrlimit(RLIMIT_NOFILE, &former);
    const rlimit raised{std::max(former.rlim_cur, kWanted), std::max(former.rlim_max, kWanted)};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0) << "the hard limit of open files is below " << kWanted;
    std::vector<support::UniqueFd> many;
    int highest = 0;
    while (highest < 5000) {
        highest = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ASSERT_GE(highest, 0);
        many.emplace_back(highest);
    }
    m_server.on("/", Reply::resource(kMedia, kMegabyte));
    {
        HttpAccess stream;
        open(stream, "/");
        EXPECT_TRUE(kMedia.matches(0, support::readAll(stream)));
        EXPECT_EQ(stream.tell(), static_cast<long long>(kMegabyte));
        EXPECT_EQ(stream.error(), 0);
    }
    EXPECT_TRUE(support::waitForEmptyRegistry());
}

TEST_F(Worker, leavesNoSocketToAProgramThatIsExecuted)
{
    m_server.on("/", Reply::endless());
    HttpAccess stream;
    open(stream, "/");
    ASSERT_EQ(support::readSome(stream, 10).size(), 10U);
    int connections = 0;
    constexpr int kHighest = 1024;
    for (int descriptor = 3; descriptor < kHighest; ++descriptor) {
        sockaddr_in peer{};
        socklen_t size = sizeof(peer);
        if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
            peer.sin_family == AF_INET && ntohs(peer.sin_port) == m_server.port()) {
            ++connections;
            EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
        }
    }
    EXPECT_EQ(connections, 1);
}

} // namespace
