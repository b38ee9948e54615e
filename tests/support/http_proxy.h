// A scripted HTTP proxy inside the test's process: tunnels (CONNECT) and forwarding of absolute URLs.
// Whatever host a client names, the connection goes to 127.0.0.1 at the named port, so that names need not
// exist and nothing leaves the machine.
#pragma once

#include "support/gate.h"
#include "support/request.h"
#include "support/wait.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace support {

class HttpProxy
{
public:
    HttpProxy();
    ~HttpProxy();
    HttpProxy(const HttpProxy&) = delete;
    HttpProxy& operator=(const HttpProxy&) = delete;

    // Requires Basic authentication. Without credentials: `missingStatus` (407); with others: `wrongStatus`.
    void requireBasic(std::string user, std::string password, int missingStatus = 407, int wrongStatus = 407);
    // More header lines for every such refusal.
    void refusalHeader(std::string line);

    // Answers CONNECT with this status and no tunnel; 0 makes tunnels again.
    void refuseConnect(int status);
    // A header line in the answer to CONNECT (which a client must not take for the server's).
    void connectHeader(std::string line);
    // The status line of that answer: "HTTP/1.1 200 Connection established" unless set.
    void connectStatusLine(std::string line);
    // Ends the connection without an answer.
    void hangUp(bool on = true);

    // What goes to the client on each connection from now on, the answer to CONNECT included:
    // Exactly so many bytes, and the others when the gate is open.
    void holdAt(std::uint64_t bytes, Gate gate);
    // The byte at that position with all its bits turned; the connection ends behind the part that it came with, as the
    // client may wait for any number of bytes then.
    void garble(std::uint64_t position);
    // Everything as it should be.
    void passOnEverything();

    void dropConnections();  // closes the clients' that are open, in good order
    void resetConnections(); // ... with a reset

    std::uint16_t port() const;
    std::string host() const { return "127.0.0.1"; }
    std::string url() const; // "http://127.0.0.1:PORT"

    // All requests to the proxy itself (what goes through a tunnel is not seen), refused ones included.
    std::vector<Request> requests() const;
    bool waitForRequests(std::size_t count, std::chrono::milliseconds deadline = defaultDeadline) const;

    std::size_t tunnelCount() const; // made since the start
    std::size_t openTunnels() const;
    bool waitForOpenTunnels(std::size_t count, std::chrono::milliseconds deadline = defaultDeadline) const;
    std::size_t forwardCount() const; // absolute URLs forwarded
    std::size_t refusalCount() const; // 407 and the like, refused CONNECTs
    std::size_t connectionCount() const;
    // Waits for exactly so many connections of clients.
    bool waitForOpenConnections(std::size_t count,
                                std::chrono::milliseconds deadline = defaultDeadline) const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace support
