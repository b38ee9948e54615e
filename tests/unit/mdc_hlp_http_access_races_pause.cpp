// Pauses and resumes beside a reader and beside seeks: every byte comes, in its order, and nobody waits in vain.

#include "support/race.h"

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
using support::Reply;

const support::Media& kMedia = support::kRaceMedia;
constexpr std::uint64_t kSize = support::kRaceSize;
using Random = std::mt19937;
using support::upTo;

class PauseRace : public support::Race
{
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
