#include "support/sockets.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace support {

namespace {

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in loopback(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

UniqueFd tcpSocket()
{
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        fail("socket");
    }
    return fd;
}

UniqueFd boundSocket(std::uint16_t port, bool reuse)
{
    UniqueFd fd = tcpSocket();
    const int on = reuse ? 1 : 0;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = loopback(port);
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("bind");
    }
    return fd;
}

std::uint16_t portOf(int fd)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        fail("getsockname");
    }
    return ntohs(address.sin_port);
}

constexpr int backlog = 512;

} // namespace

void UniqueFd::reset()
{
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

Event::Event() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (!fd_) {
        fail("eventfd");
    }
}

void Event::set()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(fd_.get(), &one, sizeof one);
}

void Event::clear()
{
    std::uint64_t value = 0;
    [[maybe_unused]] const ssize_t taken = read(fd_.get(), &value, sizeof value);
}

bool Event::isSet() const
{
    pollfd entry{fd_.get(), POLLIN, 0};
    return poll(&entry, 1, 0) > 0;
}

LoopbackPort::LoopbackPort(bool shared) : socket_(boundSocket(0, shared)), port_(portOf(socket_.get())) {}

UniqueFd LoopbackPort::listen() const
{
    UniqueFd fd = boundSocket(port_, true);
    if (::listen(fd.get(), backlog) != 0) {
        fail("listen");
    }
    return fd;
}

void LoopbackPort::listenSilently()
{
    if (::listen(socket_.get(), backlog) != 0) {
        fail("listen");
    }
}

std::string LoopbackPort::url(std::string_view path) const
{
    return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

LoopbackPort closedPort()
{
    return LoopbackPort(false);
}

LoopbackPort silentPort()
{
    LoopbackPort port(false);
    port.listenSilently();
    return port;
}

UniqueFd connectLoopback(std::uint16_t port)
{
    UniqueFd fd = tcpSocket();
    const sockaddr_in address = loopback(port);
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("connect");
    }
    const int on = 1;
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

RawClient::RawClient(std::uint16_t port) : fd_(connectLoopback(port)) {}

bool RawClient::send(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

bool RawClient::readMore()
{
    if (ended_ || timedOut_) {
        return false;
    }
    pollfd entry{fd_.get(), POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(defaultDeadline.count())) <= 0) {
        timedOut_ = true;
        return false;
    }
    std::array<char, 65536> part{};
    const ssize_t got = recv(fd_.get(), part.data(), part.size(), 0);
    if (got <= 0) {
        ended_ = true;
        reset_ = got < 0 && errno == ECONNRESET;
        return false;
    }
    buffer_.append(part.data(), static_cast<std::size_t>(got));
    return true;
}

std::string RawClient::take(std::size_t n)
{
    std::string result = buffer_.substr(0, n);
    buffer_.erase(0, n);
    return result;
}

std::string RawClient::readBytes(std::size_t n)
{
    while (buffer_.size() < n && readMore()) {
    }
    return take(n);
}

std::string RawClient::readUntil(std::string_view mark)
{
    std::size_t from = 0;
    std::size_t found = buffer_.find(mark);
    while (found == std::string::npos) {
        from = buffer_.size() > mark.size() ? buffer_.size() - mark.size() : 0;
        if (!readMore()) {
            return take(buffer_.size());
        }
        found = buffer_.find(mark, from);
    }
    return take(found + mark.size());
}

std::string RawClient::readAll()
{
    while (readMore()) {
    }
    return take(buffer_.size());
}

} // namespace support
