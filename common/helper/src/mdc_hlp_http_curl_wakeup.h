/*
 * How the worker is woken: a pipe that it waits on beside its sockets, and a note of what it was woken for.
 *
 * The note spares the worker a look at every transfer for each that somebody resumes or closes. Both are guarded by
 * the wake-up lock, the last in the order: any thread may wake the worker, whatever it holds.
 */
#ifndef MDC_HLP_HTTP_CURL_WAKEUP_H
#define MDC_HLP_HTTP_CURL_WAKEUP_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace md {

/* Numbers of transfers, or all of them. Has a fixed size: a wake-up must not need memory. */
class ChangedTransfers
{
public:
    /* Once there are too many to note, all are meant. */
    void add(std::int32_t number)
    {
        if (m_isAll || std::find(begin(), end(), number) != end()) {
            return;
        }
        if (m_count == m_numbers.size()) {
            addAll();
        } else {
            m_numbers[m_count++] = number;
        }
    }
    void addAll() { m_isAll = true; }
    void clear()
    {
        m_count = 0;
        m_isAll = false;
    }

    bool isAll() const { return m_isAll; }
    const std::int32_t* begin() const { return m_numbers.data(); }
    const std::int32_t* end() const { return m_numbers.data() + m_count; }

private:
    std::array<std::int32_t, 64> m_numbers{};
    std::size_t m_count = 0;
    bool m_isAll = false;
};

/* Both ends, closed with the last who holds it: a late wake-up must not write into whoever gets their numbers next. */
class WakeupPipe
{
public:
    /* Null, and errno set: there is none to be had. Throws std::bad_alloc. */
    static std::shared_ptr<const WakeupPipe> make();
    ~WakeupPipe();
    WakeupPipe(const WakeupPipe&) = delete;
    WakeupPipe& operator=(const WakeupPipe&) = delete;

    int readEnd() const { return m_readEnd; }
    int writeEnd() const { return m_writeEnd; }

private:
    WakeupPipe() = default;

    int m_readEnd = -1;
    int m_writeEnd = -1;
};

/* Empties the pipe, and hands over what the worker was woken for. Called by the worker. */
ChangedTransfers takeWakeups(int readEnd);

/* Lets go of the pipe, if there is one, and forgets the note. */
void closeWakeup();

} // namespace md

#endif
