#include "avio_worker.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <pthread.h>
#include <utility>

extern "C" {
#include <libavutil/error.h>
}

namespace avio {

namespace {

constexpr std::size_t kDatagram = 65536; // holds any
// A socket that gives nothing answers after half a second; one that answers at once is not asked all the time.
constexpr std::chrono::milliseconds kBetweenDatagrams{20};
constexpr std::size_t kMostAhead = std::size_t{4096} * 1024; // of datagrams

} // namespace

bool Worker::hasWork() const
{
    const bool ahead = m_abilities.network && m_stream.isDatagrams() && m_endReason == 0;
    return m_stopping || m_task != nullptr || m_wanted > 0 || (ahead && m_fifo.bytes() < kMostAhead);
}

void Worker::run()
{
    pthread_setname_np(pthread_self(), "mdch_avio");
    Lock lock(m_mutex);
    while (!m_stopping) {
        m_work.wait(lock, [this] { return hasWork(); });
        if (m_stopping) {
            break;
        }
        if (m_task != nullptr) {
            runTask(lock);
        } else {
            fill(lock);
        }
        m_changed.notify_all();
    }
    m_stopped = true;
    m_changed.notify_all();
}

void Worker::stop()
{
    {
        const Lock lock(m_mutex);
        m_stopping = true;
    }
    m_work.notify_all();
    m_stream.abandon();
}

void Worker::addTask(Task task, Effect effect)
{
    m_task = std::move(task);
    m_effect = effect;
    m_work.notify_all();
}

void Worker::runTask(Lock& lock)
{
    const Task task = m_task; // m_task stays until its end: busy
    std::int64_t result = AVERROR(ENOMEM);
    lock.unlock();
    try {
        result = task(m_stream);
    } catch (const std::bad_alloc&) {
        // as it stands
    }
    lock.lock();
    m_result = result;
    m_task = nullptr;
    if (m_effect == Effect::moves) {
        m_fifo.clear();
        m_end = m_stream.position();
        m_endReason = 0;
        m_wanted = 0;
    }
    m_abilities = {m_stream.isSeekable(), m_stream.isTimeSeekable(), m_stream.isNetwork()};
}

void Worker::askForBytes(std::size_t size)
{
    if (m_wanted == 0) {
        m_wanted = size;
        m_wantedSince = std::chrono::steady_clock::now();
        m_work.notify_all();
    }
}

int Worker::takeEnd()
{
    return std::exchange(m_endReason, 0);
}

std::vector<md::IcyTitle> Worker::takeTitles()
{
    return std::exchange(m_titles, {});
}

// Reads once.
void Worker::fill(Lock& lock)
{
    const std::size_t size = m_stream.isDatagrams() ? kDatagram : m_wanted;
    lock.unlock();
    try {
        m_room.resize(size);
        const int count = m_stream.read(m_room.data(), size);
        std::vector<unsigned char> block(m_room.begin(), m_room.begin() + std::max(count, 0));
        const std::vector<md::IcyTitle> titles = m_stream.takeTitles();
        lock.lock();
        m_titles.insert(m_titles.end(), titles.begin(), titles.end());
        store(std::move(block), count);
    } catch (const std::bad_alloc&) {
        if (!lock.owns_lock()) {
            lock.lock();
        }
        m_endReason = AVERROR(ENOMEM);
        m_wanted = 0;
    }
    m_abilities.seekable = m_stream.isSeekable();
    if (m_stream.isDatagrams() && m_fifo.bytes() == 0) {
        m_work.wait_for(lock, kBetweenDatagrams, [this] { return m_stopping || m_task != nullptr; });
    }
}

void Worker::store(std::vector<unsigned char> block, int count)
{
    if (count > 0) {
        m_fifo.push(std::move(block));
        m_end = m_stream.position();
        m_wanted = 0;
    } else if (count < 0) {
        m_endReason = count;
        m_wanted = 0;
    } else if (m_wanted > 0 && std::chrono::steady_clock::now() - m_wantedSince >= m_patience) {
        m_endReason = AVERROR(ETIMEDOUT);
        m_wanted = 0;
    }
}

} // namespace avio
