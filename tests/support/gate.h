// A barrier that a server's reply waits at until the test opens it.
#pragma once

#include "support/sockets.h"
#include "support/wait.h"

#include <condition_variable>
#include <memory>
#include <mutex>

namespace support {

// Copies share one gate. Safe from any thread.
class Gate
{
public:
    Gate();

    void open();
    void close();
    bool isOpen() const;

    // How many replies have come to the gate so far (whether they had to wait or not).
    int arrivals() const;

    // Waits until `count` replies have come to the gate: from then on the server has sent all that stands
    // before it. False at the deadline.
    bool waitForArrivals(int count = 1, std::chrono::milliseconds deadline = defaultDeadline) const;

    // For servers: the descriptor that is readable while the gate is open, and the notice of an arrival.
    int fd() const;
    void arrive() const;

private:
    struct State
    {
        Event event;
        mutable std::mutex mutex;
        std::condition_variable changed;
        int arrivals = 0;
    };
    std::shared_ptr<State> state_;
};

} // namespace support
