// What is asked of the server, and what its header says.
#include "mdc_hlp_redirect_query.h"

#include "mdc_hlp_url.h"
#include "support/engine.h"
#include "support/http_server.h"
#include "support/sockets.h"
#include "support/trace_capture.h"

#include <cstdlib>
#include <deque>
#include <future>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using md::HeaderQuery;
using support::HttpServer;
using support::Reply;
using support::TraceCapture;

using Texts = std::vector<std::string>;

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

class RedirectQuery : public testing::Test
{
protected:
    md::QueryStatus ask(const std::string& url)
    {
        m_query = {};
        m_query.url = url;
        return md::queryHeaderMDCH(m_query);
    }
    md::QueryStatus askFor(const std::string& path) { return ask(m_server.url(path)); }

    std::string bodyOfType(const std::string& type, const std::string& body = "some text")
    {
        m_server.on("/typed", Reply().contentType(type).body(body));
        EXPECT_EQ(askFor("/typed"), md::kQueryDone) << type;
        return m_query.body;
    }

    support::EngineStopped m_engineStopped; // so that the first stream is number 100
    HttpServer m_server;
    HeaderQuery m_query;
};

class RedirectUserAgent : public RedirectQuery
{
protected:
    RedirectUserAgent() { userAgent = nullptr; }
    ~RedirectUserAgent() override
    {
        std::free(userAgent);
        userAgent = nullptr;
    }
};

} // namespace

TEST_F(RedirectQuery, tellsItsStory)
{
    m_server.on("/a", Reply::raw("HTTP/1.1 200 OK\r\nContent-Type: audio/x-mpegurl\r\nX-A:b\r\n\r\nhello"));
    const TraceCapture traces;
    EXPECT_EQ(askFor("/a"), md::kQueryDone);
    EXPECT_EQ(m_query.body, "hello");
    EXPECT_EQ(story(traces), (Texts{line("fd=100."), line("Header=HTTP/1.1 200 OK\r\n."),
                                    line("Header=Content-Type: audio/x-mpegurl\r\n."),
                                    line("contentType=audio/x-mpegurl\r\n."), line("Header=X-A:b\r\n."),
                                    line("Header done."), line("httpError=0."), line("read=5."),
                                    line("read=0."), line("eof")}));
    for (const std::string& text : story(traces)) {
        EXPECT_EQ(traces.severityOf(text), 5000U) << text;
    }
}

TEST_F(RedirectQuery, asksOnceWithGetAndCloses)
{
    m_server.on("/a", Reply().contentType("text/plain").body("hello"));
    EXPECT_EQ(askFor("/a"), md::kQueryDone);
    ASSERT_EQ(m_server.requests().size(), 1U);
    EXPECT_EQ(m_server.requests().at(0).method, "GET");
    EXPECT_FALSE(m_server.requests().at(0).hasHeader("Range"));
    EXPECT_TRUE(support::waitForEmptyRegistry());
}

TEST_F(RedirectUserAgent, isTheStoredOne)
{
    const mdch_UrlInit_struct record{"Player/1 (100%s)"};
    ASSERT_EQ(mdch_UrlInit(&record), 0);
    askFor("/a");
    EXPECT_EQ(m_server.requests().at(0).header("User-Agent"), "Player/1 (100%s)");
}

TEST_F(RedirectUserAgent, isCutAtNinetyNineCharacters)
{
    for (const std::size_t length : {98U, 99U, 100U, 500U}) {
        const std::string agent(length, 'x');
        const mdch_UrlInit_struct record{agent.c_str()};
        std::free(userAgent);
        ASSERT_EQ(mdch_UrlInit(&record), 0);
        askFor("/a");
        EXPECT_EQ(m_server.requests().back().header("User-Agent"), agent.substr(0, 99));
    }
}

TEST_F(RedirectUserAgent, isNotSentWhenThereIsNone)
{
    askFor("/a");
    EXPECT_FALSE(m_server.requests().at(0).hasHeader("User-Agent"));
}

TEST_F(RedirectQuery, failedOpenIsTracedAndAllThereIs)
{
    const TraceCapture traces;
    EXPECT_EQ(ask(""), md::kQueryFailed);
    EXPECT_EQ(story(traces), Texts{line("fd=-22: could not open .")});
    EXPECT_EQ(traces.severityOf(line("fd=-22: could not open .")), 3000U);
    EXPECT_TRUE(support::waitForEmptyRegistry());
}

TEST_F(RedirectQuery, headerThatDoesNotComeIsAFailure)
{
    m_server.on("/a", Reply::silence());
    const TraceCapture traces;
    auto asking = std::async(std::launch::async, [this] { return askFor("/a"); });
    EXPECT_TRUE(m_server.waitForRequests(1));
    EXPECT_TRUE(support::waitForDescriptor(100, [](const auto& desc) { return !desc.url.empty(); }));
    {
        // Time-outs that are over, in place of the usual seconds.
        const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(100);
        const MdpLock lock = md::lockDescriptor(*desc);
        desc->headerTimeout = -100;
        pthread_cond_broadcast(&desc->cond);
    }
    EXPECT_EQ(asking.get(), md::kQueryFailed);
    EXPECT_EQ(story(traces), (Texts{line("fd=100."), line("getHeaderError=-14."), line("Header done."),
                                    line("httpError=14.")}));
    EXPECT_EQ(traces.severityOf(line("getHeaderError=-14.")), 3000U);
}

TEST_F(RedirectQuery, transferErrorsAreFailures)
{
    const support::LoopbackPort refusing = support::closedPort();
    m_server.on("/gone", Reply::error(404));
    m_server.on("/broken", Reply::error(503));
    m_server.on("/hang-up", Reply::hangUp());
    for (const std::string& url :
         {m_server.url("/gone"), m_server.url("/broken"), m_server.url("/hang-up"), refusing.url("/")}) {
        EXPECT_EQ(ask(url), md::kQueryFailed) << url;
        EXPECT_EQ(m_query.body, "");
    }
}

TEST_F(RedirectQuery, httpErrorIsTraced)
{
    m_server.on("/a", Reply::error(404));
    const TraceCapture traces;
    askFor("/a");
    EXPECT_EQ(story(traces).back(), line("httpError=2."));
}

TEST_F(RedirectQuery, bodyOfAnErrorIsNotRead)
{
    m_server.on("/a", Reply().status(404).contentType("text/plain").body("http://host/x"));
    EXPECT_EQ(askFor("/a"), md::kQueryFailed);
    EXPECT_EQ(m_query.body, "");
}

TEST_F(RedirectQuery, redirectionToAForeignSchemeIsToldByItsLocation)
{
    m_server.on("/a", Reply::raw("HTTP/1.1 302 Found\r\nLocation: \t mms://host/x\r\n\r\n"));
    const TraceCapture traces;
    EXPECT_EQ(askFor("/a"), md::kQueryRedirected);
    EXPECT_EQ(m_query.location, "mms://host/x");
    EXPECT_EQ(story(traces),
              (Texts{line("fd=100."), line("Header=HTTP/1.1 302 Found\r\n."),
                     line("Header=Location: \t mms://host/x\r\n."), line("location=mms://host/x."),
                     line("Header done."), line("httpError=154.")}));
}

TEST_F(RedirectQuery, redirectionToHttpIsFollowed)
{
    m_server.on("/a", Reply::redirect(m_server.url("/b")));
    m_server.on("/b", Reply().contentType("text/plain").body("hello"));
    EXPECT_EQ(askFor("/a"), md::kQueryDone);
    EXPECT_EQ(m_query.body, "hello");
    EXPECT_EQ(m_query.location, "") << "the header lines are those of the last response";
}

TEST_F(RedirectQuery, answerThatIsNoHttpIsAForeignProtocolWithoutALocation)
{
    m_server.on("/a", Reply::raw("hello, world\r\n\r\n"));
    EXPECT_EQ(askFor("/a"), md::kQueryRedirected);
    EXPECT_EQ(m_query.location, "");
}

TEST_F(RedirectQuery, bodyIsReadForPlaylistTypes)
{
    for (const char* type : {"audio/x-ms-wax", "audio/x-ms-asf", "video/x-ms-wvx", "video/x-ms-asf",
                             "audio/mpegurl", "audio/x-mpegurl", "text/plain", "AUDIO/X-MPEGURL",
                             "text/plain; charset=utf-8", "Video/x-ms-asf;x", "audio/mpegurlish"}) {
        EXPECT_EQ(bodyOfType(type), "some text") << type;
    }
}

TEST_F(RedirectQuery, bodyIsNotReadForOtherTypes)
{
    const TraceCapture traces;
    for (const char* type : {"audio/mpeg", "text/html", "video/x-ms-wmv", "application/vnd.apple.mpegurl",
                             "audio/x-ms-wma", "x-audio/mpegurl", "text/plai", "audio/x-scpls", ""}) {
        EXPECT_EQ(bodyOfType(type), "") << type;
    }
    m_server.on("/none", Reply().body("some text"));
    EXPECT_EQ(askFor("/none"), md::kQueryDone);
    EXPECT_EQ(m_query.body, "");
    EXPECT_FALSE(traces.hasAnywhere("queryHeaderMDCH() read="));
}

TEST_F(RedirectQuery, blanksInFrontOfTheTypeAreSkipped)
{
    m_server.on("/a", Reply().header("CONTENT-TYPE:\t  text/plain").body("x"));
    askFor("/a");
    EXPECT_EQ(m_query.contentType, "text/plain\r\n");
    EXPECT_EQ(m_query.body, "x");
}

TEST(RedirectHeader, laterLinesReplaceEarlierOnes)
{
    HeaderQuery query;
    md::takeHeaderLines({"Content-Type: audio/mpeg\r\n", "Location: a\r\n", "content-type:text/plain\r\n",
                         "LOCATION:b\r\n", "Other: c\r\n"},
                        query);
    EXPECT_EQ(query.contentType, "text/plain\r\n");
    EXPECT_EQ(query.location, "b");
}

TEST(RedirectHeader, namesAreFoundAnywhereInALine)
{
    HeaderQuery query;
    md::takeHeaderLines({"X-Content-Type: text/plain\r\n", "Content-Location: \t/x\r\n"}, query);
    EXPECT_EQ(query.contentType, "text/plain\r\n");
    EXPECT_EQ(query.location, "/x");
    md::takeHeaderLines({"X: content-type: location: y\r\n"}, query);
    EXPECT_EQ(query.contentType, "location: y\r\n");
    EXPECT_EQ(query.location, "y");
}

TEST(RedirectHeader, namesNeedTheirColon)
{
    HeaderQuery query;
    md::takeHeaderLines({"Content-Type text/plain\r\n", "Location : x\r\n", "", "\r\n"}, query);
    EXPECT_EQ(query.contentType, "");
    EXPECT_EQ(query.location, "");
}

TEST(RedirectHeader, oneLineEndIsTakenOffTheLocation)
{
    const auto locationOf = [](const std::string& text) {
        HeaderQuery query;
        md::takeHeaderLines({"Location: " + text}, query);
        return query.location;
    };
    EXPECT_EQ(locationOf("x\r\n"), "x");
    EXPECT_EQ(locationOf("x\n"), "x");
    EXPECT_EQ(locationOf("x\r"), "x");
    EXPECT_EQ(locationOf("x"), "x");
    EXPECT_EQ(locationOf("x\r\n\r\n"), "x\r\n");
    EXPECT_EQ(locationOf("x\n\r"), "x\n");
    EXPECT_EQ(locationOf("x \t\r\n"), "x \t");
    EXPECT_EQ(locationOf("\r\n"), "");
    EXPECT_EQ(locationOf(""), "");
}
