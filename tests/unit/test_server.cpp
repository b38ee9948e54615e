// The scripted server against raw sockets: what it sends is compared byte by byte, as the tests of the library
// rely on it to misbehave exactly as told.
#include "support/http_server.h"
#include "support/sockets.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>

using support::At;
using support::Gate;
using support::HttpServer;
using support::Media;
using support::RawClient;
using support::Reply;
using support::Request;

namespace {

struct Answer
{
    std::string head;
    std::string body;
    bool reset = false;

    bool has(const std::string& line) const { return head.find("\r\n" + line + "\r\n") != std::string::npos; }
    bool names(const std::string& name) const { return head.find("\r\n" + name + ":") != std::string::npos; }
    std::string status() const { return head.substr(0, head.find("\r\n")); }
};

std::string get(const std::string& path, const std::string& lines = "")
{
    return "GET " + path + " HTTP/1.1\r\nHost: test\r\n" + lines + "\r\n";
}

Answer talk(const HttpServer& server, const std::string& request)
{
    RawClient client(server.port());
    client.send(request);
    const std::string all = client.readAll();
    EXPECT_TRUE(client.ended());
    const std::size_t end = all.find("\r\n\r\n");
    if (end == std::string::npos) {
        return {all, "", client.wasReset()};
    }
    return {all.substr(0, end + 4), all.substr(end + 4), client.wasReset()};
}

Answer fetch(const HttpServer& server, const std::string& path, const std::string& lines = "")
{
    return talk(server, get(path, lines + "Connection: close\r\n"));
}

// All bytes of the answer to a request on a connection that the server ends by itself.
std::string wire(const HttpServer& server, const std::string& path)
{
    const Answer answer = talk(server, get(path));
    return answer.head + answer.body;
}

bool nothingToRead(const RawClient& client)
{
    pollfd entry{client.fd(), POLLIN, 0};
    return poll(&entry, 1, 0) == 0;
}

} // namespace

// --- What is sent ---

TEST(ScriptedServer, SendsStatusHeaderLinesAndBody)
{
    HttpServer server;
    server.on("/a", Reply().header("Content-Type: audio/mpeg").header("X-Order: 2").body("hello"));
    server.on("/b", Reply().status(299, "Odd").noAutomaticHeaders().closeDelimited().body("x"));
    RawClient client(server.port());
    client.send(get("/a"));
    const std::string expected = "HTTP/1.1 200 OK\r\nContent-Type: audio/mpeg\r\nX-Order: 2\r\n"
                                 "Content-Length: 5\r\n\r\nhello";
    EXPECT_EQ(client.readBytes(expected.size()), expected);
    EXPECT_EQ(wire(server, "/b"), "HTTP/1.1 299 Odd\r\n\r\nx");
}

TEST(ScriptedServer, SendsRawBytesExactly)
{
    HttpServer server;
    const std::string nul = std::string("HTTP/1.1 200 OK\r\nX: a") + '\0' + "b\r\n\r\n" + '\0';
    const std::string huge = "HTTP/1.1 200 OK\r\nX: " + std::string(std::size_t{1} << 20U, 'y') + "\r\n\r\nz";
    for (const std::string& bytes : {std::string("HTTP/1.1 200 OK\nX: 1\n\nabc"), nul, huge,
                                     std::string("ICY 200 OK\r\n\r\n"), std::string("\x01garbage")}) {
        server.on("/raw", Reply::raw(bytes));
        EXPECT_EQ(wire(server, "/raw"), bytes);
    }
    server.on("/cut", Reply::raw("HTTP/1.1 200 OK\n\nabcdef").close(At::body(2)));
    EXPECT_EQ(wire(server, "/cut"), "HTTP/1.1 200 OK\n\nab");
}

TEST(ScriptedServer, FramesTheBodyAsTold)
{
    HttpServer server;
    server.on("/close", Reply().closeDelimited().body("abc"));
    EXPECT_EQ(wire(server, "/close"), "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nabc");
    server.on("/long", Reply().contentLength(9).body("abc"));
    EXPECT_EQ(wire(server, "/long"), "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 9\r\n\r\nabc");
    server.on("/short", Reply().contentLength(2).body("abc").closeSilently());
    EXPECT_EQ(wire(server, "/short"), "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nabc");
    server.on("/odd", Reply().contentLength("99999999999999999999").body("abc").closeSilently());
    EXPECT_EQ(wire(server, "/odd"), "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\n\r\nabc");
    server.on("/chunks",
              Reply().chunked({1, 10}).trailer("X-End: 1").body("abcdefghijklmnop").closeSilently());
    EXPECT_EQ(wire(server, "/chunks"), "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                                       "1\r\na\r\na\r\nbcdefghijk\r\n5\r\nlmnop\r\n0\r\nX-End: 1\r\n\r\n");
    server.on("/unfinished", Reply().chunked({3}).body("abcd").close(At::body(4)));
    EXPECT_EQ(talk(server, get("/unfinished")).body, "3\r\nabc\r\n1\r\nd");
    server.on("/lf", Reply().lineEnd("\n").header("X: 1").body("abc").closeSilently());
    EXPECT_EQ(wire(server, "/lf"), "HTTP/1.1 200 OK\nX: 1\nContent-Length: 3\n\nabc");
}

TEST(ScriptedServer, AnswersHeadWithoutBody)
{
    HttpServer server;
    server.on("/a", Reply().body("abc"));
    server.on("/bad", Reply().body("abc").bodyToHead());
    const std::string close = " HTTP/1.1\r\nHost: test\r\nConnection: close\r\n\r\n";
    const Answer good = talk(server, "HEAD /a" + close);
    EXPECT_TRUE(good.has("Content-Length: 3"));
    EXPECT_EQ(good.body, "");
    EXPECT_EQ(talk(server, "HEAD /bad" + close).body, "abc");
}

TEST(ScriptedServer, EndsOrResetsAfterCountedBytes)
{
    HttpServer server;
    server.on("/body", Reply().body("hello").close(At::body(3)));
    Answer answer = talk(server, get("/body"));
    EXPECT_TRUE(answer.has("Content-Length: 5"));
    EXPECT_EQ(answer.body, "hel");
    EXPECT_FALSE(answer.reset);

    server.on("/reset", Reply().body("hello").reset(At::body(3)));
    answer = talk(server, get("/reset"));
    EXPECT_EQ(answer.body, "hel");
    EXPECT_TRUE(answer.reset);

    server.on("/status", Reply().body("hello").close(At::bytes(9)));
    EXPECT_EQ(wire(server, "/status"), "HTTP/1.1 ");
    server.on("/header", Reply().header("A: 1").header("B: 2").close(At::headerLine(1)));
    EXPECT_EQ(wire(server, "/header"), "HTTP/1.1 200 OK\r\nA: 1\r\n");
    server.on("/none", Reply::hangUp());
    EXPECT_EQ(wire(server, "/none"), "");
    server.on("/none", Reply().reset(At::start()));
    EXPECT_TRUE(talk(server, get("/none")).reset);
}

TEST(ScriptedServer, WaitsAtGates)
{
    HttpServer server;
    Gate start;
    Gate header;
    Gate body;
    Gate middle;
    server.on("/g", Reply()
                        .body("hello")
                        .wait(At::start(), start)
                        .wait(At::header(), header)
                        .wait(At::body(), body)
                        .wait(At::body(2), middle));
    RawClient client(server.port());
    client.send(get("/g"));
    std::string seen;
    const auto pass = [&](Gate& gate, const std::string& upToHere) {
        ASSERT_TRUE(gate.waitForArrivals());
        seen += client.readBytes(upToHere.size());
        EXPECT_EQ(seen.substr(seen.size() - upToHere.size()), upToHere);
        EXPECT_TRUE(nothingToRead(client));
        gate.open();
    };
    pass(start, "");
    pass(header, "HTTP/1.1 200 OK\r\n");
    ASSERT_TRUE(body.waitForArrivals());
    EXPECT_EQ(server.bodyBytesSent("/g"), 0U);
    pass(body, "Content-Length: 5\r\n\r\n");
    pass(middle, "he");
    EXPECT_EQ(client.readBytes(3), "llo");
    EXPECT_TRUE(server.waitForRepliesFinished("/g", 1));
    EXPECT_EQ(server.bodyBytesSent("/g"), 5U);
}

TEST(ScriptedServer, SendsInPiecesAndThrottled)
{
    HttpServer server;
    server.on("/slow", Reply().body(std::string(100, 'x')).pieces(10).throttle(1000).closeSilently());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(talk(server, get("/slow")).body, std::string(100, 'x'));
    // The last piece is due when everything before it has had its time; a slow machine is only later.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(90));
}

TEST(ScriptedServer, SendsInterimRepliesFirst)
{
    HttpServer server;
    server.on(
        "/i",
        Reply().interim(103, {"Link: <x>"}).interim("HTTP/1.1 100 Go\r\n\r\n").body("x").closeSilently());
    EXPECT_EQ(wire(server, "/i"), "HTTP/1.1 103 Early Hints\r\nLink: <x>\r\n\r\nHTTP/1.1 100 Go\r\n\r\n"
                                  "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx");
}

TEST(ScriptedServer, HasReadyMadeReplies)
{
    HttpServer server;
    for (const int status : {300, 301, 302, 303, 305, 307, 308}) {
        server.on("/r", Reply::redirect("/there", status));
        const Answer answer = fetch(server, "/r");
        EXPECT_EQ(answer.status().substr(9, 3), std::to_string(status));
        EXPECT_TRUE(answer.has("Location: /there"));
    }
    server.on("/radio", Reply::icy("Test FM", 16000).body("mp3"));
    EXPECT_EQ(wire(server, "/radio"), "ICY 200 OK\r\nicy-name: Test FM\r\nContent-Type: audio/mpeg\r\n"
                                      "icy-metaint: 16000\r\n\r\nmp3");
    server.on("/login", Reply::unauthorized());
    EXPECT_TRUE(fetch(server, "/login").has("WWW-Authenticate: Basic realm=\"test\""));
    server.on("/broken", Reply::error(500).cookie("a=b"));
    const Answer broken = fetch(server, "/broken");
    EXPECT_EQ(broken.status(), "HTTP/1.1 500 Internal Server Error");
    EXPECT_TRUE(broken.has("Set-Cookie: a=b"));
    EXPECT_EQ(fetch(server, "/unknown").status(), "HTTP/1.1 404 Not Found");
}

TEST(ScriptedServer, SendsWithoutEnd)
{
    HttpServer server;
    server.on("/body", Reply::endless(Media(3)));
    server.on("/head", Reply().endlessHeaders());
    server.on("/lines", Reply().header("A: 1").endlessHeaders().close(At::headerLine(3)));
    RawClient body(server.port());
    body.send(get("/body"));
    body.readUntil("\r\n\r\n");
    EXPECT_TRUE(Media(3).matches(0, body.readBytes(300000)));
    body.close();
    RawClient head(server.port());
    head.send(get("/head"));
    const std::string lines = head.readBytes(300000);
    EXPECT_EQ(lines.find("\r\n\r\n"), std::string::npos);
    EXPECT_NE(lines.find("\r\nX-Filler-000000003000: "), std::string::npos);
    head.close();
    EXPECT_TRUE(server.waitForOpenConnections(0));
    const std::string three = wire(server, "/lines");
    EXPECT_EQ(std::count(three.begin(), three.end(), '\n'), 4);
}

// --- Resources ---

TEST(ScriptedResource, AnswersRanges)
{
    HttpServer server;
    const Media media(7);
    const std::uint64_t size = 6'000'000'000;
    server.on("/m", Reply::resource(media, size));
    Answer part = fetch(server, "/m", "Range: bytes=5000000000-5000000099\r\n");
    EXPECT_EQ(part.status(), "HTTP/1.1 206 Partial Content");
    EXPECT_TRUE(part.has("Accept-Ranges: bytes"));
    EXPECT_TRUE(part.has("Content-Range: bytes 5000000000-5000000099/6000000000"));
    EXPECT_TRUE(part.has("Content-Length: 100"));
    EXPECT_EQ(part.body, media.bytes(5'000'000'000, 100));
    part = fetch(server, "/m", "Range: bytes=5999999990-\r\n");
    EXPECT_EQ(part.body, media.bytes(5'999'999'990, 10));
    part = fetch(server, "/m", "Range: bytes=-20\r\n");
    EXPECT_EQ(part.body, media.bytes(size - 20, 20));
    part = fetch(server, "/m", "Range: bytes=6000000000-\r\n");
    EXPECT_EQ(part.status(), "HTTP/1.1 416 Range Not Satisfiable");
    EXPECT_TRUE(part.has("Content-Range: bytes */6000000000"));
    EXPECT_EQ(part.body, "");
    const Answer head = talk(server, "HEAD /m HTTP/1.0\r\n\r\n");
    EXPECT_TRUE(head.has("Content-Length: 6000000000"));
    EXPECT_EQ(head.body, "");
}

TEST(ScriptedResource, MisunderstandsRangesAsTold)
{
    HttpServer server;
    const std::string text = "0123456789";
    const auto ask = [&](Reply reply, const std::string& range) {
        server.on("/m", std::move(reply));
        return fetch(server, "/m", "Range: bytes=" + range + "\r\n");
    };
    Answer answer = ask(Reply::resource(text).ignoreRanges(), "4-");
    EXPECT_EQ(answer.status(), "HTTP/1.1 200 OK");
    EXPECT_FALSE(answer.names("Content-Range") || answer.names("Accept-Ranges"));
    EXPECT_EQ(answer.body, text);
    answer = ask(Reply::resource(text).shiftRanges(-2), "4-6");
    EXPECT_TRUE(answer.has("Content-Range: bytes 2-6/10"));
    EXPECT_EQ(answer.body, "23456");
    answer = ask(Reply::resource(text).shiftRanges(3), "4-");
    EXPECT_TRUE(answer.has("Content-Range: bytes 7-9/10"));
    EXPECT_EQ(answer.body, "789");
    answer = ask(Reply::resource(text).contentRange("bytes 4-9/nonsense"), "5-");
    EXPECT_TRUE(answer.has("Content-Range: bytes 4-9/nonsense"));
    EXPECT_EQ(answer.body, "56789");
    answer = ask(Reply::resource(text).acceptRanges("none"), "5-");
    EXPECT_TRUE(answer.has("Accept-Ranges: none"));

    support::RangeRules rules;
    rules.ignoreEnd = true;
    rules.sendTotal = false;
    answer = ask(Reply::resource(text).ranges(rules), "4-6");
    EXPECT_TRUE(answer.has("Content-Range: bytes 4-9/*"));
    EXPECT_EQ(answer.body, "456789");
    rules.sendContentRange = false;
    answer = ask(Reply::resource(text).ranges(rules), "4-");
    EXPECT_EQ(answer.status(), "HTTP/1.1 206 Partial Content");
    EXPECT_FALSE(answer.names("Content-Range"));

    EXPECT_EQ(ask(Reply::resource(text).unsatisfiable(400), "10-").status(), "HTTP/1.1 400 Bad Request");
    answer = ask(Reply::resource(text).unsatisfiable(206), "10-");
    EXPECT_EQ(answer.status(), "HTTP/1.1 206 Partial Content");
    EXPECT_TRUE(answer.has("Content-Length: 0"));
    EXPECT_EQ(ask(Reply::resource(text).unsatisfiable(200), "10-").body, text);
}

TEST(ScriptedResource, ServesTimeSeeks)
{
    HttpServer server;
    const Media media(9);
    server.on("/t", Reply::timeSeekResource(media, 120000, 2000).contentFeatures("DLNA.ORG_OP=10", true));
    const std::string seek = "TimeSeekRange.dlna.org: npt=5.50-\r\ngetcontentFeatures.dlna.org: 1\r\n";
    Answer answer = fetch(server, "/t", seek);
    EXPECT_TRUE(answer.has("contentFeatures.dlna.org: DLNA.ORG_OP=10"));
    EXPECT_TRUE(answer.has("TimeSeekRange.dlna.org: npt=5.500-59.999/60.000 bytes=11000-119999/120000"));
    EXPECT_TRUE(answer.has("Content-Length: 109000"));
    EXPECT_TRUE(media.matches(11000, answer.body));
    answer = fetch(server, "/t");
    EXPECT_FALSE(answer.names("contentFeatures.dlna.org"));
    EXPECT_EQ(answer.body.size(), 120000U);
    EXPECT_EQ(fetch(server, "/t", "TimeSeekRange.dlna.org: npt=0:01:00.000-\r\n").status().substr(9, 3),
              "416");

    support::TimeSeekRules rules;
    rules.bytesPerSecond = 2000;
    rules.sendBytes = false;
    server.on("/t", Reply::resource(media, 120000).timeSeek(rules).chunked());
    answer = fetch(server, "/t", seek);
    EXPECT_TRUE(answer.has("TimeSeekRange.dlna.org: npt=5.500-59.999/60.000"));
    EXPECT_FALSE(answer.names("Content-Length"));
    rules.status = 406;
    server.on("/t", Reply::resource(media, 120000).timeSeek(rules));
    EXPECT_EQ(fetch(server, "/t", seek).status(), "HTTP/1.1 406 Not Acceptable");
}

// --- Scripts ---

TEST(ScriptedServer, ChoosesTheReply)
{
    HttpServer server;
    server.onSequence("/s", {Reply().body("one"), Reply::error(404), Reply().body("last")});
    EXPECT_EQ(fetch(server, "/s").body, "one");
    EXPECT_EQ(fetch(server, "/s").status(), "HTTP/1.1 404 Not Found");
    EXPECT_EQ(fetch(server, "/s").body, "last");
    EXPECT_EQ(fetch(server, "/s").body, "last");
    server.on("/h", [](const Request& request) { return Reply().body(request.method + request.query); });
    EXPECT_EQ(fetch(server, "/h?x=1").body, "GETx=1");
    server.on("/h?x=2", Reply().body("exact"));
    EXPECT_EQ(fetch(server, "/h?x=2").body, "exact");
    server.on("/h", [](const Request&) -> Reply { throw std::runtime_error("oops"); });
    EXPECT_EQ(fetch(server, "/h").status(), "HTTP/1.1 500 Internal Server Error");
    server.otherwise([](const Request& request) { return Reply().body("no " + request.path); });
    EXPECT_EQ(fetch(server, "/else").body, "no /else");
}

// --- Recording ---

TEST(ScriptedServer, RecordsRequestsWordForWord)
{
    HttpServer server;
    server.on("/p", Reply().body("ok"));
    RawClient client(server.port());
    const std::string first =
        "POST /p?q=1 HTTP/1.1\r\nHost: h\r\nX-Twice: 1\r\nx-twice:  2 \r\nContent-Length: 3\r\n\r\n";
    client.send(first + "abc");
    client.readUntil("ok");
    const std::string second =
        "POST http://h/p HTTP/1.1\r\nTransfer-Encoding: chunked\r\nExpect: 100-continue\r\n\r\n";
    client.send(second);
    EXPECT_EQ(client.readUntil("\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
    client.send("3\r\nabc\r\n2;ext=1\r\nde\r\n0\r\nX-Trailer: 1\r\n\r\n");
    client.readUntil("ok");
    RawClient other(server.port());
    other.send("POST /p HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc");
    other.close();
    ASSERT_TRUE(server.waitForRequests(3));

    const std::vector<Request> requests = server.requests();
    EXPECT_EQ(requests[0].head, first);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].target, "/p?q=1");
    EXPECT_EQ(requests[0].path, "/p");
    EXPECT_EQ(requests[0].query, "q=1");
    EXPECT_EQ(requests[0].body, "abc");
    EXPECT_EQ(requests[0].header("X-TWICE"), "1");
    EXPECT_EQ(requests[0].headerValues("X-Twice"), (std::vector<std::string>{"1", "2"}));
    EXPECT_EQ(requests[0].lines[2], "x-twice:  2 ");
    EXPECT_FALSE(requests[0].hasHeader("Range"));
    EXPECT_EQ(requests[1].head, second);
    EXPECT_EQ(requests[1].path, "/p");
    EXPECT_EQ(requests[1].body, "abcde");
    EXPECT_EQ(requests[1].connection, 0U);
    EXPECT_EQ(requests[1].indexOnConnection, 1U);
    EXPECT_EQ(requests[2].connection, 1U);
    EXPECT_FALSE(requests[2].complete);
    EXPECT_EQ(server.requests("/p").size(), 3U);
    EXPECT_EQ(server.requests("/q").size(), 0U);
    EXPECT_EQ(server.connections().at(0).requests, 2U);
}
