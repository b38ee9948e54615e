#include "mdc_hlp_http_curl_engine.h"
#include "mdc_hlp_http_curl_news.h"
#include "mdc_hlp_trace.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <unistd.h>
#include <vector>

namespace {

using md::HttpEngine;
using md::MdchCurlDescriptor_struct;

constexpr long kLongestWaitMs = 5000;
constexpr long kLongestWaitPollingMs = 50; // without the pipe, and when there is no memory to watch sockets
constexpr long kWaitWithoutTimeoutMs = 10000;
constexpr useconds_t kPollAgainMicroseconds = 10000;
constexpr time_t kContinueInPauseSeconds = 320;
constexpr time_t kCloseInPauseSeconds = 20;
constexpr const char* kThreadFunction = "mdchHttpCurl_fillBuffer"; // all worker traces bear its name

#define MDCH_WORKER_HERE md::traceBaseName(__FILE__), __LINE__, kThreadFunction

// What poll tells of a socket, for libcurl. A hang-up or an error counts as whatever is waited for: libcurl reads
// what is left, and then finds out itself.
int libcurlEvents(const pollfd& watched)
{
    constexpr short kTrouble = POLLERR | POLLHUP | POLLNVAL;
    const int told = (watched.revents & kTrouble) != 0 ? watched.events : watched.revents;
    return ((told & POLLIN) != 0 ? CURL_CSELECT_IN : 0) | ((told & POLLOUT) != 0 ? CURL_CSELECT_OUT : 0);
}

// A completion message of libcurl, and the request that it belongs to.
struct Completion
{
    md::MdchDescriptorPtr desc;
    std::uint64_t serial = 0;
    CURLMSG kind = CURLMSG_NONE;
    CURLcode result = CURLE_OK;
};

class Worker
{
public:
    Worker();

    /* One pass of the loop: act on states, drive the transfers, report their ends, sleep. False: shut down. */
    bool pass();

    /* Gives everything back: transfers, pipe, multi handle. */
    void finish();

private:
    using Clock = std::chrono::steady_clock;

    // What is left to do for a descriptor once its lock is released: both come to the registry's lock, which
    // stands before a descriptor's.
    enum class Rest
    {
        kNothing,
        kLetFlow,   // libcurl delivers held bytes at once, to a callback that looks the descriptor up
        kUnregister // it is finalised
    };

    void provideMulti();
    void actOnStates();
    void actOn(MdchCurlDescriptor_struct& desc);
    Rest actOnState(MdchCurlDescriptor_struct& desc);
    Rest actOnPaused(MdchCurlDescriptor_struct& desc);
    static void endStuck(MdchCurlDescriptor_struct& desc);
    void finalise(MdchCurlDescriptor_struct& desc);
    void drive();
    bool nextCompletion(Completion& completion);
    void report(const Completion& completion);
    bool provideRoom(std::size_t count);
    void prepareWait();
    void wait();

    HttpEngine& m_engine;
    CURLM* m_multi = nullptr; // the engine's, which is set to null before it is freed
    md::PassNews m_news;
    md::ChangedTransfers m_changed;       // whose state somebody changed
    std::vector<pollfd> m_watched;        // the wake-up pipe first, if there is one
    std::vector<std::uint64_t> m_serials; // of m_watched's sockets
    bool m_hasPipe = false;
    bool m_ready = false; // m_watched holds results of the last wait
    Clock::time_point m_lastLook;
    long m_waitMs = 0;
};

Worker::Worker() : m_engine(md::httpEngine())
{
    m_changed.addAll();
}

// Tried again in each pass and for each transfer, which otherwise ends as soon as it is to start. Under the engine's
// lock.
void Worker::provideMulti()
{
    if (m_multi != nullptr) {
        return;
    }
    m_multi = curl_multi_init();
    if (m_multi != nullptr && !m_engine.sockets.attach(m_multi)) {
        curl_multi_cleanup(m_multi);
        m_multi = nullptr;
    }
    m_engine.multi = m_multi;
}

bool Worker::pass()
{
    ++m_engine.passes;
    {
        MdpFairLock engineLock(m_engine.mutex);
        if (m_engine.shutdown) {
            return false;
        }
        m_news.begin();
        provideMulti();
        actOnStates();
        drive();
        Completion completion;
        while (nextCompletion(completion)) {
            engineLock.unlock();
            report(completion);
            completion = {};
            engineLock.lock();
        }
        prepareWait();
    }
    m_news.tell(); // unlocked: a reader may want the engine next
    wait();
    return true;
}

// States change only through calls that wake the worker; the timed rules of a pause want a look per beat.
void Worker::actOnStates()
{
    const auto now = Clock::now();
    const bool isBeat = now - m_lastLook >= std::chrono::milliseconds(kLongestWaitMs);
    if (m_changed.isAll() || isBeat || !m_hasPipe) {
        m_lastLook = now;
        md::MdchDescriptorPtr desc = md::nextDescriptor(md::kBeforeAll);
        for (; desc != nullptr; desc = md::nextDescriptor(desc->fd)) {
            actOn(*desc);
        }
    } else {
        for (const std::int32_t number : m_changed) {
            if (const md::MdchDescriptorPtr desc = md::findDescriptor(number)) {
                actOn(*desc);
            }
        }
    }
    m_changed.clear();
}

void Worker::actOn(MdchCurlDescriptor_struct& desc)
{
    MdpLock lock = md::lockDescriptor(desc);
    const Rest rest = actOnState(desc);
    CURL* easy = desc.easy; // the engine's lock keeps it alive
    lock.unlock();
    if (rest == Rest::kLetFlow) {
        if (curl_easy_pause(easy, CURLPAUSE_CONT) == CURLE_OUT_OF_MEMORY) {
            endStuck(desc);
        }
    } else if (rest == Rest::kUnregister) {
        md::unregisterDescriptor(desc);
        MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): connection is finalized on fd %i.\n", MDCH_WORKER_HERE,
                   desc.fd);
    }
}

Worker::Rest Worker::actOnState(MdchCurlDescriptor_struct& desc)
{
    switch (desc.state) {
    case md::kStateConfigured:
        MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): Start MultiHandle on fd %i.\n", MDCH_WORKER_HERE, desc.fd);
        desc.state = md::kStateRunning;
        provideMulti();
        md::addToMulti(m_engine, desc);
        return Rest::kNothing;
    case md::kStatePaused:
        return actOnPaused(desc);
    case md::kStateFinalise:
        finalise(desc);
        return Rest::kUnregister;
    default:
        return Rest::kNothing;
    }
}

Worker::Rest Worker::actOnPaused(MdchCurlDescriptor_struct& desc)
{
    if (desc.paused == 0) {
        MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): continue fd %i.\n", MDCH_WORKER_HERE, desc.fd);
        desc.state = md::kStateRunning; // before the bytes flow: their callback may pause again
        return Rest::kLetFlow;
    }
    if (!desc.pauseBuffering) {
        return Rest::kNothing;
    }
    const time_t idle = time(nullptr) - desc.lastDataTime;
    const bool seekable = (desc.capabilities & MDCH_CAPABILITY_BYTE_SEEK) != 0;
    if (!seekable && idle > kContinueInPauseSeconds) {
        // A server that cannot seek must not drop the connection: data flows into the back buffer.
        MDCH_TRACE(md::kTraceNotice, "%s:%d:%s(): continue (in pause) fd %i.\n", MDCH_WORKER_HERE, desc.fd);
        return Rest::kLetFlow;
    }
    if (seekable && idle > kCloseInPauseSeconds && !desc.closedInPause) {
        MDCH_TRACE(md::kTraceNotice, "%s:%d:%s(): close (in pause) fd %i.\n", MDCH_WORKER_HERE, desc.fd);
        md::removeFromMulti(m_engine, desc);
        desc.closedInPause = true;
    }
    return Rest::kNothing;
}

// A transfer that cannot flow for want of memory would never tell its readers.
void Worker::endStuck(MdchCurlDescriptor_struct& desc)
{
    const MdpLock lock = md::lockDescriptor(desc);
    if (desc.done == 0) {
        desc.done = 1;
        desc.error = MDCH_HTTP_EUNKNOWN;
        pthread_cond_broadcast(&desc.cond);
        mdchHttpCurl_wakeSelectWaiters(desc, kThreadFunction);
    }
}

void Worker::finalise(MdchCurlDescriptor_struct& desc)
{
    md::removeFromMulti(m_engine, desc);
    if (desc.easy != nullptr) {
        MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): Before cleanup of fd %i.\n", MDCH_WORKER_HERE, desc.fd);
        curl_easy_cleanup(desc.easy);
        desc.easy = nullptr;
    }
    MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): After cleanup of fd %i.\n", MDCH_WORKER_HERE, desc.fd);
    md::freeRequest(desc);
}

void Worker::drive()
{
    if (m_multi == nullptr) {
        return; // libcurl does not look
    }
    int running = 0;
    if (m_ready) {
        m_ready = false;
        for (std::size_t i = m_hasPipe ? 1 : 0; i < m_watched.size(); ++i) {
            const pollfd& watched = m_watched[i];
            // A seek may have closed the socket meanwhile, and opened another one of the same number.
            if (watched.revents != 0 && m_engine.sockets.isWatched(watched.fd, m_serials[i])) {
                curl_multi_socket_action(m_multi, watched.fd, libcurlEvents(watched), &running);
            }
        }
    }
    curl_multi_socket_action(m_multi, CURL_SOCKET_TIMEOUT, 0, &running);
}

// Caller holds the engine's lock.
bool Worker::nextCompletion(Completion& completion)
{
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(m_multi, &left)) {
        char* number = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &number);
        completion.desc = mdchHttpCurl_getContext(md::pointerAsNumber(number));
        if (completion.desc == nullptr) {
            continue;
        }
        completion.kind = message->msg;
        completion.result = message->data.result;
        const MdpLock lock = md::lockDescriptor(*completion.desc);
        completion.serial = completion.desc->requestSerial;
        return true;
    }
    return false;
}

void Worker::report(const Completion& completion)
{
    MdchCurlDescriptor_struct& desc = *completion.desc;
    MDCH_TRACE(md::kTraceCall, "%s(): data transfer done on fd %i. msg=%i result=%i\n", kThreadFunction,
               desc.fd, static_cast<int>(completion.kind), static_cast<int>(completion.result));
    const MdpLock lock = md::lockDescriptor(desc);
    if (completion.serial != desc.requestSerial) {
        return; // a seek came between: this was the end of the request before
    }
    md::tellAll(completion.desc);
    if (desc.done != 0) {
        if (desc.error != 0) {
            MDCH_TRACE(md::kTraceError, "%s(): already done with error on fd %i: %i\n", kThreadFunction,
                       desc.fd, desc.error);
        }
    } else if (completion.kind == CURLMSG_DONE) {
        desc.done = 1;
        desc.length = std::max(desc.length, md::kLengthUnknown);
        // libcurl takes a connection that ends inside the header for an empty body; it is a dropped one.
        const bool headerCutOff = completion.result == CURLE_OK && desc.headerBlockEnded == 0;
        desc.error = headerCutOff ? MDCH_HTTP_ETRANSFER : mdchHttpCurl_errorFromResult(completion.result);
        if (desc.error == MDCH_HTTP_ENETWORK) {
            MDCH_TRACE(md::kTraceError, "MDCH_HTTP_ENETWORK for fd %d\n", desc.fd);
        }
        if (desc.error != 0) {
            MDCH_TRACE(md::kTraceError, "%s(): received error on fd %i (%i=>%i)\n", kThreadFunction, desc.fd,
                       static_cast<int>(completion.result), desc.error);
        }
    }
    mdchHttpCurl_wakeSelectWaiters(desc, kThreadFunction);
}

// False: there is no memory for so many sockets, and those that find no room are looked at later.
bool Worker::provideRoom(std::size_t count)
{
    try {
        constexpr std::size_t kFewest = 64; // taken at the start, when there is memory
        m_watched.reserve(std::max(count, kFewest));
        m_serials.reserve(std::max(count, kFewest));
        return true;
    } catch (const std::bad_alloc&) {
        MDCH_TRACE(md::kTraceError, "%s(): E: curl_multi_fdset\n", kThreadFunction);
        return false;
    }
}

// Caller holds the engine's lock.
void Worker::prepareWait()
{
    int readEnd = -1;
    {
        const MdpLock lock(m_engine.wakeupMutex);
        readEnd = m_engine.wakeupPipe != nullptr ? m_engine.wakeupPipe->readEnd() : -1;
    }
    m_hasPipe = readEnd > 0;
    m_watched.clear();
    m_serials.clear();
    const auto& sockets = m_engine.sockets.sockets();
    const bool isComplete = provideRoom(sockets.size() + 1);
    const std::size_t room = std::min(m_watched.capacity(), m_serials.capacity());
    if (m_hasPipe && room > 0) {
        m_watched.push_back({readEnd, POLLIN, 0});
        m_serials.push_back(0);
    }
    m_hasPipe = !m_watched.empty();
    for (std::size_t i = 0; i < sockets.size() && m_watched.size() < room; ++i) {
        m_watched.push_back(sockets[i].poll);
        m_serials.push_back(sockets[i].serial);
    }
    if (curl_multi_timeout(m_multi, &m_waitMs) != CURLM_OK) {
        m_waitMs = kWaitWithoutTimeoutMs;
        MDCH_TRACE(md::kTraceError, "%s(): E: curl_multi_timeout\n", kThreadFunction);
    }
    // Compared unsigned: -1, no time-out, is capped, too.
    const long longest = m_hasPipe && isComplete ? kLongestWaitMs : kLongestWaitPollingMs;
    if (static_cast<unsigned long>(m_waitMs) > static_cast<unsigned long>(longest)) {
        m_waitMs = longest;
    }
}

void Worker::wait()
{
    if (m_watched.empty()) {
        constexpr useconds_t kMicrosecondsPerMs = 1000;
        usleep(static_cast<useconds_t>(m_waitMs) * kMicrosecondsPerMs);
        MDCH_TRACE(md::kTraceCall, "%s(): returned from sleep\n", kThreadFunction);
        return;
    }
    const int result = poll(m_watched.data(), m_watched.size(), static_cast<int>(m_waitMs));
    if (result < 0) {
        const int error = errno;
        int highest = 0;
        for (const pollfd& watched : m_watched) {
            highest = std::max(highest, watched.fd);
        }
        MDCH_TRACE(md::kTraceError, "E: select(%i,,,,%li): %i: %s\n", highest + 1, m_waitMs, error,
                   std::strerror(error));
        usleep(kPollAgainMicroseconds); // it may fail for long, and must not keep a processor busy
    }
    if (result <= 0) {
        return; // nothing in m_watched is a result
    }
    m_ready = true;
    if (m_hasPipe && m_watched.front().revents != 0) {
        MDCH_TRACE(md::kTraceCall, "%s(): returned from wakeup select\n", kThreadFunction);
        m_changed = md::takeWakeups(m_watched.front().fd);
    }
}

void Worker::finish()
{
    md::closeWakeup();
    {
        const MdpFairLock engineLock(m_engine.mutex);
        md::MdchDescriptorPtr desc = md::nextDescriptor(md::kBeforeAll);
        for (; desc != nullptr; desc = md::nextDescriptor(desc->fd)) {
            {
                const MdpLock lock = md::lockDescriptor(*desc);
                md::removeFromMulti(m_engine, *desc);
                md::freeRequest(*desc);
                mdchHttpCurl_endForReaders(*desc, kThreadFunction);
            }
            md::unregisterDescriptor(*desc);
        }
        m_engine.multi = nullptr;
        m_engine.shutdown = false; // the next engine starts with a clear one
        curl_multi_cleanup(m_multi);
        m_engine.sockets.clear();
    }
    MDCH_TRACE(md::kTraceNotice, "%s:%d:%s(): Finish curl thread\n", MDCH_WORKER_HERE);
}

} // namespace

void* mdchHttpCurl_fillBuffer(void* /*argument*/)
{
    MDCH_TRACE(md::kTraceNotice, "%s:%d:%s(): Start curl thread\n", MDCH_HERE);
    Worker worker;
    while (worker.pass()) {
    }
    worker.finish();
    return nullptr;
}
