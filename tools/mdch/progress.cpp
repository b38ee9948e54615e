#include "progress.h"

#include "failure.h"
#include "measures.h"

#include <iostream>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace mdch {

namespace {

std::size_t columnsOfTerminal()
{
    constexpr std::size_t kUsual = 80;
    winsize size{};
    const bool isTold = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    return isTold ? size.ws_col : kUsual;
}

} // namespace

Progress::Progress(std::int64_t total, bool enabled, std::int64_t first)
    : m_total(total), m_enabled(enabled), m_lastCount(first)
{
}

Progress::~Progress()
{
    clear();
}

void Progress::setNote(std::function<std::string()> note)
{
    m_note = std::move(note);
}

void Progress::update(std::int64_t count)
{
    constexpr double kSecondsBetween = 0.2;
    constexpr double kWeightOfNew = 0.3;
    if (!m_enabled) {
        return;
    }
    const Clock::time_point now = Clock::now();
    const double passed = std::chrono::duration<double>(now - m_lastTime).count();
    if (passed < kSecondsBetween) {
        return;
    }
    const double rate = static_cast<double>(count - m_lastCount) / passed;
    m_rate = m_rate == 0 ? rate : kWeightOfNew * rate + (1 - kWeightOfNew) * m_rate;
    m_lastTime = now;
    m_lastCount = count;

    std::string line = bar(count, m_total) + amount(static_cast<double>(count));
    if (m_total >= 0) {
        line += " of " + amount(static_cast<double>(m_total));
    }
    line += "  " + amount(m_rate) + "/s";
    if (m_total > count && m_rate > 0) {
        line += "  " + duration(static_cast<double>(m_total - count) / m_rate) + " left";
    }
    if (m_total < 0) {
        line += "  " + duration(std::chrono::duration<double>(now - m_start).count());
    }
    const std::string note = m_note ? printable(m_note()) : std::string();
    if (!note.empty()) {
        line += "  " + note;
    }
    // One column less: a full line would let some terminals scroll.
    std::cerr << "\r\x1b[K" << clipped(line, columnsOfTerminal() - 1) << std::flush;
    m_shown = true;
}

void Progress::clear()
{
    if (m_shown) {
        std::cerr << "\r\x1b[K" << std::flush;
        m_shown = false;
    }
}

} // namespace mdch
