#include "mdc_hlp_http_curl_wakeup.h"

#include "mdc_hlp_http_curl_engine.h"
#include "mdc_hlp_trace.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <unistd.h>
#include <utility>

namespace md {

namespace {

void exchangePipe(std::shared_ptr<const WakeupPipe> pipe)
{
    HttpEngine& engine = httpEngine();
    const MdpLock lock(engine.wakeupMutex);
    engine.changed.clear();
    engine.wakeupPipe.swap(pipe); // the former one goes behind the lock
}

// Notes what for, and wakes the worker. Nothing without a pipe: the worker looks at all transfers all the time then.
template <class Note>
void wake(Note note)
{
    HttpEngine& engine = httpEngine();
    std::shared_ptr<const WakeupPipe> pipe;
    {
        const MdpLock lock(engine.wakeupMutex);
        pipe = engine.wakeupPipe;
        if (pipe == nullptr) {
            return;
        }
        note(engine.changed);
    }
    // Unlocked: the worker, awake at once, would run into the lock.
    const char wake = 'a';
    // EAGAIN: the pipe is full of wake-ups already.
    if (::write(pipe->writeEnd(), &wake, 1) < 0 && errno != EAGAIN) {
        MDCH_TRACE(kTraceError, "%s(): cannot write to wakeup pipe: %s\n", "mdchHttpCurl_wakeupWorkerThread",
                   std::strerror(errno));
    }
}

} // namespace

std::shared_ptr<const WakeupPipe> WakeupPipe::make()
{
    const std::shared_ptr<WakeupPipe> pipe(new WakeupPipe);
    std::array<int, 2> ends{};
    // Non-blocking: neither a full pipe nor a drained one may hold a thread that has locks.
    if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        return nullptr;
    }
    pipe->m_readEnd = ends[0];
    pipe->m_writeEnd = ends[1];
    return pipe;
}

WakeupPipe::~WakeupPipe()
{
    for (const int end : {m_readEnd, m_writeEnd}) {
        if (end >= 0) {
            ::close(end);
        }
    }
}

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
    exchangePipe(nullptr);
}

} // namespace md

void mdchHttpCurl_initWakeup()
{
    std::shared_ptr<const md::WakeupPipe> pipe;
    try {
        pipe = md::WakeupPipe::make();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    if (pipe == nullptr) {
        MDCH_TRACE(md::kTraceError, "%s(): cannot create wakeup pipe: %s\n", __func__, std::strerror(errno));
        return;
    }
    md::exchangePipe(std::move(pipe));
}

bool mdchHttpCurl_hasWakeup()
{
    md::HttpEngine& engine = md::httpEngine();
    const MdpLock lock(engine.wakeupMutex);
    return engine.wakeupPipe != nullptr;
}

void mdchHttpCurl_wakeupWorkerThread()
{
    md::wake([](md::ChangedTransfers& changed) { changed.addAll(); });
}

void mdchHttpCurl_wakeupWorkerFor(const md::MdchCurlDescriptor_struct& desc)
{
    md::wake([&desc](md::ChangedTransfers& changed) { changed.add(desc.fd); });
}
