#include "support/transport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

namespace support {

namespace {

bool wouldBlock()
{
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

int asInt(std::size_t size)
{
    return static_cast<int>(std::min<std::size_t>(size, std::numeric_limits<int>::max()));
}

// Rounded up, so that a wait does not come back early again and again.
int millisecondsUntil(std::optional<Transport::Clock::time_point> until)
{
    if (!until) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*until - Transport::Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, std::numeric_limits<int>::max()));
}

} // namespace

Transport::Transport(UniqueFd socket, const Event& interrupt)
    : socket_(std::move(socket)), interrupt_(interrupt)
{
    fcntl(socket_.get(), F_SETFL, fcntl(socket_.get(), F_GETFL) | O_NONBLOCK);
    const int on = 1;
    setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool Transport::waitFor(short events)
{
    std::array<pollfd, 2> entries{{{socket_.get(), events, 0}, {interrupt_.fd(), POLLIN, 0}}};
    while (poll(entries.data(), entries.size(), -1) < 0 && errno == EINTR) {
    }
    return entries[1].revents == 0;
}

bool Transport::waitForTls(int result)
{
    switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
        return waitFor(POLLIN);
    case SSL_ERROR_WANT_WRITE:
        return waitFor(POLLOUT);
    default:
        return false;
    }
}

std::ptrdiff_t Transport::read(void* buffer, std::size_t size)
{
    while (socket_ && !interrupt_.isSet()) {
        if (ssl_) {
            ERR_clear_error();
            const int got = SSL_read(ssl_.get(), buffer, asInt(size));
            if (got > 0) {
                return got;
            }
            if (SSL_get_error(ssl_.get(), got) == SSL_ERROR_ZERO_RETURN) {
                return 0;
            }
            if (!waitForTls(got)) {
                return -1;
            }
            continue;
        }
        const ssize_t got = recv(socket_.get(), buffer, size, 0);
        if (got >= 0) {
            return got;
        }
        if (!wouldBlock() || !waitFor(POLLIN)) {
            return -1;
        }
    }
    return -1;
}

bool Transport::write(const void* data, std::size_t size)
{
    const auto* bytes = static_cast<const char*>(data);
    while (size > 0) {
        if (!socket_ || interrupt_.isSet()) {
            return false;
        }
        std::ptrdiff_t sent = 0;
        if (ssl_) {
            ERR_clear_error();
            const int result = SSL_write(ssl_.get(), bytes, asInt(size));
            if (result <= 0 && !waitForTls(result)) {
                return false;
            }
            sent = std::max(result, 0);
        } else {
            sent = send(socket_.get(), bytes, size, MSG_NOSIGNAL);
            if (sent < 0) {
                if (!wouldBlock() || !waitFor(POLLOUT)) {
                    return false;
                }
                sent = 0;
            }
        }
        bytes += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

Transport::Pause Transport::pause(int signal, std::optional<Clock::time_point> until)
{
    // poll() leaves entries with a negative descriptor out.
    std::array<pollfd, 3> entries{
        {{interrupt_.fd(), POLLIN, 0}, {socket_.get(), POLLRDHUP, 0}, {signal, POLLIN, 0}}};
    for (;;) {
        const int ready = poll(entries.data(), entries.size(), millisecondsUntil(until));
        if (ready < 0) {
            continue;
        }
        if (entries[0].revents != 0) {
            return Pause::Interrupted;
        }
        if (entries[1].revents != 0) {
            return Pause::PeerGone;
        }
        if (entries[2].revents != 0) {
            return Pause::Signalled;
        }
        if (until && Clock::now() >= *until) {
            return Pause::TimedOut;
        }
    }
}

bool Transport::startTls(SSL_CTX* context)
{
    ssl_.reset(SSL_new(context));
    if (!ssl_ || SSL_set_fd(ssl_.get(), socket_.get()) != 1) {
        handshakeError_ = "no TLS object";
        ssl_.reset();
        return false;
    }
    SSL_set_mode(ssl_.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    for (;;) {
        ERR_clear_error();
        const int result = SSL_accept(ssl_.get());
        if (result == 1) {
            return true;
        }
        if (waitForTls(result)) {
            continue;
        }
        std::array<char, 256> text{};
        const unsigned long code = ERR_get_error();
        ERR_error_string_n(code, text.data(), text.size());
        handshakeError_ = code != 0 ? text.data() : "the connection ended during the handshake";
        ssl_.reset(); // no close-notify after a failed handshake
        return false;
    }
}

void Transport::setSendBuffer(int bytes)
{
    setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

void Transport::close(Farewell farewell)
{
    if (!socket_) {
        return;
    }
    if (ssl_ && farewell == Farewell::Tls) {
        ERR_clear_error();
        SSL_shutdown(ssl_.get());
    }
    shutdown(socket_.get(), SHUT_WR);
    // Bytes left unread would turn the close into a reset.
    std::array<char, 4096> unread{};
    while (recv(socket_.get(), unread.data(), unread.size(), MSG_DONTWAIT) > 0) {
    }
    ssl_.reset();
    socket_.reset();
}

void Transport::reset()
{
    if (!socket_) {
        return;
    }
    const linger atOnce{1, 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    ssl_.reset();
    socket_.reset();
}

} // namespace support
