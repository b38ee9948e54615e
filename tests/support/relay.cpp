#include "support/relay.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include <poll.h>
#include <sys/socket.h>

namespace support {

namespace {

bool wouldBlock()
{
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

// An entry without events is left out: a connection that has ended would wake poll() without end.
pollfd entryFor(int fd, bool reads, bool writes)
{
    const auto events = static_cast<short>((reads ? POLLIN : 0) | (writes ? POLLOUT : 0));
    return {events == 0 ? -1 : fd, events, 0};
}

} // namespace

bool Relay::takeIn(int from, std::string& pending)
{
    std::array<char, 65536> part{};
    const ssize_t got = recv(from, part.data(), part.size(), 0);
    if (got > 0) {
        pending.append(part.data(), static_cast<std::size_t>(got));
    } else if (got == 0) {
        ended_ = true;
    }
    return got >= 0 || wouldBlock();
}

bool Relay::passOn(int to, std::string& pending, std::size_t most)
{
    const ssize_t sent = send(to, pending.data(), std::min(pending.size(), most), MSG_NOSIGNAL);
    if (sent > 0) {
        pending.erase(0, static_cast<std::size_t>(sent));
    }
    return sent >= 0 || wouldBlock();
}

bool Relay::passOnToClient()
{
    const bool isGarbledHere =
        garbled_ && *garbled_ >= sentToClient_ && *garbled_ - sentToClient_ < toClient_.size();
    if (isGarbledHere && !hasGarbled_) {
        char& byte = toClient_[static_cast<std::size_t>(*garbled_ - sentToClient_)];
        byte = static_cast<char>(~byte);
        hasGarbled_ = true;
    }
    const std::uint64_t most = isBeforeHold() ? hold_->bytes - sentToClient_ : toClient_.size();
    const std::size_t before = toClient_.size();
    if (!passOn(client_, toClient_, static_cast<std::size_t>(std::min<std::uint64_t>(most, before)))) {
        return false;
    }
    sentToClient_ += before - toClient_.size();
    arriveAtHold();
    return !hasGarbled_ || !toClient_.empty();
}

void Relay::arriveAtHold()
{
    if (hold_ && !hasArrived_ && sentToClient_ == hold_->bytes) {
        hasArrived_ = true;
        hold_->gate.arrive();
    }
}

void Relay::run()
{
    arriveAtHold();
    while (isHeld() || !ended_ || !toOrigin_.empty() || !toClient_.empty()) {
        const bool held = isHeld(); // asked once: the gate may open at any time
        std::array<pollfd, 4> entries{
            entryFor(client_, !ended_ && fromClient_ && toOrigin_.empty(), !toClient_.empty() && !held),
            entryFor(origin_, !ended_ && toClient_.empty(), !toOrigin_.empty()),
            pollfd{interrupt_.fd(), POLLIN, 0}, pollfd{held ? hold_->gate.fd() : -1, POLLIN, 0}};
        if (!fromClient_ || held) {
            entries[0].fd = client_;
            entries[0].events = static_cast<short>(entries[0].events | POLLRDHUP);
        }
        if (poll(entries.data(), entries.size(), -1) < 0) {
            continue;
        }
        const bool broken = ((entries[0].revents | entries[1].revents) & POLLERR) != 0;
        if (entries[2].revents != 0 || broken || (entries[0].revents & POLLRDHUP) != 0) {
            return;
        }
        const auto readable = [](const pollfd& entry) {
            return (entry.events & POLLIN) != 0 && (entry.revents & (POLLIN | POLLHUP)) != 0;
        };
        const auto writable = [](const pollfd& entry) { return (entry.revents & POLLOUT) != 0; };
        if ((readable(entries[0]) && !takeIn(client_, toOrigin_)) ||
            (readable(entries[1]) && !takeIn(origin_, toClient_)) ||
            (writable(entries[0]) && !passOnToClient()) ||
            (writable(entries[1]) && !passOn(origin_, toOrigin_))) {
            return;
        }
    }
}

} // namespace support
