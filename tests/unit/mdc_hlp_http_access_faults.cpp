// Connections that end, at every byte of a response: the error says how, every byte that came is delivered and none
// beside it, and nothing is left behind.

#include "support/fault_sweep.h"
#include "support/media.h"

#include <gtest/gtest.h>

namespace {

using support::End;
using support::FaultSweep;
using support::Framing;
using support::HttpStream;
using support::Way;
using support::Wire;

const support::Media kMedia(31);
constexpr std::size_t kSize = 40;

enum class Reader
{
    First, // has read all there is when the fault comes
    Late   // reads behind it
};

class Faults : public FaultSweep
{
protected:
    // Reads what stands in front of the fault, or waits until it is there to be read.
    void meetTheFault(HttpStream& stream, const Wire& wire, std::size_t count, Reader reader)
    {
        const auto bytes = static_cast<std::int64_t>(wire.bodyIn(count));
        if (!wire.hasHead(count)) {
            EXPECT_TRUE(m_gate.waitForArrivals());
        } else if (reader == Reader::First && bytes > 0) {
            EXPECT_EQ(stream.readSome(static_cast<unsigned int>(bytes)),
                      wire.body().substr(0, wire.bodyIn(count)));
        } else {
            EXPECT_TRUE(support::waitForDescriptor(stream.number(), [bytes](auto& desc) {
                return desc.headerComplete != 0 && desc.writePos == bytes;
            }));
        }
    }

    // What the stream says and gives behind the fault.
    static void expectFault(HttpStream& stream, const Wire& wire, std::size_t count, int error, Reader reader)
    {
        const std::size_t bytes = wire.bodyIn(count);
        EXPECT_TRUE(stream.waitDone());
        EXPECT_EQ(stream.error(), error);
        if (reader == Reader::Late) {
            EXPECT_EQ(stream.eof(), bytes == 0 ? 1 : 0) << "what came is still to be read";
            EXPECT_EQ(stream.readAll(), wire.body().substr(0, bytes));
        }
        EXPECT_EQ(stream.readSome(1), "");
        EXPECT_EQ(stream.tell(), static_cast<long long>(bytes));
        EXPECT_EQ(stream.eof(), 1);
        EXPECT_EQ(stream.error(), error) << "the end of the bytes is not the end of the error";
        const bool hasLength = wire.hasHead(count) && wire.framing() == Framing::Length;
        EXPECT_EQ(stream.size(), hasLength ? static_cast<long long>(wire.body().size()) : -1);
        EXPECT_EQ(stream.getResponseCode(), wire.hasHead(count) ? 200 : -1);
    }

    void expectAfter(const Wire& wire, std::size_t count, End end, Reader reader)
    {
        SCOPED_TRACE("after " + std::to_string(count) + " bytes of " + std::to_string(wire.size()) +
                     (reader == Reader::Late ? ", read late" : ""));
        m_server->on("/faulty", cutShort(wire, count, end));
        auto stream = std::make_unique<HttpStream>();
        prepare(*stream);
        stream->start(url("/faulty"));
        meetTheFault(*stream, wire, count, reader);
        if (wire.tellsItsEnd(count)) {
            EXPECT_TRUE(stream->waitDone());
        }
        strike();
        expectFault(*stream, wire, count, errorAfter(wire, count, end), reader);
        expectNextOpenWorks(std::move(stream));
    }

    void sweep(End end)
    {
        const std::string body = kMedia.bytes(0, kSize);
        for (const bool reuse : {false, true}) {
            SCOPED_TRACE(reuse ? "connection used again" : "fresh connection");
            if (reuse && !canReuse(end)) {
                continue;
            }
            reuseConnections(reuse);
            const Wire wire = Wire::make(Framing::Length, body, "Content-Type: audio/mpeg\r\n");
            for (std::size_t count = 0; count < wire.headSize(); ++count) {
                expectAfter(wire, count, end, Reader::First);
            }
        }
        for (const Framing framing : {Framing::Length, Framing::Chunked, Framing::ToTheEnd}) {
            SCOPED_TRACE("framing " + std::to_string(static_cast<int>(framing)));
            const Wire wire = Wire::make(framing, body);
            for (std::size_t count = wire.headSize(); count <= wire.size(); ++count) {
                expectAfter(wire, count, end, Reader::First);
                expectAfter(wire, count, end, Reader::Late);
            }
        }
    }
};

TEST_P(Faults, aConnectionClosedAtAnyByteGivesWhatCameAndSaysWhetherThatIsAll)
{
    sweep(End::Closed);
}

TEST_P(Faults, aConnectionResetAtAnyByteGivesWhatCameAndANetworkError)
{
    sweep(End::Reset);
}

class TlsFaults : public Faults
{
};

// Many servers end so; a body whose end only the connection tells is taken for complete then, as without TLS.
TEST_P(TlsFaults, aConnectionThatEndsWithoutTheWordOfTlsIsLikeAClosedOne)
{
    sweep(End::Cut);
}

INSTANTIATE_TEST_SUITE_P(, Faults, testing::Values(Way::Plain, Way::Tls, Way::Forwarded, Way::Tunnelled),
                         support::nameOf);
INSTANTIATE_TEST_SUITE_P(, TlsFaults, testing::Values(Way::Tls, Way::Tunnelled), support::nameOf);

} // namespace
