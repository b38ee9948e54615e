#include "support/long_way.h"

#include "support/connection_pool.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>

#include <poll.h>
#include <sys/socket.h>

namespace support {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kPiece = 1400;
constexpr std::size_t kMostUnderWay = 1'000'000; // a sender waits then

// What is under way in one direction.
class Lane
{
public:
    Lane(int from, int to, std::chrono::milliseconds delay, std::uint64_t bytesPerSecond)
        : m_from(from), m_to(to), m_delay(delay), m_bytesPerSecond(bytesPerSecond)
    {
    }

    bool wantsToRead() const { return !m_hasEnded && m_bytes < kMostUnderWay; }
    bool isDone() const { return m_hasEnded && m_pieces.empty(); }
    int from() const { return m_from; }
    int to() const { return m_to; }

    // When there is something to send; the clock's last moment: nothing.
    Clock::time_point due() const
    {
        return m_pieces.empty() ? Clock::time_point::max() : std::max(m_pieces.front().due, m_next);
    }

    // False: the connection is broken.
    bool read()
    {
        std::array<char, kPiece> part{};
        const ssize_t got = recv(m_from, part.data(), part.size(), MSG_DONTWAIT);
        if (got < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        m_hasEnded = got == 0;
        m_bytes += static_cast<std::size_t>(got);
        m_pieces.push_back({Clock::now() + m_delay, std::string(part.data(), static_cast<std::size_t>(got))});
        return true;
    }

    bool send()
    {
        std::string& bytes = m_pieces.front().bytes;
        if (bytes.empty()) { // the end takes as long as the bytes
            m_pieces.pop_front();
            return shutdown(m_to, SHUT_WR) == 0;
        }
        const ssize_t sent = ::send(m_to, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        m_bytes -= static_cast<std::size_t>(sent);
        if (m_bytesPerSecond > 0) {
            m_next =
                std::max(m_next, Clock::now()) +
                std::chrono::microseconds(static_cast<std::uint64_t>(sent) * 1'000'000 / m_bytesPerSecond);
        }
        bytes.erase(0, static_cast<std::size_t>(sent));
        if (bytes.empty()) {
            m_pieces.pop_front();
        }
        return true;
    }

private:
    struct Piece
    {
        Clock::time_point due;
        std::string bytes; // none: the end
    };

    int m_from;
    int m_to;
    std::chrono::milliseconds m_delay;
    std::uint64_t m_bytesPerSecond;
    std::deque<Piece> m_pieces;
    std::size_t m_bytes = 0;
    Clock::time_point m_next; // before that the rate allows nothing
    bool m_hasEnded = false;
};

int millisecondsUntil(Clock::time_point due)
{
    if (due == Clock::time_point::max()) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()).count();
    return static_cast<int>(std::max<std::int64_t>(left, 0));
}

// Until both directions, or one of the ends, are done.
void passOn(std::array<Lane, 2>& lanes, const Event& interrupt)
{
    while (!lanes[0].isDone() || !lanes[1].isDone()) {
        // Per lane: its source, and its destination while something is due.
        std::array<pollfd, 5> entries{};
        const auto now = Clock::now();
        auto next = Clock::time_point::max();
        for (std::size_t i = 0; i < lanes.size(); ++i) {
            const bool isDue = lanes[i].due() <= now;
            entries[2 * i] = {lanes[i].wantsToRead() ? lanes[i].from() : -1, POLLIN, 0};
            entries[2 * i + 1] = {isDue ? lanes[i].to() : -1, POLLOUT, 0};
            next = isDue ? next : std::min(next, lanes[i].due());
        }
        entries[4] = {interrupt.fd(), POLLIN, 0};
        if (poll(entries.data(), entries.size(), millisecondsUntil(next)) < 0) {
            continue;
        }
        if (entries[4].revents != 0) {
            return;
        }
        for (std::size_t i = 0; i < lanes.size(); ++i) {
            if ((entries[2 * i].revents != 0 && !lanes[i].read()) ||
                (entries[2 * i + 1].revents != 0 && !lanes[i].send())) {
                return;
            }
        }
        if (lanes[0].isDone()) {
            return; // the client has gone: nobody waits for the rest
        }
    }
}

} // namespace

class LongWay::Impl
{
public:
    Impl(std::uint16_t origin, std::chrono::milliseconds delay, std::uint64_t bytesPerSecond)
        : m_pool([=](Connection& connection) {
              const UniqueFd server = connectLoopback(origin);
              const int client = connection.transport().fd();
              std::array<Lane, 2> lanes{Lane(client, server.get(), delay, 0),
                                        Lane(server.get(), client, delay, bytesPerSecond)};
              passOn(lanes, connection.interrupt());
          })
    {
    }
    ~Impl() { m_pool.stop(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    std::uint16_t port() const { return m_pool.port(); }

private:
    ConnectionPool m_pool;
};

LongWay::LongWay(std::uint16_t origin, std::chrono::milliseconds delay, std::uint64_t bytesPerSecond)
    : m_impl(std::make_unique<Impl>(origin, delay, bytesPerSecond))
{
}

LongWay::~LongWay() = default;

std::string LongWay::url(std::string_view path) const
{
    return "http://127.0.0.1:" + std::to_string(m_impl->port()) + std::string(path);
}

} // namespace support
