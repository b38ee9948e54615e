// Pauses and resumes beside a reader and beside seeks: every byte comes, in its order, and nobody waits in vain.

#include "support/engine.h"
#include "support/http_client.h"
#include "support/http_server.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <random>
#include <thread>

namespace {

using support::HttpServer;
using support::HttpStream;
using support::Media;
using support::Reply;

const Media kMedia(30);
constexpr std::uint64_t kSize = 3'000'000;
using Random = std::mt19937;

int upTo(Random& random, int most)
{
    return std::uniform_int_distribution<int>(0, most)(random);
}

class PauseRace : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;

    void open(HttpStream& stream) const
    {
        stream.start(m_server.url("/"));
        EXPECT_EQ(stream.getResponseCode(), 200);
    }

    // What is read next must be what stands at tell(); only one thread uses the stream.
    static testing::AssertionResult standsWhereItTells(HttpStream& stream)
    {
        const long long position = stream.tell();
        const std::string bytes = stream.readSome(1000);
        const auto from = static_cast<std::uint64_t>(position);
        if (bytes.size() != std::min<std::uint64_t>(1000, from < kSize ? kSize - from : 0)) {
            return testing::AssertionFailure()
                   << bytes.size() << " bytes at " << position << ", error " << stream.error();
        }
        if (!kMedia.matches(from, bytes)) {
            return testing::AssertionFailure() << "wrong bytes at " << position;
        }
        return testing::AssertionSuccess();
    }

    // Runs the functions at the same time, each on a thread of its own; false when one does not come back.
    static bool together(std::vector<std::function<void()>> functions)
    {
        std::atomic<std::size_t> ready{0};
        std::vector<std::future<void>> threads;
        for (auto& function : functions) {
            threads.push_back(std::async(std::launch::async, [&ready, &functions, &function] {
                ++ready;
                while (ready < functions.size()) {
                    std::this_thread::yield();
                }
                function();
            }));
        }
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        bool inTime = true;
        for (auto& thread : threads) {
            inTime = thread.wait_until(deadline) == std::future_status::ready && inTime;
        }
        return inTime;
    }
};

// --- A reader, and pauses and resumes ---

struct PauseCase
{
    bool seekable;
    bool buffering;
};

void PrintTo(const PauseCase& given, std::ostream* out)
{
    *out << (given.seekable ? "seekable" : "fixed") << (given.buffering ? " buffering" : "");
}

class PauseRaceOfKinds : public PauseRace, public testing::WithParamInterface<PauseCase>
{
};

TEST_P(PauseRaceOfKinds, aReaderGetsEveryByteWhileOthersPauseAndResume)
{
    m_server.on("/", GetParam().seekable ? Reply::resource(kMedia, kSize)
                                         : Reply::resource(kMedia, kSize).ignoreRanges());
    HttpStream stream;
    if (GetParam().buffering) {
        stream.fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
    }
    open(stream);
    std::atomic<bool> finished{false};
    std::atomic<std::uint64_t> position{0};
    const auto read = [&] {
        Random random(3);
        while (position < kSize) {
            const long long told = stream.tell();
            EXPECT_EQ(told, static_cast<long long>(position)) << "only this thread moves it";
            const std::string piece = stream.readSome(static_cast<unsigned>(1 + upTo(random, 40'000)));
            if (piece.empty() || !kMedia.matches(position, piece)) {
                ADD_FAILURE() << piece.size() << " bytes at " << position << ", error " << stream.error();
                break;
            }
            position += piece.size();
        }
        finished = true;
    };
    const auto pauseAndResume = [&] {
        while (!finished) {
            EXPECT_EQ(stream.pause(), 0);
            std::this_thread::yield();
            EXPECT_EQ(stream.resume(), 0);
            EXPECT_EQ(stream.size(), static_cast<long long>(kSize));
        }
    };
    const auto ask = [&] {
        while (!finished) {
            EXPECT_GE(stream.tell(), 0);
            EXPECT_LE(stream.eof(), 1);
            EXPECT_EQ(stream.isSeekable(), GetParam().seekable ? 1 : 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    EXPECT_TRUE(together({read, pauseAndResume, ask}));
    EXPECT_EQ(position, kSize);
    EXPECT_EQ(stream.eof(), 1);
    EXPECT_EQ(stream.error(), 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, PauseRaceOfKinds,
                         testing::Values(PauseCase{true, false}, PauseCase{true, true},
                                         PauseCase{false, false}, PauseCase{false, true}));

TEST_F(PauseRace, seeksPausesAndResumesLeaveThePositionRight)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    open(stream);
    const auto desc = mdchHttpCurl_getContext(stream.number());
    Random random(4);
    for (int round = 0; round < 60; ++round) {
        const int target = upTo(random, static_cast<int>(kSize));
        ASSERT_TRUE(together({[&] { EXPECT_EQ(stream.seek(target, 0), 0); },
                              [&] {
                                  // The engine's own, which do not wait for the header of the seek beside them.
                                  EXPECT_EQ(mdchHttpCurl_pause(desc), 0);
                                  EXPECT_EQ(mdchHttpCurl_resume(desc), 0);
                              }}));
        ASSERT_EQ(stream.tell(), target);
        ASSERT_EQ(stream.size(), static_cast<long long>(kSize));
        ASSERT_TRUE(standsWhereItTells(stream)) << "round " << round << ", target " << target;
    }
}

// The worker may have filled the buffer and paused again before the reader that resumed looks at it.
TEST_F(PauseRace, aReaderIsNotLeftWaitingWhenItsResumeFilledTheBufferAtOnce)
{
    m_server.on("/", Reply::resource(kMedia, 60'000'000).ignoreRanges());
    HttpStream stream;
    stream.fcntl(MDCH_FCNTL_BUFFER_SIZE, 98304);
    open(stream);
    stream.fcntl(MDCH_FCNTL_DATA_TIMEOUT, 10);
    std::uint64_t position = 0;
    while (position < 60'000'000) {
        constexpr unsigned kPiece = 300'000;
        ASSERT_EQ(stream.pause(), 0);
        const std::string piece = stream.readSome(kPiece);
        ASSERT_EQ(piece.size(), kPiece) << "at " << position << ", error " << stream.error();
        ASSERT_TRUE(kMedia.matches(position, piece));
        position += piece.size();
    }
}

} // namespace
