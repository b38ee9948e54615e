// Requests as they go over the wire, byte by byte, and what building them leaves in the descriptor.
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <boost/make_shared.hpp>
#include <cstdlib>

using support::HttpServer;
using support::HttpStream;
using support::Media;
using support::Reply;
using support::Request;
using support::TraceCapture;

namespace {

using Lines = std::vector<std::string>;

class HttpRequest : public support::HttpClientTest
{
protected:
    HttpRequest()
    {
        server.otherwise([](const Request&) { return Reply().body("body"); });
    }

    std::string hostLine() const { return "Host: 127.0.0.1:" + std::to_string(server.port()); }

    // The only request that came.
    Request request() const
    {
        EXPECT_TRUE(server.waitForRequests(1));
        const std::vector<Request> all = server.requests();
        EXPECT_EQ(all.size(), 1U);
        return all.empty() ? Request() : all.front();
    }

    HttpServer server;
};

const std::string kInit = "mdchHttpCurl_initDescriptor() ";

// A descriptor that the engine does not know, so that nothing acts on it.
md::MdchDescriptorPtr loneDescriptor(int number = 7)
{
    auto desc = boost::make_shared<md::MdchCurlDescriptor_struct>();
    desc->fd = number;
    desc->url = "http://127.0.0.1/";
    return desc;
}

} // namespace

// --- The plain request ---

TEST_F(HttpRequest, PlainGetIsRequestLineHostAndAccept)
{
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/song?x=1")), "body");
    EXPECT_EQ(request().head, "GET /song?x=1 HTTP/1.1\r\n" + hostLine() + "\r\nAccept: */*\r\n\r\n");
}

TEST_F(HttpRequest, UserAgentGoesOutWhenSet)
{
    HttpStream stream("Radio/1.0 (x)");
    stream.fetch(server.url("/"));
    EXPECT_EQ(request().head,
              "GET / HTTP/1.1\r\n" + hostLine() + "\r\nUser-Agent: Radio/1.0 (x)\r\nAccept: */*\r\n\r\n");
}

TEST_F(HttpRequest, UserAgentCanBeSetBeforeTheOpen)
{
    HttpStream stream("First/1.0");
    stream.setUserAgent("Second/2.0");
    stream.fetch(server.url("/"));
    EXPECT_EQ(request().headerValues("User-Agent"), Lines{"Second/2.0"});
}

TEST_F(HttpRequest, UserLinesGoOutInListOrderBehindAccept)
{
    const TraceCapture traces;
    HttpStream stream;
    stream.setHeaderLine("X-Second: b");
    stream.setHeaderLine("X-First: a");
    stream.setHeaderLine("Icy-MetaData:1");
    stream.fetch(server.url("/"));
    EXPECT_EQ(request().lines,
              (Lines{hostLine(), "Accept: */*", "X-Second: b", "X-First: a", "Icy-MetaData:1"}));
    EXPECT_EQ(traces.count(kInit + "add header to request: X-Second: b\n"), 1U);
    EXPECT_EQ(traces.count(kInit + "add header to request: X-First: a\n"), 1U);
    EXPECT_EQ(traces.severityOf(kInit + "add header to request: X-First: a\n"), 5000U);
}

TEST_F(HttpRequest, BlanksGoOutEscapedAndNothingElseIsTouched)
{
    HttpStream stream;
    stream.fetch(server.url("/a b/c%41%zz+'(~;,=!*&@:$?x=y  z&q=%20;[]{}|^`\\"));
    EXPECT_EQ(request().target, "/a%20b/c%41%zz+'(~;,=!*&@:$?x=y%20%20z&q=%20;[]{}|^`\\");
}

// RFC 3986, 5.2.4; relative redirects count on it.
TEST_F(HttpRequest, DotSegmentsAreResolvedBeforeTheRequest)
{
    HttpStream stream;
    stream.fetch(server.url("/a/../b/./c//d/.."));
    EXPECT_EQ(request().target, "/b/c//");
}

TEST_F(HttpRequest, UrlWithControlBytesIsRefused)
{
    for (const std::string tail : {"/a\r\nX-Injected: 1", "/a\tb", "/a\x7f"}) {
        HttpStream stream;
        EXPECT_EQ(stream.fetch(server.url(tail)), "");
        ASSERT_TRUE(stream.waitDone());
        EXPECT_EQ(stream.error(), MDCH_HTTP_EUNKNOWN);
    }
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(HttpRequest, BlanksStayInTheDescriptorsUrl)
{
    const md::MdchDescriptorPtr desc = loneDescriptor();
    desc->url = "http://127.0.0.1/a b";
    mdchHttpCurl_initDescriptor(desc, 0);
    EXPECT_EQ(desc->url, "http://127.0.0.1/a b");
}

TEST_F(HttpRequest, HeadAsksForNoBody)
{
    const TraceCapture traces;
    server.on("/head", Reply().contentType("audio/mpeg").body("hello"));
    HttpStream stream("", true);
    EXPECT_EQ(stream.fetch(server.url("/head")), "");
    EXPECT_EQ(request().head, "HEAD /head HTTP/1.1\r\n" + hostLine() + "\r\nAccept: */*\r\n\r\n");
    EXPECT_EQ(stream.size(), 5);
    EXPECT_EQ(stream.facts().contentType, "audio/mpeg");
    EXPECT_EQ(stream.error(), 0);
    const std::string text = kInit + "start a HEAD request on fd " + stream.fd() + "\n";
    EXPECT_EQ(traces.count(text), 1U);
    EXPECT_EQ(traces.severityOf(text), 5000U);
}

// --- Body ---

TEST_F(HttpRequest, BodyMakesItAPost)
{
    const std::string body("a=1\0&b=\xff\r\n", 10);
    HttpStream stream;
    stream.start(server.url("/form"), body, 0);
    EXPECT_EQ(stream.readAll(), "body");
    const Request sent = request();
    EXPECT_EQ(sent.method, "POST");
    EXPECT_EQ(sent.body, body);
    EXPECT_EQ(sent.header("Content-Length"), "10");
    EXPECT_EQ(sent.countHeader("Range"), 0U);
    EXPECT_EQ(sent.countHeader("Content-Range"), 0U);
}

TEST_F(HttpRequest, EmptyBodyMakesItAGet)
{
    HttpStream stream;
    stream.start(server.url("/form"), "", 0);
    stream.readAll();
    EXPECT_EQ(request().method, "GET");
}

TEST_F(HttpRequest, PostWithAStartPositionSendsARangeAndNoContentRange)
{
    server.on("/post", Reply::resource("0123456789"));
    HttpStream stream;
    stream.setHeaderLine("X-Mine: 1");
    stream.start(server.url("/post"), "question", 4);
    EXPECT_EQ(stream.readAll(), "456789");
    const Request sent = request();
    EXPECT_EQ(sent.headerValues("Range"), Lines{"bytes=4-"});
    EXPECT_EQ(sent.countHeader("Content-Range"), 0U);
    EXPECT_EQ(sent.header("X-Mine"), "1");
    EXPECT_EQ(sent.body, "question");
}

TEST_F(HttpRequest, SeekSendsThePostAgain)
{
    const Media media(3);
    server.on("/post", Reply::resource(media, 400000));
    HttpStream stream;
    stream.start(server.url("/post"), "question", 0);
    ASSERT_EQ(stream.readSome(10), media.bytes(0, 10));
    ASSERT_EQ(stream.seek(390000, SEEK_SET), 0);
    EXPECT_EQ(stream.readSome(10), media.bytes(390000, 10));
    const std::vector<Request> sent = server.requests();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[1].method, "POST");
    EXPECT_EQ(sent[1].body, "question");
    EXPECT_EQ(sent[1].headerValues("Range"), Lines{"bytes=390000-"});
    EXPECT_EQ(sent[1].countHeader("Content-Range"), 0U);
}

// --- Range ---

TEST_F(HttpRequest, RangeFromTheStartOnlyWhenForced)
{
    HttpStream stream;
    stream.fetch(server.url("/plain"));
    stream.fcntl(MDCH_FCNTL_FORCE_RANGE);
    stream.fetch(server.url("/forced"));
    EXPECT_EQ(server.requests("/plain").at(0).countHeader("Range"), 0U);
    EXPECT_EQ(server.requests("/forced").at(0).headerValues("Range"), Lines{"bytes=0-"});
}

TEST_F(HttpRequest, ForcedRangeGoesOutWithAPost)
{
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_FORCE_RANGE);
    stream.start(server.url("/"), "question", 0);
    stream.readAll();
    EXPECT_EQ(request().headerValues("Range"), Lines{"bytes=0-"});
    EXPECT_EQ(request().countHeader("Content-Range"), 0U);
}

TEST_F(HttpRequest, ForcedRangeHasNoEffectInADlnaMode)
{
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_FORCE_RANGE);
    stream.fcntl(MDCH_FCNTL_DLNA_MODE, 1);
    stream.fetch(server.url("/"));
    EXPECT_EQ(request().countHeader("Range"), 0U);
}

TEST_F(HttpRequest, StartPositionAsksForTheRest)
{
    server.on("/song", Reply::resource("0123456789"));
    HttpStream stream;
    stream.start(server.url("/song"), "", 7);
    EXPECT_EQ(stream.readAll(), "789");
    EXPECT_EQ(request().head,
              "GET /song HTTP/1.1\r\n" + hostLine() + "\r\nRange: bytes=7-\r\nAccept: */*\r\n\r\n");
    EXPECT_EQ(stream.tell(), 10);
}

// --- DLNA ---

TEST_F(HttpRequest, DlnaModeAddsTwoLinesBehindTheUsers)
{
    for (const auto& [mode, name] :
         {std::pair<int, std::string>{1, "Streaming"}, {2, "Interactive"}, {3, "Background"}}) {
        HttpStream stream;
        stream.setHeaderLine("X-Mine: 1");
        stream.fcntl(MDCH_FCNTL_DLNA_MODE, mode);
        stream.fetch(server.url("/" + name));
        EXPECT_EQ(server.requests("/" + name).at(0).lines,
                  (Lines{hostLine(), "Accept: */*", "X-Mine: 1", "getcontentFeatures.dlna.org: 1",
                         "transferMode.dlna.org: " + name}));
    }
}

TEST_F(HttpRequest, OtherDlnaModesAddNothing)
{
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_DLNA_MODE, 4);
    stream.fetch(server.url("/"));
    EXPECT_EQ(request().lines, (Lines{hostLine(), "Accept: */*"}));
}

TEST_F(HttpRequest, CapabilitiesBeforeTheResponseFollowTheDlnaMode)
{
    for (const auto& [mode, expected] :
         {std::pair<int, unsigned int>{0, 4U}, {1, 5U}, {2, 5U}, {3, 5U}, {4, 0U}, {-1, 0U}}) {
        const md::MdchDescriptorPtr desc = loneDescriptor();
        desc->capabilities = 2;
        desc->dlnaTransferMode = mode;
        EXPECT_EQ(mdchHttpCurl_initDescriptor(desc, 0), 0);
        EXPECT_EQ(desc->capabilities, expected) << "mode " << mode;
    }
}

// --- Cookies ---

TEST_F(HttpRequest, CookiesGoOutAsTheyWereGiven)
{
    const TraceCapture traces;
    HttpStream stream;
    stream.setCookie("a=1");
    stream.setCookie("");
    stream.setCookie("b=2");
    stream.fetch(server.url("/"));
    EXPECT_EQ(request().headerValues("Cookie"), Lines{"a=1;b=2"});
    EXPECT_EQ(traces.count(kInit + "add cookies to request: a=1;b=2\n"), 1U);
    EXPECT_EQ(traces.severityOf(kInit + "add cookies to request: a=1;b=2\n"), 5000U);
}

TEST_F(HttpRequest, WithoutCookiesNoneAreSent)
{
    const TraceCapture traces;
    HttpStream stream;
    stream.fetch(server.url("/"));
    EXPECT_EQ(request().countHeader("Cookie"), 0U);
    EXPECT_FALSE(traces.hasAnywhere("add cookies to request"));
}

// --- What the descriptor holds afterwards ---

TEST_F(HttpRequest, BuiltRequestIsConfiguredFromItsStartPosition)
{
    const TraceCapture traces;
    const md::MdchDescriptorPtr desc = loneDescriptor(4711);
    EXPECT_EQ(mdchHttpCurl_initDescriptor(desc, 123), 0);
    EXPECT_EQ(desc->state, md::kStateConfigured);
    EXPECT_NE(desc->easy, nullptr);
    EXPECT_EQ(desc->inMulti, 0);
    EXPECT_STREQ(desc->rangeText, "123-");
    EXPECT_EQ(desc->startPos, 123);
    EXPECT_EQ(desc->writePos, 123);
    EXPECT_NE(desc->receiveBufferMemory, nullptr);
    EXPECT_EQ(desc->ringBuffer.availableBytes(), 196608U);
    ASSERT_NE(desc->http200Aliases, nullptr);
    EXPECT_STREQ(desc->http200Aliases->data, "ICY 200 OK");
    EXPECT_EQ(desc->http200Aliases->next, nullptr);
    EXPECT_EQ(desc->requestHeaders, nullptr);
    const std::string text = "mdchHttpCurl_initDescriptor(): receive buffer size 196608 on fd 4711\n";
    EXPECT_EQ(traces.count(text), 1U);
    EXPECT_EQ(traces.severityOf(text), 5000U);
}

TEST_F(HttpRequest, ReceiveBufferHasTheSizeAskedFor)
{
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_BUFFER_SIZE, 98304);
    server.on("/long", Reply::endless());
    stream.start(server.url("/long"));
    EXPECT_TRUE(support::waitUntil([&] { return stream.facts().buffered > 98304U - CURL_MAX_WRITE_SIZE; }));
    EXPECT_LE(stream.facts().buffered, 98304U);
}

TEST_F(HttpRequest, FailedReceiveBufferIsReportedAndTheRequestStillConfigured)
{
    const TraceCapture traces;
    const md::MdchDescriptorPtr desc = loneDescriptor(12);
    desc->receiveBufferSize = -1;
    EXPECT_EQ(mdchHttpCurl_initDescriptor(desc, 0), 0);
    EXPECT_EQ(desc->state, md::kStateConfigured);
    EXPECT_NE(desc->easy, nullptr);
    EXPECT_EQ(desc->ringBuffer.availableBytes(), 0U);
    const std::string text = "mdchHttpCurl_initDescriptor(): error obtaining receive buffer on fd 12\n";
    EXPECT_EQ(traces.count(text), 1U);
    EXPECT_EQ(traces.severityOf(text), 3000U);
}

TEST_F(HttpRequest, WithoutReceiveBufferTheFirstBlockEndsTheTransfer)
{
    HttpStream stream;
    stream.fetch(server.url("/first"));
    {
        const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(stream.number());
        const MdpLock lock = md::lockDescriptor(*desc);
        desc->receiveBufferSize = -1;
    }
    EXPECT_EQ(stream.fetch(server.url("/second")), "");
    ASSERT_TRUE(stream.waitDone());
    EXPECT_EQ(stream.error(), MDCH_HTTP_EUNKNOWN);
    EXPECT_EQ(server.requests("/second").size(), 1U);
}

// --- Radio servers ---

TEST_F(HttpRequest, IcyStatusLineCountsAsSuccess)
{
    server.on("/radio", Reply::icy("Radio One", 8192).header("Content-Type: audio/mpeg").body("music"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/radio")), "music");
    EXPECT_EQ(stream.getResponseCode(), 200);
    EXPECT_EQ(stream.error(), 0);
    EXPECT_EQ(stream.facts().contentType, "audio/mpeg");
    EXPECT_EQ(stream.headerList().at(0), "ICY 200 OK\r\n");
    EXPECT_EQ(stream.size(), -1);
}
