// The progress line of a stream, drawn at a steady beat: also when nothing comes, which is when it matters.
#pragma once

#include "open.h"
#include "progress.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace mdch {

class LiveLine
{
public:
    // As Progress has them. source: asked for how full its receive buffer is; outlives the line.
    LiveLine(const Source& source, std::int64_t total, std::int64_t first, bool enabled);
    ~LiveLine();
    LiveLine(const LiveLine&) = delete;
    LiveLine& operator=(const LiveLine&) = delete;

    void setCount(std::int64_t count) { m_count = count; }

    // The radio's current title; empty: none.
    void setTitle(const std::string& title);

    // Removes the line; nothing is drawn any more.
    void end();

private:
    void run();
    std::string note(const Source& source);

    std::atomic<std::int64_t> m_count;
    std::mutex
        m_mutex; // guards what follows, but for the progress, which is the thread's alone while it runs
    std::condition_variable m_changed;
    std::string m_title;
    bool m_ended = false;
    Progress m_progress;
    std::thread m_thread;
};

} // namespace mdch
