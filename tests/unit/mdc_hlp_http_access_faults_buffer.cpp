// Connections that end where buffers have their edges: libcurl's blocks, the ring buffer full to the byte, and its wrap.

#include "support/fault_sweep.h"
#include "support/media.h"

#include <cstdlib>
#include <set>

#include <gtest/gtest.h>

namespace {

using support::At;
using support::End;
using support::FaultSweep;
using support::Framing;
using support::Gate;
using support::HttpStream;
using support::Reader;
using support::Reply;
using support::Way;
using support::Wire;

const support::Media kMedia(33);
constexpr std::size_t kRing = 0x18000; // the smallest that a stream can have
constexpr std::size_t kBlock = 16384;  // libcurl's
constexpr std::size_t kSize = 3 * kRing + 777;
constexpr unsigned int kPiece = 10'007; // does not divide any of them

class BufferFaults : public FaultSweep
{
protected:
    std::unique_ptr<HttpStream> open() const
    {
        auto stream = std::make_unique<HttpStream>();
        prepare(*stream);
        stream->fcntl(MDCH_FCNTL_BUFFER_SIZE, static_cast<int>(kRing));
        stream->start(url("/faulty"));
        return stream;
    }

    static std::string readPieces(HttpStream& stream, std::size_t count)
    {
        std::string bytes;
        while (bytes.size() < count) {
            const std::size_t wanted = std::min<std::size_t>(kPiece, count - bytes.size());
            const std::string piece = stream.readSome(static_cast<unsigned int>(wanted));
            bytes += piece;
            if (piece.size() < wanted) {
                break;
            }
        }
        return bytes;
    }

    // Body positions at which something begins or ends, and their neighbours. MDC_TEST_WIDE: many more.
    static std::set<std::size_t> edges(const Wire& wire)
    {
        std::set<std::size_t> all;
        const auto addAround = [&all](std::size_t place) { all.insert({place - 1, place, place + 1}); };
        addAround(1);
        for (const std::size_t place :
             {kBlock, 2 * kBlock, kRing - kBlock, kRing, kRing + kBlock, 2 * kRing}) {
            addAround(place);
            addAround(place - wire.headSize()); // libcurl counts the header's bytes in its first block
        }
        all.insert({kSize - 1, kSize});
        if (std::getenv("MDC_TEST_WIDE") != nullptr) {
            for (std::size_t place = 0; place < kSize; place += 509) {
                all.insert(place);
            }
        }
        return all;
    }

    void expectAfter(const Wire& wire, std::size_t bodyBytes, End end, Reader reader)
    {
        SCOPED_TRACE("after " + std::to_string(bodyBytes) + " bytes of body" +
                     (reader == Reader::Late ? ", read late" : ""));
        const std::size_t count = wire.upToBody(bodyBytes);
        m_server->on("/faulty", cutShort(wire, count, end));
        const auto stream = open();
        bool waitsForRoom = false;
        if (reader == Reader::Late || bodyBytes == 0) {
            const auto all = static_cast<std::int64_t>(bodyBytes);
            EXPECT_TRUE(support::waitForDescriptor(stream->number(), [all](auto& desc) {
                return desc.headerComplete != 0 && (desc.writePos == all || desc.paused != 0);
            }));
            waitsForRoom = support::inspect(stream->number(), [](auto& desc) { return desc.paused != 0; });
            EXPECT_TRUE(waitsForRoom || bodyBytes <= kRing);
        } else {
            EXPECT_TRUE(kMedia.matches(0, readPieces(*stream, bodyBytes)));
            EXPECT_EQ(stream->tell(), static_cast<long long>(bodyBytes));
        }
        strike();
        const auto from = static_cast<std::uint64_t>(stream->tell());
        const std::string rest = readPieces(*stream, kSize + 1);
        EXPECT_TRUE(kMedia.matches(from, rest));
        const auto all = static_cast<std::size_t>(stream->tell());
        EXPECT_EQ(all, from + rest.size());
        EXPECT_EQ(stream->eof(), 1);
        if (waitsForRoom && end == End::Reset) { // which takes with it what was still on its way
            EXPECT_GE(all, kRing - kBlock) << "what the buffer held";
            EXPECT_LE(all, bodyBytes);
            const bool isComplete =
                all == kSize && wire.framing() != Framing::ToTheEnd && stream->error() == 0;
            EXPECT_EQ(stream->error(), isComplete ? 0 : 152);
        } else {
            EXPECT_EQ(all, bodyBytes);
            EXPECT_EQ(stream->error(), errorAfter(wire, count, end));
        }
        EXPECT_EQ(stream->size(), wire.framing() == Framing::Length ? static_cast<long long>(kSize) : -1);
        m_proxy != nullptr ? m_proxy->passOnEverything() : void();
    }

    void sweep(End end)
    {
        const std::string body = kMedia.bytes(0, kSize);
        for (const Framing framing : {Framing::Length, Framing::Chunked, Framing::ToTheEnd}) {
            SCOPED_TRACE("framing " + std::to_string(static_cast<int>(framing)));
            const Wire wire = Wire::make(framing, body, "", {30'000, 1, 70'001});
            for (const std::size_t bodyBytes : edges(wire)) {
                expectAfter(wire, bodyBytes, end, Reader::First);
                expectAfter(wire, bodyBytes, end, Reader::Late);
            }
        }
        auto stream = std::make_unique<HttpStream>();
        prepare(*stream);
        expectNextOpenWorks(std::move(stream));
    }
};

TEST_P(BufferFaults, aConnectionClosedAtTheEdgeOfABlockOrOfTheBufferGivesEveryByte)
{
    sweep(End::Closed);
}

TEST_P(BufferFaults, aConnectionResetAtTheEdgeOfABlockOrOfTheBufferGivesWhatCame)
{
    sweep(End::Reset);
}

INSTANTIATE_TEST_SUITE_P(, BufferFaults,
                         testing::Values(Way::Plain, Way::Tls, Way::Forwarded, Way::Tunnelled),
                         support::nameOf);

// --- Full to the byte ---

class FullBuffer : public BufferFaults
{
protected:
    // The buffer holds `level` bytes behind `passed` ones that were read, then come `more` in one block, and the
    // connection ends.
    void expectAt(std::size_t passed, std::size_t level, std::size_t more, End end)
    {
        SCOPED_TRACE(std::to_string(passed) + " bytes passed, filled to " + std::to_string(level) +
                     ", then " + std::to_string(more));
        Gate first;
        Gate second;
        Gate third;
        Reply reply = Reply().body(kMedia, kSize);
        if (passed > 0) {
            reply.wait(At::body(passed), first);
        }
        reply.wait(At::body(passed + level), second).wait(At::body(passed + level + more), third);
        if (end == End::Closed) {
            reply.close(At::body(passed + level + more));
        } else {
            reply.reset(At::body(passed + level + more));
        }
        m_server->on("/faulty", reply);
        const auto stream = open();
        const auto received = [&stream](std::size_t count) {
            return support::waitForDescriptor(stream->number(), [count](auto& desc) {
                return desc.writePos == static_cast<std::int64_t>(count) && desc.headerComplete != 0;
            });
        };
        EXPECT_TRUE(kMedia.matches(0, readPieces(*stream, passed)));
        first.open();
        EXPECT_TRUE(received(passed + level));
        EXPECT_EQ(stream->facts().buffered, level);
        second.open();
        if (level + more > kRing) {
            EXPECT_TRUE(
                support::waitForDescriptor(stream->number(), [](auto& desc) { return desc.paused != 0; }));
            EXPECT_EQ(stream->facts().buffered, level) << "a block is not split";
        } else {
            EXPECT_TRUE(received(passed + level + more));
        }
        EXPECT_TRUE(third.waitForArrivals());
        third.open();
        EXPECT_TRUE(m_server->waitForOpenConnections(0));
        const std::string rest = readPieces(*stream, kSize);
        EXPECT_TRUE(kMedia.matches(passed, rest));
        EXPECT_EQ(rest.size(), level + more);
        EXPECT_EQ(stream->eof(), 1);
        EXPECT_EQ(stream->error(), end == End::Reset ? 152 : 153);
    }

    void sweep(End end)
    {
        for (const std::size_t passed : {std::size_t{0}, std::size_t{50'000}, kRing - 1}) {
            for (const std::size_t level :
                 {kRing - kBlock, kRing - kBlock + 1, kRing - 2, kRing - 1, kRing}) {
                for (const std::size_t more : {std::size_t{1}, std::size_t{2}, kBlock}) {
                    expectAt(passed, level, more, end);
                }
            }
        }
    }
};

TEST_P(FullBuffer, aConnectionClosedAtAnyLevelLosesNothing)
{
    sweep(End::Closed);
}

TEST_P(FullBuffer, aConnectionResetAtAnyLevelLosesNothingThatWasTakenIn)
{
    sweep(End::Reset);
}

INSTANTIATE_TEST_SUITE_P(, FullBuffer, testing::Values(Way::Plain, Way::Tls), support::nameOf);

} // namespace
