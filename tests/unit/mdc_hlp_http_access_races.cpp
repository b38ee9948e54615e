// Operations on one stream from several threads: every byte belongs to the position that tell() tells, and nobody
// waits for somebody else's mistake.

#include "support/race.h"
#include "support/trace_capture.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <random>
#include <thread>

namespace {

using md::HttpAccess;
using support::At;
using support::Gate;
using support::HttpServer;
using support::HttpStream;
using support::inspect;
using support::Reply;
using support::Request;
using support::TraceCapture;

const support::Media& kMedia = support::kRaceMedia;
constexpr std::uint64_t kSize = support::kRaceSize;
using Random = std::mt19937;
using support::Race;
using support::upTo;

// --- A reader and a seek ---

// The reader has bytes from before the seek in its hands while the seek moves the stream away under it.
TEST_F(Race, aSeekThatOvertakesAReaderKeepsThePositionRight)
{
    m_server.on("/", [](const Request& request) {
        const Reply film = Reply::resource(kMedia, kSize);
        return request.hasHeader("Range") ? film : Reply(film).stall(At::body(100));
    });
    HttpStream stream;
    open(stream);
    const TraceCapture trace;
    auto reader = std::async(std::launch::async, [&stream] { return stream.readSome(1000); });
    ASSERT_TRUE(trace.waitFor("read(): wait for data on fd 100 (bufSize = 0; missing = 900\n"));
    EXPECT_EQ(stream.seek(1'000'000, 0), 0);
    const std::string bytes = reader.get();
    EXPECT_LE(bytes.size(), 1000U);
    EXPECT_TRUE(standsWhereItTells(stream));
}

TEST_F(Race, aSeekThatOvertakesAReaderDoesNotMixBytesOfTwoPlaces)
{
    m_server.on("/", [](const Request& request) {
        const Reply film = Reply::resource(kMedia, kSize);
        return request.hasHeader("Range") ? film : Reply(film).stall(At::body(100));
    });
    HttpStream stream;
    open(stream);
    const TraceCapture trace;
    auto reader = std::async(std::launch::async, [&stream] { return stream.readSome(1000); });
    ASSERT_TRUE(trace.waitFor("read(): wait for data on fd 100 (bufSize = 0; missing = 900\n"));
    EXPECT_EQ(stream.seek(1'000'000, 0), 0);
    const std::string bytes = reader.get();
    const bool fromBefore = kMedia.matches(0, bytes);
    const bool fromBehind = kMedia.matches(1'000'000, bytes);
    EXPECT_TRUE(fromBefore || fromBehind) << bytes.size() << " bytes";
}

TEST_F(Race, seeksAndReadsLeaveThePositionRight)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    open(stream);
    Random random(1);
    for (int round = 0; round < 100; ++round) {
        const int target = upTo(random, static_cast<int>(kSize) - 300'000);
        const auto count = static_cast<unsigned>(1 + upTo(random, 60'000));
        int sought = -1;
        ASSERT_TRUE(together({[&] { stream.readSome(count); }, [&] { sought = stream.seek(target, 0); }}));
        ASSERT_EQ(sought, 0);
        ASSERT_TRUE(standsWhereItTells(stream)) << "round " << round << ", target " << target;
    }
}

TEST_F(Race, twoSeeksLeaveTheStreamAtOneOfTheirTargets)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    open(stream);
    Random random(2);
    for (int round = 0; round < 100; ++round) {
        const int first = upTo(random, 2'000'000);
        const int second = upTo(random, 2'000'000);
        ASSERT_TRUE(together(
            {[&] { EXPECT_EQ(stream.seek(first, 0), 0); }, [&] { EXPECT_EQ(stream.seek(second, 0), 0); }}));
        const long long position = stream.tell();
        EXPECT_TRUE(position == first || position == second) << position;
        ASSERT_TRUE(standsWhereItTells(stream)) << "round " << round;
    }
}

// --- Close ---

TEST_F(Race, aCloseReleasesEveryOperation)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    Random random(5);
    for (int round = 0; round < 60; ++round) {
        HttpStream stream;
        open(stream);
        const int target = upTo(random, static_cast<int>(kSize));
        std::string bytes;
        long long end = -1;
        const auto read = [&] {
            bytes = stream.readSome(2'900'000);
            end = static_cast<long long>(bytes.size());
        };
        const auto start = std::chrono::steady_clock::now();
        ASSERT_TRUE(together({read, [&] { EXPECT_EQ(stream.close(), 0); }}));
        EXPECT_TRUE(areOnePiece(bytes, end));
        HttpStream other;
        open(other);
        ASSERT_TRUE(
            together({[&] { EXPECT_LE(other.seek(target, 0), 0); }, [&] { other.pause(); },
                      [&] { other.resume(); }, [&] { other.size(); }, [&] { EXPECT_EQ(other.close(), 0); }}));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(9)) << "somebody waited";
    }
    EXPECT_TRUE(support::waitForEmptyRegistry());
    HttpAccess::shutdown(); // which ends the connections that finished transfers left for others
    EXPECT_TRUE(m_server.waitForOpenConnections(0));
}

// The same object is closed and opened again while others use it: each gets answers of one stream or of none.
TEST_F(Race, reopeningKeepsTheReaderOnOneStream)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    open(stream);
    std::atomic<bool> finished{false};
    const auto read = [&] {
        while (!finished) {
            unsigned char byte[64];
            const int count = stream.read(byte, sizeof(byte));
            EXPECT_TRUE(count == -22 || (count >= 0 && count <= 64)) << count;
        }
    };
    const auto reopen = [&] {
        for (int i = 0; i < 100; ++i) {
            stream.close();
            stream.open(m_server.url("/").c_str(), 0);
        }
        finished = true;
    };
    EXPECT_TRUE(together({read, reopen}));
    EXPECT_EQ(stream.error(), 0);
    EXPECT_TRUE(standsWhereItTells(stream));
}

// --- select ---

TEST_F(Race, everySelectReturnsWhileStreamsComeAndGo)
{
    m_server.on("/", Reply::resource(kMedia, 20'000).pieces(1000));
    std::atomic<bool> finished{false};
    const auto useStreams = [&] {
        for (int i = 0; i < 60; ++i) {
            HttpStream stream;
            stream.start(m_server.url("/"));
            stream.readSome(i % 2 == 0 ? 20'000 : 10);
            stream.close();
        }
    };
    const auto select = [&] {
        while (!finished) {
            fd_set numbers;
            FD_ZERO(&numbers);
            for (int number = 100; number < 400; ++number) {
                FD_SET(number, &numbers);
            }
            timeval soon{0, 2000};
            EXPECT_GE(HttpAccess::select(400, &numbers, nullptr, nullptr, &soon), 0);
        }
    };
    auto selecting = std::async(std::launch::async, [&] { EXPECT_TRUE(together({select, select, select})); });
    EXPECT_TRUE(together({useStreams, useStreams}));
    finished = true;
    selecting.get();
    EXPECT_TRUE(support::waitForEmptyRegistry());
}

// --- Shutdown ---

TEST_F(Race, aShutdownReleasesEveryOperationOfEveryStream)
{
    m_server.on("/", [](const Request& request) {
        return request.hasHeader("Range") ? Reply::resource(kMedia, kSize)
                                          : Reply::resource(kMedia, kSize).stall(At::body(250'000));
    });
    for (int round = 0; round < 15; ++round) {
        std::vector<std::unique_ptr<HttpStream>> streams;
        for (int i = 0; i < 4; ++i) {
            streams.push_back(std::make_unique<HttpStream>());
            open(*streams.back());
        }
        const auto start = std::chrono::steady_clock::now();
        const auto select = [] {
            fd_set numbers;
            FD_ZERO(&numbers);
            FD_SET(103, &numbers);
            timeval limit{0, 50000}; // for one that begins behind the shutdown, where no such stream is
            HttpAccess::select(104, &numbers, nullptr, nullptr, &limit);
        };
        ASSERT_TRUE(
            together({[&] { streams[0]->readSome(2'000'000); }, [&] { streams[1]->seek(1'000'000, 0); },
                      [&] {
                          streams[2]->pause();
                          streams[2]->resume();
                      },
                      [&] {
                          streams[3]->readSome(250'000);
                          select();
                      },
                      [] { HttpAccess::shutdown(); }}));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(9)) << "somebody waited";
        EXPECT_EQ(support::registeredCount(), 0U);
    }
}

} // namespace
