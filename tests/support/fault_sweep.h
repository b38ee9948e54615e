/*
 * Connections that end after any number of a response's bytes, in several ways, as sweeps need them: a server, what
 * stands between it and the stream, and what must hold after each fault.
 */
#ifndef SUPPORT_FAULT_SWEEP_H
#define SUPPORT_FAULT_SWEEP_H

#include "mdc_hlp_httpproxy.h"
#include "support/certificates.h"
#include "support/descriptors.h"
#include "support/http_client.h"
#include "support/http_proxy.h"
#include "support/http_server.h"
#include "support/wire.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace support {

/* How the bytes travel. */
enum class Way
{
    Plain,
    Tls,
    Forwarded, // by a proxy
    Tunnelled  // TLS through a proxy
};

inline std::string nameOf(const testing::TestParamInfo<Way>& info)
{
    switch (info.param) {
    case Way::Plain:
        return "plain";
    case Way::Tls:
        return "tls";
    case Way::Forwarded:
        return "forwarded";
    default:
        return "tunnelled";
    }
}

/* How a connection ends before its time. */
enum class End
{
    Closed, // in good order
    Cut,    // without TLS's word that this is the end, which anybody on the way can do
    Reset
};

enum class Reader
{
    First, // has read all there is when the fault comes
    Late   // reads behind it
};

/*
 * How far the places that a sweep tries lie apart. Natively each is tried; sanitizers and emulation make every try
 * several times as slow, and take a part of them, unless MDC_TEST_WIDE is set. Odd, for sweeps that alternate.
 */
inline std::size_t sweepStep()
{
#if defined(MDC_EMULATED)
    constexpr std::size_t kStep = 11;
#elif defined(MDC_SANITIZED)
    constexpr std::size_t kStep = 3;
#else
    constexpr std::size_t kStep = 1;
#endif
    static const bool isWide = std::getenv("MDC_TEST_WIDE") != nullptr;
    return isWide ? 1 : kStep;
}

class FaultSweep : public testing::TestWithParam<Way>
{
protected:
    FaultSweep()
    {
        if (isTls()) {
            m_server = std::make_unique<HttpServer>(Tls());
        } else {
            m_server = std::make_unique<HttpServer>();
        }
        if (isProxied()) {
            m_proxy = std::make_unique<HttpProxy>();
            md::httpProxyInfo_struct info;
            info.host = m_proxy->host();
            info.port = m_proxy->port();
            md::setHttpProxyInfo(info, true, false);
        }
        m_server->on("/good", Reply().body("good"));
        m_server->on("/last", Reply().body("good").closeConnection());
        HttpStream warmUp; // libraries open files of their own, once
        prepare(warmUp);
        EXPECT_EQ(warmUp.fetch(m_server->url("/last")), "good");
        warmUp.close();
        endEverything();
        m_channels = openChannels();
    }
    ~FaultSweep() override { md::setHttpProxyInfo({}, false, false); }

    void TearDown() override
    {
        endEverything();
        EXPECT_TRUE(waitUntil([this] { return openChannels() == m_channels; }))
            << openChannels() << " descriptors are open, " << m_channels << " were";
    }

    bool isTls() const { return GetParam() == Way::Tls || GetParam() == Way::Tunnelled; }
    bool isProxied() const { return GetParam() == Way::Forwarded || GetParam() == Way::Tunnelled; }

    /* Whether the ways to end a connection can be had on one that an earlier request has used: a proxy closes behind a
       forwarded response, and what it has passed on of an encrypted one when it ends a tunnel is not known. (A used
       connection without a byte of an answer makes libcurl try again.) */
    bool canReuse(End end) const
    {
        return GetParam() != Way::Forwarded && (GetParam() != Way::Tunnelled || end != End::Reset);
    }
    /* Whether requests go out on the connection that the stream before them left. */
    void reuseConnections(bool on) { m_reuse = on; }

    void prepare(HttpStream& stream) const
    {
        bePatient(stream);
        if (m_reuse) {
            stream.setVerifyHost(false); // a list of one's own wants connections of one's own
        } else {
            stream.setCertificate(certificates().ca.certificate.get());
        }
    }

    /* Nobody waits so long unless something is broken. */
    static void bePatient(HttpStream& stream)
    {
        stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 60);
        stream.fcntl(MDCH_FCNTL_DATA_TIMEOUT, 60);
    }

    std::string url(const std::string& path) const { return m_server->url(path); }

    /* A reply that gives exactly the first `count` bytes of the wire, and the others when m_gate is open. */
    Reply held(const Wire& wire, std::size_t count)
    {
        m_gate = Gate();
        const Reply reply = Reply::raw(wire.text());
        if (GetParam() == Way::Forwarded) {
            m_proxy->holdAt(count, m_gate);
            return reply;
        }
        return Reply(reply).wait(At::bytes(count), m_gate);
    }

    /* A reply that gives exactly the first `count` bytes of the wire, and comes to the end when strike() says so. */
    Reply cutShort(const Wire& wire, std::size_t count, End end)
    {
        m_end = end;
        if (strikesAtProxy()) {
            return held(wire, count).keepOpen();
        }
        m_gate = Gate();
        Reply reply = Reply::raw(wire.text()).wait(At::bytes(count), m_gate);
        switch (end) {
        case End::Closed:
            return reply.close(At::bytes(count));
        case End::Cut:
            return reply.cut(At::bytes(count));
        case End::Reset:
            return reply.reset(At::bytes(count));
        }
        return reply;
    }

    /* Ends the connection. */
    void strike()
    {
        if (strikesAtProxy()) {
            m_proxy->resetConnections();
        } else {
            m_gate.open();
        }
    }

    /* Reads what stands in front of the fault, or waits until it is there to be read. */
    void meetTheFault(HttpStream& stream, const Wire& wire, std::size_t count, Reader reader)
    {
        const auto bytes = static_cast<std::int64_t>(wire.bodyIn(count));
        if (!wire.hasHead(count)) {
            EXPECT_TRUE(m_gate.waitForArrivals());
        } else if (reader == Reader::First && bytes > 0) {
            EXPECT_EQ(stream.readSome(static_cast<unsigned int>(bytes)),
                      wire.body().substr(0, wire.bodyIn(count)));
        } else {
            EXPECT_TRUE(waitForDescriptor(stream.number(), [bytes](auto& desc) {
                return desc.headerComplete != 0 && desc.writePos == bytes;
            }));
        }
    }

    /* The error of a transfer that ended so. */
    int errorAfter(const Wire& wire, std::size_t count, End end) const
    {
        if (wire.tellsItsEnd(count)) {
            return 0;
        }
        if (end == End::Reset) {
            return MDCH_HTTP_ENETWORK;
        }
        if (wire.isInStatusLine(count)) {
            return MDCH_HTTP_EUNKNOWN; // no answer at all
        }
        // Nothing of the body is missing when the last line feed is all that did not come; libcurl does not insist.
        const bool isAllButALineFeed = wire.framing() == Framing::Chunked && count + 1 == wire.size();
        const bool endsWithConnection = wire.framing() == Framing::ToTheEnd && wire.hasHead(count);
        return isAllButALineFeed || endsWithConnection ? 0 : MDCH_HTTP_ETRANSFER;
    }

    /* The next stream on the same engine, with the same object or another, is well; nothing is left of it. */
    void expectNextOpenWorks(std::unique_ptr<HttpStream> stream)
    {
        m_proxy != nullptr ? m_proxy->passOnEverything() : void();
        const unsigned int variant = m_opens++ % 3;
        if (variant == 0) {
            stream->close();
            stream = std::make_unique<HttpStream>();
            prepare(*stream);
        } else if (variant == 1 && !isTls()) { // which needs settings, and a closed stream takes none
            EXPECT_EQ(stream->close(), 0);
        }
        stream->start(url(m_reuse ? "/good" : "/last"));
        bePatient(*stream);
        EXPECT_EQ(stream->readAll(), "good");
        EXPECT_EQ(stream->error(), 0);
        EXPECT_EQ(stream->eof(), 1);
        EXPECT_EQ(stream->tell(), 4);
        stream.reset();
        EXPECT_TRUE(waitForEmptyRegistry());
        EXPECT_TRUE(m_server->waitForOpenConnections(m_reuse ? 1 : 0));
    }

    /* The same on an engine of its own, for servers that sent more than they said: libcurl 7.88 does not look for bytes
       that have come on a connection before it uses that again. */
    void expectOpenOnANewEngineWorks(std::unique_ptr<HttpStream> stream)
    {
        stream.reset();
        md::HttpAccess::shutdown();
        auto next = std::make_unique<HttpStream>();
        prepare(*next);
        expectNextOpenWorks(std::move(next));
    }

    std::unique_ptr<HttpServer> m_server;
    std::unique_ptr<HttpProxy> m_proxy;
    Gate m_gate;

private:
    // A proxy turns a server's reset into an end in good order.
    bool strikesAtProxy() const { return isProxied() && m_end == End::Reset; }

    void endEverything() const
    {
        md::HttpAccess::shutdown();
        EXPECT_TRUE(m_server->waitForOpenConnections(0));
        EXPECT_TRUE(m_proxy == nullptr || m_proxy->waitForOpenConnections(0));
    }

    End m_end = End::Closed;
    bool m_reuse = false;
    unsigned int m_opens = 0;
    std::size_t m_channels = 0;
};

} // namespace support

#endif
