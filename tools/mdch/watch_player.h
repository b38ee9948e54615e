// Takes bytes as a player does, and knows when it misses some.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mdch {

class WatchPlayer
{
public:
    // rate: bytes per second that the playback takes; 0: as many as there are.
    explicit WatchPlayer(double rate) : m_rate(rate) {}

    // Bytes to take now. buffered: how many wait; most: how many fit into the buffer; ended: no more will come.
    // With a rate, the playback starts, and starts again after a stall, with a second's worth in the buffer.
    std::size_t wanted(double now, std::size_t buffered, std::size_t most, bool ended);

    // What came of that.
    void took(double now, std::size_t asked, std::size_t count);

    // It missed bytes: with a rate, half a second's worth; without, for half a second.
    bool isStalled() const { return m_state == State::kStalled; }
    bool hasStarted() const { return m_state != State::kStarting; }

    // Since when it has been so.
    double since() const { return m_since; }

private:
    enum class State
    {
        kStarting,
        kPlaying,
        kStalled
    };
    void enter(State state, double since);

    double m_rate;
    State m_state = State::kStarting;
    double m_since = 0;
    double m_taken = 0; // since the playback went on, with a rate
    double m_due = 0;   // by now
    double m_lastByte = 0;
};

} // namespace mdch
