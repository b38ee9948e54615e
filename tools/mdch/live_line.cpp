#include "live_line.h"

#include "mdc_hlp_http_access.h"

#include <chrono>
#include <cstddef>

namespace mdch {

LiveLine::LiveLine(const Source& source, std::int64_t total, std::int64_t first, bool enabled)
    : m_count(first), m_progress(total, enabled, first)
{
    if (enabled) {
        m_progress.setNote([this, &source] { return note(source); });
        m_thread = std::thread(&LiveLine::run, this);
    }
}

LiveLine::~LiveLine()
{
    end();
}

void LiveLine::setTitle(const std::string& title)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_title = title;
}

void LiveLine::end()
{
    if (!m_thread.joinable()) {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ended = true;
    }
    m_changed.notify_one();
    m_thread.join();
    m_progress.clear();
}

void LiveLine::run()
{
    constexpr std::chrono::milliseconds kBeat(250);
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_changed.wait_for(lock, kBeat, [this] { return m_ended; })) {
        lock.unlock();
        m_progress.update(m_count);
        lock.lock();
    }
}

std::string LiveLine::note(const Source& source)
{
    constexpr std::size_t kPercent = 100;
    std::size_t used = 0;
    std::size_t size = 0;
    std::string text;
    if (source.http != nullptr && source.http->getBufferLevel(used, size) == 0 && size > 0) {
        text = "buffer " + std::to_string(used * kPercent / size) + "%";
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_title.empty()) {
        text += (text.empty() ? "" : "  ") + m_title;
    }
    return text;
}

} // namespace mdch
