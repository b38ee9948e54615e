#include "mdc_hlp_http_access.h"
#include "mdc_hlp_http_access_impl.h"
#include "mdc_hlp_trace.h"

#include <cerrno>

namespace md {

namespace {

constexpr std::int64_t kReconnectSeconds = 10;

bool mayByteSeek(const MdchCurlDescriptor_struct& desc)
{
    return (desc.capabilities & MDCH_CAPABILITY_BYTE_SEEK) != 0;
}

// The end of a restart: 0 when the new header has come.
enum class Reconnect
{
    kDone,
    kFailed,
    kTimedOut
};

Reconnect waitForReconnect(MdchCurlDescriptor_struct& desc, MdpLock& lock, const timespec& deadline)
{
    while (desc.headerComplete == 0 && desc.done == 0) {
        if (lock.wait(desc.cond, &deadline) == ETIMEDOUT && desc.headerComplete == 0 && desc.done == 0) {
            return Reconnect::kTimedOut;
        }
    }
    return desc.headerComplete != 0 ? Reconnect::kDone : Reconnect::kFailed;
}

// Traces and result of a restart that did not succeed; function is the operation's name in the traces.
int failedReconnect(MdchCurlDescriptor_struct& desc, Reconnect outcome, const char* function)
{
    if (outcome == Reconnect::kTimedOut) {
        desc.error = ESPIPE;
        MDCH_TRACE(kTraceError, "%s(): seek timed out on fd %i\n", function, desc.fd);
    } else {
        MDCH_TRACE(kTraceError, "%s(): error during seek on fd %i\n", function, desc.fd);
    }
    return -ESPIPE;
}

int reconnectAt(const MdchDescriptorPtr& desc, MdpLock& lock, long long target, const char* function)
{
    lock.unlock(); // the engine's lock comes first in the order
    mdchHttpCurl_doSeek(desc, target);
    lock.lock();
    const timespec deadline = deadlineIn(kReconnectSeconds);
    MDCH_TRACE(kTraceCall, "%s(): wait for data in seek to %lld on %i\n", function, target, desc->fd);
    const Reconnect outcome = waitForReconnect(*desc, lock, deadline);
    if (outcome != Reconnect::kDone) {
        return failedReconnect(*desc, outcome, function);
    }
    MDCH_TRACE(kTraceNotice, "%s(): reconnected in seek to %lld on %i\n", function, target, desc->fd);
    return 0;
}

int internalSeek(const MdchDescriptorPtr& desc, MdpLock& lock, long long target)
{
    if (target < 0) {
        MDCH_TRACE(kTraceError, "%s(): cannot seek to negative offset %lli (fd: %i)\n", __func__, target,
                   desc->fd);
        desc->error = ESPIPE;
        return -ESPIPE;
    }
    const std::int64_t position = desc->startPos;
    if (target == position && (desc->length >= 0 || !mayByteSeek(*desc))) {
        MDCH_TRACE(kTraceCall, "%s(): seek to current position %lld on %i\n", __func__, target, desc->fd);
        return 0;
    }
    const std::size_t buffered = desc->ringBuffer.usedBytes();
    if (target > position && target - position < static_cast<std::int64_t>(buffered)) {
        const long long distance = target - position;
        MDCH_TRACE(kTraceCall, "%s(): skip %lld bytes on fd %i (act pos: %lld)\n", __func__, distance,
                   desc->fd, static_cast<long long>(position));
        desc->ringBuffer.dequeue(nullptr, static_cast<std::size_t>(distance));
        desc->startPos = target;
        ++desc->moveSerial;
        return 0;
    }
    return reconnectAt(desc, lock, target, __func__);
}

int refuse(MdchCurlDescriptor_struct& desc)
{
    MDCH_TRACE(kTraceError, "%s(): seek not allowed in stream (fd: %i)\n", "seek", desc.fd);
    desc.error = ESPIPE;
    return -ESPIPE;
}

int refuseWithoutLength(MdchCurlDescriptor_struct& desc)
{
    MDCH_TRACE(kTraceError, "%s(): cannot seek on stream without length (fd: %i)\n", "seek", desc.fd);
    desc.error = ESPIPE;
    return -ESPIPE;
}

// A target that no position can hold counts as negative: refused, and traced as such.
long long sum(long long position, long long offset)
{
    long long result = 0;
    return __builtin_add_overflow(position, offset, &result) ? -1 : result;
}

long long fromEnd(const MdchCurlDescriptor_struct& desc, long long offset)
{
    return desc.length >= 1 ? sum(desc.length, offset) : -1;
}

int seekFromUnknownEnd(const MdchDescriptorPtr& desc, MdpLock& lock, long long offset)
{
    if (!mayByteSeek(*desc)) {
        return refuseWithoutLength(*desc);
    }
    // The current position anew: the next response's header may bring the length.
    internalSeek(desc, lock, desc->startPos);
    waitForHeader(*desc, lock);
    if (desc->length < 0) {
        return refuseWithoutLength(*desc);
    }
    return mayByteSeek(*desc) ? internalSeek(desc, lock, fromEnd(*desc, offset)) : refuse(*desc);
}

long long seekTarget(const MdchCurlDescriptor_struct& desc, long long offset, int whence)
{
    switch (whence) {
    case SEEK_SET:
        return offset;
    case SEEK_CUR:
        return sum(desc.startPos, offset);
    case SEEK_END:
        return fromEnd(desc, offset);
    default:
        return -1;
    }
}

} // namespace

int HttpAccess::seek(long long offset, int whence)
{
    return onTransfer<int>(-EINVAL, 0, [&](const MdchDescriptorPtr& desc, MdpLock& lock) -> int {
        const int waited = waitForHeader(*desc, lock);
        if (waited < 0) {
            return waited;
        }
        MDCH_TRACE(kTraceCall, "%s(): got seek request on fd %i to %lld (whence: %i)\n", "seek", desc->fd,
                   offset, whence);
        if (whence == SEEK_END && desc->length < 0) {
            return seekFromUnknownEnd(desc, lock, offset);
        }
        if (!mayByteSeek(*desc)) {
            return refuse(*desc);
        }
        return internalSeek(desc, lock, seekTarget(*desc, offset, whence));
    });
}

int HttpAccess::seekTime(unsigned int ms)
{
    return onTransfer<int>(-EINVAL, 0, [&](const MdchDescriptorPtr& desc, MdpLock& lock) -> int {
        const int waited = waitForHeader(*desc, lock);
        if (waited < 0) {
            return waited;
        }
        const int time = static_cast<int>(ms);
        MDCH_TRACE(kTraceCall, "%s(): got time seek request on fd %i to %d ms\n", "seekTime", desc->fd, time);
        if ((desc->capabilities & MDCH_CAPABILITY_TIME_SEEK) == 0) {
            MDCH_TRACE(kTraceError, "%s(): time seek not allowed in stream (fd: %i)\n", "seekTime", desc->fd);
            desc->error = ESPIPE;
            return -ESPIPE;
        }
        lock.unlock(); // the engine's lock comes first in the order
        mdchHttpCurl_doSeekTime(desc, ms);
        lock.lock();
        const timespec deadline = deadlineIn(kReconnectSeconds);
        MDCH_TRACE(kTraceCall, "%s(): wait for data in time seek to %d on %i\n", "seekTime", time, desc->fd);
        const Reconnect outcome = waitForReconnect(*desc, lock, deadline);
        if (outcome != Reconnect::kDone) {
            return failedReconnect(*desc, outcome, "seekTime");
        }
        MDCH_TRACE(kTraceNotice, "%s(): reconnected in time seek to %d on %i\n", "seekTime", time, desc->fd);
        return 0;
    });
}

long long HttpAccess::tell()
{
    return onTransfer<long long>(
        -EINVAL, 0,
        [](const MdchDescriptorPtr& desc, MdpLock& /*lock*/) -> long long { return desc->startPos; });
}

long long HttpAccess::size()
{
    return onTransfer<long long>(-EINVAL, 0, [](const MdchDescriptorPtr& desc, MdpLock& lock) -> long long {
        const int waited = waitForHeader(*desc, lock);
        if (waited == -EAGAIN) {
            return waited;
        }
        if (desc->length < 0 && mayByteSeek(*desc)) {
            internalSeek(desc, lock, desc->startPos);
            waitForHeader(*desc, lock);
        }
        return desc->length;
    });
}

int HttpAccess::isSeekable()
{
    return onTransfer<int>(-EINVAL, 0, [](const MdchDescriptorPtr& desc, MdpLock& lock) -> int {
        waitForHeader(*desc, lock);
        return mayByteSeek(*desc) ? 1 : 0;
    });
}

unsigned int HttpAccess::capability()
{
    return onTransfer<unsigned int>(static_cast<unsigned int>(-EINVAL), 0,
                                    [](const MdchDescriptorPtr& desc, MdpLock& lock) -> unsigned int {
                                        waitForHeader(*desc, lock);
                                        return desc->capabilities;
                                    });
}

} // namespace md
