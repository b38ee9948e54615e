#include "mdc_hlp_http_curl_wakeup.h"

#include "mdc_hlp_http_curl_engine.h"
#include "mdc_hlp_trace.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace md {

namespace {

using PipeEnds = std::array<int, 2>;

// The ends change under the lock: a late wake-up must not write into whoever gets their numbers next.
PipeEnds exchangeEnds(const PipeEnds& ends)
{
    HttpEngine& engine = httpEngine();
    const MdpLock lock(engine.wakeupMutex);
    engine.changed.clear();
    return {std::exchange(engine.wakeupReadEnd, ends[0]), std::exchange(engine.wakeupWriteEnd, ends[1])};
}

void closeAll(const PipeEnds& ends)
{
    for (const int end : ends) {
        if (end >= 0) {
            ::close(end);
        }
    }
}

// Notes what for, and wakes the worker. Nothing without a pipe: the worker looks at all transfers all the time then.
template <class Note>
void wake(Note note)
{
    HttpEngine& engine = httpEngine();
    const MdpLock lock(engine.wakeupMutex);
    if (engine.wakeupWriteEnd <= 0) {
        return;
    }
    note(engine.changed);
    const char wake = 'a';
    // EAGAIN: the pipe is full of wake-ups already.
    if (::write(engine.wakeupWriteEnd, &wake, 1) < 0 && errno != EAGAIN) {
        MDCH_TRACE(kTraceError, "%s(): cannot write to wakeup pipe: %s\n", "mdchHttpCurl_wakeupWorkerThread",
                   std::strerror(errno));
    }
}

} // namespace

ChangedTransfers takeWakeups(int readEnd)
{
    std::array<char, 10> wakes{};
    while (::read(readEnd, wakes.data(), wakes.size()) == static_cast<ssize_t>(wakes.size())) {
    }
    // Behind the pipe: what is noted from here on writes a wake-up of its own.
    HttpEngine& engine = httpEngine();
    const MdpLock lock(engine.wakeupMutex);
    return std::exchange(engine.changed, ChangedTransfers());
}

void closeWakeup()
{
    closeAll(exchangeEnds({-1, -1}));
}

} // namespace md

void mdchHttpCurl_initWakeup()
{
    md::PipeEnds ends{-1, -1};
    // Non-blocking: neither a full pipe nor a drained one may hold a thread that has locks.
    if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        MDCH_TRACE(md::kTraceError, "%s(): cannot create wakeup pipe: %s\n", __func__, std::strerror(errno));
        return;
    }
    md::closeAll(md::exchangeEnds(ends));
}

bool mdchHttpCurl_hasWakeup()
{
    md::HttpEngine& engine = md::httpEngine();
    const MdpLock lock(engine.wakeupMutex);
    return engine.wakeupWriteEnd > 0;
}

void mdchHttpCurl_wakeupWorkerThread()
{
    md::wake([](md::ChangedTransfers& changed) { changed.addAll(); });
}

void mdchHttpCurl_wakeupWorkerFor(const md::MdchCurlDescriptor_struct& desc)
{
    md::wake([&desc](md::ChangedTransfers& changed) { changed.add(desc.fd); });
}
