// Whole header blocks from servers: status, type, cookies, and blocks behind the first.
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <algorithm>

using support::At;
using support::Gate;
using support::HttpServer;
using support::HttpStream;
using support::Media;
using support::Reply;
using support::Request;
using support::TraceCapture;
using support::TransferFacts;

namespace {

using Lines = std::vector<std::string>;

std::string headerTrace(const std::string& text)
{
    return "mdchHttpCurl_headerCallback(): " + text + "\n";
}

class HttpHeaderBlock : public support::HttpClientTest
{
protected:
    static bool hasLine(const Lines& lines, const std::string& wanted)
    {
        return std::find(lines.begin(), lines.end(), wanted) != lines.end();
    }

    TraceCapture traces;
    HttpServer server;
};

} // namespace

// --- Status ---

TEST_F(HttpHeaderBlock, SuccessConnects)
{
    for (const int status : {200, 201, 206, 299}) {
        traces.clear();
        server.on("/ok", Reply().status(status).contentType("audio/mpeg").body("hello"));
        HttpStream stream;
        EXPECT_EQ(stream.fetch(server.url("/ok")), "hello");
        const TransferFacts facts = stream.facts();
        EXPECT_EQ(facts.connected, 1);
        EXPECT_EQ(facts.headerComplete, 1);
        EXPECT_EQ(facts.httpStatus, status);
        EXPECT_EQ(facts.contentType, "audio/mpeg");
        EXPECT_EQ(stream.getResponseCode(), status);
        EXPECT_EQ(stream.error(), 0);
        const std::string text =
            headerTrace("got connect for type 'audio/mpeg' with size 5 on " + stream.fd());
        EXPECT_EQ(traces.count(text), 1U);
        EXPECT_EQ(traces.severityOf(text), 4000U);
    }
}

TEST_F(HttpHeaderBlock, SuccessWithoutABodyConnects)
{
    server.on("/empty", Reply().status(204));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/empty")), "");
    EXPECT_EQ(stream.facts().connected, 1);
    EXPECT_EQ(stream.facts().headerComplete, 1);
    EXPECT_EQ(stream.error(), 0);
}

TEST_F(HttpHeaderBlock, HeaderIsCompleteBeforeTheBodyComes)
{
    Gate gate;
    server.on("/slow", Reply().contentType("audio/ogg").body("hello").wait(At::body(), gate));
    HttpStream stream;
    stream.start(server.url("/slow"));
    EXPECT_EQ(stream.getResponseCode(), 200);
    EXPECT_EQ(stream.size(), 5);
    const TransferFacts facts = stream.facts();
    EXPECT_EQ(facts.connected, 1);
    EXPECT_EQ(facts.headerComplete, 1);
    EXPECT_EQ(facts.done, 0);
    EXPECT_EQ(facts.contentType, "audio/ogg");
    gate.open();
    EXPECT_EQ(stream.readAll(), "hello");
}

TEST_F(HttpHeaderBlock, ClientErrorsEndTheTransfer)
{
    for (const int status : {400, 404, 406, 416, 499}) {
        server.on("/bad", Reply::error(status).contentType("text/plain"));
        HttpStream stream;
        EXPECT_EQ(stream.fetch(server.url("/bad")), "");
        EXPECT_EQ(stream.error(), 2);
        EXPECT_EQ(stream.getResponseCode(), status);
        const TransferFacts facts = stream.facts();
        EXPECT_EQ(facts.connected, 0);
        EXPECT_EQ(facts.headerComplete, 0);
        EXPECT_EQ(facts.done, 1);
        EXPECT_EQ(facts.contentType, "text/plain");
        EXPECT_EQ(facts.buffered, 0U);
        const std::string text = headerTrace("got error " + std::to_string(status) + " on fd " + stream.fd());
        EXPECT_EQ(traces.count(text), 1U);
        EXPECT_EQ(traces.severityOf(text), 3000U);
    }
}

TEST_F(HttpHeaderBlock, ServerErrorsEndTheTransfer)
{
    for (const int status : {500, 503, 599, 600, 999}) {
        server.on("/bad", Reply().status(status, "Bad").body("sorry"));
        HttpStream stream;
        EXPECT_EQ(stream.fetch(server.url("/bad")), "");
        EXPECT_EQ(stream.error(), 22);
        EXPECT_EQ(stream.getResponseCode(), status);
        const TransferFacts facts = stream.facts();
        EXPECT_EQ(facts.connected, 0);
        EXPECT_EQ(facts.headerComplete, 0);
        EXPECT_EQ(facts.done, 1);
        const std::string text =
            headerTrace("got server error " + std::to_string(status) + " on fd " + stream.fd());
        EXPECT_EQ(traces.count(text), 1U);
        EXPECT_EQ(traces.severityOf(text), 3000U);
    }
}

TEST_F(HttpHeaderBlock, MovedContentChangesNothingWhileRedirectsAreFollowed)
{
    Gate gate;
    server.on("/moved", Reply::redirect("/there"));
    server.on("/there", Reply().wait(At::start(), gate).body("there"));
    HttpStream stream;
    stream.start(server.url("/moved"));
    ASSERT_TRUE(gate.waitForArrivals(1));
    const TransferFacts facts = stream.facts();
    EXPECT_EQ(facts.connected, 0);
    EXPECT_EQ(facts.headerComplete, 0);
    EXPECT_EQ(facts.done, 0);
    EXPECT_EQ(facts.error, 0);
    EXPECT_EQ(facts.httpStatus, 302);
    const std::string text = headerTrace("got moved content on fd " + stream.fd());
    EXPECT_EQ(traces.count(text), 1U);
    EXPECT_EQ(traces.severityOf(text), 4000U);
    gate.open();
    EXPECT_EQ(stream.readAll(), "there");
    EXPECT_EQ(stream.getResponseCode(), 200);
}

TEST_F(HttpHeaderBlock, MovedContentEndsTheTransferWhileRedirectsAreNotFollowed)
{
    for (const int status : {300, 301, 302, 303, 307, 308, 399}) {
        server.on("/moved", Reply::redirect("/there", status));
        HttpStream stream;
        stream.fcntl(MDCH_FCNTL_FOLLOW_REDIRECTS, 0);
        EXPECT_EQ(stream.fetch(server.url("/moved")), "");
        EXPECT_EQ(stream.error(), MDCH_HTTP_EMOVED);
        EXPECT_EQ(stream.getResponseCode(), status);
        EXPECT_EQ(stream.facts().connected, 0);
        EXPECT_EQ(stream.facts().headerComplete, 0);
        EXPECT_TRUE(traces.has(headerTrace("got moved content on fd " + stream.fd())));
    }
    EXPECT_TRUE(server.requests("/there").empty());
}

TEST_F(HttpHeaderBlock, MovedContentWithoutALocationDeliversItsBody)
{
    server.on("/choices", Reply().status(300).body("choose"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/choices")), "choose");
    EXPECT_EQ(stream.getResponseCode(), 300);
    EXPECT_EQ(stream.error(), 0);
    EXPECT_TRUE(traces.has(headerTrace("got moved content on fd " + stream.fd())));
}

// --- Content type ---

TEST_F(HttpHeaderBlock, ContentTypeIsTakenWhole)
{
    server.on("/typed", Reply().contentType("text/html; charset=utf-8").body("x"));
    server.on("/untyped", Reply().body("x"));
    HttpStream stream;
    stream.fetch(server.url("/typed"));
    EXPECT_EQ(stream.facts().contentType, "text/html; charset=utf-8");
    stream.fetch(server.url("/untyped"));
    EXPECT_EQ(stream.facts().contentType, "");
}

// --- Cookies ---

TEST_F(HttpHeaderBlock, CookiesAreJoinedInOrder)
{
    server.on("/login", Reply().cookie("first=1").cookie("second=2; Path=/x").body("ok"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/login")), "ok");
    const std::string expected =
        "127.0.0.1\tFALSE\t/\tFALSE\t0\tfirst\t1;127.0.0.1\tFALSE\t/x\tFALSE\t0\tsecond\t2";
    EXPECT_EQ(stream.getCookies(), expected);
    const std::string text = headerTrace("got cookies on fd " + stream.fd() + ": '" + expected + "'");
    EXPECT_EQ(traces.count(text), 1U);
    EXPECT_EQ(traces.severityOf(text), 5000U);
}

TEST_F(HttpHeaderBlock, CookiesOfAnErrorAreTaken)
{
    server.on("/denied", Reply::error(403).cookie("a=1"));
    HttpStream stream;
    stream.fetch(server.url("/denied"));
    EXPECT_EQ(stream.getCookies(), "127.0.0.1\tFALSE\t/\tFALSE\t0\ta\t1");
}

TEST_F(HttpHeaderBlock, HeaderWithoutCookiesEmptiesThem)
{
    server.on("/plain", Reply().body("ok"));
    HttpStream stream;
    stream.setCookie("mine=1");
    EXPECT_EQ(stream.getCookies(), "mine=1");
    EXPECT_EQ(stream.fetch(server.url("/plain")), "ok");
    EXPECT_EQ(stream.getCookies(), "");
    EXPECT_FALSE(traces.hasAnywhere("got cookies"));
}

// --- Blocks behind the first ---

TEST_F(HttpHeaderBlock, RedirectsBlockIsForgotten)
{
    server.on("/moved", Reply::redirect("/there").header("Content-Range: bytes 0-1/999").header("X-Old: 1"));
    server.on("/there", Reply().header("X-New: 1").chunked().body("there"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/moved")), "there");
    EXPECT_TRUE(traces.has("mdchHttpParseHeaderLine(): instance length 999 on fd " + stream.fd() + ". \n"));
    EXPECT_EQ(stream.facts().instanceLength, -1);
    EXPECT_EQ(stream.size(), -1);
    EXPECT_EQ(stream.headerList(),
              (Lines{"HTTP/1.1 200 OK\r\n", "X-New: 1\r\n", "Transfer-Encoding: chunked\r\n"}));
}

TEST_F(HttpHeaderBlock, InterimResponsesAreForgotten)
{
    const Lines noise{"X-Interim: 1", "Content-Range: bytes 0-4/4711"};
    server.on("/early",
              Reply().interim(100).interim(103, noise).contentType("audio/mpeg").chunked().body("x"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/early")), "x");
    EXPECT_EQ(stream.getResponseCode(), 200);
    EXPECT_EQ(stream.error(), 0);
    EXPECT_EQ(stream.size(), -1);
    EXPECT_EQ(stream.facts().contentType, "audio/mpeg");
    EXPECT_EQ(stream.headerList(), (Lines{"HTTP/1.1 200 OK\r\n", "Content-Type: audio/mpeg\r\n",
                                          "Transfer-Encoding: chunked\r\n"}));
}

TEST_F(HttpHeaderBlock, InterimResponseDoesNotConnect)
{
    Gate gate;
    server.on("/early", Reply().interim(103).wait(At::start(), gate).body("x"));
    HttpStream stream;
    stream.start(server.url("/early"));
    ASSERT_TRUE(gate.waitForArrivals(1));
    ASSERT_TRUE(support::waitUntil([&] { return stream.facts().headerBlockEnded != 0; }));
    EXPECT_EQ(stream.facts().connected, 0);
    EXPECT_EQ(stream.facts().headerComplete, 0);
    EXPECT_EQ(stream.facts().done, 0);
    gate.open();
    EXPECT_EQ(stream.readAll(), "x");
}

TEST_F(HttpHeaderBlock, BlocksWithBareLineFeedsEndLikeOthers)
{
    server.on("/lf",
              Reply().lineEnd("\n").contentType("audio/mpeg").header("Accept-Ranges: none").body("hello"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/lf")), "hello");
    EXPECT_EQ(stream.getResponseCode(), 200);
    EXPECT_EQ(stream.size(), 5);
    EXPECT_EQ(stream.capability(), 4U);
    EXPECT_EQ(stream.facts().contentType, "audio/mpeg");
    EXPECT_EQ(stream.headerList(), (Lines{"HTTP/1.1 200 OK\n", "Content-Type: audio/mpeg\n",
                                          "Accept-Ranges: none\n", "Content-Length: 5\n"}));
}

// What a server sends that writes CR LF through a text mode.
TEST_F(HttpHeaderBlock, BlocksWithACarriageReturnTooManyEndLikeOthers)
{
    server.on("/odd", Reply().lineEnd("\r\r\n").contentType("audio/mpeg").body("hello"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/odd")), "hello");
    EXPECT_EQ(stream.getResponseCode(), 200);
    EXPECT_EQ(stream.size(), 5);
    EXPECT_EQ(stream.eof(), 1);
    EXPECT_EQ(stream.error(), 0) << "the header was not cut off";
}

TEST_F(HttpHeaderBlock, RedirectWithBareLineFeedsIsForgotten)
{
    server.on("/moved", Reply::redirect("/there").lineEnd("\n").header("X-Old: 1"));
    server.on("/there", Reply().lineEnd("\n").body("there"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/moved")), "there");
    EXPECT_EQ(stream.headerList(), (Lines{"HTTP/1.1 200 OK\n", "Content-Length: 5\n"}));
}

TEST_F(HttpHeaderBlock, TrailersChangeNothing)
{
    Reply reply;
    reply.header("Accept-Ranges: bytes").header("X-First: 1").chunked({2}).body("hello");
    reply.trailer("X-Trailer: 1").trailer("Accept-Ranges: none").trailer("Content-Range: bytes 0-4/4711");
    reply.trailer("contentFeatures.dlna.org: DLNA.ORG_OP=10").trailer("TimeSeekRange.dlna.org: bytes=5-");
    reply.trailer("Content-Length: 4712");
    server.on("/trailed", reply);
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/trailed")), "hello");
    const Lines lines = stream.headerList();
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(lines[0], "HTTP/1.1 200 OK\r\n");
    EXPECT_TRUE(hasLine(lines, "Accept-Ranges: bytes\r\n"));
    EXPECT_TRUE(hasLine(lines, "X-First: 1\r\n"));
    EXPECT_EQ(stream.capability(), 5U);
    EXPECT_EQ(stream.size(), -1);
    EXPECT_EQ(stream.facts().instanceLength, -1);
    EXPECT_EQ(stream.tell(), 5);
    EXPECT_EQ(stream.error(), 0);
}

TEST_F(HttpHeaderBlock, BlockOfASeekReplacesTheOneBefore)
{
    const Media media(4);
    server.onSequence("/song", {Reply::resource(media, 400000).header("X-First: 1"),
                                Reply::resource(media, 400000).header("X-Second: 1")});
    HttpStream stream;
    stream.start(server.url("/song"));
    ASSERT_EQ(stream.seek(300000, SEEK_SET), 0);
    const Lines lines = stream.headerList();
    EXPECT_EQ(lines.at(0), "HTTP/1.1 206 Partial Content\r\n");
    EXPECT_TRUE(hasLine(lines, "X-Second: 1\r\n"));
    EXPECT_FALSE(hasLine(lines, "X-First: 1\r\n"));
    EXPECT_EQ(stream.getResponseCode(), 206);
}
