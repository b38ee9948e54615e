#include "support/connection_pool.h"

#include <array>
#include <cerrno>
#include <csignal>

#include <poll.h>
#include <sys/socket.h>

namespace support {

namespace {

// OpenSSL writes with write(), which raises SIGPIPE when the peer has gone.
void blockBrokenPipeSignal()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

} // namespace

Connection::Connection(ConnectionPool& pool, std::size_t index, UniqueFd socket)
    : pool_(pool), index_(index), transport_(std::move(socket), interrupt_)
{
}

void Connection::update(const std::function<void(ConnectionInfo&)>& change)
{
    const std::lock_guard<std::mutex> lock(pool_.mutex_);
    change(pool_.infos_[index_]);
    pool_.changed_.notify_all();
}

ConnectionPool::ConnectionPool(Serve serve) : serve_(std::move(serve)), port_(true)
{
    startAccepting();
}

ConnectionPool::~ConnectionPool()
{
    stop();
}

std::size_t ConnectionPool::accepted() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return infos_.size();
}

std::size_t ConnectionPool::open() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return open_;
}

std::vector<ConnectionInfo> ConnectionPool::infos() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return infos_;
}

bool ConnectionPool::waitForAccepted(std::size_t count, std::chrono::milliseconds deadline) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, deadline, [&] { return infos_.size() >= count; });
}

bool ConnectionPool::waitForOpen(std::size_t count, std::chrono::milliseconds deadline) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, deadline, [&] { return open_ == count; });
}

void ConnectionPool::interruptAll(bool withReset)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [index, connection] : live_) {
        connection->resetWanted_ = withReset;
        connection->interrupt_.set();
    }
}

void ConnectionPool::stopListening()
{
    const std::lock_guard<std::mutex> lock(listening_);
    if (acceptor_.joinable()) {
        stopAccepting_.set();
        acceptor_.join();
        listener_.reset();
    }
}

void ConnectionPool::listenAgain()
{
    const std::lock_guard<std::mutex> lock(listening_);
    if (!acceptor_.joinable()) {
        startAccepting();
    }
}

void ConnectionPool::stop()
{
    stopListening();
    interruptAll(false);
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return live_.empty(); });
    }
    joinFinished();
}

void ConnectionPool::startAccepting()
{
    stopAccepting_.clear();
    listener_ = port_.listen();
    acceptor_ = std::thread([this, listener = listener_.get()] { acceptLoop(listener); });
}

void ConnectionPool::acceptLoop(int listener)
{
    blockBrokenPipeSignal();
    std::array<pollfd, 2> entries{{{listener, POLLIN, 0}, {stopAccepting_.fd(), POLLIN, 0}}};
    for (;;) {
        if (poll(entries.data(), entries.size(), -1) < 0) {
            continue;
        }
        if (entries[1].revents != 0) {
            return;
        }
        UniqueFd socket(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        if (socket) {
            admit(std::move(socket));
        }
        joinFinished();
    }
}

void ConnectionPool::admit(UniqueFd socket)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::size_t index = infos_.size();
    auto connection = std::make_unique<Connection>(*this, index, std::move(socket));
    Connection& started = *connection;
    infos_.emplace_back();
    infos_.back().index = index;
    ++open_;
    live_.emplace(index, std::move(connection));
    started.thread_ = std::thread([this, &started] { run(started); });
    changed_.notify_all();
}

void ConnectionPool::run(Connection& connection)
{
    blockBrokenPipeSignal();
    serve_(connection);
    if (connection.resetWanted_) {
        connection.transport().reset();
    } else {
        connection.transport().close();
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    infos_[connection.index()].open = false;
    --open_;
    const auto place = live_.find(connection.index());
    finished_.push_back(std::move(place->second));
    live_.erase(place);
    changed_.notify_all();
}

void ConnectionPool::joinFinished()
{
    std::vector<std::unique_ptr<Connection>> finished;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        finished.swap(finished_);
    }
    for (const auto& connection : finished) {
        connection->thread_.join();
    }
}

} // namespace support
