/*
 * The connections of an upload under way, so that a cancel can break them off.
 *
 * libcurl makes no progress call during the TLS handshake of a data connection: it waits there for up to five
 * minutes, and only an end of the connection ends the wait. No lock of its own: the owner's mutex guards every
 * call, so that no number is shut down that is somebody else's descriptor by then.
 */
#ifndef MDC_HLP_UPLOAD_IMPL_SOCKETS_H
#define MDC_HLP_UPLOAD_IMPL_SOCKETS_H

#include <algorithm>
#include <array>
#include <sys/socket.h>
#include <unistd.h>

namespace md {

class UploadSockets
{
public:
    UploadSockets() { m_sockets.fill(kNone); }

    /* Takes note of an open socket; one that finds no room is not broken off. */
    void add(int socket) { replace(kNone, socket); }

    /* Closes it; close's result. */
    int close(int socket)
    {
        replace(socket, kNone);
        return ::close(socket);
    }

    /* Both ends see the connections end; they stay open. */
    void breakOff() const
    {
        for (const int socket : m_sockets) {
            if (socket != kNone) {
                shutdown(socket, SHUT_RDWR);
            }
        }
    }

private:
    static constexpr int kNone = -1;

    void replace(int former, int next)
    {
        const auto found = std::find(m_sockets.begin(), m_sockets.end(), former);
        if (found != m_sockets.end()) {
            *found = next;
        }
    }

    // Two addresses may be tried at once, for each of the two connections.
    std::array<int, 8> m_sockets{};
};

} // namespace md

#endif
