// The server's end of one connection, plain or TLS. Every call can be broken off from outside, and notices
// when the peer leaves, so that no reply keeps a thread for longer than it is wanted.
#pragma once

#include "support/sockets.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include <openssl/ssl.h>

namespace support {

class Transport
{
public:
    using Clock = std::chrono::steady_clock;
    enum class Pause
    {
        Signalled,  // the event came
        TimedOut,   // the time has passed
        PeerGone,   // the peer closed its end, or the connection broke
        Interrupted // from outside
    };

    // `interrupt` ends every wait once it is set; it must live as long as the transport.
    Transport(UniqueFd socket, const Event& interrupt);

    // Bytes read; 0 at the peer's end, -1 when the connection broke or was interrupted.
    std::ptrdiff_t read(void* buffer, std::size_t size);
    // Sends everything; false when the connection broke or was interrupted.
    bool write(const void* data, std::size_t size);
    bool write(std::string_view bytes) { return write(bytes.data(), bytes.size()); }

    // Waits for the descriptor to be readable (-1: none) or the time to pass (none: forever).
    Pause pause(int signal, std::optional<Clock::time_point> until);

    // TLS from here on. False when the handshake failed; handshakeError() says why.
    bool startTls(SSL_CTX* context);
    const std::string& handshakeError() const { return handshakeError_; }
    SSL* tls() const { return ssl_.get(); }

    void setSendBuffer(int bytes);
    enum class Farewell
    {
        Tls, // on a TLS connection the close-notify, as is proper
        None
    };
    void close(Farewell farewell = Farewell::Tls);
    void reset();
    int fd() const { return socket_.get(); }

private:
    bool waitFor(short events);
    bool waitForTls(int result);

    UniqueFd socket_;
    const Event& interrupt_;
    std::unique_ptr<SSL, decltype(&SSL_free)> ssl_{nullptr, SSL_free};
    std::string handshakeError_;
};

} // namespace support
