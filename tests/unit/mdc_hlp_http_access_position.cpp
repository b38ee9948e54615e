// md::HttpAccess: seek, tell, and where each is refused.

#include "support/engine.h"
#include "support/http_client.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <future>
#include <gtest/gtest.h>
#include <limits>

namespace {

using support::At;
using support::Gate;
using support::HttpServer;
using support::HttpStream;
using support::inspect;
using support::Media;
using support::Reply;
using support::TraceCapture;
using support::waitForDescriptor;

const Media kMedia(25);
constexpr long long kSize = 100'000;
constexpr std::size_t kHeld = 5000;

class Position : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;
    Gate m_rest;

    void open(HttpStream& stream) const
    {
        stream.start(m_server.url("/"));
        EXPECT_EQ(stream.getResponseCode(), 200);
    }

    // A stream of which exactly kHeld bytes have come. What a seek asks for comes whole.
    void openHeld(HttpStream& stream)
    {
        m_server.onSequence("/", {Reply::resource(kMedia, kSize).wait(At::body(kHeld), m_rest),
                                  Reply::resource(kMedia, kSize)});
        open(stream);
        EXPECT_TRUE(waitForDescriptor(stream.number(),
                                      [](auto& desc) { return desc.ringBuffer.usedBytes() == kHeld; }));
    }

    static void expectAt(HttpStream& stream, long long position)
    {
        EXPECT_EQ(stream.tell(), position);
        EXPECT_EQ(stream.readSome(100), kMedia.bytes(static_cast<std::uint64_t>(position), 100));
        EXPECT_EQ(stream.tell(), position + 100);
        EXPECT_EQ(stream.error(), 0);
    }

    std::size_t requestCount() const { return m_server.requests().size(); }
};

// --- Inside the buffer, and beyond ---

TEST_F(Position, aShortWayForwardIsTakenInsideTheBuffer)
{
    HttpStream stream;
    openHeld(stream);
    const TraceCapture trace;
    EXPECT_EQ(stream.seek(1000, 0), 0);
    EXPECT_EQ(trace.count("seek(): got seek request on fd 100 to 1000 (whence: 0)\n"), 1U);
    EXPECT_EQ(trace.count("internalSeek(): skip 1000 bytes on fd 100 (act pos: 0)\n"), 1U);
    EXPECT_EQ(trace.severityOf("internalSeek(): skip 1000 bytes on fd 100 (act pos: 0)\n"), 5000U);
    expectAt(stream, 1000);
    EXPECT_EQ(requestCount(), 1U);
}

TEST_F(Position, oneByteLessThanTheBufferHoldsIsStillInsideIt)
{
    HttpStream stream;
    openHeld(stream);
    EXPECT_EQ(stream.seek(kHeld - 1, 0), 0);
    EXPECT_EQ(stream.tell(), static_cast<long long>(kHeld) - 1);
    EXPECT_EQ(stream.getc(), kMedia.at(kHeld - 1));
    EXPECT_EQ(requestCount(), 1U);
}

TEST_F(Position, exactlyWhatTheBufferHoldsReconnects)
{
    HttpStream stream;
    openHeld(stream);
    const TraceCapture trace;
    EXPECT_EQ(stream.seek(kHeld, 0), 0);
    EXPECT_EQ(trace.count("internalSeek(): wait for data in seek to 5000 on 100\n"), 1U);
    EXPECT_EQ(trace.count("internalSeek(): reconnected in seek to 5000 on 100\n"), 1U);
    EXPECT_FALSE(trace.hasAnywhere("internalSeek(): skip"));
    expectAt(stream, kHeld);
    ASSERT_EQ(requestCount(), 2U);
    EXPECT_EQ(m_server.requests().at(1).header("Range"), "bytes=5000-");
}

TEST_F(Position, aReconnectIsWhatAFieldEngineerWantsToSee)
{
    HttpStream stream;
    openHeld(stream);
    const TraceCapture trace;
    EXPECT_EQ(stream.seek(kHeld, 0), 0);
    EXPECT_EQ(trace.severityOf("internalSeek(): reconnected in seek to 5000 on 100\n"), 4000U);
}

TEST_F(Position, oneByteBackReconnects)
{
    HttpStream stream;
    openHeld(stream);
    EXPECT_EQ(stream.readSome(200).size(), 200U);
    EXPECT_EQ(stream.seek(199, 0), 0);
    expectAt(stream, 199);
    EXPECT_EQ(m_server.requests().at(1).header("Range"), "bytes=199-");
}

TEST_F(Position, theCurrentOneWithAKnownLengthLeavesTheTransferRunning)
{
    HttpStream stream;
    openHeld(stream);
    EXPECT_EQ(stream.readSome(200).size(), 200U);
    const TraceCapture trace;
    EXPECT_EQ(stream.seek(200, 0), 0);
    EXPECT_EQ(stream.seek(0, 1), 0);
    EXPECT_EQ(trace.count("internalSeek(): seek to current position 200 on 100\n"), 2U);
    EXPECT_EQ(stream.seek(200 - kSize, 2), 0);
    EXPECT_EQ(trace.count("internalSeek(): seek to current position 200 on 100\n"), 3U);
    expectAt(stream, 200);
    EXPECT_EQ(requestCount(), 1U);
}

TEST_F(Position, theCurrentOneWithoutLengthReconnects)
{
    m_server.on("/", Reply::resource(kMedia, kSize).chunked());
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.readSome(200).size(), 200U);
    EXPECT_EQ(stream.seek(0, 1), 0);
    expectAt(stream, 200);
    EXPECT_EQ(m_server.requests().at(1).header("Range"), "bytes=200-");
    EXPECT_EQ(stream.size(), kSize);
}

// --- Whence ---

TEST_F(Position, isSoughtFromTheStartFromTheCurrentOneAndFromTheEnd)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seek(50'000, 0), 0);
    expectAt(stream, 50'000);
    EXPECT_EQ(stream.seek(-10'000, 1), 0);
    expectAt(stream, 40'100);
    EXPECT_EQ(stream.seek(30'000, 1), 0);
    expectAt(stream, 70'200);
    EXPECT_EQ(stream.seek(-1000, 2), 0);
    expectAt(stream, 99'000);
    EXPECT_EQ(stream.seek(0, 0), 0);
    expectAt(stream, 0);
}

TEST_F(Position, atTheEndReadsNothingAndIsTheEndOfFile)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seek(0, 2), 0);
    EXPECT_EQ(stream.tell(), kSize);
    EXPECT_EQ(stream.readSome(10), "");
    EXPECT_EQ(stream.getc(), -1);
    EXPECT_EQ(stream.eof(), 1);
    EXPECT_EQ(stream.error(), 0);
    EXPECT_EQ(stream.seek(-1, 1), 0);
    EXPECT_EQ(stream.getc(), kMedia.at(kSize - 1));
}

TEST_F(Position, farBehindTheEndReadsNothingAndComesBack)
{
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.seek(1'000'000'000'000LL, 0), 0);
    EXPECT_EQ(stream.tell(), 1'000'000'000'000LL);
    EXPECT_EQ(stream.readSome(10), "");
    EXPECT_EQ(stream.eof(), 1);
    EXPECT_EQ(stream.size(), kSize);
    EXPECT_EQ(stream.seek(100, 0), 0);
    expectAt(stream, 100);
}

struct BadTarget
{
    long long offset;
    int whence;
    long long target; // as it is traced
};

void PrintTo(const BadTarget& bad, std::ostream* out)
{
    *out << bad.offset << " whence " << bad.whence;
}

class PositionRefused : public Position, public testing::WithParamInterface<BadTarget>
{
};

TEST_P(PositionRefused, belowZeroGivesError29AndChangesNothing)
{
    const BadTarget& bad = GetParam();
    m_server.on("/", Reply::resource(kMedia, kSize));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.readSome(200).size(), 200U);
    ASSERT_TRUE(stream.waitDone()); // data that arrives would clear the error
    const TraceCapture trace;
    EXPECT_EQ(stream.seek(bad.offset, bad.whence), -29);
    EXPECT_EQ(stream.error(), 29);
    const std::string text =
        "internalSeek(): cannot seek to negative offset " + std::to_string(bad.target) + " (fd: 100)\n";
    EXPECT_EQ(trace.count(text), 1U);
    EXPECT_EQ(trace.severityOf(text), 3000U);
    stream.clearerr();
    expectAt(stream, 200);
    EXPECT_EQ(requestCount(), 1U);
}

constexpr long long kMost = std::numeric_limits<long long>::max();
constexpr long long kLeast = std::numeric_limits<long long>::min();
INSTANTIATE_TEST_SUITE_P(Targets, PositionRefused,
                         testing::Values(BadTarget{-1, 0, -1}, BadTarget{kLeast, 0, kLeast},
                                         BadTarget{-201, 1, -1}, BadTarget{-kSize - 5, 2, -5},
                                         BadTarget{0, 3, -1}, BadTarget{50, -1, -1}, BadTarget{50, 7, -1},
                                         // No position holds these sums.
                                         BadTarget{kMost, 1, -1}, BadTarget{kMost, 2, -1}));

TEST_F(Position, fromTheEndOfAnEmptyResourceIsRefused)
{
    m_server.on("/", Reply().header("Accept-Ranges: bytes").body(""));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.size(), 0);
    const TraceCapture trace;
    EXPECT_EQ(stream.seek(0, 2), -29);
    EXPECT_TRUE(trace.has("internalSeek(): cannot seek to negative offset -1 (fd: 100)\n"));
}

// --- Streams that cannot seek ---

TEST_F(Position, ofAStreamThatCannotSeekIsRefused)
{
    m_server.on("/", Reply::resource(kMedia, kSize).acceptRanges("none"));
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.isSeekable(), 0);
    ASSERT_TRUE(stream.waitDone());
    for (const int whence : {0, 1, 2, 3}) {
        const TraceCapture trace;
        EXPECT_EQ(stream.seek(0, whence), -29) << whence;
        EXPECT_EQ(stream.error(), 29);
        EXPECT_EQ(trace.count("seek(): seek not allowed in stream (fd: 100)\n"), 1U);
        EXPECT_EQ(trace.severityOf("seek(): seek not allowed in stream (fd: 100)\n"), 3000U);
        stream.clearerr();
    }
    expectAt(stream, 0);
    EXPECT_EQ(requestCount(), 1U);
}

TEST_F(Position, fromTheEndOfAStreamWithoutLengthThatCannotSeekIsRefused)
{
    m_server.on("/", Reply::resource(kMedia, kSize).ignoreRanges().chunked());
    HttpStream stream;
    open(stream);
    ASSERT_TRUE(stream.waitDone());
    const TraceCapture trace;
    EXPECT_EQ(stream.seek(0, 2), -29);
    EXPECT_EQ(stream.error(), 29);
    EXPECT_EQ(trace.count("seek(): cannot seek on stream without length (fd: 100)\n"), 1U);
    EXPECT_EQ(trace.severityOf("seek(): cannot seek on stream without length (fd: 100)\n"), 3000U);
    EXPECT_EQ(stream.seek(0, 0), -29);
    EXPECT_EQ(trace.count("seek(): seek not allowed in stream (fd: 100)\n"), 1U);
    EXPECT_EQ(requestCount(), 1U);
}

TEST_F(Position, fromTheEndWithoutLengthReconnectsHereFirst)
{
    constexpr std::uint64_t kLarge = 1'000'000; // the end never lies inside the buffer
    m_server.on("/", Reply::resource(kMedia, kLarge).chunked());
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.readSome(200).size(), 200U);
    const TraceCapture trace;
    EXPECT_EQ(stream.seek(-500, 2), 0);
    expectAt(stream, kLarge - 500);
    const auto requests = m_server.requests();
    ASSERT_EQ(requests.size(), 3U);
    EXPECT_EQ(requests[1].header("Range"), "bytes=200-");
    EXPECT_EQ(requests[2].header("Range"), "bytes=999500-");
    EXPECT_TRUE(trace.has("internalSeek(): reconnected in seek to 200 on 100\n"));
    EXPECT_TRUE(trace.has("internalSeek(): reconnected in seek to 999500 on 100\n"));
}

TEST_F(Position, fromAnEndThatStaysUnknownIsRefused)
{
    support::RangeRules rules;
    rules.sendTotal = false;
    m_server.on("/", Reply::resource(kMedia, kSize).ranges(rules).chunked());
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.readSome(200).size(), 200U);
    const TraceCapture trace;
    EXPECT_EQ(stream.seek(0, 2), -29);
    EXPECT_TRUE(trace.has("seek(): cannot seek on stream without length (fd: 100)\n"));
    ASSERT_TRUE(stream.waitDone());
    stream.clearerr();
    expectAt(stream, 200);
}

TEST_F(Position, fromAnEndThatTurnsOutNotToBeSeekableIsRefused)
{
    m_server.onSequence("/", {Reply::resource(kMedia, kSize).chunked(),
                              Reply::resource(kMedia, kSize).acceptRanges("").ignoreRanges()});
    HttpStream stream;
    open(stream);
    EXPECT_EQ(stream.readSome(200).size(), 200U);
    const TraceCapture trace;
    EXPECT_EQ(stream.seek(0, 2), -29);
    EXPECT_EQ(trace.count("seek(): seek not allowed in stream (fd: 100)\n"), 1U);
    ASSERT_TRUE(stream.waitDone());
    stream.clearerr();
    expectAt(stream, 200);
}

} // namespace
