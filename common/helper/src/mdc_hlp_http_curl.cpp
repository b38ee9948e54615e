#include "mdc_hlp_http_curl.h"

#include "mdc_hlp_http_curl_engine.h"
#include "mdc_hlp_http_ssl.h"
#include "mdc_hlp_sigpipe.h"
#include "mdc_hlp_trace.h"

#include <cstdlib>
#include <utility>

namespace md {

namespace {

thread_local bool t_isRemoving = false; // inside removeFromMulti

void initRecursive(pthread_mutex_t& mutex)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

} // namespace

MdchCurlDescriptor_struct::MdchCurlDescriptor_struct()
{
    initRecursive(mutex);
    pthread_cond_init(&cond, nullptr);
}

MdchCurlDescriptor_struct::~MdchCurlDescriptor_struct()
{
    // The worker has cleaned up what ran. A handle that never entered the multi handle is still here.
    if (inMulti == 0) {
        freeRequest(*this);
    }
    std::free(const_cast<char*>(postData));
    std::free(receiveBufferMemory);
    std::free(backBufferMemory);
    mdchHttpSsl_cleanupCerts(certificates);
    pthread_cond_destroy(&cond);
    pthread_mutex_destroy(&mutex);
}

HttpEngine& httpEngine()
{
    static auto* instance = new HttpEngine;
    return *instance;
}

MdchDescriptorPtr nextDescriptor(std::int32_t behind)
{
    HttpEngine& engine = httpEngine();
    const MdpLock lock(engine.registryMutex);
    const auto next = engine.registry.upper_bound(behind);
    return next != engine.registry.end() ? next->second : MdchDescriptorPtr();
}

MdchDescriptorPtr findDescriptor(std::int32_t number)
{
    HttpEngine& engine = httpEngine();
    const MdpLock lock(engine.registryMutex);
    const auto found = engine.registry.find(number);
    return found != engine.registry.end() ? found->second : MdchDescriptorPtr();
}

void unregisterDescriptor(const MdchCurlDescriptor_struct& desc)
{
    HttpEngine& engine = httpEngine();
    MdchDescriptorPtr last; // destroyed behind the lock
    const MdpLock lock(engine.registryMutex);
    const auto found = engine.registry.find(desc.fd);
    if (found != engine.registry.end() && found->second.get() == &desc) {
        last.swap(found->second);
        engine.registry.erase(found);
    }
}

void freeRequest(MdchCurlDescriptor_struct& desc)
{
    if (desc.easy != nullptr) {
        curl_easy_cleanup(desc.easy);
        desc.easy = nullptr;
    }
    curl_slist_free_all(desc.requestHeaders);
    desc.requestHeaders = nullptr;
    curl_slist_free_all(desc.http200Aliases);
    desc.http200Aliases = nullptr;
}

void addToMulti(HttpEngine& engine, MdchCurlDescriptor_struct& desc)
{
    if (desc.inMulti != 0) {
        return;
    }
    ++desc.requestSerial;
    if (desc.lacking == 0 && curl_multi_add_handle(engine.multi, desc.easy) == CURLM_OK) {
        desc.inMulti = 1;
        return;
    }
    // Without a handle no completion will come: the reader learns it here.
    MDCH_TRACE(kTraceFatal, "%s(): cannot start the transfer on fd %i\n", __func__, desc.fd);
    desc.done = 1;
    desc.error = MDCH_HTTP_EUNKNOWN;
    pthread_cond_broadcast(&desc.cond);
    mdchHttpCurl_wakeSelectWaiters(desc, __func__);
}

void removeFromMulti(HttpEngine& engine, MdchCurlDescriptor_struct& desc)
{
    if (desc.inMulti == 0) {
        return;
    }
    desc.inMulti = 0;
    const SigpipeBlocked noSigpipe; // a connection that is closed here may have lost its peer
    t_isRemoving = true;
    curl_multi_remove_handle(engine.multi, desc.easy);
    t_isRemoving = false;
}

bool isRemovingFromMulti()
{
    return t_isRemoving;
}

} // namespace md

boost::shared_ptr<md::MdchCurlDescriptor_struct> mdchHttpCurl_getContext(int fd)
{
    md::MdchDescriptorPtr desc = md::findDescriptor(fd);
    if (desc == nullptr) {
        MDCH_TRACE(md::kTraceError, "%s(): requested unknown descriptor %i\n", __func__, fd);
    }
    return desc;
}

void mdchHttpCurl_addDescriptor(boost::shared_ptr<md::MdchCurlDescriptor_struct> desc)
{
    if (desc == nullptr) {
        return;
    }
    md::HttpEngine& engine = md::httpEngine();
    const std::int32_t number = desc->fd;
    const MdpLock lock(engine.registryMutex);
    // Swapped, so that a replaced descriptor dies with the parameter, behind the lock.
    engine.registry[number].swap(desc);
}

void mdchHttpCurl_shutdown()
{
    md::HttpEngine& engine = md::httpEngine();
    const MdpFairLock lock(engine.mutex);
    engine.shutdown = true;
}

std::uint64_t mdchHttpCurl_passCount()
{
    return md::httpEngine().passes.load();
}

void mdchHttpCurl_wakeSelectWaiters(md::MdchCurlDescriptor_struct& desc, const char* function)
{
    for (md::MdchHttpSelect_struct* waiter : desc.selectWaiters) {
        MDCH_TRACE(md::kTraceCall, "%s(): wakeup select...\n", function);
        const MdpLock lock(waiter->mutex, md::kSelectWaiterLock);
        if (desc.fd >= 0 && desc.fd < FD_SETSIZE) {
            FD_SET(desc.fd, &waiter->readSet);
        }
        pthread_cond_broadcast(&waiter->cond);
    }
}

void mdchHttpCurl_endForReaders(md::MdchCurlDescriptor_struct& desc, const char* function)
{
    desc.state = md::kStateFinalise;
    desc.done = 1;
    desc.connected = 0;
    desc.headerComplete = 0;
    pthread_cond_broadcast(&desc.cond);
    mdchHttpCurl_wakeSelectWaiters(desc, function);
}

std::int32_t mdchHttpCurl_errorFromResult(CURLcode result)
{
    switch (result) {
    case CURLE_OK:
        return 0;
    case CURLE_PEER_FAILED_VERIFICATION: // 60
        return MDCH_HTTP_ECERT;
    case CURLE_SSL_CONNECT_ERROR: // 35
        return MDCH_HTTP_ESSL;
    case CURLE_COULDNT_RESOLVE_PROXY: // 5
    case CURLE_COULDNT_RESOLVE_HOST:  // 6
    case CURLE_COULDNT_CONNECT:       // 7
    case CURLE_OPERATION_TIMEDOUT:    // 28
    case CURLE_TOO_MANY_REDIRECTS:    // 47
    case CURLE_SEND_ERROR:            // 55
    case CURLE_RECV_ERROR:            // 56
        return MDCH_HTTP_ENETWORK;
    case CURLE_PARTIAL_FILE:         // 18
    case CURLE_HTTP_RETURNED_ERROR:  // 22
    case CURLE_BAD_CONTENT_ENCODING: // 61
    case CURLE_FILESIZE_EXCEEDED:    // 63
        return MDCH_HTTP_ETRANSFER;
    case CURLE_UNSUPPORTED_PROTOCOL: // 1
        return MDCH_HTTP_EPROTOCOL;
    default:
        return MDCH_HTTP_EUNKNOWN;
    }
}
