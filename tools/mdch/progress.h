// The progress line on a terminal: a bar, bytes of bytes, rate, time left.
#pragma once

#include <chrono>
#include <cstdint>

namespace mdch {

class Progress
{
public:
    // total: negative when unknown. enabled: false writes nothing at all.
    Progress(std::int64_t total, bool enabled);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void update(std::int64_t count);

    // Removes the line, so that an error starts on a clean one.
    void clear();

private:
    using Clock = std::chrono::steady_clock;

    std::int64_t m_total;
    bool m_enabled;
    bool m_shown = false;
    Clock::time_point m_lastTime = Clock::now();
    std::int64_t m_lastCount = 0;
    double m_rate = 0; // bytes per second, smoothed
};

} // namespace mdch
