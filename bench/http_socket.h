/*
 * A GET over a socket, or over OpenSSL on a socket; just enough of HTTP for a server that is known.
 */
#ifndef BENCH_HTTP_SOCKET_H
#define BENCH_HTTP_SOCKET_H

#include "contestant.h"

#include <memory>
#include <openssl/ssl.h>

namespace bench {

/* One connection at a time to the server of options.url, an IPv4 address with a port. */
class HttpSocket
{
public:
    explicit HttpSocket(const Options& options);
    ~HttpSocket();
    HttpSocket(const HttpSocket&) = delete;
    HttpSocket& operator=(const HttpSocket&) = delete;

    /*
     * Asks for the resource, or for a range of it ("0-99"), and reads the header. On the connection that is there, if
     * nothing is left on it.
     */
    void get(const std::string& range);

    /* What one receive gives, 1 to size bytes of the body; there must be some left. */
    std::size_t receive(unsigned char* block, std::size_t size);

    /* Bytes of the body that were not received yet. */
    long long left() const { return m_left; }

    /* The system's number of the socket. */
    int number() const { return m_socket; }

private:
    void connectAnew();
    void disconnect();
    void sendAll(const std::string& text);
    void readHeader();
    std::size_t receiveRaw(void* block, std::size_t size);

    bool m_secure = false;
    std::string m_host;
    std::string m_port;
    std::string m_path;
    int m_socket = -1;
    long long m_left = 0;
    std::string m_early; // of the body, came with the header
    std::size_t m_earlyTaken = 0;
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> m_context{nullptr, SSL_CTX_free};
    std::unique_ptr<SSL, void (*)(SSL*)> m_tls{nullptr, SSL_free};
};

} // namespace bench

#endif
