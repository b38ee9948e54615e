// Datagrams sent and received without the library.
#pragma once

#include "support/sockets.h"
#include "support/wait.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <netinet/in.h>

namespace support {

// "127.0.0.1" and a port as the system calls want them.
sockaddr_in udpAddress(const std::string& address, std::uint16_t port);

// A loopback address that is this process's alone: streams share their ports, so another process that gets the
// same free port at the same address would take datagrams away.
std::string ownLoopbackAddress();

// What a socket is bound to, "127.0.0.1:5000"; empty for what is no IPv4 socket.
std::string boundTo(int fd);

// Sends to one address and port. Throws std::system_error where the system refuses.
class UdpSender
{
public:
    // from: the address of the interface that multicast leaves through; empty: as the routes say.
    UdpSender(const std::string& address, std::uint16_t port, const std::string& from = {});

    void send(std::string_view bytes) const;

private:
    UniqueFd m_socket;
    sockaddr_in m_to;
};

// A receiver with the port to itself, or one that shares it (SO_REUSEADDR).
enum class UdpPort
{
    alone,
    shared
};

// Bound to an address and a port (0: a free one, which it never shares), and in the group when that is one.
class UdpReceiver
{
public:
    // on: the address of the interface on which it joins; empty: as the routes say.
    UdpReceiver(const std::string& address, std::uint16_t port, UdpPort sharing = UdpPort::shared,
                const std::string& on = {});

    int fd() const { return m_socket.get(); }
    std::uint16_t port() const;

    // The next datagram, or nothing at the deadline.
    std::optional<std::string> receive(std::chrono::milliseconds deadline = defaultDeadline) const;

    // Whether there is one, without waiting.
    bool hasMore() const;

private:
    UniqueFd m_socket;
};

} // namespace support
