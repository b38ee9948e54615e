#include "mdc_hlp_http_curl_sockets.h"

#include <algorithm>

namespace md {

namespace {

bool comesBefore(const HttpSocketInterest::Socket& entry, curl_socket_t wanted)
{
    return entry.poll.fd < wanted;
}

} // namespace

bool HttpSocketInterest::attach(CURLM* multi)
{
    clear();
    return curl_multi_setopt(multi, CURLMOPT_SOCKETFUNCTION, &HttpSocketInterest::onSocketChange) ==
               CURLM_OK &&
           curl_multi_setopt(multi, CURLMOPT_SOCKETDATA, this) == CURLM_OK;
}

int HttpSocketInterest::onSocketChange(CURL* /*easy*/, curl_socket_t socket, int what, void* self,
                                       void* /*perSocket*/)
{
    try {
        static_cast<HttpSocketInterest*>(self)->update(socket, what);
        return 0;
    } catch (...) {
        return -1; // out of memory: libcurl ends the transfers rather than leaving one unwatched
    }
}

bool HttpSocketInterest::isWatched(curl_socket_t socket, std::uint64_t serial) const
{
    const auto at = std::lower_bound(m_sockets.begin(), m_sockets.end(), socket, comesBefore);
    return at != m_sockets.end() && at->poll.fd == socket && at->serial == serial;
}

void HttpSocketInterest::update(curl_socket_t socket, int what)
{
    const auto at = std::lower_bound(m_sockets.begin(), m_sockets.end(), socket, comesBefore);
    const bool known = at != m_sockets.end() && at->poll.fd == socket;
    if (what == CURL_POLL_REMOVE || what == CURL_POLL_NONE) {
        // A watched socket without events would still report a hang-up, again and again.
        if (known) {
            m_sockets.erase(at);
        }
        return;
    }
    short events = 0;
    if (what == CURL_POLL_IN || what == CURL_POLL_INOUT) {
        events = POLLIN;
    }
    if (what == CURL_POLL_OUT || what == CURL_POLL_INOUT) {
        events = static_cast<short>(events | POLLOUT);
    }
    if (known) {
        at->poll.events = events;
    } else {
        m_sockets.insert(at, {{socket, events, 0}, ++m_lastSerial});
    }
}

} // namespace md
