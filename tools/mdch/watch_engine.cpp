#include "watch_engine.h"

#include "trace.h"

#include <utility>

namespace mdch {

WatchEngine::WatchEngine()
{
    observeTraces([this](std::string_view line) { listen(line); });
}

WatchEngine::~WatchEngine()
{
    observeTraces(nullptr);
}

std::vector<EngineEvent> WatchEngine::take()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return std::exchange(m_events, {});
}

void WatchEngine::listen(std::string_view line)
{
    const auto has = [line](const char* words) { return line.find(words) != std::string_view::npos; };
    const auto note = [this](EngineEvent::Kind kind) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back({kind, std::chrono::steady_clock::now()});
    };
    if (has("(): pause connection on fd ")) {
        note(EngineEvent::Kind::kPaused);
    } else if (has("(): unpause fd ")) {
        note(EngineEvent::Kind::kGoesOn);
    } else if (has("(): resume to pos ")) {
        note(EngineEvent::Kind::kReconnect);
    }
}

} // namespace mdch
