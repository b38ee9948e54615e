#include "mdp_thread.h"

#include "mdp_debug.h"
#include "mdp_lockorder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

MdpMutex::MdpMutex(MdpLockLevel level) : m_level(level)
{
    pthread_mutex_init(&m_mutex, nullptr);
}

MdpMutex::~MdpMutex()
{
    pthread_mutex_destroy(&m_mutex);
}

MdpLock::MdpLock(MdpMutex& mutex) : MdpLock(mutex.native(), mutex.level()) {}

MdpLock::MdpLock(pthread_mutex_t& mutex, MdpLockLevel level) : m_mutex(mutex), m_level(level)
{
    lock();
}

MdpLock::~MdpLock()
{
    if (m_owns) {
        unlock();
    }
}

void MdpLock::lock()
{
    mdpLockOrderCheck(&m_mutex, m_level);
    pthread_mutex_lock(&m_mutex);
    mdpLockOrderAdd(&m_mutex, m_level);
    m_owns = true;
}

void MdpLock::unlock()
{
    m_owns = false;
    mdpLockOrderRemove(&m_mutex, m_level);
    pthread_mutex_unlock(&m_mutex);
}

int MdpLock::wait(pthread_cond_t& condition, const timespec* deadline)
{
    mdpLockOrderCheckHeldOnce(&m_mutex, m_level);
    return deadline != nullptr ? pthread_cond_timedwait(&condition, &m_mutex, deadline)
                               : pthread_cond_wait(&condition, &m_mutex);
}

MdpFairMutex::MdpFairMutex(MdpLockLevel level) : m_level(level)
{
    pthread_mutex_init(&m_mutex, nullptr);
    pthread_cond_init(&m_turn, nullptr);
}

MdpFairMutex::~MdpFairMutex()
{
    pthread_cond_destroy(&m_turn);
    pthread_mutex_destroy(&m_mutex);
}

void MdpFairMutex::lock()
{
    mdpLockOrderCheck(this, m_level);
    pthread_mutex_lock(&m_mutex);
    const std::uint64_t ticket = m_nextTicket++;
    while (ticket != m_nowServed) {
        pthread_cond_wait(&m_turn, &m_mutex);
    }
    pthread_mutex_unlock(&m_mutex);
    mdpLockOrderAdd(this, m_level);
}

void MdpFairMutex::unlock()
{
    mdpLockOrderRemove(this, m_level);
    pthread_mutex_lock(&m_mutex);
    ++m_nowServed;
    if (m_nextTicket != m_nowServed) {
        pthread_cond_broadcast(&m_turn);
    }
    pthread_mutex_unlock(&m_mutex);
}

namespace {

// Blocks all signals but those that a thread's own fault raises, and restores the mask at the end. The new
// thread inherits the mask, so there is no moment in which it could take a signal.
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
            sigdelset(&blocked, fault);
        }
        pthread_sigmask(SIG_SETMASK, &blocked, &m_former);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_former, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t m_former{};
};

class ThreadAttributes
{
public:
    ThreadAttributes()
    {
        pthread_attr_init(&m_attributes);
        pthread_attr_setinheritsched(&m_attributes, PTHREAD_EXPLICIT_SCHED);
    }
    ~ThreadAttributes() { pthread_attr_destroy(&m_attributes); }
    ThreadAttributes(const ThreadAttributes&) = delete;
    ThreadAttributes& operator=(const ThreadAttributes&) = delete;

    const pthread_attr_t* get() const { return &m_attributes; }

private:
    pthread_attr_t m_attributes{};
};

constexpr unsigned int kUnusable = 1000;

} // namespace

MdpThread::~MdpThread()
{
    join();
}

int MdpThread::start(const char* name, const char* file, int line, Entry entry, void* argument)
{
    if (m_running) {
        return EBUSY;
    }
    const ThreadAttributes attributes;
    const SignalsBlocked blocked;
    const int result = pthread_create(&m_thread, attributes.get(), entry, argument);
    if (result != 0) {
        mdpDebugPrintf(kUnusable, "%s:%d: cannot create thread %s: %s\n", file, line, name,
                       std::strerror(result));
        return result;
    }
    m_running = true;
    std::array<char, 16> shortName{};
    std::strncpy(shortName.data(), name, shortName.size() - 1);
    pthread_setname_np(m_thread, shortName.data());
    return 0;
}

bool MdpThread::joinUntil(const timespec* deadline)
{
    if (m_running) {
        const int result = deadline != nullptr ? pthread_timedjoin_np(m_thread, nullptr, deadline)
                                               : pthread_join(m_thread, nullptr);
        m_running = result != 0;
    }
    return !m_running;
}
