// Passes bytes on between two connections.
#pragma once

#include "support/gate.h"
#include "support/sockets.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace support {

class Relay
{
public:
    // The sockets must not block.
    Relay(int client, int origin, const Event& interrupt)
        : client_(client), origin_(origin), interrupt_(interrupt)
    {
    }

    // Sent before anything that is taken in.
    void sendToOrigin(const std::string& bytes) { toOrigin_ += bytes; }
    void sendToClient(const std::string& bytes) { toClient_ += bytes; }
    // Nothing more is taken from the client, it is only watched for its end.
    void ignoreClient() { fromClient_ = false; }

    // Passes exactly so many bytes on to the client, then none until the gate is open.
    void holdAt(std::uint64_t bytes, Gate gate) { hold_ = Hold{bytes, std::move(gate)}; }
    // Turns the bits of that byte on its way to the client. What is behind the part that it came with never comes: the
    // client may wait for any number of bytes now.
    void garble(std::uint64_t position) { garbled_ = position; }

    // Until one of the two has ended and the other has what it sent, or the interrupt comes.
    void run();

private:
    struct Hold
    {
        std::uint64_t bytes;
        Gate gate;
    };

    bool takeIn(int from, std::string& pending);
    bool passOnToClient();
    void arriveAtHold();
    static bool passOn(int to, std::string& pending, std::size_t most = SIZE_MAX);
    bool isBeforeHold() const { return hold_ && sentToClient_ < hold_->bytes; }
    bool isHeld() const { return hold_ && sentToClient_ == hold_->bytes && !hold_->gate.isOpen(); }

    int client_;
    int origin_;
    const Event& interrupt_;
    std::string toOrigin_; // waiting to be sent
    std::string toClient_;
    std::optional<Hold> hold_;
    bool hasArrived_ = false;
    std::optional<std::uint64_t> garbled_;
    bool hasGarbled_ = false;
    std::uint64_t sentToClient_ = 0;
    bool fromClient_ = true;
    bool ended_ = false;
};

} // namespace support
