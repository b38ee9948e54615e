// What the library's trace lines tell about the transfer: when it rests, and when it is made anew.
#pragma once

#include <chrono>
#include <mutex>
#include <string_view>
#include <vector>

namespace mdch {

struct EngineEvent
{
    enum class Kind
    {
        kPaused,   // on a full buffer
        kGoesOn,   // the buffer has room again
        kReconnect // a new request, by the library itself
    };
    Kind kind;
    std::chrono::steady_clock::time_point time;
};

// Listens while it lives. Any thread.
class WatchEngine
{
public:
    WatchEngine();
    ~WatchEngine();
    WatchEngine(const WatchEngine&) = delete;
    WatchEngine& operator=(const WatchEngine&) = delete;

    // What has happened since the last call.
    std::vector<EngineEvent> take();

private:
    void listen(std::string_view line);

    std::mutex m_mutex; // guards the events
    std::vector<EngineEvent> m_events;
};

} // namespace mdch
