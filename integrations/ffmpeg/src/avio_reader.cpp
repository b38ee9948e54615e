#include "avio_reader.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <utility>

extern "C" {
#include <libavutil/error.h>
}

namespace avio {

namespace {

using Effect = Worker::Effect;

constexpr std::chrono::milliseconds kAskAgain{20};
constexpr std::chrono::milliseconds kGrace{100}; // for a thread that is to end

// While it lives, threads are made that no signal of the application's reaches.
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_former);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_former, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t m_former{};
};

} // namespace

Reader::Reader(Settings settings, AVIOInterruptCB interrupt)
    : m_interrupt(interrupt), m_title(settings.options.title), m_titleOpaque(settings.options.titleOpaque),
      m_worker(std::make_shared<Worker>(std::move(settings)))
{
    const SignalsBlocked blocked;
    m_thread = std::thread([worker = m_worker] { worker->run(); });
}

Reader::~Reader()
{
    m_worker->stop();
    {
        Worker::Lock lock = m_worker->lock();
        if (!m_worker->changed().wait_for(lock, kGrace, [this] { return m_worker->hasStopped(); })) {
            m_thread.detach(); // a file system does not answer
            return;
        }
    }
    m_thread.join();
}

bool Reader::isInterrupted() const
{
    return m_interrupt.callback != nullptr && m_interrupt.callback(m_interrupt.opaque) != 0;
}

// False: interrupted.
template <class Predicate>
bool Reader::waitUntil(Worker::Lock& lock, Predicate predicate)
{
    if (m_interrupt.callback == nullptr) {
        m_worker->changed().wait(lock, predicate);
        return true;
    }
    do {
        lock.unlock();
        const bool interrupted = isInterrupted();
        lock.lock();
        if (interrupted) {
            return false;
        }
    } while (!m_worker->changed().wait_for(lock, kAskAgain, predicate));
    return true;
}

std::int64_t Reader::perform(Worker::Lock& lock, Worker::Effect effect, Worker::Task task)
{
    const auto isIdle = [this] { return !m_worker->isBusy(); };
    if (!waitUntil(lock, isIdle)) { // for one that was interrupted
        return AVERROR_EXIT;
    }
    m_worker->addTask(std::move(task), effect);
    return waitUntil(lock, isIdle) ? m_worker->result() : AVERROR_EXIT;
}

int Reader::open()
{
    Worker::Lock lock = m_worker->lock();
    return static_cast<int>(perform(lock, Effect::moves, [](Stream& stream) { return stream.open(); }));
}

// A short way forward, within what the worker has read already. False: the stream has to move.
bool Reader::skipTo(std::int64_t target)
{
    if (m_worker->isBusy() || m_worker->position() != m_position || target < m_position ||
        target > m_worker->end()) {
        return false;
    }
    while (m_position < target) {
        m_position += static_cast<std::int64_t>(
            m_worker->fifo().take(nullptr, static_cast<std::size_t>(target - m_position)));
    }
    return true;
}

int Reader::moveTo(Worker::Lock& lock, std::int64_t target)
{
    return static_cast<int>(
        perform(lock, Effect::moves, [target](Stream& stream) { return stream.seek(target); }));
}

int Reader::read(unsigned char* buffer, int size)
{
    Worker::Lock lock = m_worker->lock();
    if (!waitUntil(lock, [this] { return !m_worker->isBusy(); })) {
        return AVERROR_EXIT;
    }
    if (m_worker->position() != m_position) {
        const int moved = moveTo(lock, m_position);
        if (moved < 0) {
            return moved;
        }
    }
    int end = 0;
    const bool ready = waitUntil(lock, [&] {
        if (m_worker->fifo().bytes() > 0) {
            return true;
        }
        end = m_worker->takeEnd();
        if (end == 0) {
            m_worker->askForBytes(static_cast<std::size_t>(size));
        }
        return end != 0;
    });
    if (!ready) {
        return AVERROR_EXIT;
    }
    if (end != 0) {
        return end;
    }
    const std::size_t count = m_worker->fifo().take(buffer, static_cast<std::size_t>(size));
    m_position += static_cast<std::int64_t>(count);
    std::vector<md::IcyTitle> titles = m_worker->takeTitles();
    lock.unlock();
    announceTitles(std::move(titles));
    return static_cast<int>(count);
}

// Those whose first byte has been read by now; the others wait.
void Reader::announceTitles(std::vector<md::IcyTitle> titles)
{
    m_titles.insert(m_titles.end(), std::make_move_iterator(titles.begin()),
                    std::make_move_iterator(titles.end()));
    std::size_t due = 0;
    while (due < m_titles.size() && m_titles[due].position < m_position) {
        if (m_title != nullptr) {
            m_title(m_titleOpaque, m_titles[due].title.c_str(), m_titles[due].url.c_str());
        }
        ++due;
    }
    m_titles.erase(m_titles.begin(), m_titles.begin() + static_cast<std::ptrdiff_t>(due));
}

std::int64_t Reader::seek(std::int64_t offset, int whence)
{
    if (whence == SEEK_CUR && offset == 0) {
        return m_position;
    }
    Worker::Lock lock = m_worker->lock();
    std::int64_t base = 0;
    if (whence == SEEK_CUR) {
        base = m_position;
    } else if (whence == SEEK_END || whence == AVSEEK_SIZE) {
        base = perform(lock, Effect::stays, [](Stream& stream) -> std::int64_t {
            const std::int64_t size = stream.size();
            return size >= 0 ? size : AVERROR(ENOSYS);
        });
        if (base < 0 || whence == AVSEEK_SIZE) {
            return base;
        }
    } else if (whence != SEEK_SET) {
        return AVERROR(EINVAL);
    }
    std::int64_t target = 0;
    if (__builtin_add_overflow(base, offset, &target) || target < 0) {
        return AVERROR(EINVAL);
    }
    if (!skipTo(target)) {
        const int moved = moveTo(lock, target);
        if (moved < 0) {
            return moved;
        }
        m_position = target;
    }
    return target;
}

int Reader::seekTime(std::uint32_t milliseconds)
{
    Worker::Lock lock = m_worker->lock();
    const auto result = static_cast<int>(perform(
        lock, Effect::moves, [milliseconds](Stream& stream) { return stream.seekTime(milliseconds); }));
    if (result == 0) {
        m_position = m_worker->position();
    }
    return result;
}

int Reader::setPaused(bool paused)
{
    Worker::Lock lock = m_worker->lock();
    return static_cast<int>(
        perform(lock, Effect::stays, [paused](Stream& stream) { return stream.setPaused(paused); }));
}

Abilities Reader::abilities()
{
    const Worker::Lock lock = m_worker->lock();
    return m_worker->abilities();
}

} // namespace avio
