// How much of an answer's body is taken, and when its reading ends.
#include "mdc_hlp_redirect_query.h"

#include "mdc_hlp_http_access.h"
#include "support/engine.h"
#include "support/gate.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using md::HttpAccess;
using support::At;
using support::Gate;
using support::HttpServer;
using support::Media;
using support::Reply;
using support::TraceCapture;

using Texts = std::vector<std::string>;

constexpr std::chrono::hours kForever{24};

std::string line(const std::string& text)
{
    return "queryHeaderMDCH() " + text + "\n";
}

// The traces of the query, without those of the stream.
Texts story(const TraceCapture& traces)
{
    Texts story;
    for (const std::string& text : traces.texts()) {
        if (text.rfind("queryHeaderMDCH() ", 0) == 0) {
            story.push_back(text);
        }
    }
    return story;
}

class RedirectBody : public testing::Test
{
protected:
    // The body that a whole query takes.
    std::string queryBody(const std::string& path)
    {
        md::HeaderQuery query;
        query.url = m_server.url(path);
        EXPECT_EQ(md::queryHeaderMDCH(query), md::kQueryDone);
        return query.body;
    }

    std::string queryText(const std::string& content)
    {
        m_server.on("/text", Reply().contentType("text/plain").body(content));
        return queryBody("/text");
    }

    void open(HttpAccess& stream, const std::string& path) const
    {
        ASSERT_GT(stream.open(m_server.url(path).c_str(), 0), 0);
    }

    support::EngineStopped m_engineStopped; // so that the first stream is number 100
    HttpServer m_server;
};

} // namespace

TEST_F(RedirectBody, bodyStopsAtTheReadThatBringsTenThousandBytes)
{
    m_server.on("/a", Reply::endless().contentType("text/plain"));
    const TraceCapture traces;
    const std::string body = queryBody("/a");
    EXPECT_EQ(body.size(), 10000U);
    EXPECT_TRUE(Media().matches(0, body));
    EXPECT_EQ(traces.count(line("read=2500.")), 4U);
    EXPECT_EQ(story(traces).back(), line("done"));
    EXPECT_EQ(traces.severityOf(line("done")), 5000U);
}

TEST_F(RedirectBody, noMoreThan12499BytesAreKept)
{
    m_server.on("/a", Reply::endless());
    HttpAccess stream;
    open(stream, "/a");
    std::string body(9999, 'x');
    md::readBody(stream, body, kForever);
    EXPECT_EQ(body.size(), 12499U);
}

TEST_F(RedirectBody, bodyBelowTheLimitIsReadToItsEnd)
{
    const std::string body = Media().bytes(0, 9999);
    EXPECT_TRUE(queryText(body) == body);
    EXPECT_EQ(queryText(""), "");
    EXPECT_EQ(queryText(std::string("a\0b", 3)), std::string("a\0b", 3));
}

TEST_F(RedirectBody, bodyThatBreaksOffCountsAsFarAsItCame)
{
    m_server.on(
        "/a", Reply().contentType("text/plain").body("http://host/x").contentLength(50).close(At::body(10)));
    HttpAccess stream;
    open(stream, "/a");
    std::string body;
    md::readBody(stream, body, kForever);
    EXPECT_EQ(body, "http://hos");
}

TEST_F(RedirectBody, streamThatStallsEndsWithItsTimeout)
{
    m_server.on("/a", Reply().body("hello").contentLength(9).stall(At::body(5)));
    HttpAccess stream;
    stream.fcntl(MDCH_FCNTL_DATA_TIMEOUT, 1);
    open(stream, "/a");
    ASSERT_TRUE(support::waitForDescriptor(100, [](const auto& desc) { return desc.writePos == 5; }));
    const TraceCapture traces;
    std::string body;
    md::readBody(stream, body, kForever);
    EXPECT_EQ(body, "hello");
    EXPECT_EQ(story(traces), (Texts{line("read=5."), line("read=0."), line("error")}));
    EXPECT_EQ(traces.severityOf(line("error")), 3000U);
}

TEST_F(RedirectBody, dataTimeoutIsShorterThanAPlayers)
{
    m_server.on("/a", Reply().contentType("text/plain").body("hello").contentLength(9).stall(At::body(5)));
    const TraceCapture traces;
    auto asking = std::async(std::launch::async, [this] { queryBody("/a"); });
    EXPECT_TRUE(traces.waitFor("read(): wait for data on fd 100 (bufSize = 0; missing = 2495\n"));
    EXPECT_EQ(support::inspect(100, [](const auto& desc) { return desc.dataTimeout; }), 30);
    m_server.dropConnections();
    asking.wait();
}

TEST_F(RedirectBody, emptyReadsAreTriedAgainUntilThereIsData)
{
    Gate gate;
    m_server.on("/a", Reply().body("hello").wait(At::body(), gate));
    HttpAccess stream;
    open(stream, "/a");
    EXPECT_EQ(stream.size(), 5); // the header is there
    stream.fcntl(MDCH_FCNTL_NONBLOCKING);
    const TraceCapture traces;
    std::string body;
    auto reading = std::async(std::launch::async, [&] { md::readBody(stream, body, kForever); });
    EXPECT_TRUE(support::waitUntil([&traces] { return traces.count(line("read=0.")) >= 3; }));
    EXPECT_FALSE(traces.has(line("eof")) || traces.has(line("error")));
    gate.open();
    reading.get();
    EXPECT_EQ(body, "hello");
    EXPECT_EQ(story(traces).back(), line("eof"));
}

TEST_F(RedirectBody, shutdownEndsTheReading)
{
    m_server.on("/a", Reply().body("hello").contentLength(9).stall(At::body(5)));
    HttpAccess stream;
    open(stream, "/a");
    const TraceCapture traces;
    std::string body;
    auto reading = std::async(std::launch::async, [&] { md::readBody(stream, body, kForever); });
    EXPECT_TRUE(traces.waitFor("read(): wait for data on fd 100 (bufSize = 0; missing = 2495\n"));
    HttpAccess::shutdown();
    reading.get();
    EXPECT_EQ(body, "hello");
}

// It gives nothing, but has not ended and has no error.
TEST_F(RedirectBody, transferThatIsGoneCountsAsFailed)
{
    m_server.on("/a", Reply().body("hello"));
    HttpAccess stream;
    open(stream, "/a");
    HttpAccess::shutdown();
    EXPECT_EQ(stream.eof(), 0);
    EXPECT_EQ(stream.error(), 0);
    const TraceCapture traces;
    std::string body;
    md::readBody(stream, body, kForever);
    EXPECT_EQ(body, "");
    EXPECT_EQ(story(traces), (Texts{line("read=0."), line("error")}));
}

// A server that gives some bytes per time-out would hold the caller for hours.
TEST_F(RedirectBody, readingEndsWhenPatienceIsOver)
{
    m_server.on("/a", Reply::endless().throttle(20));
    HttpAccess stream;
    stream.fcntl(MDCH_FCNTL_DATA_TIMEOUT, 1);
    open(stream, "/a");
    ASSERT_TRUE(support::waitForDescriptor(100, [](const auto& desc) { return desc.writePos > 0; }));
    const TraceCapture traces;
    std::string body;
    md::readBody(stream, body, std::chrono::seconds(0));
    EXPECT_FALSE(body.empty());
    EXPECT_EQ(story(traces), (Texts{line("read=" + std::to_string(body.size()) + "."), line("error")}));
}
