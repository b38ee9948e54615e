#include "http_socket.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <limits>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <regex>
#include <stdexcept>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench {

namespace {

[[noreturn]] void failed(const std::string& what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

long long contentLengthOf(const std::string& header)
{
    const char* name = strcasestr(header.c_str(), "\r\nContent-Length:");
    if (header.compare(0, 10, "HTTP/1.1 2") != 0 || name == nullptr) {
        throw std::runtime_error("an answer that is none: " + header.substr(0, header.find('\r')));
    }
    return std::atoll(name + std::strlen("\r\nContent-Length:"));
}

} // namespace

HttpSocket::HttpSocket(const Options& options)
{
    static const std::regex pattern("(https?)://([0-9.]+):([0-9]+)(/.*)");
    std::smatch parts;
    if (!std::regex_match(options.url, parts, pattern)) {
        throw std::runtime_error("not an address for this contestant: " + options.url);
    }
    m_secure = parts[1] == "https";
    m_host = parts[2];
    m_port = parts[3];
    m_path = parts[4];
    if (m_secure) {
        m_context.reset(SSL_CTX_new(TLS_client_method()));
        const std::string trusted = options.trusted + "/cert.pem";
        if (m_context == nullptr ||
            SSL_CTX_load_verify_locations(m_context.get(), trusted.c_str(), nullptr) != 1) {
            throw std::runtime_error("cannot trust " + trusted);
        }
        SSL_CTX_set_verify(m_context.get(), SSL_VERIFY_PEER, nullptr);
    }
}

HttpSocket::~HttpSocket()
{
    disconnect();
}

void HttpSocket::disconnect()
{
    m_tls.reset();
    if (m_socket >= 0) {
        ::close(m_socket);
        m_socket = -1;
    }
}

void HttpSocket::connectAnew()
{
    disconnect();
    m_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<std::uint16_t>(std::stoi(m_port)));
    inet_pton(AF_INET, m_host.c_str(), &server.sin_addr);
    sockaddr address{};
    std::memcpy(&address, &server, sizeof server);
    const int on = 1;
    if (m_socket < 0 || connect(m_socket, &address, sizeof address) != 0 ||
        setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
        failed("connect");
    }
    if (m_secure) {
        m_tls.reset(SSL_new(m_context.get()));
        if (m_tls == nullptr || SSL_set_fd(m_tls.get(), m_socket) != 1 || SSL_connect(m_tls.get()) != 1) {
            throw std::runtime_error("no TLS connection");
        }
    }
}

void HttpSocket::get(const std::string& range)
{
    if (m_socket < 0 || m_left > 0) {
        connectAnew();
    }
    sendAll("GET " + m_path + " HTTP/1.1\r\nHost: " + m_host + ":" + m_port + "\r\n" +
            (range.empty() ? "" : "Range: bytes=" + range + "\r\n") + "\r\n");
    readHeader();
}

void HttpSocket::sendAll(const std::string& text)
{
    const auto size = static_cast<int>(text.size());
    const bool sent = m_secure ? SSL_write(m_tls.get(), text.data(), size) == size
                               : send(m_socket, text.data(), text.size(), MSG_NOSIGNAL) == size;
    if (!sent) {
        failed("send");
    }
}

void HttpSocket::readHeader()
{
    m_early.clear();
    m_earlyTaken = 0;
    std::size_t end = std::string::npos;
    while ((end = m_early.find("\r\n\r\n")) == std::string::npos) {
        char piece[2048];
        m_early.append(piece, receiveRaw(piece, sizeof piece));
    }
    m_left = contentLengthOf(m_early.substr(0, end + 2));
    m_early.erase(0, end + 4);
}

std::size_t HttpSocket::receive(unsigned char* block, std::size_t size)
{
    std::size_t count = std::min(size, m_early.size() - m_earlyTaken);
    if (count > 0) {
        std::memcpy(block, m_early.data() + m_earlyTaken, count);
        m_earlyTaken += count;
    } else {
        count = receiveRaw(
            block, static_cast<std::size_t>(std::min<long long>(static_cast<long long>(size), m_left)));
    }
    m_left -= static_cast<long long>(count);
    return count;
}

std::size_t HttpSocket::receiveRaw(void* block, std::size_t size)
{
    const ssize_t count =
        m_secure ? SSL_read(m_tls.get(), block,
                            static_cast<int>(std::min<std::size_t>(size, std::numeric_limits<int>::max())))
                 : recv(m_socket, block, size, 0);
    if (count <= 0) {
        failed("receive");
    }
    return static_cast<std::size_t>(count);
}

} // namespace bench
