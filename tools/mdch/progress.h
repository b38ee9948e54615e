// The progress line on a terminal: a bar, bytes of bytes, rate, time left; without a total, bytes, rate and the time
// that has passed; and a note behind it. As long as the terminal is wide, at most.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace mdch {

class Progress
{
public:
    // total: negative when unknown. enabled: false writes nothing at all. first: bytes that are there already.
    Progress(std::int64_t total, bool enabled, std::int64_t first = 0);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Asked for with each line, on the thread that updates.
    void setNote(std::function<std::string()> note);

    void update(std::int64_t count);

    // Removes the line, so that an error starts on a clean one.
    void clear();

private:
    using Clock = std::chrono::steady_clock;

    std::int64_t m_total;
    bool m_enabled;
    bool m_shown = false;
    std::function<std::string()> m_note;
    Clock::time_point m_start = Clock::now();
    Clock::time_point m_lastTime = Clock::now();
    std::int64_t m_lastCount;
    double m_rate = 0; // bytes per second, smoothed
};

} // namespace mdch
