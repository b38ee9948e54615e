// The scripted proxy against raw sockets.
#include "support/http_proxy.h"
#include "support/http_server.h"
#include "support/sockets.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

using support::HttpProxy;
using support::HttpServer;
using support::RawClient;
using support::Reply;
using support::Request;

namespace {

std::string target(const HttpServer& server)
{
    return "radio.example.test:" + std::to_string(server.port());
}

// "user:secret" and "user:wrong"
const std::string goodCredentials = "Proxy-Authorization: Basic dXNlcjpzZWNyZXQ=\r\n";
const std::string wrongCredentials = "Proxy-Authorization: Basic dXNlcjp3cm9uZw==\r\n";

} // namespace

TEST(ScriptedProxy, ForwardsAbsoluteUrls)
{
    HttpServer server;
    server.on("/a", [](const Request& request) { return Reply().body(request.query + "|" + request.body); });
    const HttpProxy proxy;
    RawClient client(proxy.port());
    const std::string request = "POST http://" + target(server) +
                                "/a?x=1 HTTP/1.1\r\nHost: radio.example.test\r\n"
                                "Proxy-Connection: Keep-Alive\r\nX-Mine: 1\r\nContent-Length: 3\r\n\r\n";
    client.send(request + "abc");
    const std::string answer = client.readAll();
    EXPECT_EQ(answer.substr(answer.size() - 7), "x=1|abc");
    ASSERT_EQ(proxy.requests().size(), 1U);
    EXPECT_EQ(proxy.requests()[0].head, request);
    EXPECT_EQ(proxy.requests()[0].body, "abc");
    const Request forwarded = server.requests().at(0);
    EXPECT_EQ(forwarded.target, "/a?x=1");
    EXPECT_EQ(forwarded.header("X-Mine"), "1");
    EXPECT_EQ(forwarded.header("Host"), "radio.example.test");
    EXPECT_FALSE(forwarded.hasHeader("Proxy-Connection"));
    EXPECT_EQ(proxy.forwardCount(), 1U);
    EXPECT_EQ(proxy.tunnelCount(), 0U);
}

TEST(ScriptedProxy, TunnelsAndAddsItsOwnLines)
{
    HttpServer server;
    server.on("/a", Reply().body("ok"));
    HttpProxy proxy;
    proxy.connectHeader("Content-Range: bytes 1-2/3");
    RawClient client(proxy.port());
    const std::string request =
        "CONNECT " + target(server) + " HTTP/1.1\r\nHost: " + target(server) + "\r\n\r\n";
    client.send(request);
    EXPECT_EQ(client.readUntil("\r\n\r\n"),
              "HTTP/1.1 200 Connection established\r\nContent-Range: bytes 1-2/3\r\n\r\n");
    EXPECT_EQ(proxy.openTunnels(), 1U);
    for (int i = 0; i < 2; ++i) {
        client.send("GET /a HTTP/1.1\r\n\r\n");
        EXPECT_EQ(client.readUntil("ok"), "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
    }
    EXPECT_EQ(server.connectionCount(), 1U);
    EXPECT_EQ(proxy.requests().at(0).head, request);
    client.close();
    EXPECT_TRUE(proxy.waitForOpenTunnels(0));
    EXPECT_EQ(proxy.tunnelCount(), 1U);
    EXPECT_TRUE(server.waitForOpenConnections(0));
}

TEST(ScriptedProxy, AsksForCredentials)
{
    HttpServer server;
    server.on("/a", Reply().body("ok"));
    HttpProxy proxy;
    proxy.requireBasic("user", "secret", 407, 401);
    proxy.refusalHeader("X-Refused: 1");
    RawClient client(proxy.port());
    const std::string line = "GET http://" + target(server) + "/a HTTP/1.1\r\n";
    client.send(line + "\r\n");
    const std::string missing = client.readUntil("\r\n\r\n");
    EXPECT_EQ(missing.substr(0, 12), "HTTP/1.1 407");
    EXPECT_NE(missing.find("\r\nProxy-Authenticate: Basic realm=\"proxy\"\r\n"), std::string::npos);
    EXPECT_NE(missing.find("\r\nX-Refused: 1\r\n"), std::string::npos);
    client.readUntil("\n"); // its body; the connection goes on
    client.send(line + wrongCredentials + "\r\n");
    EXPECT_EQ(client.readUntil("\r\n\r\n").substr(0, 12), "HTTP/1.1 401");
    client.readUntil("\n");
    client.send(line + goodCredentials + "\r\n");
    EXPECT_EQ(client.readAll().substr(0, 12), "HTTP/1.1 200");
    EXPECT_EQ(proxy.refusalCount(), 2U);
    EXPECT_EQ(proxy.forwardCount(), 1U);
    EXPECT_EQ(proxy.connectionCount(), 1U);
    EXPECT_FALSE(server.requests().at(0).hasHeader("Proxy-Authorization"));
}

TEST(ScriptedProxy, RefusesAtCommand)
{
    HttpServer server;
    HttpProxy proxy;
    proxy.refuseConnect(503);
    RawClient client(proxy.port());
    const std::string request = "CONNECT " + target(server) + " HTTP/1.1\r\n\r\n";
    client.send(request);
    EXPECT_EQ(client.readUntil("\r\n\r\n").substr(0, 12), "HTTP/1.1 503");
    client.readUntil("\n");
    proxy.refuseConnect(0);
    proxy.connectStatusLine("HTTP/1.0 200 Fine");
    client.send(request);
    EXPECT_EQ(client.readUntil("\r\n\r\n"), "HTTP/1.0 200 Fine\r\n\r\n");

    const support::LoopbackPort closed = support::closedPort();
    RawClient unlucky(proxy.port());
    unlucky.send("CONNECT nowhere.test:" + std::to_string(closed.port()) + " HTTP/1.1\r\n\r\n");
    EXPECT_EQ(unlucky.readUntil("\r\n\r\n").substr(0, 12), "HTTP/1.1 502");
    unlucky.send("GET /relative HTTP/1.1\r\n\r\n");
    unlucky.readUntil("\n");
    EXPECT_EQ(unlucky.readUntil("\r\n\r\n").substr(0, 12), "HTTP/1.1 400");

    proxy.hangUp();
    RawClient ignored(proxy.port());
    ignored.send(request);
    EXPECT_EQ(ignored.readAll(), "");
    EXPECT_TRUE(proxy.waitForRequests(5));
}

TEST(ScriptedProxy, EndsWithOpenTunnels)
{
    HttpServer server;
    server.on("/a", Reply::silence());
    auto proxy = std::make_unique<HttpProxy>();
    RawClient tunnel(proxy->port());
    tunnel.send("CONNECT " + target(server) + " HTTP/1.1\r\n\r\nGET /a HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(server.waitForRequests(1)); // the bytes behind the CONNECT went along
    RawClient forward(proxy->port());
    forward.send("GET http://" + target(server) + "/a HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(server.waitForRequests(2));
    proxy.reset();
    tunnel.readAll();
    forward.readAll();
    EXPECT_TRUE(tunnel.ended() && forward.ended());
    EXPECT_TRUE(server.waitForOpenConnections(0));
}

TEST(ScriptedProxy, HoldsBackWhatStandsBehindAByte)
{
    HttpServer server;
    server.on("/a", Reply().body("hello").closeConnection());
    HttpProxy proxy;
    support::Gate gate;
    const std::string whole = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nConnection: close\r\n\r\nhello";
    for (const std::size_t count : {std::size_t{0}, std::size_t{10}, whole.size() - 1, whole.size()}) {
        gate = support::Gate();
        proxy.holdAt(count, gate);
        RawClient client(proxy.port());
        client.send("GET http://" + target(server) + "/a HTTP/1.1\r\n\r\n");
        EXPECT_TRUE(gate.waitForArrivals());
        EXPECT_EQ(client.readBytes(count), whole.substr(0, count));
        EXPECT_FALSE(client.ended());
        gate.open();
        EXPECT_EQ(client.readAll(), whole.substr(count));
        EXPECT_FALSE(client.wasReset());
    }
    proxy.passOnEverything();
    RawClient client(proxy.port());
    client.send("GET http://" + target(server) + "/a HTTP/1.1\r\n\r\n");
    EXPECT_EQ(client.readAll(), whole);
    EXPECT_TRUE(proxy.waitForOpenConnections(0));
}

TEST(ScriptedProxy, EndsWhatItHoldsAtCommand)
{
    HttpServer server;
    server.on("/a", Reply().body("hello"));
    HttpProxy proxy;
    for (const bool withReset : {false, true}) {
        const support::Gate gate;
        proxy.holdAt(4, gate);
        RawClient client(proxy.port());
        client.send("CONNECT " + target(server) + " HTTP/1.1\r\n\r\n");
        EXPECT_EQ(client.readBytes(4), "HTTP");
        withReset ? proxy.resetConnections() : proxy.dropConnections();
        EXPECT_EQ(client.readAll(), "");
        EXPECT_EQ(client.wasReset(), withReset);
        EXPECT_TRUE(server.waitForOpenConnections(0));
    }
}

TEST(ScriptedProxy, GarblesAByteAndEndsBehindIt)
{
    HttpServer server;
    server.on("/a", Reply().body("hello"));
    HttpProxy proxy;
    proxy.garble(9);
    RawClient client(proxy.port());
    client.send("GET http://" + target(server) + "/a HTTP/1.1\r\n\r\n");
    const std::string answer = client.readAll();
    EXPECT_EQ(answer.substr(0, 13), std::string("HTTP/1.1 ") + static_cast<char>(~'2') + "00 ");
}
