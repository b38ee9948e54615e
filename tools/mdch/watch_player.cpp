#include "watch_player.h"

#include <algorithm>

namespace mdch {

namespace {

constexpr double kPatience = 0.5; // seconds
constexpr double kAhead = 1;      // seconds

} // namespace

void WatchPlayer::enter(State state, double since)
{
    m_state = state;
    m_since = since;
    m_taken = 0;
    m_due = 0;
}

std::size_t WatchPlayer::wanted(double now, std::size_t buffered, std::size_t most, bool ended)
{
    constexpr std::size_t kPiece = 1U << 20U;
    if (m_rate <= 0) {
        return kPiece;
    }
    if (m_state != State::kPlaying) {
        const double enough = std::min(m_rate * kAhead, static_cast<double>(most) / 2);
        if (static_cast<double>(buffered) < enough && !ended) {
            return 0;
        }
        enter(State::kPlaying, now);
    }
    m_due = m_rate * (now - m_since);
    return std::min(kPiece, static_cast<std::size_t>(std::max(0.0, m_due - m_taken)));
}

void WatchPlayer::took(double now, std::size_t asked, std::size_t count)
{
    m_taken += static_cast<double>(count);
    if (count > 0) {
        m_lastByte = now;
    }
    if (m_rate > 0) {
        // Bytes that were not even asked for, because they are too many for one piece, are not missing.
        if (m_state == State::kPlaying && count < asked && m_due - m_taken > m_rate * kPatience) {
            enter(State::kStalled, now);
        }
        return;
    }
    if (count > 0 && m_state != State::kPlaying) {
        enter(State::kPlaying, now);
    } else if (m_state == State::kPlaying && now - m_lastByte >= kPatience) {
        enter(State::kStalled, m_lastByte);
    }
}

} // namespace mdch
