#include "mdc_hlp_curl_setup.h"
#include "mdc_hlp_http_access.h"
#include "mdc_hlp_http_access_impl.h"
#include "mdc_hlp_trace.h"

#include <boost/make_shared.hpp>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <unistd.h>

namespace md {

namespace {

// Held while the singleton is made, numbers a stream, and goes. Never destroyed, for streams that live in
// static objects.
MdpMutex& classMutex()
{
    static auto* instance = new MdpMutex(kHttpClassLock);
    return *instance;
}

std::uint32_t g_engineRuns = 0; // guarded by the class mutex
std::atomic<pid_t> g_engineProcess{0};
bool g_exitHandlerInstalled = false; // guarded by the class mutex

// Ends the engine, which nobody can reach any more. False: the worker did not end in time.
bool stopEngine(HttpAccessImpl& impl, const timespec* deadline)
{
    mdchHttpCurl_shutdown();
    mdchHttpCurl_wakeupWorkerThread();
    return impl.worker().joinUntil(deadline);
}

// Before libcurl's and OpenSSL's own exit handlers, which were installed earlier and so run later: the worker
// must not use them while they go.
void stopAtExit()
{
    constexpr std::int64_t kLongestSeconds = 2; // a lock that exit's caller holds must not hold exit up
    if (getpid() != g_engineProcess) {
        return; // a forked child, which has no worker
    }
    HttpAccessImpl* impl = HttpAccess::m_impl.exchange(nullptr);
    if (impl == nullptr || impl->worker().isCurrent()) {
        return;
    }
    const timespec deadline = deadlineIn(kLongestSeconds);
    if (stopEngine(*impl, &deadline)) {
        delete impl;
    }
}

// The singleton, made if there is none. The caller holds the class mutex.
HttpAccessImpl& engineSingleton()
{
    HttpAccessImpl* impl = HttpAccess::m_impl.load();
    if (impl == nullptr) {
        auto made = std::make_unique<HttpAccessImpl>(++g_engineRuns);
        initCurl();
        if (!g_exitHandlerInstalled) {
            g_exitHandlerInstalled = std::atexit(stopAtExit) == 0;
        }
        g_engineProcess = getpid();
        impl = made.release();
        HttpAccess::m_impl = impl;
    }
    if (!mdchHttpCurl_hasWakeup()) {
        mdchHttpCurl_initWakeup();
    }
    if (!impl->worker().isRunning()) {
        // Tried again with every stream: a system without room for a thread may have it a moment later.
        impl->worker().start("mdch_urlhttp", traceBaseName(__FILE__), __LINE__, mdchHttpCurl_fillBuffer,
                             impl);
    }
    return *impl;
}

} // namespace

std::atomic<HttpAccessImpl*> HttpAccess::m_impl{nullptr};

// Called by the constructor, and by open with the object's mutex held.
void HttpAccess::createDescriptor(bool headRequest)
{
    const auto desc = boost::make_shared<MdchCurlDescriptor_struct>();
    desc->userAgent = m_userAgent;
    desc->headRequest = headRequest;
    {
        // Numbered and registered at one go: a shutdown between the two would leave it behind.
        const MdpLock lock(classMutex());
        HttpAccessImpl& impl = engineSingleton();
        desc->fd = impl.takeNumber();
        desc->engineRun = impl.run();
        if (!impl.worker().isRunning()) {
            desc->done = 1;
            desc->error = EAGAIN;
        }
        mdchHttpCurl_addDescriptor(desc);
    }
    m_fd = desc->fd;
    m_engineRun = desc->engineRun;
    m_closed = false;
    MDCH_TRACE(kTraceCall, "%s(): inserted descriptor for fd %i\n", "create", desc->fd);
}

int HttpAccess::shutdown()
{
    const MdpLock lock(classMutex());
    HttpAccessImpl* impl = m_impl.exchange(nullptr);
    if (impl != nullptr) {
        stopEngine(*impl, nullptr);
        delete impl;
    }
    return 0;
}

} // namespace md
