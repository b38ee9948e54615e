// The thread that waits for a session's data.
#include "stream_session.h"

#include "response_header.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <pthread.h>

namespace player {

namespace {

// A stream that is to be held is left alone for so long first.
constexpr std::chrono::milliseconds kQuiet{1000};
// Before the second, third ... try; the first comes at once.
constexpr std::chrono::milliseconds kFirstDelay{250};
constexpr std::chrono::milliseconds kLongestDelay{8000};
// A socket that gives nothing answers after half a second; one that answers at once is not asked all the time.
constexpr std::chrono::milliseconds kBetweenDatagrams{20};

std::chrono::milliseconds delayBefore(int tries)
{
    if (tries == 0) {
        return std::chrono::milliseconds(0);
    }
    constexpr int kMostDoublings = 5;
    return std::min(kFirstDelay * (1 << std::min(tries - 1, kMostDoublings)), kLongestDelay);
}

} // namespace

void StreamSession::run(const std::shared_ptr<StreamSession>& self)
{
    pthread_setname_np(pthread_self(), "mdch_player");
    Lock lock(self->m_mutex);
    while (!self->m_ending) {
        self->serve(lock);
    }
}

void StreamSession::serve(Lock& lock)
{
    m_changed.wait(lock, [this] { return m_ending || m_wanted > 0 || isHoldDue(); });
    if (m_ending) {
        return;
    }
    // Somebody who waits for data comes first: a stream that is held has none.
    if (m_wanted > 0) {
        const unsigned int size = m_wanted;
        const unsigned int moves = m_moves;
        m_wanted = 0;
        m_fetching = true;
        lock.unlock();
        Catch caught = fetch(size, moves);
        caught.moves = moves;
        lock.lock();
        m_fetching = false;
        m_caught = std::move(caught);
        m_changed.notify_all();
        return;
    }
    changeHold(lock);
}

bool StreamSession::isHoldDue() const
{
    return !m_moving && (m_holdWanted ? !m_isHeld : m_mayBePaused);
}

void StreamSession::changeHold(Lock& lock)
{
    const bool on = m_holdWanted;
    if (on) {
        // Queues that are still filling would only ask the server anew.
        const auto isCalled = [this] { return m_ending || m_wanted > 0 || !isHoldDue() || !m_holdWanted; };
        if (m_changed.wait_until(lock, m_lastUse + kQuiet, isCalled) ||
            std::chrono::steady_clock::now() < m_lastUse + kQuiet) {
            return;
        }
    }
    m_isHeld = on;
    m_mayBePaused = on;
    lock.unlock();
    // Either may wait for a response header, which is why they are here.
    if (on) {
        m_http->pause();
    } else {
        m_http->resume();
    }
    lock.lock();
}

StreamSession::Catch StreamSession::fetch(unsigned int size, unsigned int moves)
{
    if (m_http != nullptr) {
        return fetchHttp(moves);
    }
    return m_isDatagrams ? fetchDatagram(size) : fetchFile(size);
}

// One byte tells that there are more: the reader takes them from the receive buffer.
StreamSession::Catch StreamSession::fetchHttp(unsigned int moves)
{
    Catch caught;
    for (int tries = 0;; ++tries) {
        unsigned char byte = 0;
        const bool isThere = m_http->read(&byte, 1) == 1;
        // Bytes of another version do not go on from ours.
        m_isOther = m_isOther || (isThere && tries > 0 && !areOfOneFile(versionOf(*m_http), m_version));
        if (m_isOther) {
            caught.outcome = Outcome::kFailed;
            caught.error = MDCH_HTTP_ETRANSFER;
            return caught;
        }
        if (isThere) {
            caught.bytes.push_back(byte);
            return caught;
        }
        const int error = m_http->error();
        const bool ended = m_http->eof() != 0;
        if (error == 0 && !ended) {
            return caught; // a seek has overtaken the read
        }
        if (error == 0) {
            caught.outcome = Outcome::kEnd;
            return caught;
        }
        if (!goOnAfter(error, tries, moves)) {
            caught.outcome = Outcome::kFailed;
            caught.error = error;
            return caught;
        }
    }
}

// Asks for the rest of a transfer that broke off.
bool StreamSession::goOnAfter(int error, int tries, unsigned int moves)
{
    if (!isWorthAnotherTry(error, tries)) {
        return false;
    }
    Lock lock(m_mutex);
    const auto isVain = [this, moves] { return m_ending || m_moves != moves; };
    m_changed.wait_for(lock, delayBefore(tries), isVain);
    if (isVain()) {
        return false;
    }
    const long long position = m_http->tell();
    if (startTransfer(position, lock) != 0) {
        return false;
    }
    m_restarting = true;
    lock.unlock();
    finishStart(position); // the next read tells how it went
    lock.lock();
    m_restarting = false;
    m_changed.notify_all();
    return true;
}

StreamSession::Catch StreamSession::fetchDatagram(unsigned int size)
{
    Catch caught;
    caught.bytes.resize(size);
    Lock lock(m_mutex, std::defer_lock);
    for (;;) {
        const int count = m_stream->read(caught.bytes.data(), size);
        if (count > 0) {
            caught.bytes.resize(static_cast<std::size_t>(count));
            return caught;
        }
        lock.lock();
        if (m_changed.wait_for(lock, kBetweenDatagrams, [this] { return m_ending; })) {
            caught.bytes.clear();
            caught.outcome = Outcome::kInterrupted;
            return caught;
        }
        lock.unlock();
    }
}

StreamSession::Catch StreamSession::fetchFile(unsigned int size)
{
    Catch caught;
    caught.bytes.resize(size);
    const int count = m_stream->read(caught.bytes.data(), size);
    caught.bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    if (count <= 0) {
        const int error = m_stream->error();
        caught.outcome = error != 0 ? Outcome::kFailed : Outcome::kEnd;
        caught.error = error;
    }
    return caught;
}

} // namespace player
