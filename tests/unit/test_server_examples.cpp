// The examples of tests/support/README.md, so that they stay true. `fetch` stands for the client under test.
#include "support/body_source.h"
#include "support/certificates.h"
#include "support/ftp_server.h"
#include "support/http_proxy.h"
#include "support/http_server.h"
#include "support/sockets.h"
#include "support/temp_dir.h"

#include <string>
#include <system_error>
#include <thread>

#include <gtest/gtest.h>

using namespace support;

namespace {

std::string fetch(std::uint16_t port, const std::string& target, const std::string& lines = "")
{
    RawClient client(port);
    client.send("GET " + target + " HTTP/1.1\r\nConnection: close\r\n" + lines + "\r\n");
    return client.readAll();
}

} // namespace

TEST(ServerExamples, OneReply)
{
    HttpServer server;
    server.on("/song", Reply().header("Content-Type: audio/mpeg").body("hello"));
    fetch(server.port(), "/song", "Range: bytes=5-\r\n"); // or server.url("/song")
    EXPECT_EQ(server.requests().at(0).header("Range"), "bytes=5-");
}

TEST(ServerExamples, LargeResourceWithRanges)
{
    HttpServer server;
    const Media media(7);
    server.on("/film", Reply::resource(media, 6'000'000'000));
    const std::string answer = fetch(server.port(), "/film", "Range: bytes=5000000000-5000000099\r\n");
    EXPECT_TRUE(media.matches(5'000'000'000, answer.substr(answer.size() - 100)));
}

TEST(ServerExamples, RangesAnsweredWrongly)
{
    HttpServer server;
    server.on("/ignored", Reply::resource(Media(), 1000).ignoreRanges());
    server.on("/shifted", Reply::resource(Media(), 1000).shiftRanges(-10));
    server.on("/behind", Reply::resource(Media(), 1000).unsatisfiable(400));
    EXPECT_EQ(fetch(server.port(), "/ignored", "Range: bytes=5-\r\n").substr(0, 15), "HTTP/1.1 200 OK");
}

TEST(ServerExamples, ExactBytes)
{
    HttpServer server;
    server.on("/odd", Reply::raw("HTTP/1.1 200 OK\nX: 1\n\nabc"));
    EXPECT_EQ(fetch(server.port(), "/odd"), "HTTP/1.1 200 OK\nX: 1\n\nabc");
}

TEST(ServerExamples, StepByStep)
{
    HttpServer server;
    Gate middle;
    server.on("/slow", Reply().body("hello").wait(At::body(2), middle));
    std::thread client([&] { fetch(server.port(), "/slow"); });
    EXPECT_TRUE(middle.waitForArrivals()); // "he" is out, and nothing more
    EXPECT_EQ(server.bodyBytesSent("/slow"), 2U);
    middle.open();
    client.join();
}

TEST(ServerExamples, BrokenTransfers)
{
    HttpServer server;
    server.onSequence("/file", {Reply::resource(Media(), 1000).close(At::body(300)), // falls short, then
                                Reply::resource(Media(), 1000).reset(At::body(300)), // breaks, then
                                Reply().body("abc").stall(At::body(1)),              // stops, then
                                Reply::resource(Media(), 1000)});                    // is well
    const std::string shortened = fetch(server.port(), "/file");
    EXPECT_TRUE(Media().matches(0, shortened.substr(shortened.size() - 300)));
}

TEST(ServerExamples, RepliesThatLookAtTheRequest)
{
    HttpServer server;
    server.on("/login", [](const Request& request) {
        return request.hasHeader("Authorization") ? Reply().body("welcome") : Reply::unauthorized();
    });
    EXPECT_EQ(fetch(server.port(), "/login").substr(0, 12), "HTTP/1.1 401");
}

TEST(ServerExamples, RadioAndMediaServers)
{
    HttpServer server;
    server.on("/live", Reply::icy("Radio", 16000).body(Media(), BodySource::unlimited));
    server.on("/dlna", Reply::timeSeekResource(Media(), 120000, 2000).contentFeatures("DLNA.ORG_OP=11"));
    const std::string answer = fetch(server.port(), "/dlna", "TimeSeekRange.dlna.org: npt=5.500-\r\n");
    EXPECT_NE(answer.find("npt=5.500-59.999/60.000 bytes=11000-119999/120000"), std::string::npos);
}

TEST(ServerExamples, ConnectionsAndTrouble)
{
    HttpServer server;
    server.on("/live", Reply::endless());
    RawClient client(server.port());
    client.send("GET /live HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(server.waitForBodyBytes("/live", 100000));
    server.resetConnections();
    client.readAll();
    EXPECT_TRUE(server.waitForOpenConnections(0));
    EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(ServerExamples, TlsWithAClientCertificate)
{
    HttpServer server{
        Tls(certificates().intermediateLeaf).requireClientSignedBy(certificates().ca.certificate)};
    server.on("/a", Reply().body("ok"));
    const TempDir trusted;
    trusted.write("root.pem", toPem(certificates().ca.certificate)); // or certificates().caDirectory
    const std::string pemForTheClient = certificates().clientFiles.encryptedPem;
    const std::string passPhrase = certificates().clientFiles.password;
    // After a transfer: connections().at(0).clientSubject, .resumed, .serverName, .handshakeError
    EXPECT_EQ(server.url("/a").substr(0, 8), "https://");
    EXPECT_FALSE(pemForTheClient.empty() || passPhrase.empty());
}

TEST(ServerExamples, Proxy)
{
    HttpServer server;
    server.on("/a", Reply().body("ok"));
    HttpProxy proxy;
    proxy.requireBasic("user", "secret");
    const std::string url =
        "http://radio.example.test:" + std::to_string(server.port()) + "/a"; // leads here as well
    EXPECT_EQ(fetch(proxy.port(), url).substr(0, 12), "HTTP/1.1 407");
    EXPECT_EQ(proxy.requests().at(0).target, url);
    EXPECT_EQ(proxy.tunnelCount(), 0U);
}

TEST(ServerExamples, AnFtpServer)
{
    FtpServer server; // FtpServer{Tls()}: implicit TLS
    server.account("user", "secret");
    server.answer(FtpServer::finalReply, "552 full"); // or stall, wait, close, reset; at any command, too
    RawClient client(server.port());
    client.readUntil("\r\n");
    client.send("USER user\r\nPASS secret\r\nQUIT\r\n");
    client.readAll();
    EXPECT_TRUE(server.hasCommand("PASS secret"));
    EXPECT_TRUE(server.uploads().empty()); // path, bytes, digest of each
}

TEST(ServerExamples, NobodyThere)
{
    const LoopbackPort refusing = closedPort();
    EXPECT_THROW(fetch(refusing.port(), "/"), std::system_error);
    const LoopbackPort mute = silentPort(); // connects, never answers: mute.url("/")
    RawClient client(mute.port());
    EXPECT_TRUE(client.send("GET / HTTP/1.1\r\n\r\n"));
}
