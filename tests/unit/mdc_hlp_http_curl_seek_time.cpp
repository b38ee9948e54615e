// The engine's time seek: DLNA's TimeSeekRange line, and how it goes away again.

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
using support::Request;
using support::TraceCapture;
using support::waitForDescriptor;

const Media kMedia(22);
constexpr std::uint64_t kSize = 120000;
constexpr std::uint64_t kBytesPerSecond = 1000; // two minutes
constexpr const char* kLine = "TimeSeekRange.dlna.org";

class EngineTimeSeek : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;

    static Reply film()
    {
        return Reply::timeSeekResource(kMedia, kSize, kBytesPerSecond).contentFeatures("DLNA.ORG_OP=11");
    }

    md::MdchDescriptorPtr open(HttpStream& stream) const
    {
        stream.start(m_server.url("/"));
        EXPECT_EQ(stream.getResponseCode(), 200);
        return mdchHttpCurl_getContext(stream.number());
    }

    Request last() const { return m_server.requests().back(); }
};

struct WireForm
{
    std::uint32_t milliseconds;
    const char* value;
};

// Names the test; without it the parameter's address would.
void PrintTo(const WireForm& form, std::ostream* out)
{
    *out << form.milliseconds;
}

class EngineTimeSeekForm : public EngineTimeSeek, public testing::WithParamInterface<WireForm>
{
};

TEST_P(EngineTimeSeekForm, writesTheMillisecondsWithoutPadding)
{
    m_server.on("/", film());
    HttpStream stream;
    const auto desc = open(stream);
    mdchHttpCurl_doSeekTime(desc, GetParam().milliseconds);
    ASSERT_TRUE(m_server.waitForRequests(2));
    EXPECT_EQ(last().header(kLine), GetParam().value);
    EXPECT_EQ(last().countHeader(kLine), 1U);
    EXPECT_FALSE(last().hasHeader("Range"));
}

INSTANTIATE_TEST_SUITE_P(Times, EngineTimeSeekForm,
                         testing::Values(WireForm{83500, "npt=83.500-"}, WireForm{5050, "npt=5.50-"},
                                         WireForm{7005, "npt=7.5-"}, WireForm{0, "npt=0.0-"},
                                         WireForm{999, "npt=0.999-"}, WireForm{1000, "npt=1.0-"},
                                         WireForm{4294967295U, "npt=4294967.295-"}));

TEST_F(EngineTimeSeek, takesItsPositionFromTheResponse)
{
    m_server.on("/", film());
    HttpStream stream;
    const auto desc = open(stream);
    EXPECT_EQ(stream.readSome(100).size(), 100U);
    mdchHttpCurl_doSeekTime(desc, 83500);
    const std::string rest = stream.readAll();
    EXPECT_EQ(rest.size(), kSize - 83500);
    EXPECT_TRUE(kMedia.matches(83500, rest));
    EXPECT_EQ(stream.tell(), static_cast<long long>(kSize));
    EXPECT_EQ(stream.size(), static_cast<long long>(kSize)) << "the position and what follows it";
    EXPECT_EQ(stream.error(), 0);
}

TEST_F(EngineTimeSeek, startsAtZeroWhenTheServerDoesNotUnderstandIt)
{
    m_server.on("/", Reply::resource(kMedia, kSize).acceptRanges(""));
    HttpStream stream;
    const auto desc = open(stream);
    EXPECT_EQ(stream.readSome(100).size(), 100U);
    mdchHttpCurl_doSeekTime(desc, 5000);
    EXPECT_EQ(stream.readAll(), kMedia.bytes(0, kSize));
    EXPECT_EQ(stream.size(), static_cast<long long>(kSize));
}

TEST_F(EngineTimeSeek, clearsWhatBelongedToTheRequestBefore)
{
    const Gate answer;
    m_server.onSequence("/", {film(), film(), film().wait(At::start(), answer)});
    HttpStream stream;
    const auto desc = open(stream);
    mdchHttpCurl_doSeek(desc, kSize - 3);
    ASSERT_TRUE(waitForDescriptor(100, [](auto& d) { return d.done != 0; }));
    mdchHttpCurl_doSeekTime(desc, 1000);
    inspect(100, [](auto& d) {
        EXPECT_EQ(d.startPos, 0);
        EXPECT_EQ(d.writePos, 0);
        EXPECT_EQ(d.skipBytes, 0);
        EXPECT_EQ(d.done, 0);
        EXPECT_EQ(d.headerComplete, 0);
        EXPECT_FALSE(d.closedInPause);
        EXPECT_EQ(d.paused, 0);
        EXPECT_EQ(d.inMulti, 1);
        EXPECT_TRUE(d.rebuildHeaders);
        EXPECT_EQ(d.ringBuffer.usedBytes(), 0U);
        return 0;
    });
    Gate(answer).open();
    EXPECT_TRUE(kMedia.matches(1000, stream.readAll()));
    EXPECT_FALSE(last().hasHeader("Range")) << "the byte seek's Range is gone";
}

TEST_F(EngineTimeSeek, clearsTheSkipOfATailSeekThatIsStillUnderWay)
{
    const Gate answer;
    m_server.on("/", [&answer](const Request& request) {
        return request.hasHeader("Range") ? film().wait(At::start(), answer) : film();
    });
    HttpStream stream;
    const auto desc = open(stream);
    mdchHttpCurl_doSeek(desc, kSize - 3);
    ASSERT_TRUE(m_server.waitForRequests(2));
    ASSERT_EQ(inspect(100, [](auto& d) { return d.skipBytes; }), 7);
    mdchHttpCurl_doSeekTime(desc, 1000);
    const std::string rest = stream.readAll();
    EXPECT_EQ(rest.size(), kSize - 1000);
    EXPECT_TRUE(kMedia.matches(1000, rest));
}

TEST_F(EngineTimeSeek, endsAPauseThatClosedTheConnection)
{
    m_server.on("/", film());
    HttpStream stream;
    const auto desc = open(stream);
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    ASSERT_TRUE(inspect(100, [](auto& d) { return d.closedInPause; }));
    mdchHttpCurl_doSeekTime(desc, 60000);
    EXPECT_TRUE(kMedia.matches(60000, stream.readAll()));
    EXPECT_EQ(inspect(100, [](auto& d) { return d.paused; }), 0);
}

// --- Header lines ---

TEST_F(EngineTimeSeek, appendsItsLineBehindTheOthersAndTracesThose)
{
    m_server.on("/", film());
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_DLNA_MODE, 1);
    stream.setHeaderLine("X-Own: 1");
    const auto desc = open(stream);
    const TraceCapture trace;
    mdchHttpCurl_doSeekTime(desc, 2000);
    ASSERT_TRUE(m_server.waitForRequests(2));
    std::vector<std::string> sent;
    for (const std::string& line : last().lines) {
        if (line.find("dlna") != std::string::npos || line.rfind("X-", 0) == 0) {
            sent.push_back(line);
        }
    }
    const std::vector<std::string> expected = {"X-Own: 1", "getcontentFeatures.dlna.org: 1",
                                               "transferMode.dlna.org: Streaming",
                                               "TimeSeekRange.dlna.org: npt=2.0-"};
    EXPECT_EQ(sent, expected);
    for (const char* line :
         {"X-Own: 1", "getcontentFeatures.dlna.org: 1", "transferMode.dlna.org: Streaming"}) {
        EXPECT_EQ(trace.count("mdchHttpCurl_doSeekTime() add header to request: " + std::string(line) + "\n"),
                  1U);
    }
    EXPECT_EQ(stream.facts().requestHeaderLines.size(), 3U) << "the time seek's line is not kept";
}

TEST_F(EngineTimeSeek, aSecondOneReplacesTheLineOfTheFirst)
{
    m_server.on("/", film());
    HttpStream stream;
    const auto desc = open(stream);
    mdchHttpCurl_doSeekTime(desc, 2000);
    ASSERT_TRUE(m_server.waitForRequests(2));
    mdchHttpCurl_doSeekTime(desc, 3000);
    EXPECT_TRUE(kMedia.matches(3000, stream.readAll()));
    EXPECT_EQ(last().headerValues(kLine), std::vector<std::string>{"npt=3.0-"});
}

TEST_F(EngineTimeSeek, theNextByteSeekSendsThePlainLinesAgain)
{
    m_server.on("/", film());
    HttpStream stream;
    stream.setHeaderLine("X-Own: 1");
    const auto desc = open(stream);
    mdchHttpCurl_doSeekTime(desc, 2000);
    EXPECT_EQ(stream.readSome(10), kMedia.bytes(2000, 10));
    const TraceCapture trace;
    mdchHttpCurl_doSeek(desc, 50000);
    EXPECT_TRUE(kMedia.matches(50000, stream.readAll()));
    EXPECT_FALSE(last().hasHeader(kLine));
    EXPECT_EQ(last().header("X-Own"), "1");
    EXPECT_EQ(last().header("Range"), "bytes=50000-");
    EXPECT_EQ(trace.count("mdchHttpCurl_doSeek() add header to request: X-Own: 1\n"), 1U);
    EXPECT_FALSE(inspect(100, [](auto& d) { return d.rebuildHeaders; }));
    mdchHttpCurl_doSeek(desc, 10);
    EXPECT_TRUE(kMedia.matches(10, stream.readAll()));
    EXPECT_EQ(trace.count("mdchHttpCurl_doSeek() add header to request: X-Own: 1\n"), 1U)
        << "rebuilt once, not with every seek";
    EXPECT_EQ(last().header("X-Own"), "1");
}

TEST_F(EngineTimeSeek, aResumeFromCloseSendsThePlainLinesAgain)
{
    m_server.on(
        "/", Reply::timeSeekResource(kMedia, 2'000'000, kBytesPerSecond).contentFeatures("DLNA.ORG_OP=11"));
    HttpStream stream;
    stream.setHeaderLine("X-Own: 1");
    const auto desc = open(stream);
    mdchHttpCurl_doSeekTime(desc, 2000);
    EXPECT_EQ(stream.readSome(10), kMedia.bytes(2000, 10));
    EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
    const TraceCapture trace;
    EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
    const std::string rest = stream.readAll();
    EXPECT_EQ(rest.size(), 2'000'000U - 2010U);
    EXPECT_TRUE(kMedia.matches(2010, rest));
    EXPECT_FALSE(last().hasHeader(kLine));
    EXPECT_EQ(last().header("X-Own"), "1");
    EXPECT_EQ(trace.count("mdchHttpCurl_resumeFromPause() add header to request: X-Own: 1\n"), 1U);
    EXPECT_EQ(stream.size(), 2'000'000);
}

// --- With a request body ---

TEST_F(EngineTimeSeek, ofAPostSendsTheBodyAgainAndNoRange)
{
    m_server.on("/", film());
    HttpStream stream;
    stream.start(m_server.url("/"), "question", 1000);
    EXPECT_EQ(stream.getResponseCode(), 206);
    EXPECT_EQ(last().header("Range"), "bytes=1000-");
    mdchHttpCurl_doSeekTime(mdchHttpCurl_getContext(100), 2000);
    EXPECT_TRUE(kMedia.matches(2000, stream.readAll()));
    EXPECT_EQ(last().method, "POST");
    EXPECT_EQ(last().body, "question");
    EXPECT_EQ(last().header(kLine), "npt=2.0-");
    EXPECT_FALSE(last().hasHeader("Range"));
}

} // namespace
