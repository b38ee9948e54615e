// Ctrl-C: ends a transfer in good order, wherever it is waiting.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace mdch {

// While it lives, SIGINT and SIGTERM are taken by a thread of its own. Make it before any other thread starts:
// those inherit the blocked signals. The thread sets the flag and calls the action; if the program has not
// ended soon after that, it ends the process, since an open or a write can wait for very long.
class Interrupt
{
public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    // Called on the thread when a signal comes, or at once when one has come. Empty: nothing. The program has the
    // grace to end by itself after that.
    static constexpr int kGraceMilliseconds = 1000;
    void setAction(std::function<void()> action, int graceMilliseconds = kGraceMilliseconds);

    bool requested() const { return m_signal.load() != 0; }

    // The process's exit status when interrupted: 130 for Ctrl-C.
    int status() const;

    // For the last words: how much has arrived.
    void setBytes(std::int64_t bytes) { m_bytes = bytes; }

    // Writes the line about the interruption; returns the exit status.
    int report() const;

private:
    void run();

    std::atomic<int> m_signal{0};
    std::atomic<std::int64_t> m_bytes{0};
    std::mutex m_mutex; // guards the action, also while it runs, and its grace
    int m_graceMilliseconds = kGraceMilliseconds;
    std::function<void()> m_action;
    int m_signalFd = -1;
    int m_endFd = -1;
    std::thread m_thread;
};

} // namespace mdch
