// Tunnels through a proxy that end or garble a byte anywhere: in the answer to CONNECT, in the handshake of TLS, in its
// records.

#include "support/fault_sweep.h"
#include "support/media.h"

#include <cstdlib>

#include <gtest/gtest.h>

namespace {

using support::FaultSweep;
using support::Gate;
using support::HttpStream;
using support::Reply;
using support::waitUntil;
using support::Way;

const support::Media kMedia(37);
constexpr std::size_t kSize = 40;
constexpr std::size_t kAnswer = sizeof("HTTP/1.1 200 Connection established\r\n\r\n") - 1;

enum class Blow
{
    Closed,
    Reset,
    Garbled
};

// How far the stream has come, as its error tells.
enum class Phase
{
    Connect,
    Handshake,
    Response,
    Complete
};

class TunnelFaults : public FaultSweep
{
protected:
    std::unique_ptr<HttpStream> openWith(Blow blow, std::size_t place)
    {
        m_server->on("/faulty", Reply().body(kMedia, kSize));
        m_gate = Gate();
        if (blow == Blow::Garbled) {
            m_proxy->garble(place);
        } else {
            m_proxy->holdAt(place, m_gate);
        }
        auto stream = std::make_unique<HttpStream>();
        prepare(*stream);
        stream->start(url("/faulty"));
        EXPECT_TRUE(waitUntil([&] { return m_gate.arrivals() > 0 || stream->facts().done != 0; }));
        if (blow == Blow::Closed) {
            m_proxy->dropConnections();
        } else if (blow == Blow::Reset) {
            m_proxy->resetConnections();
        }
        EXPECT_TRUE(stream->waitDone());
        return stream;
    }

    static Phase phaseOf(int error, std::size_t place, Blow blow)
    {
        if (error == 0) {
            return Phase::Complete;
        }
        if (place < kAnswer) {
            // A reason in words may read as it likes; the tunnel ends behind it all the same.
            const bool isReason = blow == Blow::Garbled && error == MDCH_HTTP_ESSL;
            EXPECT_TRUE(isReason || error == MDCH_HTTP_ENETWORK) << error;
            return Phase::Connect;
        }
        if (error == MDCH_HTTP_ESSL) {
            return Phase::Handshake;
        }
        // An end that TLS did not announce is taken for one in good order. It is what a record comes to as well whose
        // length was garbled.
        const bool isEnd =
            blow != Blow::Reset && (error == MDCH_HTTP_EUNKNOWN || error == MDCH_HTTP_ETRANSFER);
        EXPECT_TRUE(isEnd || error == MDCH_HTTP_ENETWORK) << error;
        return Phase::Response;
    }

    // Bytes further and further behind the beginning, until the fault lies behind all of them.
    void sweep(Blow blow)
    {
        Phase phase = Phase::Connect;
        bool hadHandshake = false;
        bool hadResponse = false;
        const std::size_t step = std::getenv("MDC_TEST_WIDE") != nullptr ? 1 : 13;
        for (std::size_t place = 0; phase != Phase::Complete; place += place < kAnswer ? 1 : step) {
            SCOPED_TRACE("byte " + std::to_string(place));
            auto stream = openWith(blow, place);
            const int error = stream->error();
            const Phase now = phaseOf(error, place, blow);
            // Signatures differ in size by some bytes: where one phase begins is not the same each time.
            EXPECT_TRUE(now >= phase || step < 13) << "a later fault that came earlier";
            phase = std::max(phase, now);
            hadHandshake = hadHandshake || now == Phase::Handshake;
            hadResponse = hadResponse || now == Phase::Response;
            const std::string bytes = stream->readAll();
            EXPECT_EQ(bytes, kMedia.bytes(0, bytes.size()));
            EXPECT_TRUE(bytes.size() == kSize || error != 0);
            EXPECT_EQ(stream->eof(), 1);
            EXPECT_EQ(stream->error(), error);
            expectNextOpenWorks(std::move(stream));
            ASSERT_LT(place, 20'000U) << "no end of it";
        }
        EXPECT_TRUE(hadHandshake);
        EXPECT_TRUE(hadResponse);
    }
};

TEST_P(TunnelFaults, aTunnelThatIsClosedAnywhereIsAnError)
{
    sweep(Blow::Closed);
}

TEST_P(TunnelFaults, aTunnelThatIsResetAnywhereIsAnError)
{
    sweep(Blow::Reset);
}

TEST_P(TunnelFaults, aTunnelThatGarblesAByteAnywhereDeliversNoneOfIt)
{
    sweep(Blow::Garbled);
}

INSTANTIATE_TEST_SUITE_P(, TunnelFaults, testing::Values(Way::Tunnelled), support::nameOf);

} // namespace
