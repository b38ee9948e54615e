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
using support::Reader;
using support::Way;
using support::Wire;

const support::Media kMedia(31);
constexpr std::size_t kSize = 40;

class Faults : public FaultSweep
{
protected:
    // What the responses before the wire's own have told.
    struct Known
    {
        int code = -1;
        long long size = -1;
    };

    // What the stream says and gives behind the fault.
    void expectFault(HttpStream& stream, const Wire& wire, std::size_t count, int error, Reader reader) const
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
        Known known = count >= wire.statusStart() ? m_before : Known();
        if (wire.hasHead(count)) {
            known.code = 200;
            known.size = wire.framing() == Framing::Length ? static_cast<long long>(wire.body().size()) : -1;
        }
        EXPECT_EQ(stream.getResponseCode(), known.code);
        EXPECT_EQ(stream.size(), known.size);
    }

    void expectAfter(const Wire& wire, std::size_t count, End end, Reader reader,
                     const std::string& path = "/faulty")
    {
        SCOPED_TRACE("after " + std::to_string(count) + " bytes of " + std::to_string(wire.size()) +
                     (reader == Reader::Late ? ", read late" : ""));
        m_server->on("/faulty", cutShort(wire, count, end));
        auto stream = std::make_unique<HttpStream>();
        prepare(*stream);
        stream->start(url(path));
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
            for (std::size_t count = 0; count < wire.headSize(); count += support::sweepStep()) {
                expectAfter(wire, count, end, Reader::First);
            }
        }
        for (const Framing framing : {Framing::Length, Framing::Chunked, Framing::ToTheEnd}) {
            SCOPED_TRACE("framing " + std::to_string(static_cast<int>(framing)));
            const Wire wire = Wire::make(framing, body);
            for (std::size_t count = wire.headSize(); count <= wire.size(); count += support::sweepStep()) {
                expectAfter(wire, count, end, Reader::First);
                expectAfter(wire, count, end, Reader::Late);
            }
        }
    }

    Known m_before;
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

class PlainFaults : public Faults
{
};

// What came before the response proper is no response.
TEST_P(PlainFaults, aConnectionThatEndsBehindAnInterimResponseIsNoEmptyBody)
{
    const Wire wire = Wire::make(Framing::Length, kMedia.bytes(0, kSize), "", {},
                                 "HTTP/1.1 103 Early Hints\r\nLink: </a>\r\n\r\n");
    m_before.code = 103;
    for (std::size_t count = 0; count <= wire.size(); count += support::sweepStep()) {
        expectAfter(wire, count, End::Closed, Reader::First);
        expectAfter(wire, count, End::Reset, Reader::First);
    }
}

TEST_P(PlainFaults, aConnectionThatEndsBehindARedirectIsNoEmptyBody)
{
    m_server->on("/moved", support::Reply::redirect("/faulty"));
    m_before = {302, 0};
    const Wire wire = Wire::make(Framing::Length, kMedia.bytes(0, kSize));
    for (std::size_t count = 0; count <= wire.size(); count += support::sweepStep()) {
        expectAfter(wire, count, End::Closed, Reader::First, "/moved");
        expectAfter(wire, count, End::Reset, Reader::First, "/moved");
    }
}

INSTANTIATE_TEST_SUITE_P(, Faults, testing::Values(Way::Plain, Way::Tls, Way::Forwarded, Way::Tunnelled),
                         support::nameOf);
INSTANTIATE_TEST_SUITE_P(, PlainFaults, testing::Values(Way::Plain), support::nameOf);
INSTANTIATE_TEST_SUITE_P(, TlsFaults, testing::Values(Way::Tls, Way::Tunnelled), support::nameOf);

} // namespace
