#include "watch_record.h"

#include "failure.h"
#include "measures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iomanip>
#include <numeric>
#include <sstream>

namespace mdch {

namespace {

constexpr double kBitsPerKilobyte = 125;

std::string secondsText(double seconds)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << seconds << " s";
    return text.str();
}

std::string buffer(double level)
{
    constexpr int kWidth = 20;
    constexpr int kPercent = 100;
    if (level < 0) {
        return std::string(static_cast<std::size_t>(kWidth), ' ') + "       ";
    }
    const double part = std::min(1.0, level);
    const auto filled = static_cast<std::size_t>(std::lround(part * kWidth));
    std::ostringstream text;
    text << '[' << std::string(filled, '#') << std::string(kWidth - filled, ' ') << ']' << std::setw(4)
         << std::lround(level * kPercent) << '%';
    return text.str();
}

double sumOf(const std::vector<WatchSpan>& spans)
{
    return std::accumulate(spans.begin(), spans.end(), 0.0,
                           [](double sum, const WatchSpan& span) { return sum + (span.to - span.from); });
}

std::string counted(std::size_t count, const std::string& one, const std::string& many)
{
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

// The causes of the stalls with their counts: "nothing came (2), ...".
std::string causes(const std::vector<WatchSpan>& stalls)
{
    std::vector<std::string> seen;
    for (const WatchSpan& stall : stalls) {
        if (std::find(seen.begin(), seen.end(), stall.text) == seen.end()) {
            seen.push_back(stall.text);
        }
    }
    std::string text;
    for (const std::string& cause : seen) {
        const auto times = std::count_if(stalls.begin(), stalls.end(),
                                         [&cause](const WatchSpan& stall) { return stall.text == cause; });
        text += (text.empty() ? "" : ", ") + cause + " (" + std::to_string(times) + ")";
    }
    return text;
}

} // namespace

std::string watchHeading(const WatchRecord& record)
{
    std::string text = printable(record.url) + "\n";
    text += record.rate > 0
                ? "played at " + std::to_string(std::lround(record.rate / kBitsPerKilobyte)) + " kbit/s\n"
                : std::string("taken as fast as it comes\n");
    return text + " TIME   RECEIVED        RATE  BUFFER                       WHAT HAPPENED\n";
}

std::string watchLine(const WatchRecord& record, const WatchSample& before, const WatchSample& now,
                      std::size_t first)
{
    constexpr int kTimeWidth = 5;
    constexpr int kAmountWidth = 11;
    constexpr double kShortest = 0.001;
    const double rate =
        static_cast<double>(now.received - before.received) / std::max(kShortest, now.time - before.time);
    std::ostringstream text;
    text << std::setw(kTimeWidth) << duration(std::floor(now.time)) << std::setw(kAmountWidth)
         << amount(static_cast<double>(now.received)) << std::setw(kAmountWidth + 1)
         << amount(std::max(0.0, rate)) + "/s"
         << "  " << buffer(now.level);
    for (std::size_t index = first; index < record.events.size(); ++index) {
        text << (index == first ? "  " : "; ") << printable(record.events[index].text);
    }
    std::string line = text.str();
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

std::string watchSummary(const WatchRecord& record)
{
    const std::int64_t received = record.samples.empty() ? 0 : record.samples.back().received;
    const double mean = record.end > 0 ? static_cast<double>(received) / record.end : 0;
    std::ostringstream text;
    text << "\n"
         << secondsText(record.end) << ", " << amount(static_cast<double>(received)) << ", " << amount(mean)
         << "/s in the mean; " << counted(record.pauses.size(), "pause", "pauses") << " ("
         << secondsText(sumOf(record.pauses)) << "), "
         << counted(record.reconnectCount, "reconnect", "reconnects") << ", "
         << counted(record.stalls.size(), "stall", "stalls") << " (" << secondsText(sumOf(record.stalls))
         << ")\n";
    if (record.stalls.empty()) {
        text << "Nothing stalled.\n";
    } else {
        text << "Playback stuttered because " << causes(record.stalls) << ".\n";
    }
    return text.str();
}

} // namespace mdch
