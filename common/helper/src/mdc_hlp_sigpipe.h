/* Keeps SIGPIPE away from callers' threads while they close connections. */
#ifndef MDC_HLP_SIGPIPE_H
#define MDC_HLP_SIGPIPE_H

#include <csignal>
#include <ctime>

namespace md {

/*
 * Blocks SIGPIPE on this thread for the object's life, and takes away one that was raised meanwhile. libcurl
 * leaves the signal alone when it may use no signals, and OpenSSL writes a farewell to a peer that may be
 * gone.
 */
class SigpipeBlocked
{
public:
    SigpipeBlocked()
    {
        sigemptyset(&m_sigpipe);
        sigaddset(&m_sigpipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_sigpipe, &m_former);
    }
    ~SigpipeBlocked()
    {
        if (sigismember(&m_former, SIGPIPE) == 1) {
            return; // blocked before, so one that waits may be another's
        }
        const timespec now{};
        sigtimedwait(&m_sigpipe, nullptr, &now);
        pthread_sigmask(SIG_SETMASK, &m_former, nullptr);
    }
    SigpipeBlocked(const SigpipeBlocked&) = delete;
    SigpipeBlocked& operator=(const SigpipeBlocked&) = delete;

private:
    sigset_t m_sigpipe{};
    sigset_t m_former{};
};

} // namespace md

#endif
