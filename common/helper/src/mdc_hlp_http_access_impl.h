/*
 * What the units of md::HttpAccess share: the engine singleton, and the waits.
 */
#ifndef MDC_HLP_HTTP_ACCESS_IMPL_H
#define MDC_HLP_HTTP_ACCESS_IMPL_H

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_http_curl.h"
#include "mdp_thread.h"

#include <cstdint>
#include <ctime>

namespace md {

/*
 * The engine as the streams see it: it numbers them and owns the worker thread. One exists at a time; made,
 * used for numbering and destroyed under the class mutex.
 */
class HttpAccessImpl
{
public:
    static constexpr std::int32_t kFirstNumber = 100;

    explicit HttpAccessImpl(std::uint32_t run) : m_run(run) {}
    virtual ~HttpAccessImpl() = default;
    HttpAccessImpl(const HttpAccessImpl&) = delete;
    HttpAccessImpl& operator=(const HttpAccessImpl&) = delete;

    std::int32_t takeNumber() { return m_nextNumber++; }
    MdpThread& worker() { return m_worker; }
    std::uint32_t run() const { return m_run; }

private:
    std::int32_t m_nextNumber = kFirstNumber;
    MdpThread m_worker;
    std::uint32_t m_run; // counts engines: numbers start over with each
};

/* CLOCK_REALTIME in that many seconds; far away rather than overflowing. */
timespec deadlineIn(std::int64_t seconds);

/* Likewise, in that many milliseconds. */
timespec deadlineInMilliseconds(long milliseconds);

/* Moves a deadline on by that many seconds. */
void extendDeadline(timespec& deadline, std::int64_t seconds);

/*
 * Waits until the response header is complete or the transfer has ended. lock holds the descriptor's mutex,
 * once. Returns 0, -EAGAIN (never opened, or no connection and no wait allowed) or -EFAULT (timed out), which
 * the descriptor's error then tells, too.
 */
int waitForHeader(MdchCurlDescriptor_struct& desc, MdpLock& lock);

template <class Result, class Action>
Result HttpAccess::onTransfer(Result ifClosed, Result ifGone, Action action)
{
    MdchDescriptorPtr desc;
    if (!lookUp(desc)) {
        return ifClosed;
    }
    if (desc == nullptr) {
        return ifGone;
    }
    MdpLock lock = lockDescriptor(*desc);
    return action(desc, lock);
}

} // namespace md

#endif
