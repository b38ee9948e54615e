// Requests behind the first: redirects, seeks and a second open on the same stream.
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/sockets.h"
#include "support/trace_capture.h"

#include <algorithm>
#include <sys/socket.h>

using support::At;
using support::Gate;
using support::HttpServer;
using support::HttpStream;
using support::Media;
using support::Reply;
using support::Request;
using support::TraceCapture;

namespace {

using Lines = std::vector<std::string>;

class HttpRequestAgain : public support::HttpClientTest
{
protected:
    // "/0" leads to "/1" and so on; "/<count>" is the target.
    void chain(int count)
    {
        for (int i = 0; i < count; ++i) {
            server.on("/" + std::to_string(i), Reply::redirect("/" + std::to_string(i + 1)));
        }
        server.on("/" + std::to_string(count), Reply().body("target"));
    }

    static bool hasLine(const Lines& lines, const std::string& wanted)
    {
        return std::find(lines.begin(), lines.end(), wanted) != lines.end();
    }

    HttpServer server;
};

const std::string kPath = "/song";

} // namespace

// --- Redirects ---

TEST_F(HttpRequestAgain, FiftyRedirectsAreFollowed)
{
    chain(50);
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/0")), "target");
    EXPECT_EQ(stream.error(), 0);
    EXPECT_EQ(server.requests().size(), 51U);
}

TEST_F(HttpRequestAgain, OneRedirectMoreEndsWithANetworkError)
{
    const TraceCapture traces;
    chain(51);
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/0")), "");
    EXPECT_EQ(stream.error(), MDCH_HTTP_ENETWORK);
    EXPECT_EQ(server.requests().size(), 51U);
    const std::string received =
        "mdchHttpCurl_fillBuffer(): received error on fd " + stream.fd() + " (47=>152)\n";
    EXPECT_TRUE(traces.waitFor(received));
    EXPECT_EQ(traces.severityOf(received), 3000U);
    EXPECT_EQ(traces.count("MDCH_HTTP_ENETWORK for fd " + stream.fd() + "\n"), 1U);
}

TEST_F(HttpRequestAgain, MostRedirectsCanBeSet)
{
    chain(3);
    HttpStream enough;
    enough.fcntl(MDCH_FCNTL_MAX_REDIRECTS, 3);
    EXPECT_EQ(enough.fetch(server.url("/0")), "target");
    HttpStream tooFew;
    tooFew.fcntl(MDCH_FCNTL_MAX_REDIRECTS, 2);
    EXPECT_EQ(tooFew.fetch(server.url("/0")), "");
    EXPECT_EQ(tooFew.error(), MDCH_HTTP_ENETWORK);
}

TEST_F(HttpRequestAgain, RedirectIsReportedWhenNotFollowed)
{
    server.on("/moved", Reply::redirect("http://127.0.0.1:9/elsewhere", 301).body("gone there"));
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_FOLLOW_REDIRECTS, 0);
    EXPECT_EQ(stream.fetch(server.url("/moved")), "");
    EXPECT_EQ(stream.error(), MDCH_HTTP_EMOVED);
    EXPECT_EQ(stream.getResponseCode(), 301);
    EXPECT_TRUE(hasLine(stream.headerList(), "Location: http://127.0.0.1:9/elsewhere\r\n"));
    const support::TransferFacts facts = stream.facts();
    EXPECT_EQ(facts.connected, 0);
    EXPECT_EQ(facts.headerComplete, 0);
    EXPECT_EQ(facts.done, 1);
}

TEST_F(HttpRequestAgain, RedirectToAnotherProtocolEndsTheTransferAndKeepsItsLocation)
{
    for (const std::string target :
         {"ftp://127.0.0.1:9/file", "file:///etc/passwd", "gopher://127.0.0.1:9/"}) {
        server.on("/moved", Reply::redirect(target));
        HttpStream stream;
        EXPECT_EQ(stream.fetch(server.url("/moved")), "");
        EXPECT_EQ(stream.error(), MDCH_HTTP_EPROTOCOL) << target;
        EXPECT_TRUE(hasLine(stream.headerList(), "Location: " + target + "\r\n")) << target;
    }
}

TEST_F(HttpRequestAgain, FirstUrlOfAnotherProtocolIsRefused)
{
    for (const std::string url : {"ftp://127.0.0.1:9/file", "file:///etc/passwd"}) {
        HttpStream stream;
        EXPECT_EQ(stream.fetch(url), "");
        EXPECT_EQ(stream.error(), MDCH_HTTP_EPROTOCOL) << url;
    }
}

TEST_F(HttpRequestAgain, LinesAndRangeGoAlongOnARedirect)
{
    server.on("/moved", Reply::redirect(kPath));
    server.on(kPath, Reply::resource("0123456789"));
    HttpStream stream("Radio/1.0");
    stream.setHeaderLine("X-Mine: 1");
    stream.start(server.url("/moved"), "", 4);
    EXPECT_EQ(stream.readAll(), "456789");
    const Request sent = server.requests(kPath).at(0);
    EXPECT_EQ(sent.header("X-Mine"), "1");
    EXPECT_EQ(sent.header("Range"), "bytes=4-");
    EXPECT_EQ(sent.header("User-Agent"), "Radio/1.0");
}

TEST_F(HttpRequestAgain, BlanksInALocationGoOutEscaped)
{
    server.on("/moved", Reply::redirect("/a b?c d"));
    server.on("/a%20b", Reply().body("there"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/moved")), "there");
}

// --- Cookies ---

TEST_F(HttpRequestAgain, ReceivedCookiesGoAlongOnARedirect)
{
    server.on("/login", Reply::redirect(kPath).cookie("session=42"));
    server.on(kPath, Reply().body("ok"));
    HttpStream stream;
    stream.setCookie("mine=1");
    EXPECT_EQ(stream.fetch(server.url("/login")), "ok");
    EXPECT_EQ(server.requests("/login").at(0).header("Cookie"), "mine=1");
    const std::string sent = server.requests(kPath).at(0).header("Cookie");
    EXPECT_NE(sent.find("session=42"), std::string::npos) << sent;
    EXPECT_NE(sent.find("mine=1"), std::string::npos) << sent;
    EXPECT_EQ(sent.find('\t'), std::string::npos) << sent;
}

TEST_F(HttpRequestAgain, ReceivedCookiesGoAlongOnASeek)
{
    const Media media(5);
    server.on(kPath, Reply::resource(media, 400000).cookie("session=42"));
    HttpStream stream;
    stream.setCookie("mine=1");
    stream.start(server.url(kPath));
    ASSERT_EQ(stream.readSome(10), media.bytes(0, 10));
    ASSERT_EQ(stream.seek(300000, SEEK_SET), 0);
    EXPECT_EQ(stream.readSome(10), media.bytes(300000, 10));
    const std::string sent = server.requests(kPath).at(1).header("Cookie");
    EXPECT_NE(sent.find("session=42"), std::string::npos) << sent;
    EXPECT_NE(sent.find("mine=1"), std::string::npos) << sent;
    EXPECT_EQ(sent.find('\t'), std::string::npos) << sent;
}

TEST_F(HttpRequestAgain, SecondOpenSendsTheCallersCookieAndNotTheLinesReadBack)
{
    server.on("/a", Reply().cookie("session=42").body("a"));
    server.on("/b", Reply().body("b"));
    HttpStream stream;
    stream.setCookie("mine=1");
    EXPECT_EQ(stream.fetch(server.url("/a")), "a");
    EXPECT_NE(stream.getCookies().find("session\t42"), std::string::npos) << stream.getCookies();
    EXPECT_EQ(stream.fetch(server.url("/b")), "b");
    EXPECT_EQ(server.requests("/b").at(0).headerValues("Cookie"), Lines{"mine=1"});
}

TEST_F(HttpRequestAgain, CookieReceivedInAnEarlierOpenIsForgotten)
{
    server.on("/a", Reply().cookie("session=42").body("a"));
    server.on("/b", Reply().body("b"));
    HttpStream stream;
    stream.fetch(server.url("/a"));
    stream.fetch(server.url("/b"));
    EXPECT_EQ(server.requests("/b").at(0).countHeader("Cookie"), 0U);
    EXPECT_EQ(stream.getCookies(), "");
}

// --- A second open on the same stream ---

TEST_F(HttpRequestAgain, SecondOpenDeliversNothingOfTheFirst)
{
    const Media old(1);
    const Media fresh(2);
    server.on("/old", Reply::endless(old));
    server.on("/new", Reply().body(fresh, 300000));
    HttpStream stream;
    stream.start(server.url("/old"));
    ASSERT_EQ(stream.readSome(1000), old.bytes(0, 1000));
    const int number = stream.number();
    const std::string all = stream.fetch(server.url("/new"));
    EXPECT_EQ(stream.number(), number);
    EXPECT_EQ(all.size(), 300000U);
    EXPECT_TRUE(fresh.matches(0, all));
    EXPECT_TRUE(server.waitForOpenConnections(1));
}

TEST_F(HttpRequestAgain, SecondOpenForgetsTheFirstResponse)
{
    Gate gate;
    server.on("/old", Reply()
                          .header("Content-Type: audio/mpeg")
                          .header("Accept-Ranges: bytes")
                          .header("X-Old: 1")
                          .body("0123456789"));
    server.on("/new", Reply().wait(At::start(), gate).closeDelimited().body("new"));
    HttpStream stream;
    ASSERT_EQ(stream.fetch(server.url("/old")), "0123456789");
    ASSERT_EQ(stream.capability(), 5U);
    stream.start(server.url("/new"));
    ASSERT_TRUE(gate.waitForArrivals(1));
    const support::TransferFacts before = stream.facts();
    EXPECT_EQ(before.length, -11);
    EXPECT_EQ(before.instanceLength, -1);
    EXPECT_EQ(before.contentType, "");
    EXPECT_EQ(before.httpStatus, -1);
    EXPECT_EQ(before.capabilities, 4U);
    EXPECT_EQ(before.done, 0);
    EXPECT_EQ(before.error, 0);
    EXPECT_EQ(before.connected, 0);
    EXPECT_EQ(before.headerComplete, 0);
    EXPECT_EQ(before.writePos, 0);
    EXPECT_EQ(before.startPos, 0);
    EXPECT_EQ(before.buffered, 0U);
    EXPECT_TRUE(before.responseHeaders.empty());
    gate.open();
    EXPECT_EQ(stream.readAll(), "new");
    EXPECT_EQ(stream.size(), -1);
    EXPECT_EQ(stream.headerList(), (Lines{"HTTP/1.1 200 OK\r\n", "Connection: close\r\n"}));
    EXPECT_EQ(stream.tell(), 3);
}

TEST_F(HttpRequestAgain, SecondOpenForgetsAnError)
{
    server.on("/good", Reply().body("good"));
    HttpStream stream;
    EXPECT_EQ(stream.fetch(server.url("/missing")), "");
    ASSERT_EQ(stream.error(), 2);
    EXPECT_EQ(stream.fetch(server.url("/good")), "good");
    EXPECT_EQ(stream.error(), 0);
    EXPECT_EQ(stream.getResponseCode(), 200);
}

TEST_F(HttpRequestAgain, SecondOpenForgetsTheBodyOfThePost)
{
    server.otherwise([](const Request&) { return Reply().body("ok"); });
    HttpStream stream;
    stream.start(server.url("/post"), "question", 0);
    stream.readAll();
    stream.fetch(server.url("/get"));
    stream.start(server.url("/other"), "answer", 0);
    stream.readAll();
    EXPECT_EQ(server.requests("/post").at(0).body, "question");
    EXPECT_EQ(server.requests("/get").at(0).method, "GET");
    EXPECT_EQ(server.requests("/get").at(0).body, "");
    EXPECT_EQ(server.requests("/other").at(0).method, "POST");
    EXPECT_EQ(server.requests("/other").at(0).body, "answer");
}

TEST_F(HttpRequestAgain, SecondOpenForgetsTheRange)
{
    server.otherwise([](const Request&) { return Reply::resource("0123456789"); });
    HttpStream stream;
    stream.start(server.url("/ranged"), "", 4);
    EXPECT_EQ(stream.readAll(), "456789");
    EXPECT_EQ(stream.fetch(server.url("/whole")), "0123456789");
    EXPECT_EQ(server.requests("/whole").at(0).countHeader("Range"), 0U);
}

TEST_F(HttpRequestAgain, SecondOpenForgetsTheRangeOfAPost)
{
    server.otherwise([](const Request&) { return Reply::resource("0123456789"); });
    HttpStream stream;
    stream.setHeaderLine("X-Mine: 1");
    stream.start(server.url("/first"), "question", 4);
    EXPECT_EQ(stream.readAll(), "456789");
    stream.start(server.url("/second"), "question", 0);
    EXPECT_EQ(stream.readAll(), "0123456789");
    stream.start(server.url("/third"), "question", 7);
    EXPECT_EQ(stream.readAll(), "789");
    EXPECT_EQ(server.requests("/second").at(0).countHeader("Range"), 0U);
    EXPECT_EQ(server.requests("/second").at(0).headerValues("X-Mine"), Lines{"1"});
    EXPECT_EQ(server.requests("/third").at(0).headerValues("Range"), Lines{"bytes=7-"});
}

TEST_F(HttpRequestAgain, SecondOpenDropsAPostThatIsStillGoingOut)
{
    server.on("/new", Reply().body("new"));
    const support::LoopbackPort deaf(true);
    const support::UniqueFd listener = deaf.listen();
    HttpStream stream;
    stream.start(deaf.url(), std::string(std::size_t{32} << 20U, 'b'), 0);
    // Far more than sockets hold, so most of it is still to come when the first byte is there.
    const support::UniqueFd connection(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    char first = 0;
    ASSERT_EQ(recv(connection.get(), &first, 1, MSG_PEEK), 1);
    EXPECT_EQ(stream.fetch(server.url("/new")), "new");
    EXPECT_EQ(server.requests("/new").at(0).method, "GET");
}

TEST_F(HttpRequestAgain, SecondOpenAddsTheDlnaLinesOnce)
{
    server.otherwise([](const Request&) { return Reply().body("ok"); });
    HttpStream stream;
    stream.setHeaderLine("X-Mine: 1");
    stream.fcntl(MDCH_FCNTL_DLNA_MODE, 1);
    stream.fetch(server.url("/a"));
    stream.setHeaderLine("X-Later: 2");
    stream.fcntl(MDCH_FCNTL_DLNA_MODE, 3);
    stream.fetch(server.url("/b"));
    stream.fcntl(MDCH_FCNTL_DLNA_MODE, 0);
    stream.fetch(server.url("/c"));
    const std::string features = "getcontentFeatures.dlna.org: 1";
    const auto userLines = [this](const std::string& path) {
        const Lines lines = server.requests(path).at(0).lines;
        return Lines(lines.begin() + 2, lines.end());
    };
    EXPECT_EQ(userLines("/a"), (Lines{"X-Mine: 1", features, "transferMode.dlna.org: Streaming"}));
    EXPECT_EQ(userLines("/b"),
              (Lines{"X-Mine: 1", "X-Later: 2", features, "transferMode.dlna.org: Background"}));
    EXPECT_EQ(userLines("/c"), (Lines{"X-Mine: 1", "X-Later: 2"}));
}

TEST_F(HttpRequestAgain, SecondOpenDropsATimeSeeksLine)
{
    const Media media(7);
    server.on("/dlna", Reply::timeSeekResource(media, 300000, 1000).contentFeatures("DLNA.ORG_OP=11"));
    server.on("/plain", Reply().body("ok"));
    HttpStream stream;
    stream.start(server.url("/dlna"));
    ASSERT_EQ(stream.seekTime(5000), 0);
    ASSERT_EQ(server.requests("/dlna").at(1).header("TimeSeekRange.dlna.org"), "npt=5.0-");
    EXPECT_EQ(stream.fetch(server.url("/plain")), "ok");
    EXPECT_EQ(server.requests("/plain").at(0).countHeader("TimeSeekRange.dlna.org"), 0U);
}

TEST_F(HttpRequestAgain, SecondOpenDropsWhatAPauseBuffered)
{
    const Media old(1);
    server.on("/old", Reply::endless(old));
    server.on("/new", Reply().body("new"));
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
    stream.fcntl(MDCH_FCNTL_BUFFER_SIZE, 98304);
    stream.start(server.url("/old"));
    ASSERT_EQ(stream.readSome(100), old.bytes(0, 100));
    ASSERT_EQ(stream.pause(), 0);
    EXPECT_EQ(stream.fetch(server.url("/new")), "new");
    EXPECT_EQ(stream.facts().buffered, 0U);
    EXPECT_EQ(stream.error(), 0);
}

TEST_F(HttpRequestAgain, SecondOpenEndsAPauseThatClosedTheConnection)
{
    const Media old(1);
    server.on("/old", Reply::resource(old, 4000000));
    server.on("/new", Reply().body("new"));
    HttpStream stream;
    stream.start(server.url("/old"));
    ASSERT_EQ(stream.readSome(100), old.bytes(0, 100));
    ASSERT_EQ(stream.pause(), 0);
    ASSERT_TRUE(server.waitForOpenConnections(0));
    EXPECT_EQ(stream.fetch(server.url("/new")), "new");
    EXPECT_EQ(server.requests("/new").at(0).countHeader("Range"), 0U);
    EXPECT_EQ(server.requests("/old").size(), 1U);
}

TEST_F(HttpRequestAgain, ReopenAfterCloseGetsANewNumberAndStartsClean)
{
    server.on("/old", Reply().header("X-Old: 1").body("old"));
    server.on("/new", Reply().closeDelimited().body("new"));
    HttpStream stream("Radio/1.0");
    EXPECT_EQ(stream.fetch(server.url("/old")), "old");
    const int number = stream.number();
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(stream.fetch(server.url("/new")), "new");
    EXPECT_EQ(stream.number(), number + 1);
    EXPECT_FALSE(hasLine(stream.headerList(), "X-Old: 1\r\n"));
    EXPECT_EQ(server.requests("/new").at(0).header("User-Agent"), "Radio/1.0");
}
