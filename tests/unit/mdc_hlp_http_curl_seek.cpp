// The engine's byte seek: what goes out, what is dropped, what stays.

#include "support/engine.h"
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <gtest/gtest.h>
#include <limits>

namespace {

using md::HttpAccess;
using support::At;
using support::Gate;
using support::HttpServer;
using support::HttpStream;
using support::inspect;
using support::Media;
using support::Reply;
using support::TraceCapture;
using support::waitForDescriptor;

const Media kMedia(21);
constexpr std::uint64_t kSize = 1000;

class EngineSeek : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;

    // Opens the stream, waits for its header and gives its descriptor.
    md::MdchDescriptorPtr open(HttpStream& stream, const std::string& path = "/") const
    {
        stream.start(m_server.url(path));
        EXPECT_EQ(stream.getResponseCode(), 200);
        return mdchHttpCurl_getContext(stream.number());
    }

    std::string lastRange() const { return m_server.requests().back().header("Range"); }
};

// --- Tail rule ---

struct TailCase
{
    long long target;
    const char* range;
    int skip; // 0: no word about skipping
};

// Names the test; without it the parameter's address would.
void PrintTo(const TailCase& tail, std::ostream* out)
{
    *out << tail.target;
}

class EngineSeekTail : public EngineSeek, public testing::WithParamInterface<TailCase>
{
};

TEST_P(EngineSeekTail, ofAThousandBytesNeverAsksForFewerThanTheLastTen)
{
    const TailCase& wanted = GetParam();
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    const auto desc = open(stream);
    const TraceCapture trace;
    mdchHttpCurl_doSeek(desc, wanted.target);
    const std::string rest = stream.readAll();
    const auto target = static_cast<std::uint64_t>(wanted.target);
    EXPECT_EQ(rest.size(), target < kSize ? kSize - target : 0U);
    EXPECT_TRUE(kMedia.matches(target, rest));
    EXPECT_EQ(lastRange(), "bytes=" + std::string(wanted.range));
    EXPECT_EQ(stream.eof(), 1);
    EXPECT_EQ(stream.error(), 0);
    EXPECT_EQ(stream.size(), static_cast<long long>(kSize));
    EXPECT_EQ(stream.tell(), wanted.target + static_cast<long long>(rest.size()));
    EXPECT_EQ(trace.count("mdchHttpCurl_doSeek(): skip " + std::to_string(wanted.skip) + " for seek to " +
                          std::to_string(wanted.target) + " on fd 100\n"),
              wanted.skip > 0 ? 1U : 0U);
    EXPECT_EQ(trace.hasAnywhere(" for seek to "), wanted.skip > 0);
    const std::string position(wanted.range, std::string(wanted.range).size() - 1);
    EXPECT_EQ(
        trace.count("mdchHttpCurl_doSeek(): requested seek to pos " + position + " on fd 100 (act pos: 0)\n"),
        1U);
}

INSTANTIATE_TEST_SUITE_P(Targets, EngineSeekTail,
                         testing::Values(TailCase{0, "0-", 0}, TailCase{500, "500-", 0},
                                         TailCase{989, "989-", 0}, TailCase{990, "990-", 0},
                                         TailCase{991, "990-", 1}, TailCase{999, "990-", 9},
                                         TailCase{1000, "990-", 10}, TailCase{1500, "990-", 510}));

TEST_F(EngineSeek, ofElevenBytesFollowsTheTailRule)
{
    m_server.on("/", Reply::resource(kMedia, 11));
    HttpStream stream;
    const auto desc = open(stream);
    mdchHttpCurl_doSeek(desc, 1);
    EXPECT_TRUE(kMedia.matches(1, stream.readAll()));
    EXPECT_EQ(lastRange(), "bytes=1-");
    const TraceCapture trace;
    mdchHttpCurl_doSeek(desc, 2);
    EXPECT_EQ(stream.readAll(), kMedia.bytes(2, 9));
    EXPECT_EQ(lastRange(), "bytes=1-");
    EXPECT_EQ(trace.count("mdchHttpCurl_doSeek(): skip 1 for seek to 2 on fd 100\n"), 1U);
}

TEST_F(EngineSeek, ofTenBytesAsksForTheTargetItself)
{
    m_server.on("/", Reply::resource(kMedia, 10));
    HttpStream stream;
    const auto desc = open(stream);
    mdchHttpCurl_doSeek(desc, 9);
    EXPECT_EQ(stream.readAll(), kMedia.bytes(9, 1));
    EXPECT_EQ(lastRange(), "bytes=9-");
}

TEST_F(EngineSeek, ofAnUnknownLengthAsksForTheTargetItself)
{
    m_server.on("/", Reply::resource(kMedia, kSize).chunked());
    HttpStream stream;
    const auto desc = open(stream);
    ASSERT_EQ(stream.facts().length, -1);
    mdchHttpCurl_doSeek(desc, 999);
    EXPECT_EQ(stream.readAll(), kMedia.bytes(999, 1));
    EXPECT_EQ(lastRange(), "bytes=999-");
    EXPECT_EQ(stream.size(), static_cast<long long>(kSize)) << "told by the Content-Range";
}

TEST_F(EngineSeek, farBehindTheEndDeliversNothingAndOverflowsNothing)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    const auto desc = open(stream);
    for (const long long target : {3'000'000'000LL, std::numeric_limits<long long>::max()}) {
        mdchHttpCurl_doSeek(desc, target);
        EXPECT_EQ(stream.readAll(), "");
        EXPECT_EQ(lastRange(), "bytes=990-");
        EXPECT_EQ(stream.tell(), target);
        EXPECT_EQ(stream.eof(), 1);
        EXPECT_EQ(stream.error(), 0);
        EXPECT_GE(inspect(100, [](auto& d) { return d.skipBytes; }), 0);
    }
    mdchHttpCurl_doSeek(desc, 10);
    EXPECT_TRUE(kMedia.matches(10, stream.readAll()));
    EXPECT_EQ(stream.tell(), static_cast<long long>(kSize));
}

TEST_F(EngineSeek, beyondFourGigabytesKeepsAllDigits)
{
    constexpr std::uint64_t kLarge = 6'000'000'000;
    m_server.on("/", Reply::resource(kMedia, kLarge));
    HttpStream stream;
    const auto desc = open(stream);
    mdchHttpCurl_doSeek(desc, 5'000'000'001);
    EXPECT_EQ(stream.readSome(1000), kMedia.bytes(5'000'000'001, 1000));
    EXPECT_EQ(lastRange(), "bytes=5000000001-");
    EXPECT_EQ(stream.size(), static_cast<long long>(kLarge));
    mdchHttpCurl_doSeek(desc, static_cast<long long>(kLarge) - 1);
    EXPECT_EQ(stream.readAll(), kMedia.bytes(kLarge - 1, 1));
    EXPECT_EQ(lastRange(), "bytes=5999999990-");
}

// --- What a seek changes in the record ---

TEST_F(EngineSeek, setsThePositionsAndClearsWhatBelongedToTheRequestBefore)
{
    const Gate answer;
    m_server.onSequence(
        "/", {Reply::resource(kMedia, kSize), Reply::resource(kMedia, kSize).wait(At::start(), answer)});
    HttpStream stream;
    const auto desc = open(stream);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.done != 0; }));
    const CURL* easy = inspect(100, [](auto& d) { return d.easy; });
    mdchHttpCurl_doSeek(desc, 995);
    inspect(100, [easy](auto& d) {
        EXPECT_EQ(d.startPos, 995);
        EXPECT_EQ(d.writePos, 995);
        EXPECT_EQ(d.skipBytes, 5);
        EXPECT_STREQ(d.rangeText, "990-");
        EXPECT_EQ(d.done, 0);
        EXPECT_EQ(d.headerComplete, 0);
        EXPECT_FALSE(d.closedInPause);
        EXPECT_EQ(d.paused, 0);
        EXPECT_EQ(d.inMulti, 1);
        EXPECT_EQ(d.ringBuffer.usedBytes(), 0U);
        EXPECT_EQ(d.ringBuffer.availableBytes(), static_cast<std::size_t>(d.receiveBufferSize));
        EXPECT_EQ(d.easy, easy) << "the same handle goes on";
        return 0;
    });
    Gate(answer).open();
    EXPECT_EQ(stream.readAll(), kMedia.bytes(995, 5));
}

TEST_F(EngineSeek, endsAPauseOfEitherKind)
{
    m_server.on("/seekable", Reply::resource(kMedia, 3'000'000));
    m_server.on("/other", Reply::resource(kMedia, 3'000'000).acceptRanges(""));
    for (const char* path : {"/seekable", "/other"}) {
        HttpStream stream;
        const auto desc = open(stream, path);
        EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
        mdchHttpCurl_doSeek(desc, 1'000'000);
        EXPECT_EQ(stream.facts().startPos, 1'000'000);
        EXPECT_EQ(inspect(stream.number(), [](auto& d) { return d.closedInPause; }), false);
        const std::string rest = stream.readAll();
        EXPECT_EQ(rest.size(), 2'000'000U) << path;
        EXPECT_TRUE(kMedia.matches(1'000'000, rest)) << path;
        EXPECT_EQ(inspect(stream.number(), [](auto& d) { return d.state; }), md::kStateRunning);
    }
}

TEST_F(EngineSeek, emptiesTheOverflowBufferToo)
{
    m_server.on("/", Reply::resource(kMedia, 3'000'000).acceptRanges(""));
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
    const auto desc = open(stream);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.paused != 0; }));
    inspect(100, [](auto& d) { return d.lastDataTime -= 400; });
    mdchHttpCurl_wakeupWorkerThread();
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.backBuffer.usedBytes() > 0; }));
    mdchHttpCurl_doSeek(desc, 2'000'000);
    const std::string rest = stream.readAll();
    EXPECT_EQ(rest.size(), 1'000'000U);
    EXPECT_TRUE(kMedia.matches(2'000'000, rest));
}

TEST_F(EngineSeek, startsAFinishedTransferAgain)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    const auto desc = open(stream);
    EXPECT_EQ(stream.readAll().size(), kSize);
    EXPECT_EQ(stream.eof(), 1);
    mdchHttpCurl_doSeek(desc, 0);
    EXPECT_EQ(stream.readAll(), kMedia.bytes(0, kSize));
}

// The completion of the request before may already be on its way when a seek comes.
TEST_F(EngineSeek, isNotEndedByTheCompletionOfTheRequestBefore)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    const auto desc = open(stream);
    constexpr int kRounds = 300;
    for (int round = 0; round < kRounds; ++round) {
        const int target = round % 500;
        mdchHttpCurl_doSeek(desc, target);
        // All bytes are in, but the worker may not have taken the completion yet.
        ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.writePos == 1000; }));
        mdchHttpCurl_doSeek(desc, target);
        const std::string rest = stream.readAll();
        ASSERT_EQ(rest.size(), kSize - static_cast<unsigned>(target)) << "round " << round;
        ASSERT_TRUE(kMedia.matches(static_cast<unsigned>(target), rest));
        ASSERT_EQ(stream.error(), 0);
    }
}

// --- What goes along ---

TEST_F(EngineSeek, sendsTheCallersCookieAndHeaderLinesAgain)
{
    m_server.on("/", Reply::resource(kMedia, kSize).header("Set-Cookie: server=2"));
    HttpStream stream("Player/1");
    stream.setCookie("caller=1");
    stream.setHeaderLine("X-One: 1");
    stream.setHeaderLine("X-Two: 2");
    const auto desc = open(stream);
    EXPECT_EQ(m_server.requests().at(0).header("Cookie"), "caller=1");
    mdchHttpCurl_doSeek(desc, 100);
    EXPECT_EQ(stream.readAll().size(), 900U);
    const support::Request again = m_server.requests().at(1);
    EXPECT_EQ(again.header("User-Agent"), "Player/1");
    EXPECT_EQ(again.header("X-One"), "1");
    EXPECT_EQ(again.countHeader("X-Two"), 1U);
    const std::string cookies = again.header("Cookie");
    EXPECT_NE(cookies.find("caller=1"), std::string::npos) << cookies;
    EXPECT_NE(cookies.find("server=2"), std::string::npos) << cookies;
    EXPECT_EQ(cookies.find('\t'), std::string::npos) << "no line of a cookie file: " << cookies;
}

// --- Nothing to act on ---

TEST_F(EngineSeek, everyOperationRefusesANullDescriptor)
{
    const HttpAccess stream; // the engine runs
    const TraceCapture trace;
    mdchHttpCurl_doSeek(nullptr, 1);
    mdchHttpCurl_doSeekTime(nullptr, 1);
    EXPECT_EQ(mdchHttpCurl_pause(nullptr), -EINVAL);
    EXPECT_EQ(mdchHttpCurl_resume(nullptr), -EINVAL);
    for (const char* function :
         {"mdchHttpCurl_doSeek", "mdchHttpCurl_doSeekTime", "mdchHttpCurl_pause", "mdchHttpCurl_resume"}) {
        const std::string text =
            std::string(function) + "(): requested seek without descriptor record or multi handle\n";
        EXPECT_EQ(trace.count(text), 1U) << text;
        EXPECT_EQ(trace.severityOf(text), 3000U);
    }
}

TEST_F(EngineSeek, everyOperationRefusesWithoutARunningEngine)
{
    const auto desc = boost::shared_ptr<md::MdchCurlDescriptor_struct>(new md::MdchCurlDescriptor_struct);
    const TraceCapture trace;
    mdchHttpCurl_doSeek(desc, 1);
    mdchHttpCurl_doSeekTime(desc, 1);
    EXPECT_EQ(mdchHttpCurl_pause(desc), -EINVAL);
    EXPECT_EQ(mdchHttpCurl_resume(desc), -EINVAL);
    EXPECT_EQ(trace.texts().size(), 4U);
    EXPECT_TRUE(
        trace.has("mdchHttpCurl_doSeek(): requested seek without descriptor record or multi handle\n"));
    EXPECT_EQ(desc->startPos, 0);
    EXPECT_EQ(desc->paused, 0);
}

void expectLeftAlone(const md::MdchDescriptorPtr& desc)
{
    const auto before = [&desc] {
        const MdpLock lock = md::lockDescriptor(*desc);
        return std::make_tuple(desc->state, desc->done, desc->paused, desc->startPos, desc->writePos,
                               desc->inMulti, desc->closedInPause, desc->headerComplete);
    };
    const auto facts = before();
    mdchHttpCurl_doSeek(desc, 77);
    mdchHttpCurl_doSeekTime(desc, 77);
    mdchHttpCurl_pause(desc);
    mdchHttpCurl_resume(desc);
    EXPECT_EQ(before(), facts);
}

TEST_F(EngineSeek, everyOperationLeavesAClosedTransferAlone)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    m_server.on("/other", Reply::resource(kMedia, kSize));
    HttpStream stream;
    const auto desc = open(stream);
    stream.close();
    ASSERT_TRUE(support::waitForEmptyRegistry());
    HttpStream other;
    open(other, "/other");
    expectLeftAlone(desc);
    EXPECT_EQ(other.readAll(), kMedia.bytes(0, kSize));
    EXPECT_EQ(m_server.requests().size(), 2U) << "nothing was asked for again";
}

TEST_F(EngineSeek, everyOperationLeavesATransferThatOutlivedItsEngineAlone)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    const auto desc = open(stream);
    HttpAccess::shutdown();
    expectLeftAlone(desc);
    HttpStream next; // a new engine, and the same number
    open(next);
    ASSERT_EQ(next.number(), stream.number());
    expectLeftAlone(desc);
    EXPECT_EQ(next.readAll(), kMedia.bytes(0, kSize));
    EXPECT_EQ(m_server.requests().size(), 2U);
}

} // namespace
