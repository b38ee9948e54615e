/*
 * The connections of an upload, so that what libcurl would wait for without a progress call can be broken off: the
 * TLS handshake of a data connection (five minutes), and the answer to the good-bye (two minutes).
 *
 * No lock of its own: the owner's mutex guards every call, so that no number is shut down that is somebody else's
 * descriptor by then.
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

    /* No more waiting: neither for bytes that might come, nor for room to send. They stay open. */
    void breakOff() const { shutdownAll(SHUT_RDWR); }

    /* No more waiting for bytes; what is sent still goes out. */
    void expectNothing() const { shutdownAll(SHUT_RD); }

private:
    static constexpr int kNone = -1;

    void shutdownAll(int how) const
    {
        for (const int socket : m_sockets) {
            if (socket != kNone) {
                shutdown(socket, how);
            }
        }
    }

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
