// Connections of the scripted server: how many there are, how they end, and the small helpers around them.
#include "support/http_server.h"
#include "support/sockets.h"
#include "support/temp_dir.h"

#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using support::At;
using support::Gate;
using support::HttpServer;
using support::Media;
using support::RawClient;
using support::Reply;

namespace {

const std::string request = "GET /a HTTP/1.1\r\nHost: test\r\n\r\n";

} // namespace

TEST(ServerConnections, AreCounted)
{
    HttpServer server;
    server.on("/a", Reply().body("ok"));
    RawClient first(server.port());
    RawClient second(server.port());
    ASSERT_TRUE(server.waitForConnections(2));
    EXPECT_EQ(server.openConnections(), 2U);
    for (int i = 0; i < 3; ++i) {
        first.send(request);
        EXPECT_NE(first.readUntil("ok"), "");
    }
    first.close();
    ASSERT_TRUE(server.waitForOpenConnections(1));
    EXPECT_EQ(server.connectionCount(), 2U);
    EXPECT_FALSE(server.connections().at(0).open);
    EXPECT_EQ(server.connections().at(0).requests, 3U);
    EXPECT_TRUE(server.connections().at(1).open);
}

TEST(ServerConnections, EndWhenTheClientLeaves)
{
    HttpServer server;
    const std::vector<Reply> busy{Reply::silence(), Reply().body("abc").stall(At::body(2)),
                                  Reply().body("abc").wait(At::header(), Gate()), Reply::endless(),
                                  Reply::endless().throttle(10)};
    std::size_t count = 0;
    for (const Reply& reply : busy) {
        server.on("/a", reply);
        RawClient client(server.port());
        client.send(request);
        ASSERT_TRUE(server.waitForRequests(++count));
        client.close();
        EXPECT_TRUE(server.waitForOpenConnections(0));
    }
}

TEST(ServerConnections, EndWithTheServerWhateverTheyWaitFor)
{
    auto server = std::make_unique<HttpServer>();
    const std::vector<Reply> busy{Reply::silence(),
                                  Reply().body("abc").stall(At::body(2)),
                                  Reply().body("abc").wait(At::header(), Gate()),
                                  Reply::endless(), // nobody reads it
                                  Reply::endless().throttle(10),
                                  Reply().endlessHeaders()};
    server->onSequence("/a", busy);
    std::vector<std::unique_ptr<RawClient>> clients;
    for (std::size_t i = 0; i < busy.size(); ++i) {
        clients.push_back(std::make_unique<RawClient>(server->port()));
        clients.back()->send(request);
        ASSERT_TRUE(server->waitForRequests(i + 1));
    }
    clients.push_back(std::make_unique<RawClient>(server->port()));
    clients.back()->send("GET /unfinished");
    ASSERT_TRUE(server->waitForConnections(clients.size()));
    server.reset();
    for (const auto& client : clients) {
        client->readAll();
        EXPECT_TRUE(client->ended());
    }
}

TEST(ServerConnections, AreDroppedAtCommand)
{
    HttpServer server;
    server.on("/a", Reply().body("abc").stall(At::body(1)));
    RawClient dropped(server.port());
    dropped.send(request);
    ASSERT_TRUE(server.waitForBodyBytes("/a", 1));
    server.dropConnections();
    dropped.readAll();
    EXPECT_TRUE(dropped.ended());
    EXPECT_FALSE(dropped.wasReset());

    RawClient reset(server.port());
    reset.send(request);
    ASSERT_TRUE(server.waitForBodyBytes("/a", 2));
    server.resetConnections();
    reset.readAll();
    EXPECT_TRUE(reset.wasReset());
}

TEST(ServerConnections, AreRefusedWhileNobodyListens)
{
    HttpServer server;
    server.on("/a", Reply().body("ok"));
    server.stopListening();
    EXPECT_THROW(RawClient{server.port()}, std::system_error);
    server.listenAgain();
    RawClient client(server.port());
    client.send(request);
    EXPECT_NE(client.readUntil("ok").find("200"), std::string::npos);
}

TEST(ServerConnections, FeelASlowReader)
{
    HttpServer server;
    const Media media(5);
    const std::uint64_t size = std::uint64_t{32} << 20U;
    server.on("/a", Reply::resource(media, size).sendBuffer(65536).closeSilently());
    RawClient client(server.port());
    client.send(request);
    ASSERT_TRUE(server.waitForBodyBytes("/a", 1));
    EXPECT_LT(server.bodyBytesSent("/a"), size);
    EXPECT_EQ(server.repliesFinished("/a"), 0U);
    client.readUntil("\r\n\r\n");
    EXPECT_TRUE(media.matches(0, client.readAll()));
    EXPECT_EQ(server.bodyBytesSent("/a"), size);
}

TEST(ServerConnections, ComeInGreatNumber)
{
    HttpServer server;
    server.on("/a", Reply().body("ok").closeSilently());
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&server] {
            for (int i = 0; i < 100; ++i) {
                RawClient client(server.port());
                client.send(request);
                EXPECT_NE(client.readAll().find("ok"), std::string::npos);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(server.connectionCount(), 400U);
    EXPECT_EQ(server.requests().size(), 400U);
    EXPECT_TRUE(server.waitForOpenConnections(0));
}

TEST(LoopbackPorts, RefuseOrKeepSilent)
{
    const support::LoopbackPort closed = support::closedPort();
    EXPECT_THROW(RawClient{closed.port()}, std::system_error);
    const support::LoopbackPort silent = support::silentPort();
    RawClient client(silent.port());
    EXPECT_TRUE(client.send(request));
    EXPECT_EQ(closed.url("/x"), "http://127.0.0.1:" + std::to_string(closed.port()) + "/x");
}

TEST(MediaBytes, AreKnownAtEveryPosition)
{
    const Media media(1);
    const std::uint64_t far = 5'000'000'003;
    const std::string block = media.bytes(far, 1000);
    for (std::size_t i = 0; i < block.size(); ++i) {
        ASSERT_EQ(static_cast<unsigned char>(block[i]), media.at(far + i));
        ASSERT_EQ(media.bytes(far + i, 3).substr(0, 1), block.substr(i, 1));
    }
    EXPECT_TRUE(media.matches(far, block));
    EXPECT_FALSE(media.matches(far + 8, block));
    EXPECT_FALSE(Media(2).matches(far, block));
    std::string spoilt = media.bytes(3, 10000);
    EXPECT_EQ(media.firstDifference(3, spoilt.data(), spoilt.size()), -1);
    spoilt[9000] = static_cast<char>(spoilt[9000] ^ 1);
    EXPECT_EQ(media.firstDifference(3, spoilt.data(), spoilt.size()), 9000);
}

TEST(TempDirs, LiveAsLongAsTheirObject)
{
    std::string path;
    {
        const support::TempDir first("try");
        const support::TempDir second("try");
        EXPECT_NE(first.path(), second.path());
        path = first.path();
        const std::string file = first.write("sub/name.txt", "text");
        EXPECT_EQ(file, path + "/sub/name.txt");
        std::ifstream stream(file);
        std::string text;
        stream >> text;
        EXPECT_EQ(text, "text");
        EXPECT_TRUE(std::filesystem::is_directory(first.makeDir("other")));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(Waiting, EndsWithTheConditionOrTheDeadline)
{
    int calls = 0;
    EXPECT_TRUE(support::waitUntil([&] { return ++calls == 3; }));
    EXPECT_EQ(calls, 3);
    EXPECT_FALSE(support::waitUntil([] { return false; }, std::chrono::milliseconds(5)));
}
