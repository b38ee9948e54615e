#include "mdc_hlp_http_curl_engine.h"
#include "mdc_hlp_http_curl_option.h"
#include "mdc_hlp_trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <limits>

namespace {

using md::HttpEngine;
using md::MdchCurlDescriptor_struct;

// A Range never starts inside the last bytes of a known length: servers answer such requests with errors.
constexpr std::int64_t kTailBytes = 10;

// Runs action(engine, desc) with the engine and the descriptor locked, if there is a transfer to act on.
// A closed transfer, and one that outlived its engine, is left alone.
template <class Action>
std::int32_t onTransfer(const md::MdchDescriptorPtr& desc, const char* function, Action action)
{
    HttpEngine& engine = md::httpEngine();
    const MdpFairLock engineLock(engine.mutex);
    if (desc == nullptr || engine.multi == nullptr) {
        MDCH_TRACE(md::kTraceError, "%s(): requested seek without descriptor record or multi handle\n",
                   function);
        return -EINVAL;
    }
    const MdpLock lock = md::lockDescriptor(*desc);
    if (desc->state == md::kStateFinalise || desc->easy == nullptr) {
        return -EINVAL;
    }
    action(engine, *desc);
    return 0;
}

// The stream goes to another place: what is buffered does not stand there, and a read under way must not go on.
void leavePlace(MdchCurlDescriptor_struct& desc)
{
    ++desc.moveSerial;
    desc.ringBuffer.dequeue(nullptr, desc.ringBuffer.usedBytes());
    desc.backBuffer.dequeue(nullptr, desc.backBuffer.usedBytes());
}

// What every new request on the same handle starts with.
void restart(HttpEngine& engine, MdchCurlDescriptor_struct& desc)
{
    desc.done = 0;
    desc.headerComplete = 0;
    desc.headerBlockEnded = 1; // lines of a header that was cut off do not stay
    desc.closedInPause = false;
    desc.leadingSkip = 0;
    desc.resumed = false;
    desc.misplaced = false;
    md::addToMulti(engine, desc);
    desc.paused = 0;
    desc.pausePending = false;
    mdchHttpCurl_wakeupWorkerFor(desc);
}

void rebuildIfTimeSought(MdchCurlDescriptor_struct& desc, const char* function)
{
    if (desc.rebuildHeaders) {
        desc.rebuildHeaders = false;
        mdchHttpCurl_rebuildRequestHeaders(desc, nullptr, function);
    }
}

// Where to ask for the bytes from target on; sets how many of them are to be skipped.
std::int64_t requestPosition(MdchCurlDescriptor_struct& desc, std::int64_t target, const char* function)
{
    desc.skipBytes = 0;
    if (desc.length <= kTailBytes || target < desc.length - (kTailBytes - 1)) {
        return target;
    }
    // Far behind the end every byte that comes is skipped, however many that are.
    constexpr std::int64_t kMostSkip = std::numeric_limits<std::int32_t>::max();
    desc.skipBytes = static_cast<std::int32_t>(std::min(target - (desc.length - kTailBytes), kMostSkip));
    MDCH_TRACE(md::kTraceCall, "%s(): skip %d for seek to %lld on fd %i\n", function, desc.skipBytes,
               static_cast<long long>(target), desc.fd);
    return desc.length - kTailBytes;
}

void seekTo(HttpEngine& engine, MdchCurlDescriptor_struct& desc, std::int64_t target, const char* function)
{
    md::removeFromMulti(engine, desc);
    rebuildIfTimeSought(desc, function);
    const std::int64_t position = requestPosition(desc, target, function);
    MDCH_TRACE(md::kTraceNotice, "%s(): requested seek to pos %lld on fd %i (act pos: %lld)\n", function,
               static_cast<long long>(position), desc.fd, static_cast<long long>(desc.startPos));
    mdchHttpCurl_setRange(desc, position, function);
    leavePlace(desc);
    desc.writePos = target;
    desc.startPos = target;
    restart(engine, desc);
}

void seekToTime(HttpEngine& engine, MdchCurlDescriptor_struct& desc, std::uint32_t milliseconds,
                const char* function)
{
    constexpr std::uint32_t kPerSecond = 1000;
    md::removeFromMulti(engine, desc);
    desc.requestedStart = -1;
    desc.lacking &= ~static_cast<std::uint32_t>(md::kPartRange);
    md::setOption(desc, CURLOPT_RANGE, static_cast<char*>(nullptr), md::kPartRange);
    // The milliseconds stand as a plain number, without leading zeros: that is the form that goes out.
    std::array<char, 64> line{};
    std::snprintf(line.data(), line.size(), "TimeSeekRange.dlna.org: npt=%u.%u-", milliseconds / kPerSecond,
                  milliseconds % kPerSecond);
    mdchHttpCurl_rebuildRequestHeaders(desc, line.data(), function);
    desc.rebuildHeaders = true;
    leavePlace(desc);
    desc.writePos = 0;
    desc.startPos = 0;
    desc.skipBytes = 0;
    restart(engine, desc);
}

// Holds a transfer whose header has not come: the header is let through, for somebody may be waiting for it
// (a seek from another thread), and the first block of the body is refused.
void holdBehindHeader(HttpEngine& engine, MdchCurlDescriptor_struct& desc)
{
    md::addToMulti(engine, desc); // one that the worker has not started would never be from the paused state
    desc.pausePending = true;
}

void hold(HttpEngine& engine, MdchCurlDescriptor_struct& desc, const char* function)
{
    MDCH_TRACE(md::kTraceNotice, "%s(): pause on fd %i\n", function, desc.fd);
    const bool waitsForHeader = desc.headerComplete == 0 && desc.done == 0 && !desc.closedInPause;
    if ((desc.capabilities & MDCH_CAPABILITY_BYTE_SEEK) != 0 && !waitsForHeader) {
        MDCH_TRACE(md::kTraceNotice, "%s:%d:%s(): pause (by close) fd %i.\n", md::traceBaseName(__FILE__),
                   __LINE__, function, desc.fd);
        md::removeFromMulti(engine, desc);
        desc.closedInPause = true;
    } else {
        MDCH_TRACE(md::kTraceNotice, "%s:%d:%s(): pause (by pause) fd %i.\n", md::traceBaseName(__FILE__),
                   __LINE__, function, desc.fd);
        if (waitsForHeader) {
            holdBehindHeader(engine, desc);
        } else {
            curl_easy_pause(desc.easy, CURLPAUSE_ALL);
        }
    }
    desc.paused = 1;
    desc.state = md::kStatePaused;
}

// Whether the last byte has come: a request behind it would be refused, and what is buffered lost.
bool isCompletelyReceived(const MdchCurlDescriptor_struct& desc)
{
    const bool ended = desc.done != 0 && desc.connected != 0 && desc.error < MDCH_HTTP_ECERT;
    return ended || (desc.length > 0 && desc.writePos >= desc.length);
}

// Named as its traces name it.
void mdchHttpCurl_resumeFromPause(HttpEngine& engine, MdchCurlDescriptor_struct& desc)
{
    if (isCompletelyReceived(desc)) {
        desc.closedInPause = false;
        desc.paused = 0;
        desc.done = 1;
        desc.state = md::kStateRunning;
        pthread_cond_broadcast(&desc.cond);
        mdchHttpCurl_wakeSelectWaiters(desc, __func__);
        return;
    }
    rebuildIfTimeSought(desc, __func__);
    MDCH_TRACE(md::kTraceNotice, "%s(): resume to pos %lld on fd %i\n", __func__,
               static_cast<long long>(desc.writePos), desc.fd);
    desc.skipBytes = 0; // what a seek wanted skipped lies in front of writePos
    mdchHttpCurl_setRange(desc, desc.writePos, __func__);
    restart(engine, desc);
    desc.resumed = true;
}

} // namespace

void mdchHttpCurl_doSeek(const boost::shared_ptr<MdchCurlDescriptor_struct>& desc, long long target)
{
    const char* function = __func__;
    onTransfer(desc, function, [&](HttpEngine& engine, MdchCurlDescriptor_struct& locked) {
        if (target >= 0) {
            seekTo(engine, locked, target, function);
        }
    });
}

void mdchHttpCurl_doSeekTime(const boost::shared_ptr<MdchCurlDescriptor_struct>& desc, std::uint32_t target)
{
    const char* function = __func__;
    onTransfer(desc, function, [&](HttpEngine& engine, MdchCurlDescriptor_struct& locked) {
        seekToTime(engine, locked, target, function);
    });
}

std::int32_t mdchHttpCurl_pause(const boost::shared_ptr<MdchCurlDescriptor_struct>& desc)
{
    const char* function = __func__;
    return onTransfer(desc, function, [&](HttpEngine& engine, MdchCurlDescriptor_struct& locked) {
        hold(engine, locked, function);
    });
}

std::int32_t mdchHttpCurl_resume(const boost::shared_ptr<MdchCurlDescriptor_struct>& desc)
{
    const char* function = __func__;
    return onTransfer(desc, function, [&](HttpEngine& engine, MdchCurlDescriptor_struct& locked) {
        MDCH_TRACE(md::kTraceCall, "%s(): resume on fd %i\n", function, locked.fd);
        if (locked.paused == 0) {
            MDCH_TRACE(md::kTraceNotice, "%s:%d:%s(): can't resume (not paused). fd %i.\n",
                       md::traceBaseName(__FILE__), __LINE__, function, locked.fd);
        } else if (!locked.closedInPause) {
            MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): resume (from pause) fd %i. state=%i\n",
                       md::traceBaseName(__FILE__), __LINE__, function, locked.fd, locked.state);
            locked.paused = 0;
            mdchHttpCurl_wakeupWorkerFor(locked);
        } else {
            MDCH_TRACE(md::kTraceNotice, "%s:%d:%s(): resume (from close) fd %i.\n",
                       md::traceBaseName(__FILE__), __LINE__, function, locked.fd);
            mdchHttpCurl_resumeFromPause(engine, locked);
        }
    });
}
