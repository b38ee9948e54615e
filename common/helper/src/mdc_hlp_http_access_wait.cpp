#include "mdc_hlp_http_access_impl.h"
#include "mdc_hlp_trace.h"

#include <cerrno>
#include <limits>

namespace md {

timespec deadlineIn(std::int64_t seconds)
{
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    extendDeadline(deadline, seconds);
    return deadline;
}

timespec deadlineInMilliseconds(long milliseconds)
{
    constexpr long kPerSecond = 1000;
    constexpr long kNanoseconds = 1000000;
    timespec deadline = deadlineIn(milliseconds / kPerSecond);
    deadline.tv_nsec += milliseconds % kPerSecond * kNanoseconds;
    if (deadline.tv_nsec >= kPerSecond * kNanoseconds) {
        deadline.tv_nsec -= kPerSecond * kNanoseconds;
        extendDeadline(deadline, 1);
    }
    return deadline;
}

void extendDeadline(timespec& deadline, std::int64_t seconds)
{
    time_t end = 0;
    if (__builtin_add_overflow(deadline.tv_sec, seconds, &end)) {
        end = std::numeric_limits<time_t>::max(); // 32-bit clocks: a far deadline is the last there is
    }
    deadline.tv_sec = end;
}

int waitForHeader(MdchCurlDescriptor_struct& desc, MdpLock& lock)
{
    if (desc.headerComplete != 0 || desc.done != 0) {
        return 0;
    }
    if (desc.url.empty()) {
        MDCH_TRACE(kTraceError, "%s(): no url specified on fd %i\n", __func__, desc.fd);
        return -EAGAIN;
    }
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    int result = 0;
    while (result == 0 && desc.headerComplete == 0) {
        if (desc.done != 0) {
            return 0;
        }
        if (desc.dataTimeout == 0) {
            if (desc.connected != 0) {
                return 0;
            }
            break;
        }
        MDCH_TRACE(kTraceCall, "%s(): wait for header on fd %i\n", __func__, desc.fd);
        // Anew on every pass: a transfer that keeps signalling is alive, and is waited for.
        extendDeadline(deadline, desc.headerTimeout);
        result = lock.wait(desc.cond, &deadline);
    }
    if (result == ETIMEDOUT) {
        MDCH_TRACE(kTraceError, "%s(): wait for header fd %i timed out\n", __func__, desc.fd);
        desc.error = EFAULT;
        return -EFAULT;
    }
    if (desc.connected != 0 || desc.done != 0) {
        return 0;
    }
    if (desc.headerComplete != 0) {
        MDCH_TRACE(kTraceNotice, "%s(): header complete on fd %i (redirect?)\n", __func__, desc.fd);
        return 0;
    }
    MDCH_TRACE(kTraceNotice, "%s(): no reconnect on fd %i up to now (done=%i)\n", __func__, desc.fd,
               desc.done);
    desc.error = EAGAIN;
    return -EAGAIN;
}

} // namespace md
