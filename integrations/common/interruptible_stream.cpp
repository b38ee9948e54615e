#include "interruptible_stream.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace player {

InterruptibleStream::InterruptibleStream(std::string url, StreamSettings settings)
    : m_url(std::move(url)), m_settings(std::move(settings))
{
}

InterruptibleStream::~InterruptibleStream()
{
    replaceSession(nullptr);
}

// The former one is ended; returns the new one, which is already interrupted when the stream is.
std::shared_ptr<StreamSession> InterruptibleStream::replaceSession(std::shared_ptr<StreamSession> session)
{
    std::shared_ptr<StreamSession> former = session;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_session.swap(former);
        if (session != nullptr && m_interrupted) {
            session->interrupt();
        }
    }
    if (former != nullptr) {
        former->end();
    }
    return session;
}

bool InterruptibleStream::isOpen() const
{
    return m_session != nullptr && !m_session->isBroken();
}

Outcome InterruptibleStream::result(Outcome outcome)
{
    m_error = outcome == Outcome::kFailed ? m_session->error() : 0;
    return outcome;
}

Outcome InterruptibleStream::openAt(long long position)
{
    if (!applyProxy(m_settings)) {
        m_error = EINVAL;
        return Outcome::kFailed;
    }
    // Servers refuse a range that starts at the end or behind it; a seek on an open stream leads there all the same.
    const bool isInside = m_facts.size < 0 || position < m_facts.size;
    const auto session = replaceSession(std::make_shared<StreamSession>(m_url, m_settings));
    Outcome outcome = result(session->open(isInside ? position : 0));
    if (outcome == Outcome::kDone && position > 0 && !areOfOneFile(session->version(), m_version)) {
        outcome = Outcome::kFailed; // its bytes do not go on from ours
        m_error = MDCH_HTTP_ETRANSFER;
    }
    if (outcome == Outcome::kDone && !isInside) {
        outcome = result(session->seek(position));
    }
    if (!m_opened || outcome == Outcome::kDone) {
        m_facts = session->facts(); // one that was broken off has learned nothing
    }
    if (outcome != Outcome::kDone) {
        replaceSession(nullptr);
        return outcome;
    }
    m_position = std::max(session->position(), 0LL);
    m_opened = true;
    if (position == 0) {
        m_version = session->version(); // another one, read from its start, is all right
    }
    return outcome;
}

Outcome InterruptibleStream::open()
{
    if (isOpen()) {
        return Outcome::kDone;
    }
    // Where it was: what was interrupted was a seek, and the caller wants to go on.
    return openAt(m_opened && m_facts.isHttp && m_facts.byteSeekable ? m_position : 0);
}

Outcome InterruptibleStream::read(unsigned char* buffer, unsigned int size, unsigned int& count)
{
    count = 0;
    const Outcome opened = open();
    if (opened != Outcome::kDone) {
        return opened;
    }
    const Outcome outcome = result(m_session->read(buffer, size, count));
    m_position += count;
    return outcome;
}

Outcome InterruptibleStream::seek(long long position)
{
    if (!isOpen() && m_opened && m_facts.isHttp && m_facts.byteSeekable) {
        return openAt(position);
    }
    const Outcome opened = open();
    if (opened != Outcome::kDone) {
        return opened;
    }
    const Outcome outcome = result(m_session->seek(position));
    if (outcome == Outcome::kDone) {
        m_position = position;
    }
    return outcome;
}

Outcome InterruptibleStream::seekTime(unsigned int milliseconds)
{
    for (int attempt = 0;; ++attempt) {
        const Outcome opened = isOpen() ? Outcome::kDone : openAt(0);
        if (opened != Outcome::kDone) {
            return opened;
        }
        const Outcome outcome = result(m_session->seekTime(milliseconds));
        if (outcome == Outcome::kDone) {
            m_position = std::max(m_session->position(), 0LL);
        }
        if (outcome != Outcome::kFailed || m_error != EBUSY || attempt > 0) {
            return outcome;
        }
        replaceSession(nullptr);
    }
}

void InterruptibleStream::interrupt()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_interrupted = true;
    if (m_session != nullptr) {
        m_session->interrupt();
    }
}

void InterruptibleStream::proceed()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_interrupted = false;
    if (m_session != nullptr) {
        m_session->proceed();
    }
}

void InterruptibleStream::hold(bool on)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_session != nullptr) {
        m_session->hold(on);
    }
}

} // namespace player
