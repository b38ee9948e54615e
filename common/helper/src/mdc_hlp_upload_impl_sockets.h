/*
 * The connections of an upload, so that what libcurl would wait for without a progress call can be broken off: the
 * TLS handshake of a data connection (five minutes), and the answer to the good-bye (two minutes).
 *
 * libcurl closes a connection that was never complete without a word to its owner, and its number may be anybody's
 * descriptor a moment later. So each is held under a number of its own, and shut down by that.
 *
 * No lock of its own: the owner's mutex guards every call.
 */
#ifndef MDC_HLP_UPLOAD_IMPL_SOCKETS_H
#define MDC_HLP_UPLOAD_IMPL_SOCKETS_H

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace md {

class UploadSockets
{
public:
    UploadSockets() = default;
    ~UploadSockets() { clear(); }
    UploadSockets(const UploadSockets&) = delete;
    UploadSockets& operator=(const UploadSockets&) = delete;

    /* Takes note of an open socket; one that finds no room is not broken off. */
    void add(int socket)
    {
        forget(socket); // one that was closed without a word had that number
        const auto free = std::find_if(m_connections.begin(), m_connections.end(),
                                       [](const Connection& one) { return one.own == kNone; });
        if (free != m_connections.end()) {
            *free = {socket, fcntl(socket, F_DUPFD_CLOEXEC, 0)};
        }
    }

    /* Closes it; close's result. */
    int close(int socket)
    {
        forget(socket);
        return ::close(socket);
    }

    /* Lets go of what libcurl has closed without a word. */
    void clear()
    {
        for (Connection& connection : m_connections) {
            letGo(connection);
        }
    }

    /* No more waiting: neither for bytes that might come, nor for room to send. They stay open. */
    void breakOff() const { shutdownAll(SHUT_RDWR); }

    /* No more waiting for bytes; what is sent still goes out. */
    void expectNothing() const { shutdownAll(SHUT_RD); }

private:
    static constexpr int kNone = -1;

    struct Connection
    {
        int socket = kNone; // libcurl's number
        int own = kNone;
    };

    void shutdownAll(int how) const
    {
        for (const Connection& connection : m_connections) {
            if (connection.own != kNone) {
                shutdown(connection.own, how);
            }
        }
    }

    void forget(int socket)
    {
        for (Connection& connection : m_connections) {
            if (connection.socket == socket) {
                letGo(connection);
            }
        }
    }

    static void letGo(Connection& connection)
    {
        if (connection.own != kNone) {
            ::close(connection.own);
        }
        connection = {};
    }

    // Two addresses may be tried at once, for each of the two connections.
    std::array<Connection, 8> m_connections;
};

} // namespace md

#endif
