/*
 * Which sockets libcurl wants to be watched, in the form that poll takes.
 *
 * libcurl reports changes through its socket callback; poll, unlike select, has no limit on descriptor
 * numbers, and a paused transfer's socket is not watched at all. Guarded by the engine's mutex.
 */
#ifndef MDC_HLP_HTTP_CURL_SOCKETS_H
#define MDC_HLP_HTTP_CURL_SOCKETS_H

#include <cstdint>
#include <curl/curl.h>
#include <poll.h>
#include <vector>

namespace md {

class HttpSocketInterest
{
public:
    /* Makes the multi handle report its sockets here. The object outlives the handle. False: it does not. */
    bool attach(CURLM* multi);

    /* Forgets all sockets. */
    void clear() { m_sockets.clear(); }

    /* A watched socket. The serial tells it from a later one of the same descriptor number. */
    struct Socket
    {
        pollfd poll;
        std::uint64_t serial;
    };

    const std::vector<Socket>& sockets() const { return m_sockets; }

    /* Whether this very socket is still watched: what poll told of another one is not to be believed. */
    bool isWatched(curl_socket_t socket, std::uint64_t serial) const;

private:
    static int onSocketChange(CURL* easy, curl_socket_t socket, int what, void* self, void* perSocket);
    void update(curl_socket_t socket, int what);

    std::vector<Socket> m_sockets; // sorted by descriptor
    std::uint64_t m_lastSerial = 0;
};

} // namespace md

#endif
