/*
 * Collects the library's trace lines for a test.
 */
#ifndef SUPPORT_TRACE_CAPTURE_H
#define SUPPORT_TRACE_CAPTURE_H

#include "mdp_debug.h"
#include "support/wait.h"

#include <algorithm>
#include <cstddef>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace support {

/* While it lives, every trace line up to a severity goes here instead of standard error. Any thread. */
class TraceCapture
{
public:
    struct Line
    {
        unsigned int level;
        std::string text;
    };

    explicit TraceCapture(unsigned int severity = 5000)
    {
        mdpDebugSetSink(&TraceCapture::take, this);
        mdpDebugSetSeverity(severity);
    }
    ~TraceCapture()
    {
        mdpDebugSetSeverity(1000);
        mdpDebugSetSink(nullptr, nullptr);
    }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    std::vector<Line> lines() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

    std::vector<std::string> texts() const
    {
        std::vector<std::string> result;
        for (const Line& line : lines()) {
            result.push_back(line.text);
        }
        return result;
    }

    void clear()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
    }

    /* How often exactly this text was traced. Line numbers of "file:line:function()" are written as #. */
    std::size_t count(const std::string& text) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<std::size_t>(
            std::count_if(m_lines.begin(), m_lines.end(), [&text](const Line& line) {
                return line.text == text || withoutLineNumber(line.text) == text;
            }));
    }
    bool has(const std::string& text) const { return count(text) > 0; }
    bool waitFor(const std::string& text) const
    {
        return waitUntil([this, &text] { return has(text); });
    }

    /* Severity of the first line with that text; 0 when there is none. */
    unsigned int severityOf(const std::string& text) const
    {
        for (const Line& line : lines()) {
            if (line.text == text || withoutLineNumber(line.text) == text) {
                return line.level & 0xffffU;
            }
        }
        return 0;
    }

    bool hasAnywhere(const std::string& part) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::any_of(m_lines.begin(), m_lines.end(),
                           [&part](const Line& line) { return line.text.find(part) != std::string::npos; });
    }

    /* "file.cpp:12:f(): text" as "file.cpp:#:f(): text"; other texts as they are. */
    static std::string withoutLineNumber(const std::string& text)
    {
        const std::size_t first = text.find(".cpp:");
        if (first == std::string::npos) {
            return text;
        }
        const std::size_t begin = first + 5;
        const std::size_t end = text.find_first_not_of("0123456789", begin);
        if (end == std::string::npos || end == begin || text[end] != ':') {
            return text;
        }
        return text.substr(0, begin) + "#" + text.substr(end);
    }

private:
    static void take(void* self, unsigned int level, const char* text)
    {
        auto* capture = static_cast<TraceCapture*>(self);
        const std::lock_guard<std::mutex> lock(capture->m_mutex);
        capture->m_lines.push_back({level, text});
    }

    mutable std::mutex m_mutex;
    std::vector<Line> m_lines;
};

} // namespace support

#endif
