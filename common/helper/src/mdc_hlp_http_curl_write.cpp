#include "mdc_hlp_http_curl_engine.h"
#include "mdc_hlp_http_curl_news.h"
#include "mdc_hlp_trace.h"

#include <algorithm>
#include <array>
#include <cstdlib>

namespace {

using md::MdchCurlDescriptor_struct;

constexpr std::size_t kRefillStep = 1024;

// False: there is no memory for it.
bool provideBackBuffer(MdchCurlDescriptor_struct& desc)
{
    if (desc.backBufferMemory == nullptr) {
        desc.backBufferMemory = static_cast<unsigned char*>(std::malloc(md::kBackBufferSize));
        if (desc.backBufferMemory == nullptr) {
            return false;
        }
        desc.backBuffer.init(desc.backBufferMemory, md::kBackBufferSize);
    }
    return true;
}

// Bytes of a block that are dropped before it is stored: first what the server sent before the position asked
// for, then what a seek skips.
std::size_t takeSkip(MdchCurlDescriptor_struct& desc, std::size_t size, const char* function)
{
    const auto leading = std::min<std::int64_t>(desc.leadingSkip, static_cast<std::int64_t>(size));
    desc.leadingSkip -= leading;
    auto skipped = static_cast<std::size_t>(leading);
    if (desc.skipBytes <= 0 || skipped == size) {
        return skipped;
    }
    const std::size_t rest = size - skipped;
    MDCH_TRACE(md::kTraceCall, "%s(): skip bytes after seek. fd %i. %i bytes.\n", function, desc.fd,
               desc.skipBytes);
    if (static_cast<std::size_t>(desc.skipBytes) >= rest) {
        MDCH_TRACE(md::kTraceCall, "%s(): more bytes to skip as received. fd %i. %i bytes, skip %i.\n",
                   function, desc.fd, static_cast<int>(rest), desc.skipBytes);
        desc.skipBytes -= static_cast<std::int32_t>(rest);
        return size;
    }
    skipped += static_cast<std::size_t>(desc.skipBytes);
    desc.skipBytes = 0;
    return skipped;
}

// Stores a block behind its skipped bytes. Returns the bytes taken of it, 0 on failure.
std::size_t store(MdchCurlDescriptor_struct& desc, MdpRingBuffer& target, const char* data, std::size_t size,
                  const char* function)
{
    const std::size_t skipped = takeSkip(desc, size, function);
    if (skipped == size) {
        return size;
    }
    const ssize_t stored = target.enqueue(data + skipped, size - skipped);
    if (stored < 1) {
        const auto error = static_cast<std::int32_t>(-stored);
        MDCH_TRACE(md::kTraceError, "%s(): cannot enqueue data into the ringbuffer on fd %i: %i\n", function,
                   desc.fd, error);
        desc.error = error;
        return 0;
    }
    desc.writePos += stored;
    if (!desc.acceptAfterDone) {
        desc.error = 0;
    }
    return static_cast<std::size_t>(stored) + skipped;
}

std::size_t pauseOnFullBuffer(const md::MdchDescriptorPtr& descriptor, const char* function)
{
    MdchCurlDescriptor_struct& desc = *descriptor;
    desc.pausePending = false;
    desc.paused = 1;
    desc.state = md::kStatePaused;
    MDCH_TRACE(md::kTraceCall, "%s(): pause connection on fd %i\n", function, desc.fd);
    md::tellAll(descriptor); // a reader that misses bytes resumes it
    return CURL_WRITEFUNC_PAUSE;
}

std::size_t writeBlock(const md::MdchDescriptorPtr& descriptor, const char* data, std::size_t size,
                       const char* function)
{
    MdchCurlDescriptor_struct& desc = *descriptor;
    const auto ignore = [&desc, size, function] {
        MDCH_TRACE(md::kTraceCall, "%s(): connection already done on fd %i. ignore %u bytes.\n", function,
                   desc.fd, static_cast<unsigned int>(size));
        return size;
    };
    if (desc.misplaced) {
        return 0; // nothing of this body can be used: libcurl ends it
    }
    if (desc.state == md::kStateFinalise) {
        return ignore(); // closed: a pause would bring the state back
    }
    const bool pausedAtEntry = desc.paused != 0;
    MdpRingBuffer* target = &desc.ringBuffer;
    // What came during a pause must leave before what comes now, so it is followed up even after the resume.
    const bool wantsBackBuffer = desc.pauseBuffering && pausedAtEntry;
    if (!wantsBackBuffer && desc.backBuffer.usedBytes() > 0) {
        mdchHttpCurl_refillFromBackBuffer(desc);
    }
    if (wantsBackBuffer || desc.backBuffer.usedBytes() > 0) {
        if (!provideBackBuffer(desc)) {
            MDCH_TRACE(md::kTraceError, "%s(): error obtaining backbuffer -> pause connection on fd %i\n",
                       function, desc.fd);
            return CURL_WRITEFUNC_PAUSE;
        }
        MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): Called. Using backbuffer fd: %i size: %i\n",
                   md::traceBaseName(__FILE__), __LINE__, function, desc.fd, static_cast<int>(size));
        target = &desc.backBuffer;
    }
    const bool hasRoomAtAll = target->usedBytes() + target->availableBytes() > 0;
    if ((pausedAtEntry && desc.pausePending) || (hasRoomAtAll && size > target->availableBytes())) {
        return pauseOnFullBuffer(descriptor, function);
    }
    if (size == 0) {
        return 0;
    }
    if (desc.done != 0 && !desc.acceptAfterDone) {
        return ignore();
    }
    if (desc.connected == 0 && desc.done == 0) {
        desc.connected = 1;
        desc.headerComplete = 1;
        md::tellAll(descriptor);
    }
    const std::size_t taken = store(desc, *target, data, size, function);
    md::tellOfData(descriptor);
    mdchHttpCurl_wakeSelectWaiters(desc, function);
    if (pausedAtEntry) {
        desc.pausePending = true;
    }
    desc.lastDataTime = time(nullptr);
    return taken;
}

} // namespace

std::size_t mdchHttpCurl_refillFromBackBuffer(MdchCurlDescriptor_struct& desc)
{
    std::array<unsigned char, kRefillStep> piece{};
    std::size_t moved = 0;
    while (desc.backBuffer.usedBytes() > 0 && desc.ringBuffer.availableBytes() > 0) {
        const std::size_t count =
            desc.backBuffer.dequeue(piece.data(), std::min(piece.size(), desc.ringBuffer.availableBytes()));
        desc.ringBuffer.enqueue(piece.data(), count);
        moved += count;
    }
    return moved;
}

size_t mdchHttpCurl_writeCallback(char* data, size_t size, size_t nmemb, void* userData)
{
    const std::int32_t fd = md::pointerAsNumber(userData);
    const std::size_t count = size * nmemb;
    MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): Called. fd: %i; size: %i\n", MDCH_HERE, fd,
               static_cast<int>(count));
    const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(fd);
    if (desc == nullptr) {
        return 0;
    }
    std::size_t taken = 0;
    {
        const MdpLock lock = md::lockDescriptor(*desc);
        taken = writeBlock(desc, data, count, __func__);
    }
    if (taken < count) {
        MDCH_TRACE(md::kTraceNotice, "%s(): receive buffer is filled up for fd %i. toCopy=%u copied=%u\n",
                   __func__, fd, static_cast<unsigned int>(count), static_cast<unsigned int>(taken));
    }
    return taken;
}
