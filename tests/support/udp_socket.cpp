#include "support/udp_socket.h"

#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace support {

namespace {

constexpr std::size_t kLongest = 65536;

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

UniqueFd udpSocket()
{
    UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        fail("socket");
    }
    return fd;
}

// Of family 0 for what is no socket.
sockaddr_in ownAddress(int fd)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        address = {};
    }
    return address;
}

in_addr interfaceAt(const std::string& address)
{
    return address.empty() ? in_addr{} : udpAddress(address, 0).sin_addr;
}

} // namespace

sockaddr_in udpAddress(const std::string& address, std::uint16_t port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    if (inet_pton(AF_INET, address.c_str(), &result.sin_addr) != 1) {
        throw std::invalid_argument(address);
    }
    return result;
}

std::string ownLoopbackAddress()
{
    // 22 bits of a process number, behind 127.64.
    const auto process = static_cast<unsigned int>(getpid());
    return "127." + std::to_string(64 + (process >> 16U) % 64) + "." +
           std::to_string((process >> 8U) & 0xffU) + "." + std::to_string(process & 0xffU);
}

std::string boundTo(int fd)
{
    const sockaddr_in address = ownAddress(fd);
    std::array<char, INET_ADDRSTRLEN> text{};
    if (address.sin_family != AF_INET ||
        inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size()) == nullptr) {
        return {};
    }
    return std::string(text.data()) + ":" + std::to_string(ntohs(address.sin_port));
}

UdpSender::UdpSender(const std::string& address, std::uint16_t port, const std::string& from)
    : m_socket(udpSocket()), m_to(udpAddress(address, port))
{
    const in_addr interface = interfaceAt(from);
    if (!from.empty() &&
        setsockopt(m_socket.get(), IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface) != 0) {
        fail("IP_MULTICAST_IF");
    }
}

void UdpSender::send(std::string_view bytes) const
{
    if (sendto(m_socket.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&m_to),
               sizeof m_to) != static_cast<ssize_t>(bytes.size())) {
        fail("sendto");
    }
}

UdpReceiver::UdpReceiver(const std::string& address, std::uint16_t port, UdpPort sharing,
                         const std::string& on)
    : m_socket(udpSocket())
{
    const int share = sharing == UdpPort::shared && port != 0 ? 1 : 0;
    if (setsockopt(m_socket.get(), SOL_SOCKET, SO_REUSEADDR, &share, sizeof share) != 0) {
        fail("SO_REUSEADDR");
    }
    const sockaddr_in own = udpAddress(address, port);
    if (bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) {
        fail("bind");
    }
    const ip_mreq membership{own.sin_addr, interfaceAt(on)};
    if (IN_MULTICAST(ntohl(own.sin_addr.s_addr)) &&
        setsockopt(m_socket.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0) {
        fail("IP_ADD_MEMBERSHIP");
    }
}

std::uint16_t UdpReceiver::port() const
{
    return ntohs(ownAddress(fd()).sin_port);
}

std::optional<std::string> UdpReceiver::receive(std::chrono::milliseconds deadline) const
{
    pollfd waited{fd(), POLLIN, 0};
    if (poll(&waited, 1, static_cast<int>(deadline.count())) <= 0) {
        return std::nullopt;
    }
    std::string bytes(kLongest, '\0');
    const ssize_t count = recv(fd(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count < 0) {
        return std::nullopt;
    }
    bytes.resize(static_cast<std::size_t>(count));
    return bytes;
}

bool UdpReceiver::hasMore() const
{
    pollfd waited{fd(), POLLIN, 0};
    return poll(&waited, 1, 0) > 0;
}

} // namespace support
