// Accepts connections on a loopback port and runs each on a thread of its own. What the scripted server and
// the scripted proxy have in common.
#pragma once

#include "support/sockets.h"
#include "support/tls.h"
#include "support/transport.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace support {

class ConnectionPool;

// One accepted connection, as its thread sees it.
class Connection
{
public:
    Connection(ConnectionPool& pool, std::size_t index, UniqueFd socket);

    Transport& transport() { return transport_; }
    const Event& interrupt() const { return interrupt_; }
    std::size_t index() const { return index_; }

    // Changes what connections() tells of it.
    void update(const std::function<void(ConnectionInfo&)>& change);

private:
    friend class ConnectionPool;

    ConnectionPool& pool_;
    std::size_t index_;
    Event interrupt_;
    std::atomic<bool> resetWanted_{false};
    Transport transport_;
    std::thread thread_;
};

class ConnectionPool
{
public:
    using Serve = std::function<void(Connection&)>;

    // `serve` runs on each connection's thread; the connection is closed when it returns.
    explicit ConnectionPool(Serve serve);
    ~ConnectionPool();
    ConnectionPool(const ConnectionPool&) = delete;
    ConnectionPool& operator=(const ConnectionPool&) = delete;

    std::uint16_t port() const { return port_.port(); }
    std::size_t accepted() const;
    std::size_t open() const;
    std::vector<ConnectionInfo> infos() const;
    bool waitForAccepted(std::size_t count, std::chrono::milliseconds deadline) const;
    bool waitForOpen(std::size_t count, std::chrono::milliseconds deadline) const;

    void interruptAll(bool withReset);
    void stopListening();
    void listenAgain();
    // Ends everything; nothing is accepted or served any more.
    void stop();

private:
    friend class Connection;

    void startAccepting();
    void acceptLoop(int listener);
    void admit(UniqueFd socket);
    void run(Connection& connection);
    void joinFinished();

    Serve serve_;
    LoopbackPort port_;

    std::mutex listening_; // guards the next three
    UniqueFd listener_;
    Event stopAccepting_;
    std::thread acceptor_;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::size_t open_ = 0;
    std::vector<ConnectionInfo> infos_;
    std::map<std::size_t, std::unique_ptr<Connection>> live_;
    std::vector<std::unique_ptr<Connection>> finished_; // their threads wait to be joined
};

} // namespace support
