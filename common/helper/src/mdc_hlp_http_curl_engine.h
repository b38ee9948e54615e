/*
 * The process-wide state of the transfer engine, and the only way to its locks.
 *
 * One instance, never destroyed: the worker may still run while a process's static objects go.
 */
#ifndef MDC_HLP_HTTP_CURL_ENGINE_H
#define MDC_HLP_HTTP_CURL_ENGINE_H

#include "mdc_hlp_http_curl.h"
#include "mdc_hlp_http_curl_sockets.h"
#include "mdc_hlp_http_curl_wakeup.h"

#include <atomic>
#include <limits>
#include <map>

namespace md {

struct HttpEngine
{
    // Fair: a worker at full speed asks for it again at once, and a seek must not wait for its luck.
    MdpFairMutex mutex{kEngineLock};
    CURLM* multi = nullptr;     // guarded by mutex; null while no worker runs
    bool shutdown = false;      // guarded by mutex
    HttpSocketInterest sockets; // guarded by mutex

    MdpMutex registryMutex{kRegistryLock};
    std::map<std::int32_t, MdchDescriptorPtr> registry; // guarded by registryMutex

    MdpMutex wakeupMutex{kWakeupLock};
    std::shared_ptr<const WakeupPipe> wakeupPipe; // guarded by wakeupMutex; null: none
    ChangedTransfers changed;                     // what the worker was woken for; likewise

    std::atomic<std::uint64_t> passes{0};
};

HttpEngine& httpEngine();

/*
 * The registered descriptor with the lowest number behind that one; empty when there is none. A walk over the
 * registry from kBeforeAll on holds its lock for moments only, and needs no memory: the worker must not stop for
 * want of it. Takes the registry's lock.
 */
constexpr std::int32_t kBeforeAll = std::numeric_limits<std::int32_t>::min();
MdchDescriptorPtr nextDescriptor(std::int32_t behind);

/* The descriptor registered under that number, or empty. Likewise. */
MdchDescriptorPtr findDescriptor(std::int32_t number);

/* Takes the descriptor out of the registry, unless its number belongs to another one by now. */
void unregisterDescriptor(const MdchCurlDescriptor_struct& desc);

/*
 * Adds the descriptor's handle to the multi handle as a new request, or removes it. Caller holds the
 * engine's lock and the descriptor's. Both do nothing when it is so already.
 */
void addToMulti(HttpEngine& engine, MdchCurlDescriptor_struct& desc);
void removeFromMulti(HttpEngine& engine, MdchCurlDescriptor_struct& desc);

/*
 * Whether the calling thread is inside removeFromMulti, with the locks that its caller holds. A TLS handshake that is
 * under way goes on there: to see whether the server has ended the connection libcurl reads, and OpenSSL asks for the
 * verdict on a certificate that has come meanwhile. Who is called back so must not come to a lock.
 */
bool isRemovingFromMulti();

/* Frees the libcurl handle and its lists. The handle is not in the multi handle. Caller holds the locks. */
void freeRequest(MdchCurlDescriptor_struct& desc);

} // namespace md

#endif
