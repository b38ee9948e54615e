#include "watch_record.h"

#include "failure.h"
#include "measures.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <iomanip>
#include <sstream>

namespace mdch {

namespace {

constexpr double kWidth = 1000;
constexpr double kLeft = 90;
constexpr double kRight = 980;
constexpr double kTop = 70;
constexpr double kPanelHeight = 130;
constexpr double kPanelStep = 170;
constexpr double kPanels = 3;
constexpr double kHeight = kTop + kPanels * kPanelStep + 20;

struct Panel
{
    const char* name;
    const char* colour;
    double top; // of the picture
    double highest;
    std::function<double(std::size_t index)> value; // at that sample
    std::function<std::string(double)> words;       // of a value on the axis
};

// Text between tags and in attributes.
std::string escaped(const std::string& text)
{
    std::string result;
    for (const char letter : printable(text)) {
        switch (letter) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            // XML knows no bytes that are no UTF-8; addresses are ASCII.
            result += static_cast<unsigned char>(letter) < 0x80U ? letter : '?';
        }
    }
    return result;
}

class Picture
{
public:
    explicit Picture(const WatchRecord& record) : m_record(record), m_end(std::max(1.0, record.end))
    {
        m_text << std::fixed << std::setprecision(1);
    }

    std::string draw()
    {
        m_text << R"(<svg xmlns="http://www.w3.org/2000/svg" width=")" << kWidth << R"(" height=")" << kHeight
               << R"(" font-family="sans-serif" font-size="12">)"
               << "\n<title>" << escaped(m_record.url) << "</title>\n"
               << R"(<rect width="100%" height="100%" fill="white"/>)" << '\n';
        write(kLeft, 22, "start", m_record.url);
        drawLegend();
        drawBands(m_record.pauses, "pause", "#cccccc");
        drawBands(m_record.stalls, "stall", "#ff9999");
        drawPanel(receivedPanel());
        drawPanel(ratePanel());
        drawPanel(bufferPanel());
        for (const WatchEvent& event : m_record.reconnects) {
            m_text << R"(<line class="reconnect" stroke="#0033cc" stroke-dasharray="4 3" x1=")"
                   << x(event.time) << R"(" x2=")" << x(event.time) << R"(" y1=")" << kTop << R"(" y2=")"
                   << bottom() << R"(">)"
                   << "<title>" << escaped(event.text) << "</title></line>\n";
        }
        m_text << "</svg>\n";
        return m_text.str();
    }

private:
    static double bottom() { return kTop + (kPanels - 1) * kPanelStep + kPanelHeight; }
    double x(double time) const { return kLeft + (kRight - kLeft) * std::min(1.0, time / m_end); }
    static double y(const Panel& panel, double value)
    {
        return panel.top + kPanelHeight * (1 - std::clamp(value / panel.highest, 0.0, 1.0));
    }

    // In the mean of the second before: bytes come in bursts, which would hide everything else.
    double rateAt(std::size_t index) const
    {
        const WatchSample& now = m_record.samples[index];
        const auto begin = m_record.samples.begin();
        const auto first =
            std::lower_bound(begin, begin + static_cast<std::ptrdiff_t>(index), now.time - 1,
                             [](const WatchSample& sample, double time) { return sample.time < time; });
        const double passed = now.time - first->time;
        return passed > 0 ? static_cast<double>(now.received - first->received) / passed : 0;
    }

    Panel receivedPanel() const
    {
        const std::int64_t received = m_record.samples.empty() ? 0 : m_record.samples.back().received;
        return {"bytes received",
                "#006600",
                kTop,
                std::max(1.0, static_cast<double>(received)),
                [this](std::size_t index) { return static_cast<double>(m_record.samples[index].received); },
                [](double value) { return amount(value); }};
    }

    Panel ratePanel() const
    {
        double highest = std::max(1.0, m_record.rate);
        for (std::size_t index = 0; index < m_record.samples.size(); ++index) {
            highest = std::max(highest, rateAt(index));
        }
        return {"rate",
                "#993399",
                kTop + kPanelStep,
                highest,
                [this](std::size_t index) { return rateAt(index); },
                [](double value) { return amount(value) + "/s"; }};
    }

    Panel bufferPanel() const
    {
        constexpr double kPercent = 100;
        return {"receive buffer",
                "#cc6600",
                kTop + 2 * kPanelStep,
                kPercent,
                [this](std::size_t index) { return std::max(0.0, m_record.samples[index].level) * kPercent; },
                [](double value) { return std::to_string(static_cast<int>(value)) + "%"; }};
    }

    void write(double left, double base, const char* anchor, const std::string& words)
    {
        m_text << R"(<text x=")" << left << R"(" y=")" << base << R"(" text-anchor=")" << anchor << R"(">)"
               << escaped(words) << "</text>\n";
    }

    void drawLegend()
    {
        constexpr double kLine = 42;
        constexpr double kBox = 12;
        constexpr double kStep = 220;
        const auto box = [&](double left, const char* colour, const std::string& words) {
            m_text << R"(<rect x=")" << left << R"(" y=")" << kLine - kBox << R"(" width=")" << kBox
                   << R"(" height=")" << kBox << R"(" fill=")" << colour << R"("/>)" << '\n';
            write(left + kBox + 4, kLine - 1, "start", words);
        };
        box(kLeft, "#ff9999", "stall: playback misses bytes");
        box(kLeft + kStep, "#cccccc", "pause: the buffer is full");
        box(kLeft + 2 * kStep, "#0033cc", "connection broke or made anew");
    }

    void drawBands(const std::vector<WatchSpan>& spans, const char* kind, const char* colour)
    {
        for (const WatchSpan& span : spans) {
            m_text << R"(<rect class=")" << kind << R"(" fill=")" << colour << R"(" x=")" << x(span.from)
                   << R"(" width=")" << std::max(1.0, x(span.to) - x(span.from)) << R"(" y=")" << kTop
                   << R"(" height=")" << bottom() - kTop << R"("><title>)" << kind << ' ' << span.from
                   << " s to " << span.to << " s: " << escaped(span.text) << "</title></rect>\n";
        }
    }

    void drawPanel(const Panel& panel)
    {
        constexpr int kTicks = 6;
        const double base = panel.top + kPanelHeight;
        m_text << R"(<rect fill="none" stroke="#666666" x=")" << kLeft << R"(" y=")" << panel.top
               << R"(" width=")" << kRight - kLeft << R"(" height=")" << kPanelHeight << R"("/>)" << '\n';
        write(kLeft + 4, panel.top - 4, "start", panel.name);
        write(kLeft - 6, panel.top + 10, "end", panel.words(panel.highest));
        write(kLeft - 6, base, "end", panel.words(0));
        for (int tick = 0; tick <= kTicks; ++tick) {
            const double time = m_end * tick / kTicks;
            std::ostringstream words;
            words << std::fixed << std::setprecision(m_end < 2 * kTicks ? 1 : 0) << time << " s";
            write(x(time), base + 15, "middle", words.str());
        }
        m_text << R"(<polyline fill="none" stroke-width="1.5" stroke=")" << panel.colour << R"(" points=")";
        for (std::size_t index = 0; index < m_record.samples.size(); ++index) {
            m_text << x(m_record.samples[index].time) << ',' << y(panel, panel.value(index)) << ' ';
        }
        m_text << "\"/>\n";
    }

    const WatchRecord& m_record;
    double m_end;
    std::ostringstream m_text;
};

} // namespace

std::string watchPicture(const WatchRecord& record)
{
    return Picture(record).draw();
}

} // namespace mdch
