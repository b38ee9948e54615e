// md::HttpAccess: open, read, close.

#include "mdc_hlp_http_access.h"

#include "mdc_hlp_http_access_impl.h"
#include "support/engine.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <thread>

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

const Media kMedia(12);
constexpr std::uint64_t kMegabyte = 1U << 20U;

class HttpStream : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;

    int open(HttpAccess& stream, const std::string& path) const
    {
        return stream.open(m_server.url(path).c_str(), 0);
    }
};

// --- Singleton and numbers ---

TEST_F(HttpStream, makesTheSingletonWithTheFirstStream)
{
    EXPECT_EQ(HttpAccess::m_impl.load(), nullptr);
    {
        const HttpAccess stream;
        EXPECT_NE(HttpAccess::m_impl.load(), nullptr);
    }
    EXPECT_NE(HttpAccess::m_impl.load(), nullptr) << "it outlives the stream";
    EXPECT_EQ(HttpAccess::shutdown(), 0);
    EXPECT_EQ(HttpAccess::m_impl.load(), nullptr);
    EXPECT_EQ(HttpAccess::shutdown(), 0) << "harmless without an engine";
}

TEST_F(HttpStream, numbersFrom100AndNeverReusesANumber)
{
    m_server.on("/", Reply().body("x"));
    TraceCapture trace;
    HttpAccess first;
    HttpAccess second;
    EXPECT_TRUE(trace.has("create(): inserted descriptor for fd 100\n"));
    EXPECT_TRUE(trace.has("create(): inserted descriptor for fd 101\n"));
    EXPECT_EQ(open(first, "/"), 100);
    EXPECT_EQ(open(second, "/"), 101);
    EXPECT_EQ(first.close(), 0);
    EXPECT_EQ(open(first, "/"), 102) << "a closed stream opens under a new number";
    EXPECT_EQ(support::readAll(first), "x");
}

TEST_F(HttpStream, startsOverAt100AfterAShutdown)
{
    {
        const HttpAccess stream;
    }
    HttpAccess::shutdown();
    m_server.on("/", Reply().body("x"));
    HttpAccess stream;
    EXPECT_EQ(open(stream, "/"), 100);
    EXPECT_EQ(support::readAll(stream), "x");
}

TEST_F(HttpStream, handsUserAgentAndHeadToItsDescriptor)
{
    m_server.on("/", Reply().body("body"));
    HttpAccess stream("Agent/1", true);
    open(stream, "/");
    EXPECT_EQ(stream.size(), 4);
    EXPECT_EQ(support::readAll(stream), "");
    EXPECT_EQ(stream.eof(), 1);
    stream.close();
    open(stream, "/");
    EXPECT_EQ(support::readAll(stream), "body") << "only the first open asks with HEAD";
    const auto requests = m_server.requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(requests[0].method, "HEAD");
    EXPECT_EQ(requests[1].method, "GET");
    EXPECT_EQ(requests[0].header("User-Agent"), "Agent/1");
    EXPECT_EQ(requests[1].header("User-Agent"), "Agent/1");
}

// --- Open ---

TEST_F(HttpStream, openDoesNotWaitForTheServer)
{
    m_server.on("/", Reply::silence());
    TraceCapture trace;
    HttpAccess stream;
    EXPECT_EQ(open(stream, "/"), 100);
    EXPECT_EQ(trace.count("open(): try to open url " + m_server.url("/") + "\n"), 1U);
    EXPECT_TRUE(m_server.waitForRequests(1));
    EXPECT_EQ(inspect(100, [](auto& desc) { return desc.headerComplete; }), 0);
}

TEST_F(HttpStream, openRefusesANullOrEmptyUrl)
{
    HttpAccess stream;
    EXPECT_EQ(stream.open(nullptr, 0), -EINVAL);
    EXPECT_EQ(stream.open("", 0), -EINVAL);
    EXPECT_EQ(stream.open("", "body", 4, 0), -EINVAL);
    EXPECT_EQ(stream.open(m_server.url("/").c_str(), nullptr, 0, -1), -EINVAL) << "a negative start position";
    EXPECT_EQ(m_server.connectionCount(), 0U);
}

TEST_F(HttpStream, aStreamThatWasNotOpenedHasNoUrlToWaitFor)
{
    TraceCapture trace;
    HttpAccess stream;
    unsigned char byte = 0;
    EXPECT_EQ(stream.read(&byte, 1), 0);
    EXPECT_EQ(trace.count("waitForHeader(): no url specified on fd 100\n"), 1U);
    EXPECT_EQ(stream.eof(), 0);
    EXPECT_EQ(stream.error(), 0);
    EXPECT_EQ(stream.tell(), 0);
    EXPECT_EQ(stream.size(), -EAGAIN);
}

TEST_F(HttpStream, aSecondOpenOnAnOpenStreamStartsClean)
{
    const Media other(99);
    m_server.on("/first", Reply::resource(kMedia, 4 * kMegabyte));
    m_server.on("/second", Reply::resource(other, 3 * kMegabyte));
    HttpAccess stream;
    EXPECT_EQ(open(stream, "/first"), 100);
    EXPECT_EQ(support::readSome(stream, 5000).size(), 5000U);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.paused != 0; }));
    EXPECT_EQ(open(stream, "/second"), 100) << "the same descriptor";
    EXPECT_EQ(stream.tell(), 0);
    EXPECT_EQ(stream.size(), static_cast<long long>(3 * kMegabyte));
    const std::string all = support::readAll(stream);
    EXPECT_EQ(all.size(), 3 * kMegabyte);
    EXPECT_TRUE(other.matches(0, all));
    EXPECT_EQ(stream.error(), 0);
    EXPECT_TRUE(m_server.waitForRepliesFinished("/second", 1));
}

TEST_F(HttpStream, aSecondOpenAfterAFailureForgetsTheFailure)
{
    m_server.on("/bad", Reply::error(500));
    m_server.on("/good", Reply().body("fine"));
    HttpAccess stream;
    open(stream, "/bad");
    EXPECT_EQ(stream.error(), 22);
    open(stream, "/good");
    EXPECT_EQ(support::readAll(stream), "fine");
    EXPECT_EQ(stream.error(), 0);
}

TEST_F(HttpStream, openWithABodySendsAPostWithItsOwnCopy)
{
    m_server.on("/", Reply().body("answer"));
    HttpAccess stream;
    {
        std::string body = "question";
        stream.open(m_server.url("/").c_str(), body.data(), static_cast<unsigned int>(body.size()), 0);
        body.assign(body.size(), '!');
    }
    EXPECT_EQ(support::readAll(stream), "answer");
    EXPECT_EQ(m_server.requests().at(0).method, "POST");
    EXPECT_EQ(m_server.requests().at(0).body, "question");
}

// --- Waiting for the header ---

TEST_F(HttpStream, headerTimeoutGivesError14)
{
    m_server.on("/", Reply::silence());
    TraceCapture trace;
    HttpAccess stream;
    stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 1);
    open(stream, "/");
    unsigned char byte = 0;
    EXPECT_EQ(stream.read(&byte, 1), 0);
    EXPECT_EQ(trace.count("waitForHeader(): wait for header on fd 100\n"), 1U);
    EXPECT_EQ(trace.count("waitForHeader(): wait for header fd 100 timed out\n"), 1U);
    stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 0);
    EXPECT_EQ(stream.error(), 14);
    EXPECT_EQ(stream.eof(), 0);
    EXPECT_EQ(stream.getResponseCode(), -EFAULT);
}

// Each wake-up that does not complete the header extends the deadline: a transfer that signals is alive.
TEST_F(HttpStream, headerWaitGoesOnWhileTheTransferSignals)
{
    const Gate gate;
    m_server.on("/", Reply().interim(100).wait(At::start(), gate).body("late"));
    TraceCapture trace;
    HttpAccess stream;
    open(stream, "/");
    auto answer = std::async(std::launch::async, [&stream] { return support::readAll(stream); });
    ASSERT_TRUE(
        waitUntil([&trace] { return trace.count("waitForHeader(): wait for header on fd 100\n") >= 1; }));
    const std::size_t before = trace.count("waitForHeader(): wait for header on fd 100\n");
    inspect(100, [](auto& desc) { return pthread_cond_broadcast(&desc.cond); });
    EXPECT_TRUE(
        waitUntil([&] { return trace.count("waitForHeader(): wait for header on fd 100\n") > before; }));
    Gate(gate).open();
    EXPECT_EQ(answer.get(), "late");
}

TEST_F(HttpStream, nonBlockingModeReportsThatThereIsNoConnectionYet)
{
    const Gate gate;
    m_server.on("/", Reply().wait(At::start(), gate).body("data"));
    TraceCapture trace;
    HttpAccess stream;
    stream.fcntl(MDCH_FCNTL_NONBLOCKING);
    open(stream, "/");
    unsigned char buffer[16];
    EXPECT_EQ(stream.read(buffer, sizeof(buffer)), 0);
    EXPECT_TRUE(trace.has("waitForHeader(): no reconnect on fd 100 up to now (done=0)\n"));
    EXPECT_EQ(stream.error(), 11);
    EXPECT_EQ(stream.getResponseCode(), -EAGAIN);
    Gate(gate).open();
    EXPECT_TRUE(waitUntil([&] { return stream.read(buffer, sizeof(buffer)) == 4; }));
    EXPECT_EQ(stream.error(), 0);
}

// --- Read ---

TEST_F(HttpStream, readDeliversEveryByteAndMovesThePosition)
{
    m_server.on("/", Reply::resource(kMedia, 100000));
    HttpAccess stream;
    open(stream, "/");
    EXPECT_EQ(stream.tell(), 0);
    const std::string first = support::readSome(stream, 1);
    EXPECT_EQ(stream.tell(), 1);
    const std::string second = support::readSome(stream, 70000);
    EXPECT_EQ(second.size(), 70000U);
    EXPECT_EQ(stream.tell(), 70001);
    const std::string rest = support::readAll(stream);
    EXPECT_TRUE(kMedia.matches(0, first + second + rest));
    EXPECT_EQ(stream.tell(), 100000);
    EXPECT_EQ(stream.error(), 0);
}

TEST_F(HttpStream, readWithoutBufferOrLengthReturnsAtOnce)
{
    m_server.on("/", Reply().body("abc").contentLength(9).stall(At::body(3)));
    HttpAccess stream;
    open(stream, "/");
    unsigned char byte = 0;
    EXPECT_EQ(stream.read(nullptr, 0), 0);
    EXPECT_EQ(stream.read(&byte, 0), 0);
    EXPECT_EQ(stream.error(), 0);
    TraceCapture trace;
    EXPECT_EQ(stream.read(nullptr, 5), 0);
    EXPECT_TRUE(trace.has("read(): cannot fill up the requested buffer on fd 100 (0<5), timeout: 330\n"));
    EXPECT_EQ(stream.error(), 11) << "a short read, even without a buffer";
}

TEST_F(HttpStream, aShortReadAfterTheDataTimeoutGivesItsBytesAndError11)
{
    m_server.on("/", Reply().body("abc").contentLength(9).stall(At::body(3)));
    TraceCapture trace;
    HttpAccess stream;
    stream.fcntl(MDCH_FCNTL_DATA_TIMEOUT, 1);
    open(stream, "/");
    EXPECT_EQ(support::readSome(stream, 9), "abc");
    EXPECT_TRUE(trace.has("read(): wait for data on fd 100 (bufSize = 0; missing = 6\n"));
    EXPECT_TRUE(trace.has("read(): wait for data TIMEDOUT on fd 100\n"));
    EXPECT_TRUE(trace.has("read(): cannot fill up the requested buffer on fd 100 (3<9), timeout: 1\n"));
    EXPECT_FALSE(trace.hasAnywhere("read 3 of 9")) << "a time-out has its own trace";
    EXPECT_EQ(stream.error(), 11);
    EXPECT_EQ(stream.eof(), 0);
    EXPECT_EQ(stream.tell(), 3);
}

TEST_F(HttpStream, nonBlockingReadGivesWhatIsBufferedAndNoError)
{
    m_server.on("/", Reply().body("abc").contentLength(9).stall(At::body(3)));
    TraceCapture trace;
    HttpAccess stream;
    open(stream, "/");
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.ringBuffer.usedBytes() == 3; }));
    stream.fcntl(MDCH_FCNTL_NONBLOCKING);
    EXPECT_EQ(support::readSome(stream, 9), "abc");
    EXPECT_EQ(support::readSome(stream, 9), "");
    EXPECT_EQ(stream.error(), 0);
    EXPECT_TRUE(trace.has("read(): read 3 of 9 bytes on fd 100\n"));
    EXPECT_FALSE(trace.hasAnywhere("cannot fill up"));
}

TEST_F(HttpStream, readsTheEndShortAndWithoutError)
{
    m_server.on("/", Reply().body("hello"));
    TraceCapture trace;
    HttpAccess stream;
    open(stream, "/");
    EXPECT_EQ(support::readSome(stream, 100), "hello");
    EXPECT_TRUE(trace.has("read(): read 5 of 100 bytes on fd 100\n"));
    EXPECT_EQ(stream.error(), 0);
    EXPECT_EQ(support::readSome(stream, 100), "");
    EXPECT_EQ(stream.error(), 0);
}

TEST_F(HttpStream, readOfAFailedTransferSaysThatItReadsFromAClosedOne)
{
    m_server.on("/", Reply::error(404));
    TraceCapture trace;
    HttpAccess stream;
    open(stream, "/");
    EXPECT_EQ(support::readSome(stream, 10), "");
    EXPECT_TRUE(trace.has("read(): reading from closed fd 100\n"));
}

TEST_F(HttpStream, resumesAPausedTransferOnceLessThan98304BytesAreBuffered)
{
    m_server.on("/", Reply::resource(kMedia, 4 * kMegabyte));
    HttpAccess stream;
    open(stream, "/");
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.paused != 0; }));
    const auto used = inspect(100, [](auto& desc) { return desc.ringBuffer.usedBytes(); });
    ASSERT_GT(used, 98304U);
    TraceCapture trace;
    std::string all = support::readSome(stream, static_cast<unsigned int>(used - 98304));
    EXPECT_FALSE(trace.has("read(): unpause fd 100\n")) << "exactly 98304 bytes are left";
    all += support::readSome(stream, 1);
    EXPECT_EQ(trace.count("read(): unpause fd 100\n"), 1U);
    all += support::readAll(stream);
    EXPECT_TRUE(kMedia.matches(0, all));
}

TEST_F(HttpStream, writesNothing)
{
    m_server.on("/", Reply().body("x"));
    HttpAccess stream;
    unsigned char byte = 'y';
    EXPECT_EQ(stream.write(&byte, 1), 0);
    open(stream, "/");
    EXPECT_EQ(stream.write(&byte, 1), 0);
}

TEST_F(HttpStream, getcGivesBytesAs0To255AndMinusOneAtTheEnd)
{
    m_server.on("/", Reply().body(std::string("\xff\x00z", 3)));
    HttpAccess stream;
    open(stream, "/");
    EXPECT_EQ(stream.getc(), 255);
    EXPECT_EQ(stream.getc(), 0);
    EXPECT_EQ(stream.getc(), 'z');
    EXPECT_EQ(stream.getc(), -1);
    stream.close();
    EXPECT_EQ(stream.getc(), -EINVAL);
}

// --- End and error ---

TEST_F(HttpStream, eofComesOnlyWhenTheBufferIsEmpty)
{
    m_server.on("/", Reply().body("hello"));
    TraceCapture trace;
    HttpAccess stream;
    open(stream, "/");
    ASSERT_TRUE(waitForDescriptor(100, [](auto& desc) { return desc.done != 0; }));
    EXPECT_EQ(stream.eof(), 0);
    EXPECT_EQ(support::readSome(stream, 5), "hello");
    EXPECT_EQ(stream.eof(), 1);
    EXPECT_TRUE(trace.has("eof(): end of file: done UsedBytes=0\n"));
}

TEST_F(HttpStream, clearerrForgetsTheError)
{
    m_server.on("/", Reply::error(404));
    HttpAccess stream;
    open(stream, "/");
    EXPECT_EQ(stream.error(), 2);
    stream.clearerr();
    EXPECT_EQ(stream.error(), 0);
    stream.close();
    stream.clearerr();
}

// --- Close ---

TEST_F(HttpStream, everyOperationOfAClosedStreamGivesMinus22)
{
    m_server.on("/", Reply().body("x"));
    HttpAccess stream;
    open(stream, "/");
    EXPECT_EQ(stream.close(), 0);
    unsigned char byte = 0;
    std::deque<std::string> lines;
    EXPECT_EQ(stream.read(&byte, 1), -22);
    EXPECT_EQ(stream.getc(), -22);
    EXPECT_EQ(stream.eof(), -22);
    EXPECT_EQ(stream.error(), -22);
    EXPECT_EQ(stream.close(), -22);
    EXPECT_EQ(stream.seek(0, 0), -22);
    EXPECT_EQ(stream.seekTime(0), -22);
    EXPECT_EQ(stream.tell(), -22);
    EXPECT_EQ(stream.size(), -22);
    EXPECT_EQ(static_cast<int>(stream.capability()), -22);
    EXPECT_EQ(stream.pause(), -22);
    EXPECT_EQ(stream.resume(), -22);
    EXPECT_EQ(stream.fcntl(0), -22);
    EXPECT_EQ(stream.getHeaderList(lines), -22);
    EXPECT_EQ(stream.getResponseCode(), -22);
    EXPECT_EQ(stream.getCookies(), "");
}

TEST_F(HttpStream, closeReleasesABlockedReader)
{
    m_server.on("/", Reply().body("abc").contentLength(9).stall(At::body(3)));
    TraceCapture trace;
    HttpAccess stream;
    open(stream, "/");
    auto reader = std::async(std::launch::async, [&stream] { return support::readSome(stream, 9); });
    ASSERT_TRUE(trace.waitFor("read(): wait for data on fd 100 (bufSize = 0; missing = 6\n"));
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(reader.get(), "abc") << "with what it has";
}

TEST_F(HttpStream, closeReleasesAThreadThatWaitsForTheHeader)
{
    m_server.on("/", Reply::silence());
    TraceCapture trace;
    HttpAccess stream;
    stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 1000);
    open(stream, "/");
    auto waiter = std::async(std::launch::async, [&stream] { return stream.error(); });
    ASSERT_TRUE(trace.waitFor("waitForHeader(): wait for header on fd 100\n"));
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(waiter.get(), 0);
}

TEST_F(HttpStream, closeOfATransferThatIsGoneGivesMinus22)
{
    HttpAccess stream;
    HttpAccess::shutdown();
    EXPECT_EQ(stream.close(), -22);
}

TEST_F(HttpStream, theDestructorClosesTheTransfer)
{
    m_server.on("/", Reply::endless());
    {
        HttpAccess stream;
        open(stream, "/");
        EXPECT_EQ(support::readSome(stream, 10).size(), 10U);
    }
    EXPECT_TRUE(support::waitForEmptyRegistry());
    EXPECT_TRUE(m_server.waitForOpenConnections(0));
}

} // namespace
