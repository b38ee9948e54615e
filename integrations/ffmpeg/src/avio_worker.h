/*
 * The thread that waits in place of the context's user, who can be interrupted so.
 *
 * A task that its user no longer waits for goes on and ends; the next one stands behind it. Bytes are read when they
 * are asked for; datagrams also ahead of that, since they would be lost. One mutex guards everything that both threads
 * use. The worker owns the stream together with the reader: where a file system does not answer, the thread stays
 * behind with it.
 */
#ifndef MDCH_AVIO_WORKER_H
#define MDCH_AVIO_WORKER_H

#include "avio_fifo.h"
#include "avio_stream.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace avio {

/* What the context shows of the stream, as of the last task. */
struct Abilities
{
    bool seekable = false;
    bool timeSeekable = false;
    bool network = false;
};

class Worker
{
public:
    using Task = std::function<std::int64_t(Stream&)>;
    using Lock = std::unique_lock<std::mutex>;

    explicit Worker(Settings settings)
        : m_patience(settings.options.dataTimeout), m_stream(std::move(settings))
    {
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /* The thread's whole life. */
    void run();

    /* Any thread: ends run(), and what it waits for. */
    void stop();

    // For the user, who holds the lock and waits on changed() in between.
    Lock lock() { return Lock(m_mutex); }
    std::condition_variable& changed() { return m_changed; }

    /* What a task does to the place of the next byte. */
    enum class Effect
    {
        stays,
        moves // the bytes read so far are dropped
    };
    /* Not while isBusy(). */
    void addTask(Task task, Effect effect);
    bool isBusy() const { return m_task != nullptr; }
    std::int64_t result() const { return m_result; }

    /* At most so many, but a whole datagram. */
    void askForBytes(std::size_t size);
    /* AVERROR or AVERROR_EOF when asking for bytes came to an end, else 0; once. */
    int takeEnd();
    Fifo& fifo() { return m_fifo; }
    /* Of the first byte in the fifo, and behind the last. */
    std::int64_t end() const { return m_end; }
    std::int64_t position() const { return m_end - static_cast<std::int64_t>(m_fifo.bytes()); }
    Abilities abilities() const { return m_abilities; }
    std::vector<md::IcyTitle> takeTitles();
    bool hasStopped() const { return m_stopped; }

private:
    bool hasWork() const;
    void runTask(Lock& lock);
    void fill(Lock& lock);
    void store(std::vector<unsigned char> block, int count);

    const std::chrono::seconds m_patience;
    Stream m_stream;
    std::vector<unsigned char> m_room; // the thread's own

    std::mutex m_mutex; // guards what follows
    std::condition_variable m_work;
    std::condition_variable m_changed;
    bool m_stopping = false;
    bool m_stopped = false;
    Task m_task;
    Effect m_effect = Effect::stays;
    std::int64_t m_result = 0;
    std::size_t m_wanted = 0; // bytes
    std::chrono::steady_clock::time_point m_wantedSince;
    int m_endReason = 0;
    Fifo m_fifo;
    std::int64_t m_end = 0; // position behind the fifo
    Abilities m_abilities;
    std::vector<md::IcyTitle> m_titles;
};

} // namespace avio

#endif
