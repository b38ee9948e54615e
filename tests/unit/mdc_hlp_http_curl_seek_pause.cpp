// The engine's pause and resume: by close where the server can seek, by libcurl's pause elsewhere.

#include "support/engine.h"
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>

namespace {

using support::At;
using support::Gate;
using support::HttpServer;
using support::HttpStream;
using support::inspect;
using support::Media;
using support::Reply;
using support::TraceCapture;
using support::waitForDescriptor;

const Media kMedia(23);
constexpr std::uint64_t kSize = 3'000'000;
constexpr const char* kUnit = "mdc_hlp_http_curl_seek.cpp:#:";

std::string at(const std::string& function, const std::string& text)
{
    return kUnit + function + "(): " + text;
}

class EnginePause : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;

    md::MdchDescriptorPtr open(HttpStream& stream, const std::string& path = "/") const
    {
        stream.start(m_server.url(path));
        EXPECT_EQ(stream.getResponseCode(), 200);
        return mdchHttpCurl_getContext(stream.number());
    }

    // The same resource, from a server that cannot seek.
    static Reply fixed() { return Reply::resource(kMedia, kSize).ignoreRanges(); }

    // Reads the rest of a stream of kSize bytes and compares it.
    static void expectRest(HttpStream& stream, std::uint64_t from, std::uint64_t size = kSize)
    {
        EXPECT_EQ(stream.tell(), static_cast<long long>(from));
        const std::string rest = stream.readAll();
        EXPECT_EQ(rest.size(), size - from);
        EXPECT_EQ(kMedia.firstDifference(from, rest.data(), rest.size()), -1);
        EXPECT_EQ(stream.eof(), 1);
        EXPECT_EQ(stream.error(), 0);
        EXPECT_EQ(stream.size(), static_cast<long long>(size));
    }

    // Waits until a pause of length has filled the overflow buffer of a stream that cannot seek.
    static void waitForOverflow()
    {
        ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.paused != 0; }));
        inspect(100, [](auto& d) { return d.lastDataTime -= 400; });
        mdchHttpCurl_wakeupWorkerThread();
        ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.backBuffer.usedBytes() > 0; }));
    }
};

// --- Pause ---

TEST_F(EnginePause, ofASeekableStreamDropsTheConnection)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    const auto desc = open(stream);
    const TraceCapture trace;
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    inspect(100, [](auto& d) {
        EXPECT_EQ(d.inMulti, 0);
        EXPECT_TRUE(d.closedInPause);
        EXPECT_EQ(d.paused, 1);
        EXPECT_EQ(d.state, md::kStatePaused);
        return 0;
    });
    EXPECT_TRUE(m_server.waitForOpenConnections(0)) << "at once, without the worker's help";
    EXPECT_EQ(trace.count("mdchHttpCurl_pause(): pause on fd 100\n"), 1U);
    EXPECT_EQ(trace.count(at("mdchHttpCurl_pause", "pause (by close) fd 100.\n")), 1U);
    EXPECT_FALSE(trace.hasAnywhere("by pause"));
}

TEST_F(EnginePause, ofAnotherStreamKeepsTheConnection)
{
    m_server.on("/", fixed());
    HttpStream stream;
    const auto desc = open(stream);
    const TraceCapture trace;
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    inspect(100, [](auto& d) {
        EXPECT_EQ(d.inMulti, 1);
        EXPECT_FALSE(d.closedInPause);
        EXPECT_EQ(d.paused, 1);
        EXPECT_EQ(d.state, md::kStatePaused);
        return 0;
    });
    EXPECT_EQ(m_server.openConnections(), 1U);
    EXPECT_EQ(trace.count("mdchHttpCurl_pause(): pause on fd 100\n"), 1U);
    EXPECT_EQ(trace.count(at("mdchHttpCurl_pause", "pause (by pause) fd 100.\n")), 1U);
    EXPECT_FALSE(trace.hasAnywhere("by close"));
}

TEST_F(EnginePause, ofAnotherStreamStopsTheFlow)
{
    const Gate more;
    m_server.on("/", fixed().wait(At::body(5000), more));
    HttpStream stream;
    const auto desc = open(stream);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.ringBuffer.usedBytes() == 5000; }));
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    Gate(more).open();
    EXPECT_TRUE(m_server.waitForBodyBytes("/", 6000));
    EXPECT_TRUE(support::workerRests());
    EXPECT_EQ(inspect(100, [](auto& d) { return d.writePos; }), 5000);
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    expectRest(stream, 0);
    EXPECT_EQ(m_server.connectionCount(), 1U);
}

TEST_F(EnginePause, twiceIsLikeOnce)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    const auto desc = open(stream);
    EXPECT_EQ(stream.readSome(1000).size(), 1000U);
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    expectRest(stream, 1000);
    EXPECT_EQ(m_server.requests().size(), 2U);
}

// --- Resume ---

TEST_F(EnginePause, resumeOfARunningStreamChangesNothing)
{
    m_server.on("/", Reply::resource(kMedia, 1000));
    HttpStream stream;
    const auto desc = open(stream);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.done != 0; }));
    const TraceCapture trace;
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    EXPECT_EQ(trace.count("mdchHttpCurl_resume(): resume on fd 100\n"), 1U);
    EXPECT_EQ(trace.count(at("mdchHttpCurl_resume", "can't resume (not paused). fd 100.\n")), 1U);
    expectRest(stream, 0, 1000);
    EXPECT_EQ(m_server.requests().size(), 1U);
}

TEST_F(EnginePause, resumeFromCloseContinuesBehindTheLastByteReceived)
{
    const Gate never;
    Gate answer;
    m_server.onSequence("/", {Reply::resource(kMedia, kSize).wait(At::body(50000), never),
                              Reply::resource(kMedia, kSize).wait(At::start(), answer)});
    HttpStream stream;
    const auto desc = open(stream);
    EXPECT_EQ(stream.readSome(1000), kMedia.bytes(0, 1000));
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.writePos == 50000; }));
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    const TraceCapture trace;
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    inspect(100, [](auto& d) {
        EXPECT_EQ(d.paused, 0);
        EXPECT_FALSE(d.closedInPause);
        EXPECT_EQ(d.inMulti, 1);
        EXPECT_EQ(d.startPos, 1000);
        EXPECT_STREQ(d.rangeText, "50000-");
        return 0;
    });
    answer.open();
    EXPECT_EQ(stream.size(), static_cast<long long>(kSize)) << "although 49000 bytes were buffered";
    expectRest(stream, 1000);
    EXPECT_EQ(m_server.requests().at(1).header("Range"), "bytes=50000-");
    EXPECT_TRUE(trace.has("mdchHttpCurl_resume(): resume on fd 100\n"));
    EXPECT_EQ(trace.count(at("mdchHttpCurl_resume", "resume (from close) fd 100.\n")), 1U);
    EXPECT_EQ(trace.count("mdchHttpCurl_resumeFromPause(): resume to pos 50000 on fd 100\n"), 1U);
    EXPECT_TRUE(trace.has("mdc_hlp_http_curl_worker.cpp:#:mdchHttpCurl_fillBuffer(): continue fd 100.\n"));
    EXPECT_EQ(inspect(100, [](auto& d) { return d.state; }), md::kStateRunning);
}

TEST_F(EnginePause, resumeFromPauseLetsTheWorkerContinue)
{
    m_server.on("/", fixed());
    HttpStream stream;
    const auto desc = open(stream);
    EXPECT_EQ(stream.readSome(1000).size(), 1000U);
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    const TraceCapture trace;
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    EXPECT_TRUE(
        trace.waitFor("mdc_hlp_http_curl_worker.cpp:#:mdchHttpCurl_fillBuffer(): continue fd 100.\n"));
    EXPECT_EQ(trace.count(at("mdchHttpCurl_resume", "resume (from pause) fd 100. state=3\n")), 1U);
    EXPECT_FALSE(trace.hasAnywhere("resume to pos"));
    expectRest(stream, 1000);
    EXPECT_EQ(m_server.requests().size(), 1U);
}

TEST_F(EnginePause, manyTimesKeepsEveryByteAndTheLength)
{
    m_server.on("/seekable", Reply::resource(kMedia, kSize));
    m_server.on("/fixed", fixed());
    for (const char* path : {"/seekable", "/fixed"}) {
        HttpStream stream;
        const auto desc = open(stream, path);
        std::uint64_t position = 0;
        while (position < kSize) {
            const std::string piece = stream.readSome(130'001);
            ASSERT_FALSE(piece.empty());
            ASSERT_TRUE(kMedia.matches(position, piece)) << path << " at " << position;
            position += piece.size();
            ASSERT_EQ(mdchHttpCurl_pause(desc), 0);
            ASSERT_EQ(mdchHttpCurl_resume(desc), 0);
            ASSERT_EQ(stream.size(), static_cast<long long>(kSize)) << path << " at " << position;
        }
        EXPECT_EQ(stream.readSome(1), "");
        EXPECT_EQ(stream.eof(), 1);
    }
}

TEST_F(EnginePause, readingWithoutAResumeResumesByItself)
{
    m_server.on("/seekable", Reply::resource(kMedia, kSize));
    m_server.on("/fixed", fixed());
    for (const char* path : {"/seekable", "/fixed"}) {
        HttpStream stream;
        const auto desc = open(stream, path);
        EXPECT_EQ(stream.readSome(1000).size(), 1000U);
        EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
        expectRest(stream, 1000);
    }
}

// --- Completely received ---

TEST_F(EnginePause, resumeOfACompletelyReceivedStreamReadsToItsEndWithoutARequest)
{
    m_server.on("/", Reply::resource(kMedia, 100'000));
    HttpStream stream;
    const auto desc = open(stream);
    EXPECT_EQ(stream.readSome(10).size(), 10U);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.done != 0; }));
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    const TraceCapture trace;
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    expectRest(stream, 10, 100'000);
    EXPECT_FALSE(trace.hasAnywhere("resume to pos"));
    EXPECT_EQ(m_server.requests().size(), 1U);
}

TEST_F(EnginePause, resumeOfOneWithoutLengthThatEndedReadsToItsEndWithoutARequest)
{
    m_server.on("/", Reply::resource(kMedia, 100'000).chunked());
    HttpStream stream;
    const auto desc = open(stream);
    EXPECT_EQ(stream.readSome(10).size(), 10U);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.done != 0; }));
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    const std::string rest = stream.readAll();
    EXPECT_EQ(rest.size(), 100'000U - 10U);
    EXPECT_TRUE(kMedia.matches(10, rest));
    EXPECT_EQ(stream.eof(), 1);
    EXPECT_EQ(stream.error(), 0);
    EXPECT_EQ(m_server.requests().size(), 1U);
}

// The last byte is in, but not yet the word that it is the last: the server refuses what comes behind it.
TEST_F(EnginePause, aRefusedResumeBehindTheLastByteLosesNothing)
{
    const Gate end;
    m_server.onSequence("/", {Reply::resource(kMedia, 5000).chunked().wait(At::body(5000), end),
                              Reply::resource(kMedia, 5000)});
    HttpStream stream;
    const auto desc = open(stream);
    EXPECT_EQ(stream.readSome(10).size(), 10U);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.writePos == 5000; }));
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.done != 0; }));
    EXPECT_TRUE(kMedia.matches(10, stream.readAll()));
    EXPECT_EQ(stream.tell(), 5000) << "all that was buffered";
}

TEST_F(EnginePause, resumeOfATailThatIsBufferedKeepsIt)
{
    m_server.on("/", Reply::resource(kMedia, 1000));
    HttpStream stream;
    const auto desc = open(stream);
    mdchHttpCurl_doSeek(desc, 995);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.done != 0; }));
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    expectRest(stream, 995, 1000);
    EXPECT_EQ(m_server.requests().size(), 2U);
}

// What a tail seek wanted skipped lies in front of the position that the resume asks for.
TEST_F(EnginePause, resumeFromCloseSkipsNothingAfterATailSeek)
{
    const Gate never;
    m_server.onSequence("/",
                        {Reply::resource(kMedia, 1000), Reply::resource(kMedia, 1000).wait(At::body(), never),
                         Reply::resource(kMedia, 1000)});
    HttpStream stream;
    const auto desc = open(stream);
    mdchHttpCurl_doSeek(desc, 995);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.headerComplete != 0; }));
    ASSERT_EQ(inspect(100, [](auto& d) { return d.skipBytes; }), 5);
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    EXPECT_EQ(inspect(100, [](auto& d) { return d.skipBytes; }), 0);
    expectRest(stream, 995, 1000);
    EXPECT_EQ(m_server.requests().at(2).header("Range"), "bytes=995-");
}

// --- Overflow buffer ---

TEST_F(EnginePause, overflowBytesLeaveInTheirOrderAcrossAnExplicitResume)
{
    m_server.on("/", fixed());
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
    const auto desc = open(stream);
    waitForOverflow();
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    EXPECT_TRUE(support::workerRests()) << "a full ring pauses it again";
    expectRest(stream, 0);
    EXPECT_EQ(m_server.connectionCount(), 1U);
}

TEST_F(EnginePause, overflowBytesLeaveInTheirOrderAcrossRepeatedPausesAndResumes)
{
    m_server.on("/", fixed());
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
    const auto desc = open(stream);
    std::uint64_t position = 0;
    for (int round = 0; round < 6; ++round) {
        EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
        inspect(100, [](auto& d) { return d.lastDataTime = time(nullptr) - 400; });
        mdchHttpCurl_wakeupWorkerThread();
        ASSERT_TRUE(support::workerRests(std::chrono::milliseconds(20)));
        const std::string piece = stream.readSome(70'000);
        ASSERT_TRUE(kMedia.matches(position, piece)) << "round " << round;
        position += piece.size();
        EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    }
    expectRest(stream, position);
}

TEST_F(EnginePause, aLongPauseOfASeekableStreamIsResumedBehindItsOverflow)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
    const auto desc = open(stream);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.paused != 0; }));
    inspect(100, [](auto& d) { return d.lastDataTime -= 30; });
    mdchHttpCurl_wakeupWorkerThread();
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.closedInPause; }));
    const std::int64_t received = inspect(100, [](auto& d) { return d.writePos; });
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    expectRest(stream, 0);
    EXPECT_EQ(m_server.requests().at(1).header("Range"), "bytes=" + std::to_string(received) + "-");
}

// --- Trouble ---

TEST_F(EnginePause, whileTheServerGoesAwayIsFollowedByARequestAtItsPlace)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    const auto desc = open(stream);
    EXPECT_EQ(stream.readSome(1000).size(), 1000U);
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    m_server.stopListening();
    m_server.resetConnections();
    m_server.listenAgain();
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    expectRest(stream, 1000);
}

// A dropped connection is no complete reception.
TEST_F(EnginePause, afterADropAsksForTheRest)
{
    m_server.onSequence(
        "/", {Reply::resource(kMedia, kSize).close(At::body(5000)), Reply::resource(kMedia, kSize)});
    HttpStream stream;
    const auto desc = open(stream);
    EXPECT_EQ(stream.readSome(6000), kMedia.bytes(0, 5000));
    EXPECT_EQ(stream.error(), 153);
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    expectRest(stream, 5000);
}

} // namespace
