#include "trace.h"

#include "failure.h"

#include "mdp_debug.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <iomanip>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include <unistd.h>

namespace mdch {

namespace {

using Clock = std::chrono::steady_clock;

struct Severity
{
    unsigned int number;
    const char* name;
};

// One per -v.
constexpr std::array<Severity, 4> kSeverities = {
    {{1000, "fatal"}, {3000, "failure"}, {4000, "notice"}, {5000, "call"}}};

constexpr unsigned int kFailure = kSeverities[1].number;
constexpr unsigned int kSeverityBits = 0xffff;

const char* nameOf(unsigned int level)
{
    const unsigned int number = level & kSeverityBits;
    const auto* const found =
        std::find_if(kSeverities.begin(), kSeverities.end(),
                     [number](const Severity& severity) { return number <= severity.number; });
    return found != kSeverities.end() ? found->name : kSeverities.back().name;
}

// "   1.204 notice   text"
std::string stamped(double seconds, const char* name, std::string_view line)
{
    constexpr int kTimeWidth = 8;
    constexpr int kMilliseconds = 3;
    constexpr int kNameWidth = 7;
    std::ostringstream text;
    text << std::fixed << std::setprecision(kMilliseconds) << std::setw(kTimeWidth) << seconds << ' '
         << std::left << std::setw(kNameWidth) << name << "  " << printable(std::string(line)) << '\n';
    return text.str();
}

// Prints as long as the program runs. The library calls it from one thread at a time.
class TracePrinter
{
public:
    // Both while no trace can come.
    void showUpTo(unsigned int severity) { m_severity = severity; }
    void setObserver(TraceObserver observer) { m_observer = std::move(observer); }
    void setFailureObserver(TraceObserver observer) { m_failureObserver = std::move(observer); }
    unsigned int neededSeverity() const
    {
        if (m_observer) {
            return kSeverities.back().number;
        }
        return m_failureObserver ? std::max(m_severity, kFailure) : m_severity;
    }

    void take(unsigned int level, std::string_view text)
    {
        if (m_observer) {
            m_observer(text);
        }
        if (m_failureObserver && (level & kSeverityBits) <= kFailure) {
            m_failureObserver(text);
        }
        if ((level & kSeverityBits) <= m_severity) {
            print(level, text);
        }
    }

private:
    void print(unsigned int level, std::string_view text)
    {
        const double seconds = std::chrono::duration<double>(Clock::now() - m_start).count();
        std::string lines;
        if (m_isTerminal) {
            lines = "\r\x1b[K"; // a progress line may stand there
        }
        while (!text.empty()) {
            const std::size_t end = std::min(text.find('\n'), text.size());
            std::string_view line = text.substr(0, end);
            text.remove_prefix(std::min(end + 1, text.size()));
            // Header lines come with an end of their own, and so leave empty lines behind.
            line = line.substr(0, line.find_last_not_of(" \t\r") + 1);
            if (!line.empty()) {
                lines += stamped(seconds, nameOf(level), line);
            }
        }
        // Whole lines at once, so that other output does not get between.
        while (write(STDERR_FILENO, lines.data(), lines.size()) < 0 && errno == EINTR) {
        }
    }

    Clock::time_point m_start = Clock::now();
    unsigned int m_severity = 0;
    TraceObserver m_observer;
    TraceObserver m_failureObserver;
    bool m_isTerminal = isatty(STDERR_FILENO) != 0;
};

void takeTrace(void* context, unsigned int level, const char* text)
{
    static_cast<TracePrinter*>(context)->take(level, text);
}

// Never freed: the library's thread may trace until the process ends.
TracePrinter& printer()
{
    static TracePrinter* const kPrinter = new TracePrinter;
    return *kPrinter;
}

// Changes the printer while nobody uses it.
template <class Change>
void changePrinter(Change change)
{
    mdpDebugSetSeverity(0);
    mdpDebugSetSink(nullptr, nullptr);
    change(printer());
    mdpDebugSetSink(takeTrace, &printer());
    mdpDebugSetSeverity(printer().neededSeverity());
}

} // namespace

void showTraces(std::int64_t count)
{
    const auto most = static_cast<std::int64_t>(kSeverities.size());
    const auto last = static_cast<std::size_t>(std::clamp<std::int64_t>(count, 1, most) - 1);
    changePrinter([last](TracePrinter& traces) { traces.showUpTo(kSeverities[last].number); });
}

void observeTraces(TraceObserver observer)
{
    changePrinter([&observer](TracePrinter& traces) { traces.setObserver(std::move(observer)); });
}

void observeFailures(TraceObserver observer)
{
    changePrinter([&observer](TracePrinter& traces) { traces.setFailureObserver(std::move(observer)); });
}

} // namespace mdch
