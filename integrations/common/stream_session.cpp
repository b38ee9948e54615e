#include "stream_session.h"

#include "response_header.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <strings.h>
#include <system_error>
#include <utility>

namespace player {

namespace {

// What a read of a local file may still take when its session ends.
constexpr std::chrono::milliseconds kPatience{50};

bool isUdp(const std::string& url)
{
    return strncasecmp(url.c_str(), "udp://", 6) == 0;
}

} // namespace

StreamSession::StreamSession(std::string url, StreamSettings settings)
    : m_url(std::move(url)), m_settings(std::move(settings)),
      m_stream(MdchUrlBase::createInstance(m_url.c_str())),
      m_http(dynamic_cast<md::HttpAccess*>(m_stream.get())), m_isDatagrams(isUdp(m_url))
{
}

// Waits for nothing. Under the mutex: a close that came first, by an interrupt or the end, would be undone by it.
int StreamSession::startTransfer(long long position, Lock& /*lock*/)
{
    const bool fits = position <= std::numeric_limits<int>::max();
    return std::min(m_http->open(m_url.c_str(), nullptr, 0, fits ? static_cast<int>(position) : 0), 0);
}

// The start takes no position beyond an int; a seek does.
int StreamSession::finishStart(long long position)
{
    if (position <= std::numeric_limits<int>::max()) {
        return 0;
    }
    return m_http->seek(position, SEEK_SET) == 0 ? 0 : reasonOfFailure();
}

Outcome StreamSession::beginMove(Lock& lock)
{
    // Files and volumes are for one thread at a time; and no two may move an HTTP stream.
    m_changed.wait(lock,
                   [this] { return m_interrupted || (!m_restarting && (m_http != nullptr || !m_fetching)); });
    if (m_broken || m_interrupted) {
        return Outcome::kInterrupted;
    }
    m_moving = true;
    ++m_moves;
    m_wanted = 0;
    m_caught.reset(); // it stood at the place that is left
    return Outcome::kDone;
}

Outcome StreamSession::endMove(Lock& lock, int error)
{
    lock.lock();
    m_moving = false;
    m_error = error;
    noteUse(lock);
    m_changed.notify_all();
    if (m_broken) {
        return Outcome::kInterrupted;
    }
    return error == 0 ? Outcome::kDone : Outcome::kFailed;
}

Outcome StreamSession::open(long long position)
{
    Lock lock(m_mutex);
    if (beginMove(lock) != Outcome::kDone) {
        return Outcome::kInterrupted;
    }
    int error = 0;
    if (m_http != nullptr) {
        m_facts.isHttp = true;
        apply(m_settings, *m_http);
        error = startTransfer(position, lock);
        lock.unlock();
        error = error == 0 ? finishStart(position) : error;
    } else {
        lock.unlock();
        error = std::min(m_stream->open(m_url.c_str(), MDCH_MODE_READ), 0);
    }
    if (error == 0) {
        error = m_stream->error(); // waits for the response header
    }
    if (error >= 0 && error != EFAULT) { // after that time-out, each question would wait for the header anew
        learnFacts();
    }
    // One that broke off behind its header is open: reading gives what came of it, and goes on or tells.
    const bool hasBody = m_facts.httpStatus >= 200 && m_facts.httpStatus < 300;
    if (hasBody && (error == MDCH_HTTP_ENETWORK || error == MDCH_HTTP_ETRANSFER)) {
        error = 0;
    }
    const Outcome outcome = endMove(lock, error);
    m_opened = outcome == Outcome::kDone;
    return outcome;
}

void StreamSession::learnFacts()
{
    if (m_http != nullptr) {
        m_facts.httpStatus = std::max(m_http->getResponseCode(), 0);
        m_http->getHeaderList(m_facts.headerLines);
        m_version = versionOf(*m_http);
    }
    m_facts.size = m_stream->size();
    m_facts.byteSeekable = m_stream->isSeekable() == 1;
    const auto capability = static_cast<int>(m_stream->capability()); // negative: an error
    m_facts.timeSeekable = capability > 0 && (capability & MDCH_CAPABILITY_TIME_SEEK) != 0;
}

// What lies in the receive buffer is there without waiting.
unsigned int StreamSession::takeBuffered(unsigned char* buffer, unsigned int size)
{
    std::size_t used = 0;
    std::size_t room = 0;
    if (m_http == nullptr || m_isOther || m_http->getBufferLevel(used, room) != 0 || used == 0) {
        return 0;
    }
    const int count = m_http->read(buffer, static_cast<unsigned int>(std::min<std::size_t>(size, used)));
    return count > 0 ? static_cast<unsigned int>(count) : 0;
}

bool StreamSession::startThread(Lock& /*lock*/)
{
    if (m_thread.joinable()) {
        return true;
    }
    try {
        m_thread = std::thread(run, shared_from_this());
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

// What is held goes on by being used.
void StreamSession::noteUse(Lock& /*lock*/)
{
    m_lastUse = std::chrono::steady_clock::now();
    if (m_isHeld) {
        m_isHeld = false;
        m_changed.notify_all();
    }
}

Outcome StreamSession::read(unsigned char* buffer, unsigned int size, unsigned int& count)
{
    Lock lock(m_mutex);
    noteUse(lock);
    for (;;) {
        if (m_interrupted || m_broken) {
            return Outcome::kInterrupted;
        }
        if (m_caught) {
            Catch caught = std::move(*m_caught);
            m_caught.reset();
            lock.unlock();
            if (!isVoid(caught)) {
                return deliver(caught, buffer, size, count);
            }
            lock.lock();
            continue;
        }
        if (!m_fetching && m_wanted == 0) {
            lock.unlock();
            count = takeBuffered(buffer, size);
            lock.lock();
            if (count > 0) {
                return Outcome::kDone;
            }
            if (!startThread(lock)) {
                m_error = EAGAIN;
                return Outcome::kFailed;
            }
            m_wanted = size;
            m_changed.notify_all();
        }
        m_changed.wait(lock, [this] { return m_caught || m_interrupted || m_broken; });
    }
}

// What a read brought that was under way when the stream moved: is it from the old place?
bool StreamSession::isVoid(const Catch& caught) const
{
    if (caught.moves == m_moves) {
        return false;
    }
    const auto count = static_cast<long long>(caught.bytes.size());
    return count == 0 || m_stream->tell() != m_soughtTo + count;
}

Outcome StreamSession::deliver(Catch& caught, unsigned char* buffer, unsigned int size, unsigned int& count)
{
    const Outcome outcome = caught.outcome;
    m_error = caught.error;
    count = static_cast<unsigned int>(std::min<std::size_t>(caught.bytes.size(), size));
    std::copy_n(caught.bytes.begin(), count, buffer);
    if (count < caught.bytes.size() && !m_isDatagrams) { // a file was read for a caller with more room
        caught.bytes.erase(caught.bytes.begin(), caught.bytes.begin() + count);
        const Lock lock(m_mutex);
        m_caught = std::move(caught);
    } else if (outcome == Outcome::kDone) {
        count += takeBuffered(buffer + count, size - count);
    }
    return count > 0 ? Outcome::kDone : outcome;
}

// Of a seek: without waiting once more for a header that has not come.
int StreamSession::reasonOfFailure() const
{
    if (m_http == nullptr) {
        return errno != 0 ? errno : EIO;
    }
    m_http->fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 0);
    const int reason = m_http->error();
    applyTimeout(m_settings, *m_http);
    return reason != 0 ? reason : ESPIPE;
}

Outcome StreamSession::seek(long long position)
{
    Lock lock(m_mutex);
    if (beginMove(lock) != Outcome::kDone) {
        return Outcome::kInterrupted;
    }
    lock.unlock();
    errno = 0;
    int error = m_stream->seek(position, SEEK_SET) == 0 ? 0 : reasonOfFailure();
    if (isWorthAnotherTry(error, 0) && m_stream->tell() == position) {
        error = 0; // the stream stands there, without a transfer: the next read tries again
    }
    m_soughtTo = position;
    return endMove(lock, error);
}

Outcome StreamSession::seekTime(unsigned int milliseconds)
{
    Lock lock(m_mutex);
    if (m_fetching) {
        m_error = EBUSY;
        return Outcome::kFailed;
    }
    if (beginMove(lock) != Outcome::kDone) {
        return Outcome::kInterrupted;
    }
    lock.unlock();
    errno = 0;
    return endMove(lock, m_stream->seekTime(milliseconds) == 0 ? 0 : reasonOfFailure());
}

// What another try may mend, and whether there is one left behind so many.
bool StreamSession::isWorthAnotherTry(int error, int tries) const
{
    const bool mayHelp = error == EAGAIN || error == EFAULT || error == EINVAL ||
                         error == MDCH_HTTP_ENETWORK || error == MDCH_HTTP_ETRANSFER;
    return mayHelp && m_facts.isHttp && m_facts.byteSeekable &&
           (m_settings.retries < 0 || tries < m_settings.retries);
}

void StreamSession::interrupt()
{
    const Lock lock(m_mutex);
    m_interrupted = true;
    if (m_moving && m_http != nullptr) {
        m_broken = true;
        m_http->close(); // calls nobody back, and waits for nothing
    }
    m_changed.notify_all();
}

void StreamSession::proceed()
{
    const Lock lock(m_mutex);
    m_interrupted = false;
}

void StreamSession::hold(bool on)
{
    if (m_http == nullptr) {
        return; // nothing to hold: files wait, and datagrams do not
    }
    Lock lock(m_mutex);
    m_holdWanted = on;
    const bool mayHold = m_opened && !m_broken && !m_ending;
    if (mayHold && (!on || startThread(lock))) {
        m_changed.notify_all();
    }
}

bool StreamSession::isBroken() const
{
    const Lock lock(m_mutex);
    return m_broken;
}

void StreamSession::end()
{
    Lock lock(m_mutex);
    m_ending = true;
    m_changed.notify_all();
    lock.unlock();
    m_stream->close(); // ends the waits of network streams
    lock.lock();
    if (!m_thread.joinable()) {
        return;
    }
    // A local file that the system does not give (a stick that hangs, a pipe) cannot be called back. Its thread owns
    // all that it touches, and ends when the system lets it.
    const bool mayHang = m_http == nullptr && !m_isDatagrams;
    if (mayHang && !m_changed.wait_for(lock, kPatience, [this] { return !m_fetching; })) {
        m_thread.detach();
        return;
    }
    lock.unlock();
    m_thread.join();
}

} // namespace player
