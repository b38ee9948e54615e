// A stream that is given up while its TLS handshake is under way.
#include "mdc_hlp_http_access.h"
#include "mdc_hlp_http_curl_engine.h"
#include "support/certificates.h"
#include "support/engine.h"
#include "support/http_server.h"
#include "support/long_way.h"
#include "support/trace_capture.h"
#include "support/wait.h"

#include <chrono>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>

namespace {

// Of the only connection, once its ClientHello is out and an answer is waited for; else -1. Under the engine's lock.
int handshakingSocket(const md::HttpEngine& engine)
{
    const auto& sockets = engine.sockets.sockets();
    return sockets.size() == 1 && sockets.front().poll.events == POLLIN ? sockets.front().poll.fd : -1;
}

// The server's certificate lies in the socket, unread, when the transfer is taken away: libcurl reads it then.
TEST(TlsHandshake, thatIsGivenUpAsksForNoVerdictUnderTheLocksOfWhoGivesItUp)
{
    const support::HttpServer server{support::Tls()};
    const support::LongWay way(server.port(), std::chrono::milliseconds(200));
    const support::TraceCapture traces;
    md::HttpAccess stream;
    stream.setCaCertPath(support::certificates().caDirectory);
    const std::string url = "https" + way.url("/song").substr(std::string("http").size());
    const int number = stream.open(url.c_str(), MDCH_MODE_READ);
    ASSERT_GE(number, 0);
    const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(number);
    ASSERT_NE(desc, nullptr);
    md::HttpEngine& engine = md::httpEngine();
    const bool wasRemoved = support::waitUntil([&] {
        const MdpFairLock engineLock(engine.mutex);
        pollfd answered{handshakingSocket(engine), POLLIN, 0};
        const auto deadline = static_cast<int>(support::defaultDeadline.count());
        if (answered.fd < 0 || poll(&answered, 1, deadline) != 1) {
            return false;
        }
        const MdpLock lock = md::lockDescriptor(*desc);
        md::removeFromMulti(engine, *desc);
        return true;
    });
    EXPECT_TRUE(wasRemoved);
    EXPECT_FALSE(traces.has("mdchHttpSsl_verifyCertificateCallback(): verify certificate for fd " +
                            std::to_string(number) + "\n"));
    EXPECT_EQ(stream.close(), 0);
    EXPECT_TRUE(support::waitUntil([] { return md::nextDescriptor(md::kBeforeAll) == nullptr; }));
}

} // namespace
