/*
 * What a context's callbacks do: every one of them asks the worker, and waits for it until it is interrupted.
 *
 * The reader's position is that of the context: when an interrupted seek has moved the stream all the same, the next
 * read moves it back first.
 */
#ifndef MDCH_AVIO_READER_H
#define MDCH_AVIO_READER_H

#include "avio_worker.h"

#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace avio {

class Reader
{
public:
    Reader(Settings settings, AVIOInterruptCB interrupt);
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Results as read_packet, seek and read_seek give them.
    int open();
    int read(unsigned char* buffer, int size);
    std::int64_t seek(std::int64_t offset, int whence);
    int seekTime(std::uint32_t milliseconds);
    int setPaused(bool paused);

    Abilities abilities();

private:
    template <class Predicate>
    bool waitUntil(Worker::Lock& lock, Predicate predicate);
    std::int64_t perform(Worker::Lock& lock, Worker::Effect effect, Worker::Task task);
    bool skipTo(std::int64_t target);
    int moveTo(Worker::Lock& lock, std::int64_t target);
    bool isInterrupted() const;
    void announceTitles(std::vector<md::IcyTitle> titles);

    const AVIOInterruptCB m_interrupt;
    void (*const m_title)(void*, const char*, const char*);
    void* const m_titleOpaque;
    const std::shared_ptr<Worker> m_worker;
    std::thread m_thread;
    std::int64_t m_position = 0;
    std::vector<md::IcyTitle> m_titles; // of bytes that have not been read
};

} // namespace avio

#endif
