// Small owners around descriptors, and a raw client for tests that want to see exact bytes.
#pragma once

#include "support/wait.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace support {

// Owns a descriptor.
class UniqueFd
{
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset();

private:
    int fd_ = -1;
};

// A flag that poll() can wait for: readable from set() until clear().
class Event
{
public:
    Event();
    void set();
    void clear();
    bool isSet() const;
    int fd() const { return fd_.get(); }

private:
    UniqueFd fd_;
};

// A TCP socket bound to a free port of 127.0.0.1. Throws std::system_error when there is none.
class LoopbackPort
{
public:
    // `shared`: listen() may make listening sockets for the port beside this one, which keeps the port when
    // they are closed.
    explicit LoopbackPort(bool shared = false);

    std::uint16_t port() const { return port_; }
    std::string url(std::string_view path = "/") const; // "http://127.0.0.1:PORT/path"

    UniqueFd listen() const;
    void listenSilently(); // on the socket itself; nobody accepts, unless the owner does it with fd()
    int fd() const { return socket_.get(); }

private:
    UniqueFd socket_;
    std::uint16_t port_ = 0;
};

// A port that refuses connections for as long as the object lives: bound, so that nobody else gets it, but
// not listening.
LoopbackPort closedPort();

// A port that listens and lets nobody in: connections are complete for the client (the kernel accepts them)
// but no byte is ever answered.
LoopbackPort silentPort();

// Connects to 127.0.0.1:`port`; throws std::system_error on failure.
UniqueFd connectLoopback(std::uint16_t port);

// A plain TCP client. Reads end at the deadline, so that a broken server fails a test instead of hanging it.
class RawClient
{
public:
    explicit RawClient(std::uint16_t port);

    // Sends all of `bytes`; false when the connection broke.
    bool send(std::string_view bytes);

    // Reads until `n` bytes, until `mark` was seen, or until the connection ends; returns what came,
    // including what was read before and not yet taken.
    std::string readBytes(std::size_t n);
    std::string readUntil(std::string_view mark);
    std::string readAll();

    // How the connection ended, as far as reads have seen it.
    bool ended() const { return ended_; }    // the server closed it, in either way
    bool wasReset() const { return reset_; } // ... with a reset
    bool timedOut() const { return timedOut_; }

    void close() { fd_.reset(); }
    int fd() const { return fd_.get(); }

private:
    bool readMore();
    std::string take(std::size_t n);

    UniqueFd fd_;
    std::string buffer_;
    bool ended_ = false;
    bool reset_ = false;
    bool timedOut_ = false;
};

} // namespace support
