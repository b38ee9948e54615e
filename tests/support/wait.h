// Waiting for a condition instead of for a time: tests stay fast on a fast machine and right on a slow one.
#pragma once

#include <chrono>
#include <thread>

namespace support {

// How long anything in a test may take before it counts as hung. Generous, because sanitizers and loaded
// machines are slow, and free, because nobody waits that long unless something is broken.
constexpr std::chrono::milliseconds defaultDeadline{60000};

// Calls `predicate` until it holds; false when `deadline` passed without that.
template <typename Predicate>
bool waitUntil(Predicate predicate, std::chrono::milliseconds deadline = defaultDeadline)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= end) {
            return predicate();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace support
