// Servers that stop at every byte of a response and keep the connection: the time-outs tell it, nothing that came is
// lost, and the stream goes on when the server does.

#include "support/fault_sweep.h"
#include "support/media.h"

#include <gtest/gtest.h>

namespace {

using support::At;
using support::End;
using support::FaultSweep;
using support::Framing;
using support::HttpStream;
using support::Reader;
using support::Way;
using support::Wire;

const support::Media kMedia(32);
constexpr std::size_t kSize = 40;
constexpr int kOver = -1; // seconds: a wait that is over when it begins

class Stalls : public FaultSweep
{
protected:
    // In front of the header's end: the header time-out.
    static void expectNoHeader(HttpStream& stream)
    {
        stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, kOver);
        EXPECT_EQ(stream.error(), 14);
        EXPECT_EQ(stream.readSome(1), "");
        EXPECT_EQ(stream.eof(), 0) << "it may still come";
        EXPECT_EQ(stream.error(), 14);
        EXPECT_EQ(stream.getResponseCode(), -14);
        EXPECT_EQ(stream.tell(), 0);
        bePatient(stream);
    }

    // Behind it: what came, and the data time-out.
    static void expectNoMore(HttpStream& stream, const Wire& wire, std::size_t count, Reader reader)
    {
        const std::size_t bytes = wire.bodyIn(count);
        stream.fcntl(MDCH_FCNTL_NONBLOCKING);
        EXPECT_EQ(stream.readSome(kSize + 1), reader == Reader::Late ? wire.body().substr(0, bytes) : "");
        EXPECT_EQ(stream.error(), 0) << "nobody wanted to wait";
        EXPECT_EQ(stream.eof(), 0);
        stream.fcntl(MDCH_FCNTL_DATA_TIMEOUT, kOver);
        EXPECT_EQ(stream.readSome(1), "");
        EXPECT_EQ(stream.error(), 11);
        EXPECT_EQ(stream.eof(), 0) << "it may still come";
        EXPECT_EQ(stream.tell(), static_cast<long long>(bytes));
        bePatient(stream);
    }

    // Each stop ends either way.
    static void expectRest(HttpStream& stream, const Wire& wire, std::size_t count)
    {
        EXPECT_EQ(stream.readAll(), wire.body().substr(wire.bodyIn(count)));
        EXPECT_EQ(stream.tell(), static_cast<long long>(wire.body().size()));
        EXPECT_EQ(stream.eof(), 1);
        EXPECT_EQ(stream.error(), 0);
    }

    void expectAt(const Wire& wire, std::size_t count, Reader reader, bool goesOn)
    {
        SCOPED_TRACE("after " + std::to_string(count) + " bytes of " + std::to_string(wire.size()) +
                     (reader == Reader::Late ? ", read late" : "") + (goesOn ? ", goes on" : ", is closed"));
        m_server->on("/faulty", held(wire, count));
        auto stream = std::make_unique<HttpStream>();
        prepare(*stream);
        stream->start(url("/faulty"));
        meetTheFault(*stream, wire, count, reader);
        if (wire.hasHead(count)) {
            expectNoMore(*stream, wire, count, reader);
        } else {
            expectNoHeader(*stream);
        }
        if (goesOn) {
            m_gate.open();
            expectRest(*stream, wire, count);
        }
        expectNextOpenWorks(std::move(stream));
    }
};

TEST_P(Stalls, aServerThatStopsAtAnyByteIsWaitedForOnlyAsLongAsAsked)
{
    const std::string body = kMedia.bytes(0, kSize);
    for (const Framing framing : {Framing::Length, Framing::Chunked, Framing::ToTheEnd}) {
        SCOPED_TRACE("framing " + std::to_string(static_cast<int>(framing)));
        const Wire wire = Wire::make(framing, body);
        for (std::size_t count = framing == Framing::Length ? 0 : wire.headSize();
             count < wire.size() || (count == wire.size() && framing == Framing::ToTheEnd);
             count += support::sweepStep()) {
            expectAt(wire, count, Reader::First, count % 2 == 0);
            expectAt(wire, count, wire.hasHead(count) ? Reader::Late : Reader::First, count % 2 != 0);
        }
    }
}

// A stream that nobody reads and nobody waits for is none to the engine either.
TEST_P(Stalls, aServerThatStopsKeepsNoOtherStreamWaiting)
{
    const Wire wire = Wire::make(Framing::Length, kMedia.bytes(0, kSize));
    m_server->on("/other", support::Reply().body(kMedia, 500'000).closeConnection());
    const std::size_t places[] = {0, 5, wire.headSize() - 1, wire.headSize(), wire.size() - 1};
    for (const std::size_t count : places) {
        SCOPED_TRACE("after " + std::to_string(count) + " bytes");
        m_server->on("/faulty", held(wire, count));
        auto stream = std::make_unique<HttpStream>();
        prepare(*stream);
        stream->start(url("/faulty"));
        EXPECT_TRUE(m_gate.waitForArrivals());
        m_proxy != nullptr ? m_proxy->passOnEverything() : void();
        HttpStream other;
        prepare(other);
        EXPECT_TRUE(kMedia.matches(0, other.fetch(url("/other"))));
        EXPECT_EQ(other.tell(), 500'000);
        EXPECT_EQ(other.error(), 0);
        other.close();
        EXPECT_EQ(stream->facts().done, 0);
        expectNextOpenWorks(std::move(stream));
    }
}

INSTANTIATE_TEST_SUITE_P(, Stalls, testing::Values(Way::Plain, Way::Tls, Way::Forwarded, Way::Tunnelled),
                         support::nameOf);

} // namespace
