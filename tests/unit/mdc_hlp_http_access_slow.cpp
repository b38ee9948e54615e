// Peers that take their time: pauses that outlast a server's patience, readers and senders of one byte at a time.

#include "support/fault_sweep.h"
#include "support/media.h"

#include <ctime>

#include <gtest/gtest.h>

namespace {

using support::At;
using support::FaultSweep;
using support::Gate;
using support::HttpStream;
using support::inspect;
using support::Reply;
using support::waitForDescriptor;
using support::waitUntil;
using support::Way;

const support::Media kMedia(36);
constexpr std::uint64_t kSize = 3'000'000;
constexpr std::size_t kRing = 0x18000; // the smallest that a stream can have
constexpr time_t kTenMinutes = 600;
constexpr int kOver = -1; // seconds: a wait that is over when it begins

class Slow : public FaultSweep
{
protected:
    std::unique_ptr<HttpStream> open(const Reply& reply, bool pauseBuffering = false)
    {
        m_server->on("/slow", reply);
        auto stream = std::make_unique<HttpStream>();
        prepare(*stream);
        stream->fcntl(MDCH_FCNTL_BUFFER_SIZE, static_cast<int>(kRing));
        if (pauseBuffering) {
            stream->fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
        }
        stream->start(url("/slow"));
        EXPECT_EQ(stream->getResponseCode(), 200);
        return stream;
    }

    static Reply seekable() { return Reply::resource(kMedia, kSize); }
    static Reply fixed() { return Reply::resource(kMedia, kSize).ignoreRanges(); }

    // As if no data had come for that long; and the worker has seen it.
    static void passTime(const HttpStream& stream, time_t seconds)
    {
        inspect(stream.number(),
                [seconds](auto& desc) { return desc.lastDataTime = time(nullptr) - seconds; });
        const std::uint64_t before = mdchHttpCurl_passCount();
        EXPECT_TRUE(waitUntil([before] {
            mdchHttpCurl_wakeupWorkerThread();
            return mdchHttpCurl_passCount() >= before + 3;
        }));
    }

    static bool waitUntilFull(const HttpStream& stream)
    {
        return waitForDescriptor(stream.number(), [](auto& desc) { return desc.paused != 0; });
    }

    static void expectRest(HttpStream& stream, std::uint64_t from)
    {
        EXPECT_EQ(stream.tell(), static_cast<long long>(from));
        const std::string rest = stream.readAll();
        EXPECT_EQ(rest.size(), kSize - from);
        EXPECT_TRUE(kMedia.matches(from, rest));
        EXPECT_EQ(stream.eof(), 1);
        EXPECT_EQ(stream.error(), 0);
    }

    // A server that has lost patience.
    void dropPeers(bool withReset)
    {
        withReset ? m_server->resetConnections() : m_server->dropConnections();
        EXPECT_TRUE(m_server->waitForOpenConnections(0));
    }
};

// --- A long pause ---

TEST_P(Slow, aPauseOfTenMinutesOutlastsEveryConnectionOfASeekableStream)
{
    for (const bool pauseBuffering : {false, true}) {
        for (const bool withReset : {false, true}) {
            SCOPED_TRACE(std::to_string(pauseBuffering) + ", " + std::to_string(withReset));
            const auto stream = open(seekable(), pauseBuffering);
            EXPECT_EQ(stream->readSome(50'000), kMedia.bytes(0, 50'000));
            EXPECT_TRUE(waitUntilFull(*stream));
            EXPECT_EQ(stream->pause(), 0);
            dropPeers(withReset);
            passTime(*stream, kTenMinutes);
            EXPECT_EQ(stream->error(), 0) << "nobody missed anything";
            EXPECT_EQ(stream->eof(), 0);
            EXPECT_EQ(stream->resume(), 0);
            expectRest(*stream, 50'000);
            EXPECT_EQ(m_server->requests("/slow").size() % 2, 0U) << "one request for the rest";
        }
    }
}

// Nobody asked for a pause: the player just does not read. With pause buffering the engine lets go of the connection
// before the server does.
TEST_P(Slow, aReaderAwayForTenMinutesFindsASeekableStreamWhereItLeftIt)
{
    const auto stream = open(seekable(), true);
    EXPECT_EQ(stream->readSome(50'000), kMedia.bytes(0, 50'000));
    EXPECT_TRUE(waitUntilFull(*stream));
    passTime(*stream, kTenMinutes);
    EXPECT_TRUE(m_server->waitForOpenConnections(0));
    EXPECT_EQ(stream->error(), 0);
    expectRest(*stream, 50'000);
    EXPECT_EQ(m_server->requests("/slow").size(), 2U);
}

// Without it the connection is the server's to end. All that was taken in is delivered, then the error tells; and a
// pause and a resume bring the rest.
TEST_P(Slow, aReaderAwayForTooLongIsToldAndCanGoOn)
{
    for (const bool withReset : {false, true}) {
        SCOPED_TRACE(withReset ? "reset" : "closed");
        const auto stream = open(seekable().sendBuffer(65536));
        EXPECT_EQ(stream->readSome(1000), kMedia.bytes(0, 1000));
        EXPECT_TRUE(waitUntilFull(*stream));
        const auto held =
            static_cast<std::size_t>(inspect(stream->number(), [](auto& desc) { return desc.writePos; }));
        dropPeers(withReset);
        passTime(*stream, kTenMinutes);
        EXPECT_EQ(stream->eof(), 0);
        const std::string bytes = stream->readAll();
        EXPECT_TRUE(kMedia.matches(1000, bytes));
        EXPECT_GE(bytes.size() + 1000, held);
        EXPECT_LT(bytes.size() + 1000, kSize) << "the sockets hold less";
        EXPECT_EQ(stream->eof(), 1);
        EXPECT_EQ(stream->error(), withReset ? 152 : 153);
        EXPECT_EQ(stream->pause(), 0);
        EXPECT_EQ(stream->resume(), 0);
        expectRest(*stream, 1000 + bytes.size());
    }
}

// A stream that cannot seek is kept alive: some bytes flow from time to time, and leave in their order.
TEST_P(Slow, aPauseOfTenMinutesKeepsAStreamThatCannotSeekGoing)
{
    const auto stream = open(fixed(), true);
    EXPECT_EQ(stream->readSome(50'000), kMedia.bytes(0, 50'000));
    EXPECT_TRUE(waitUntilFull(*stream));
    EXPECT_EQ(stream->pause(), 0);
    std::size_t kept = 0;
    for (int minutes = 0; minutes < 12; minutes += 6) { // the engine waits for five and a half
        passTime(*stream, time_t{6} * 60);
        EXPECT_TRUE(waitForDescriptor(stream->number(),
                                      [kept](auto& desc) { return desc.backBuffer.usedBytes() > kept; }));
        kept = inspect(stream->number(), [](auto& desc) { return desc.backBuffer.usedBytes(); });
        EXPECT_EQ(inspect(stream->number(), [](auto& desc) { return desc.paused; }), 1);
    }
    EXPECT_EQ(stream->resume(), 0);
    expectRest(*stream, 50'000);
    EXPECT_EQ(m_server->requests("/slow").size(), 1U);
}

TEST_P(Slow, aPauseThatOutlastsAStreamThatCannotSeekEndsItBehindWhatCame)
{
    for (const bool withReset : {false, true}) {
        SCOPED_TRACE(withReset ? "reset" : "closed");
        const auto stream = open(fixed().sendBuffer(65536));
        EXPECT_EQ(stream->readSome(1000), kMedia.bytes(0, 1000));
        EXPECT_TRUE(waitUntilFull(*stream));
        EXPECT_EQ(stream->pause(), 0);
        dropPeers(withReset);
        passTime(*stream, kTenMinutes);
        EXPECT_TRUE(support::workerRests()) << "a peer that is gone is no work";
        EXPECT_EQ(stream->resume(), 0);
        const std::string bytes = stream->readAll();
        EXPECT_TRUE(kMedia.matches(1000, bytes));
        EXPECT_GE(bytes.size(), kRing - 2 * CURL_MAX_WRITE_SIZE);
        EXPECT_LT(bytes.size() + 1000, kSize);
        EXPECT_EQ(stream->eof(), 1);
        EXPECT_EQ(stream->error(), withReset ? 152 : 153);
    }
}

// --- A slow reader ---

TEST_P(Slow, aReaderOfOneByteAtATimeGetsEachInItsTurn)
{
    constexpr std::uint64_t kBytes = kRing + 40'000; // across the buffer's end, and the pauses there
    for (const bool pauseBuffering : {false, true}) {
        const auto stream = open(Reply(seekable()).sendBuffer(65536), pauseBuffering);
        EXPECT_TRUE(waitUntilFull(*stream)); // the server waits, with every socket buffer full
        std::string bytes;
        for (std::uint64_t i = 0; i < kBytes; ++i) {
            const int byte = stream->getc();
            ASSERT_GE(byte, 0) << "at " << i << ", error " << stream->error();
            bytes += static_cast<char>(byte);
        }
        EXPECT_TRUE(kMedia.matches(0, bytes));
        expectRest(*stream, kBytes);
    }
    EXPECT_EQ(m_server->requests("/slow").size(), 2U) << "one each";
}

// --- A slow sender ---

// Each byte leaves when the test says so. What the reader was told in between goes away with the next byte.
TEST_P(Slow, aSenderOfAByteNowAndThenIsFollowedByteByByte)
{
    constexpr int kBytes = 30;
    std::vector<Gate> gates(kBytes);
    Reply reply = Reply().body(kMedia, kBytes);
    for (int i = 0; i < kBytes; ++i) {
        reply.wait(At::body(static_cast<std::uint64_t>(i)), gates[static_cast<std::size_t>(i)]);
    }
    const auto stream = open(reply);
    for (int i = 0; i < kBytes; ++i) {
        SCOPED_TRACE("byte " + std::to_string(i));
        stream->fcntl(MDCH_FCNTL_DATA_TIMEOUT, kOver);
        EXPECT_EQ(stream->readSome(1), "");
        EXPECT_EQ(stream->error(), 11);
        EXPECT_EQ(stream->eof(), 0);
        EXPECT_EQ(stream->tell(), i);
        bePatient(*stream);
        gates[static_cast<std::size_t>(i)].open();
        EXPECT_EQ(stream->readSome(1), kMedia.bytes(static_cast<std::uint64_t>(i), 1));
        EXPECT_EQ(stream->error(), 0);
    }
    EXPECT_EQ(stream->readSome(1), "");
    EXPECT_EQ(stream->eof(), 1);
    EXPECT_EQ(stream->error(), 0);
}

// The whole response, header and framing too, in pieces of one byte.
TEST_P(Slow, aResponseOfSingleBytesIsOneLikeOthers)
{
    for (const Reply& reply : {Reply().body(kMedia, 2000), Reply().body(kMedia, 2000).chunked({1, 100, 7}),
                               Reply().body(kMedia, 2000).closeDelimited()}) {
        const auto stream = open(Reply(reply).pieces(1));
        const std::string bytes = stream->readAll();
        EXPECT_EQ(bytes.size(), 2000U);
        EXPECT_TRUE(kMedia.matches(0, bytes));
        EXPECT_EQ(stream->eof(), 1);
        EXPECT_EQ(stream->error(), 0);
    }
}

// A read has one deadline: bytes that dribble in do not move it on, and the next read has one of its own.
TEST_P(Slow, aReadEndsInTimeThoughBytesKeepDribblingIn)
{
    const auto stream = open(Reply().body(kMedia, 200'000).pieces(1).throttle(200)); // a quarter of an hour
    stream->fcntl(MDCH_FCNTL_DATA_TIMEOUT, 1);
    std::uint64_t position = 0;
    for (int round = 0; round < 2; ++round) {
        const std::string bytes = stream->readSome(200'000);
        EXPECT_LT(bytes.size(), 200'000U);
        EXPECT_TRUE(kMedia.matches(position, bytes));
        position += bytes.size();
        EXPECT_EQ(stream->tell(), static_cast<long long>(position));
        EXPECT_EQ(stream->eof(), 0);
    }
    EXPECT_GT(position, 0U);
    bePatient(*stream);
    EXPECT_EQ(stream->readSome(3), kMedia.bytes(position, 3));
}

INSTANTIATE_TEST_SUITE_P(, Slow, testing::Values(Way::Plain, Way::Tls), support::nameOf);

} // namespace
