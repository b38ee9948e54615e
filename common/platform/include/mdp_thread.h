/*
 * Threads and locks of the platform.
 *
 * A lock may carry a level, an order number with a name. In debug builds (NDEBUG not defined) each thread's
 * held levels are tracked: taking a lock whose order is below one that the thread already holds prints both
 * names and aborts, so a broken lock order fails the first test that walks it instead of locking up a player
 * once a month. Locks without a level are not tracked.
 */
#ifndef MDP_THREAD_H
#define MDP_THREAD_H

#include <cstdint>
#include <pthread.h>
#include <time.h>

/* Place of a lock in the order in which locks are taken: lower first. Order 0 is not tracked. */
struct MdpLockLevel
{
    int order = 0;         // the place
    const char* name = ""; // static text, printed when the order is broken
};

/* A mutex (POSIX, default attributes: not recursive), destroyed with the object. */
class MdpMutex
{
public:
    /* Not locked. */
    explicit MdpMutex(MdpLockLevel level = {});
    ~MdpMutex();
    MdpMutex(const MdpMutex&) = delete;
    MdpMutex& operator=(const MdpMutex&) = delete;

    /* The POSIX mutex within, and the level given to the constructor; both live as long as the object. */
    pthread_mutex_t& native() { return m_mutex; }
    const MdpLockLevel& level() const { return m_level; }

private:
    pthread_mutex_t m_mutex{};
    MdpLockLevel m_level;
};

/*
 * Scoped guard of an MdpMutex, or of a POSIX mutex that stands in a record. Locks in the constructor,
 * unlocks in the destructor unless unlock() came first. One thread uses a guard; it is not copied.
 */
class MdpLock
{
public:
    /* Locks the mutex, which outlives the guard. level: that of a mutex without one of its own. */
    explicit MdpLock(MdpMutex& mutex);
    MdpLock(pthread_mutex_t& mutex, MdpLockLevel level);
    ~MdpLock();
    MdpLock(const MdpLock&) = delete;
    MdpLock& operator=(const MdpLock&) = delete;

    /* Lock again after an unlock, unlock before the destructor does; and whether it is locked now. */
    void lock();
    void unlock();
    bool ownsLock() const { return m_owns; }

    /*
     * Waits on the condition variable with the mutex released, until it is signalled (0) or the absolute
     * CLOCK_REALTIME deadline has passed (ETIMEDOUT); a null deadline waits without limit. Returns the
     * result of the POSIX wait. The mutex must be held once: a recursive mutex held twice would stay locked
     * during the wait; debug builds check this.
     */
    int wait(pthread_cond_t& condition, const timespec* deadline);

private:
    pthread_mutex_t& m_mutex;
    MdpLockLevel m_level;
    bool m_owns = false;
};

/*
 * A mutex that serves its callers in the order in which they came. A thread that releases it and asks for
 * it again at once queues behind those who wait, which a plain mutex does not promise.
 */
class MdpFairMutex
{
public:
    /* Not locked. */
    explicit MdpFairMutex(MdpLockLevel level = {});
    ~MdpFairMutex();
    MdpFairMutex(const MdpFairMutex&) = delete;
    MdpFairMutex& operator=(const MdpFairMutex&) = delete;

    /* lock waits for its turn, without limit; unlock serves the next in the queue. */
    void lock();
    void unlock();

private:
    pthread_mutex_t m_mutex{};
    pthread_cond_t m_turn{};
    std::uint64_t m_nextTicket = 0; // guarded by m_mutex, as is m_nowServed
    std::uint64_t m_nowServed = 0;
    MdpLockLevel m_level;
};

/* Scoped guard of an MdpFairMutex that can unlock and lock again. */
class MdpFairLock
{
public:
    /* Locks the mutex, which outlives the guard. */
    explicit MdpFairLock(MdpFairMutex& mutex) : m_fairMutex(mutex) { lock(); }
    ~MdpFairLock()
    {
        if (m_owns) {
            unlock();
        }
    }
    MdpFairLock(const MdpFairLock&) = delete;
    MdpFairLock& operator=(const MdpFairLock&) = delete;

    /* Locks again after an unlock. */
    void lock()
    {
        m_fairMutex.lock();
        m_owns = true;
    }
    /* Unlocks before the destructor does. */
    void unlock()
    {
        m_owns = false;
        m_fairMutex.unlock();
    }

private:
    MdpFairMutex& m_fairMutex;
    bool m_owns = false;
};

/*
 * One thread with a name. It runs with all signals blocked but those that a fault of its own raises, so a
 * process's signals reach the application's threads, and a broken connection cannot raise SIGPIPE on it.
 */
class MdpThread
{
public:
    /* What a thread runs; its result is not kept. */
    using Entry = void* (*)(void*);

    MdpThread() = default;
    ~MdpThread(); // joins
    MdpThread(const MdpThread&) = delete;
    MdpThread& operator=(const MdpThread&) = delete;

    /*
     * Starts entry(argument). name: at most 15 characters reach the system. file and line: where the thread
     * is created, for the trace of a failure. Scheduling attributes are explicit, not inherited. Returns 0, or
     * the errno value of the failed creation (EBUSY when the object already runs a thread).
     */
    int start(const char* name, const char* file, int line, Entry entry, void* argument);

    /*
     * Waits for the thread's end until an absolute CLOCK_REALTIME deadline (null: without limit). True when it
     * has ended, or none was running. Not from the thread itself.
     */
    bool joinUntil(const timespec* deadline);

    /* joinUntil without limit. */
    void join() { joinUntil(nullptr); }

    /* Whether a thread was started and not joined, and whether it is the caller. */
    bool isRunning() const { return m_running; }
    bool isCurrent() const { return m_running && pthread_equal(m_thread, pthread_self()) != 0; }

private:
    pthread_t m_thread{};
    bool m_running = false;
};

#endif
