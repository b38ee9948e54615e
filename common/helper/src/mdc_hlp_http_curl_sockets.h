/*
 * Which sockets libcurl wants to be watched, in the form that poll takes.
 *
 * libcurl reports changes through its socket callback; poll, unlike select, has no limit on descriptor
 * numbers, and a paused transfer's socket is not watched at all. Guarded by the engine's mutex.
 */
#ifndef MDC_HLP_HTTP_CURL_SOCKETS_H
#define MDC_HLP_HTTP_CURL_SOCKETS_H

#include <curl/curl.h>
#include <poll.h>
#include <vector>

namespace md {

class HttpSocketInterest
{
public:
    /* Makes the multi handle report its sockets here. The object outlives the handle. */
    void attach(CURLM* multi);

    /* Forgets all sockets. */
    void clear() { m_sockets.clear(); }

    const std::vector<pollfd>& sockets() const { return m_sockets; }

private:
    static int onSocketChange(CURL* easy, curl_socket_t socket, int what, void* self, void* perSocket);
    void update(curl_socket_t socket, int what);

    std::vector<pollfd> m_sockets; // sorted by descriptor
};

} // namespace md

#endif
