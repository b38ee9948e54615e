#include "progress.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>

namespace mdch {

namespace {

std::string amount(double bytes)
{
    constexpr std::array<const char*, 5> kUnits = {"B", "kB", "MB", "GB", "TB"};
    constexpr double kStep = 1000;
    std::size_t unit = 0;
    while (bytes >= kStep && unit + 1 < kUnits.size()) {
        bytes /= kStep;
        ++unit;
    }
    std::ostringstream text;
    text << std::fixed << std::setprecision(unit == 0 ? 0 : 1) << bytes << ' ' << kUnits[unit];
    return text.str();
}

// "[=====     ]  50%  "; nothing when the total is not known.
std::string bar(std::int64_t count, std::int64_t total)
{
    constexpr std::size_t kWidth = 20;
    constexpr double kPercent = 100;
    if (total <= 0) {
        return {};
    }
    const double part = std::min(1.0, static_cast<double>(count) / static_cast<double>(total));
    const auto filled = static_cast<std::size_t>(part * static_cast<double>(kWidth));
    std::ostringstream text;
    text << '[' << std::string(filled, '=') << std::string(kWidth - filled, ' ') << "] " << std::setw(3)
         << static_cast<int>(part * kPercent) << "%  ";
    return text.str();
}

std::string duration(double seconds)
{
    constexpr long kMinute = 60;
    constexpr double kLongest = 360000;
    if (seconds >= kLongest) {
        return "long";
    }
    const long whole = std::lround(std::ceil(seconds));
    std::ostringstream text;
    text << whole / kMinute << ':' << std::setw(2) << std::setfill('0') << whole % kMinute;
    return text.str();
}

} // namespace

Progress::Progress(std::int64_t total, bool enabled) : m_total(total), m_enabled(enabled) {}

Progress::~Progress()
{
    clear();
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
    m_rate = m_lastCount == 0 ? rate : kWeightOfNew * rate + (1 - kWeightOfNew) * m_rate;
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
    std::cerr << "\r\x1b[K" << line << std::flush;
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
