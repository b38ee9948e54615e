// Passes bytes on between two connections.
#pragma once

#include "support/sockets.h"

#include <string>

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

    // Until one of the two has ended and the other has what it sent, or the interrupt comes.
    void run();

private:
    bool takeIn(int from, std::string& pending);
    static bool passOn(int to, std::string& pending);

    int client_;
    int origin_;
    const Event& interrupt_;
    std::string toOrigin_; // waiting to be sent
    std::string toClient_;
    bool fromClient_ = true;
    bool ended_ = false;
};

} // namespace support
