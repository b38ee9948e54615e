#include "measures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iomanip>
#include <sstream>

namespace mdch {

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
    constexpr std::size_t kWidth = 10;
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

std::string clipped(const std::string& text, std::size_t columns)
{
    constexpr unsigned int kContinuationMask = 0xc0;
    constexpr unsigned int kContinuation = 0x80;
    // The scripts whose letters take two columns are found from U+1100 upward, which begins with this byte.
    constexpr unsigned int kFirstWide = 0xe1;
    std::size_t used = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if ((byte & kContinuationMask) == kContinuation) {
            continue;
        }
        used += byte >= kFirstWide ? 2 : 1;
        if (used > columns) {
            return text.substr(0, at);
        }
    }
    return text;
}

} // namespace mdch
