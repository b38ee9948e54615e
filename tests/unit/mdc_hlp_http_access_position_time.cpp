// md::HttpAccess: time seeks, and seeks that fail or take too long.

#include "support/engine.h"
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/sockets.h"
#include "support/trace_capture.h"

#include <chrono>
#include <future>
#include <gtest/gtest.h>

namespace {

using support::At;
using support::Gate;
using support::HttpServer;
using support::HttpStream;
using support::inspect;
using support::Media;
using support::Reply;
using support::Request;
using support::TraceCapture;
using support::waitForDescriptor;

const Media kMedia(27);
constexpr long long kSize = 1'200'000;
constexpr std::uint64_t kBytesPerSecond = 1000;

class SeekTime : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;

    static Reply film(const char* operations = "DLNA.ORG_OP=11")
    {
        return Reply::timeSeekResource(kMedia, kSize, kBytesPerSecond).contentFeatures(operations);
    }

    void open(HttpStream& stream, const std::string& path = "/") const
    {
        stream.start(m_server.url(path));
        EXPECT_EQ(stream.getResponseCode(), 200);
    }

    // Waits until the stream's thread waits for the answer to its seek, whose traces are in trace.
    static bool waitsIn(const TraceCapture& trace, const std::string& text)
    {
        return trace.waitFor("internalSeek(): wait for data in seek to " + text + "\n");
    }
};

TEST_F(SeekTime, movesToWhereTheServerSays)
{
    m_server.on("/", film());
    HttpStream stream;
    open(stream);
    const TraceCapture trace;
    EXPECT_EQ(stream.seekTime(83500), 0);
    EXPECT_EQ(stream.tell(), 83500);
    EXPECT_EQ(stream.readSome(100), kMedia.bytes(83500, 100));
    EXPECT_EQ(stream.size(), kSize);
    EXPECT_EQ(m_server.requests().at(1).header("TimeSeekRange.dlna.org"), "npt=83.500-");
    EXPECT_EQ(trace.count("seekTime(): got time seek request on fd 100 to 83500 ms\n"), 1U);
    EXPECT_EQ(trace.count("seekTime(): wait for data in time seek to 83500 on 100\n"), 1U);
    EXPECT_EQ(trace.count("seekTime(): reconnected in time seek to 83500 on 100\n"), 1U);
    EXPECT_EQ(trace.severityOf("seekTime(): got time seek request on fd 100 to 83500 ms\n"), 5000U);
}

TEST_F(SeekTime, movesToWhereTheServerSaysBeyond4GiB)
{
    constexpr std::uint64_t kLarge = 6'000'000'000;
    m_server.on("/", Reply::timeSeekResource(kMedia, kLarge, 1'000'000).contentFeatures("DLNA.ORG_OP=11"));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seekTime(5'500'000), 0);
    EXPECT_EQ(stream.tell(), 5'500'000'000);
    EXPECT_EQ(stream.readSome(100), kMedia.bytes(5'500'000'000, 100));
    EXPECT_EQ(stream.tell(), 5'500'000'100);
    EXPECT_EQ(stream.size(), static_cast<long long>(kLarge));
}

TEST_F(SeekTime, canBeFollowedByByteSeeksAndMoreTimeSeeks)
{
    m_server.on("/", film());
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seekTime(5050), 0); // a server reads "5.50" as 5.5 s
    EXPECT_EQ(stream.tell(), 5500);
    EXPECT_EQ(stream.seek(100, 0), 0);
    EXPECT_EQ(stream.readSome(10), kMedia.bytes(100, 10));
    EXPECT_EQ(stream.seekTime(7000), 0);
    EXPECT_EQ(stream.readSome(10), kMedia.bytes(7000, 10));
    EXPECT_EQ(stream.seek(-10, 2), 0);
    EXPECT_EQ(stream.readAll(), kMedia.bytes(kSize - 10, 10));
    EXPECT_EQ(m_server.requests().back().header("Range"), "bytes=1199990-");
    EXPECT_FALSE(m_server.requests().back().hasHeader("TimeSeekRange.dlna.org"));
}

TEST_F(SeekTime, thenAShortWayForwardIsTakenInsideTheBuffer)
{
    m_server.on("/", film());
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seekTime(5000), 0);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.ringBuffer.usedBytes() > 50'000; }));
    EXPECT_EQ(stream.seek(50'000, 0), 0);
    EXPECT_EQ(stream.readSome(10), kMedia.bytes(50'000, 10));
    EXPECT_EQ(m_server.requests().size(), 2U);
}

TEST_F(SeekTime, isRefusedWithError29WithoutTheCapability)
{
    m_server.on("/", film("DLNA.ORG_OP=01"));
    HttpStream stream;
    open(stream);
    // Data that arrives would clear the error.
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.paused != 0; }));
    const TraceCapture trace;
    EXPECT_EQ(stream.seekTime(1000), -29);
    EXPECT_EQ(stream.error(), 29);
    EXPECT_EQ(trace.count("seekTime(): time seek not allowed in stream (fd: 100)\n"), 1U);
    EXPECT_EQ(trace.severityOf("seekTime(): time seek not allowed in stream (fd: 100)\n"), 3000U);
    stream.clearerr();
    EXPECT_EQ(stream.readSome(10), kMedia.bytes(0, 10));
    EXPECT_EQ(m_server.requests().size(), 1U);
}

TEST_F(SeekTime, thatTheServerRefusesKeepsItsError)
{
    m_server.on("/", [](const Request& request) {
        return request.hasHeader("TimeSeekRange.dlna.org") ? Reply::error(406) : film();
    });
    HttpStream stream;
    open(stream);
    const TraceCapture trace;
    EXPECT_EQ(stream.seekTime(1000), -29);
    EXPECT_EQ(stream.error(), 2) << "as the response set it";
    EXPECT_EQ(trace.count("seekTime(): error during seek on fd 100\n"), 1U);
    EXPECT_EQ(trace.severityOf("seekTime(): error during seek on fd 100\n"), 3000U);
}

TEST_F(SeekTime, giveTheHeaderWaitsResultWithoutAHeader)
{
    m_server.on("/", Reply::silence());
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 0);
    stream.start(m_server.url("/"));
    EXPECT_EQ(stream.seekTime(0), -14);
    EXPECT_EQ(stream.seek(0, 0), -14);
    stream.fcntl(MDCH_FCNTL_NONBLOCKING);
    EXPECT_EQ(stream.seekTime(0), -11);
    EXPECT_EQ(stream.seek(0, 0), -11);
}

// --- Byte seeks that fail ---

TEST_F(SeekTime, aByteSeekThatTheServerRefusesKeepsItsError)
{
    m_server.on(
        "/", [](const Request& request) { return request.hasHeader("Range") ? Reply::error(503) : film(); });
    HttpStream stream;
    open(stream);
    const TraceCapture trace;
    EXPECT_EQ(stream.seek(-20, 2), -29);
    EXPECT_EQ(stream.error(), 22);
    EXPECT_EQ(trace.count("internalSeek(): error during seek on fd 100\n"), 1U);
}

TEST_F(SeekTime, aByteSeekWhoseConnectionIsRefusedFailsAtOnce)
{
    m_server.on("/", film());
    HttpStream stream;
    open(stream);
    m_server.stopListening();
    EXPECT_EQ(stream.readSome(10).size(), 10U);
    EXPECT_EQ(stream.seek(0, 0), -29);
    EXPECT_EQ(stream.error(), 152);
    EXPECT_EQ(stream.readSome(10), "");
    m_server.listenAgain();
    EXPECT_EQ(stream.seek(5, 0), 0);
    EXPECT_EQ(stream.readSome(10), kMedia.bytes(5, 10));
    EXPECT_EQ(stream.error(), 0);
}

// The one test that waits: no seek waits longer than 10 s, and none gives up earlier.
TEST_F(SeekTime, aServerThatStallsIsWaitedForTenSeconds)
{
    m_server.on("/", [](const Request& request) {
        const bool again = request.hasHeader("Range") || request.hasHeader("TimeSeekRange.dlna.org");
        return again ? Reply::silence() : film();
    });
    HttpStream bytes;
    HttpStream time;
    open(bytes);
    open(time);
    const TraceCapture trace;
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    auto timed = std::async(std::launch::async, [&time] { return time.seekTime(1000); });
    EXPECT_EQ(bytes.seek(-10, 2), -29);
    EXPECT_EQ(timed.get(), -29);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(9900));
    for (HttpStream* stream : {&bytes, &time}) {
        inspect(stream->number(), [](auto& desc) {
            EXPECT_EQ(desc.error, 29);
            EXPECT_EQ(desc.done, 0);
            return 0;
        });
    }
    EXPECT_EQ(trace.count("internalSeek(): seek timed out on fd 100\n"), 1U);
    EXPECT_EQ(trace.count("seekTime(): seek timed out on fd 101\n"), 1U);
    EXPECT_EQ(trace.severityOf("internalSeek(): seek timed out on fd 100\n"), 3000U);
}

// --- Seeks that are overtaken ---

TEST_F(SeekTime, aSeekThatWaitsReturnsWhenItsStreamIsClosed)
{
    m_server.on(
        "/", [](const Request& request) { return request.hasHeader("Range") ? Reply::silence() : film(); });
    HttpStream stream;
    open(stream);
    const TraceCapture trace;
    auto seek = std::async(std::launch::async, [&stream] { return stream.seek(-10, 2); });
    ASSERT_TRUE(waitsIn(trace, "1199990 on 100"));
    EXPECT_EQ(stream.close(), 0);
    ASSERT_EQ(seek.wait_for(std::chrono::seconds(5)), std::future_status::ready) << "not after 10 s";
    EXPECT_EQ(seek.get(), -29);
}

TEST_F(SeekTime, aSeekThatWaitsReturnsAtAShutdown)
{
    m_server.on(
        "/", [](const Request& request) { return request.hasHeader("Range") ? Reply::silence() : film(); });
    HttpStream stream;
    open(stream);
    const TraceCapture trace;
    auto seek = std::async(std::launch::async, [&stream] { return stream.seek(-10, 2); });
    ASSERT_TRUE(waitsIn(trace, "1199990 on 100"));
    md::HttpAccess::shutdown();
    ASSERT_EQ(seek.wait_for(std::chrono::seconds(5)), std::future_status::ready) << "not after 10 s";
    EXPECT_EQ(seek.get(), -29);
}

// The transfer is closed between the look at it and the restart: nobody comes back to a header of it.
TEST_F(SeekTime, aSeekOnATransferThatHasJustBeenClosedDoesNotWait)
{
    m_server.on("/", film());
    HttpStream stream;
    open(stream);
    mdchHttpCurl_endForReaders(*mdchHttpCurl_getContext(100), "close"); // the stream does not know yet
    const auto start = std::chrono::steady_clock::now();
    EXPECT_LE(stream.seek(50, 0), 0);
    EXPECT_LE(stream.seekTime(50), 0);
    EXPECT_LE(stream.size(), kSize);
    stream.pause();
    stream.resume();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
    EXPECT_EQ(m_server.requests().size(), 1U);
}

} // namespace
