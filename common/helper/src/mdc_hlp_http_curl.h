/*
 * The HTTP transfer engine: one descriptor per stream, a registry of all, and one worker thread.
 *
 * A descriptor is shared between the stream that reads from it and the worker that fills it, and is found
 * only through the registry, by the number that libcurl hands back to its callbacks. The units:
 *
 *   mdc_hlp_http_curl.cpp                             descriptor, registry, error codes
 *   mdc_hlp_http_curl_request.cpp, _request_tls.cpp   a descriptor becomes a configured libcurl handle
 *   mdc_hlp_http_curl_header.cpp, _header_rules.cpp   response header blocks, and the rules for a line
 *   mdc_hlp_http_curl_write.cpp, _news.cpp            body bytes, and how readers learn of them
 *   mdc_hlp_http_curl_worker.cpp, _sockets.cpp        the worker's loop, and what it watches
 *   mdc_hlp_http_curl_wakeup.cpp                      how others wake it
 *   mdc_hlp_http_curl_seek.cpp                        seek, time seek, pause, resume
 *
 * Locks, always taken in this order: engine (multi handle, shutdown flag), registry (map of numbers),
 * descriptor, select waiter. libcurl is never called while the registry is locked: its callbacks look
 * descriptors up.
 */
#ifndef MDC_HLP_HTTP_CURL_H
#define MDC_HLP_HTTP_CURL_H

#include "mdc_hlp_http_select.h"
#include "mdc_hlp_url_types.h"
#include "mdp_ringbuffer.h"
#include "mdp_thread.h"

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <curl/curl.h>
#include <deque>
#include <pthread.h>
#include <string>

struct stack_st_X509;

namespace md {

constexpr MdpLockLevel kHttpClassLock{1, "http class"};
constexpr MdpLockLevel kEngineLock{2, "engine"};
constexpr MdpLockLevel kRegistryLock{3, "registry"};
constexpr MdpLockLevel kDescriptorLock{4, "descriptor"};
constexpr MdpLockLevel kSelectWaiterLock{5, "select waiter"};
constexpr MdpLockLevel kWakeupLock{6, "wake-up pipe"};

/* Values of MdchCurlDescriptor_struct::state. kStateFinalise is final: nothing leads out of it. */
enum MdchTransferState : std::int32_t
{
    kStateConstructed = 0,
    kStateConfigured = 1, // the worker adds it to the multi handle
    kStateRunning = 2,
    kStatePaused = 3,
    kStateFinalise = 4 // the worker cleans up and unregisters
};

/* Parts of a request, as bits. */
enum MdchRequestPart : std::uint32_t
{
    kPartOptions = 1, // everything else
    kPartRange = 2,
    kPartHeaderLines = 4
};

/* What those who wait on a descriptor are to be told. The greater one holds the smaller. */
enum class MdchNews : std::uint8_t
{
    kNone,
    kData,  // for readers that miss no more than is there
    kForAll // whatever they wait for
};

constexpr std::int64_t kLengthNotYetKnown = -11;
constexpr std::int64_t kLengthUnknown = -1;
constexpr std::int32_t kDefaultReceiveBufferSize = 0x30000;
constexpr std::size_t kBackBufferSize = 0x60000;

/* One transfer. Every field is guarded by mutex, but for fd and engineRun, which never change once set. */
struct MdchCurlDescriptor_struct
{
    MdchCurlDescriptor_struct();
    ~MdchCurlDescriptor_struct();
    MdchCurlDescriptor_struct(const MdchCurlDescriptor_struct&) = delete;
    MdchCurlDescriptor_struct& operator=(const MdchCurlDescriptor_struct&) = delete;

    std::int32_t fd = 0; // registry key, "fd" of every trace; not a system descriptor
    std::string url;
    std::int64_t length = kLengthNotYetKnown; // kLengthUnknown: a stream without length
    std::int64_t writePos = 0;                // position of the next byte that enters the buffer
    std::int64_t startPos = 0;                // the reader's position
    std::string contentType;
    std::int32_t dataTimeout = 330; // seconds; 0: never block
    std::int32_t headerTimeout = 7; // seconds
    std::int32_t done = 0;
    std::int32_t error = 0;
    std::int32_t paused = 0; // by the reader, or by the write callback on a full buffer
    std::int32_t connected = 0;
    std::int32_t inMulti = 0;
    std::int32_t headerBlockEnded = 0;
    std::int32_t headerComplete = 0;
    CURL* easy = nullptr; // used by libcurl's callers only under the engine's lock
    curl_slist* requestHeaders = nullptr;
    curl_slist* http200Aliases = nullptr;
    pthread_mutex_t mutex{}; // recursive
    pthread_cond_t cond{};   // broadcast on data, header block, end and error
    MdpRingBuffer ringBuffer;
    MdpRingBuffer backBuffer; // what came while paused with pauseBuffering; follows ringBuffer's bytes
    std::string userAgent;
    std::int32_t receiveBufferSize = kDefaultReceiveBufferSize;
    unsigned char* receiveBufferMemory = nullptr; // malloc
    unsigned char* backBufferMemory = nullptr;    // malloc, kBackBufferSize bytes, on first use
    time_t lastDataTime = 0;                      // last write callback that was not refused
    std::deque<MdchHttpSelect_struct*> selectWaiters;
    const char* postData = nullptr; // malloc; set: the request is a POST
    std::int32_t postDataSize = 0;
    std::deque<std::string> responseHeaders; // of the current header block, with line ends
    std::int32_t state = kStateConstructed;
    std::string cookies; // before the request: to be sent; after the header: Netscape lines
    std::deque<std::string> requestHeaderLines;
    stack_st_X509* certificates = nullptr;
    std::string caPath;
    std::string clientCertificate;
    std::string keyPassword;
    bool headRequest = false;
    std::int32_t followLocation = 1;
    std::int32_t maxRedirects = 50;
    std::uint32_t capabilities = 0; // mdch_UrlCapability_bits
    bool rebuildHeaders = false;    // requestHeaders holds a time-seek line
    char rangeText[128] = {};
    bool forceRange = false;
    std::int32_t dlnaTransferMode = 0;
    bool pauseBuffering = false;
    bool pausePending = false;
    bool closedInPause = false;
    std::int32_t skipBytes = 0; // received bytes still to be dropped
    std::int64_t instanceLength = -1;
    std::int32_t httpStatus = -1;
    bool verifyHost = true;
    bool acceptAfterDone = false;

    // What the engine keeps beside the settings and facts above.
    std::uint32_t engineRun = 0;     // the engine that the number belongs to; see HttpAccess
    std::uint64_t moveSerial = 0;    // counts seeks and openings: a read under way ends when the stream moves
    std::uint64_t requestSerial = 0; // counts requests: a completion of an earlier one is ignored
    std::int64_t requestedStart = -1;    // first byte asked for with a Range; -1: none was asked for
    std::int64_t contentRangeStart = -1; // first byte that Content-Range names; -1: none
    std::int64_t leadingSkip = 0;        // bytes that come before requestedStart, still to be dropped
    std::uint32_t lacking = 0;       // MdchRequestPart bits: no memory for these, so the request is not sent
    std::size_t wantedBytes = 0;     // a reader waits until so many are buffered; 0: whoever waits, for any
    MdchNews news = MdchNews::kNone; // what the worker's pass has brought and not told yet
    bool resumed = false;            // the request goes on behind bytes that came before a pause
    bool misplaced = false;          // the body begins behind requestedStart: none of it is delivered
    std::size_t headerBytes = 0;     // size of responseHeaders' texts
    std::string callerCookies;       // what the caller set, once cookies holds received ones
    bool cookiesReceived = false;
    std::size_t dlnaLinesAt = 0;       // where in requestHeaderLines the request added its DLNA lines
    std::size_t dlnaLines = 0;         // and how many
    bool certificatesFromPath = false; // certificates were loaded from caPath, so the next request loads anew
};

/* Locks the descriptor for the guard's life. */
inline MdpLock lockDescriptor(MdchCurlDescriptor_struct& desc)
{
    return MdpLock(desc.mutex, kDescriptorLock);
}

using MdchDescriptorPtr = boost::shared_ptr<MdchCurlDescriptor_struct>;

/* A stream's number as libcurl's callbacks get it, and back. */
inline void* numberAsPointer(std::int32_t number)
{
    return reinterpret_cast<void*>(static_cast<std::intptr_t>(number));
}
inline std::int32_t pointerAsNumber(const void* pointer)
{
    return static_cast<std::int32_t>(reinterpret_cast<std::intptr_t>(pointer));
}

/* Bytes received and not yet read. Caller holds the descriptor's mutex. */
inline std::size_t bufferedBytes(const MdchCurlDescriptor_struct& desc)
{
    return desc.ringBuffer.usedBytes() + desc.backBuffer.usedBytes();
}

} // namespace md

// --- Registry (mdc_hlp_http_curl.cpp) and wake-up (mdc_hlp_http_curl_wakeup.cpp); any thread ---

/* The descriptor registered under fd, or an empty pointer and a trace. */
boost::shared_ptr<md::MdchCurlDescriptor_struct> mdchHttpCurl_getContext(int fd);

/* Registers under desc->fd; a descriptor that has the number already is replaced. */
void mdchHttpCurl_addDescriptor(boost::shared_ptr<md::MdchCurlDescriptor_struct> desc);

/* Asks the worker to end. It notices at its next pass; wake it to make that now. */
void mdchHttpCurl_shutdown();

/* Creates the wake-up pipe. On failure the worker sleeps and polls instead. */
void mdchHttpCurl_initWakeup();

/* Whether there is a wake-up pipe. */
bool mdchHttpCurl_hasWakeup();

/* Makes the worker look at all transfers. Never blocks; does nothing without a pipe. */
void mdchHttpCurl_wakeupWorkerThread();

/* Likewise, at this one: what it costs does not depend on how many others there are. */
void mdchHttpCurl_wakeupWorkerFor(const md::MdchCurlDescriptor_struct& desc);

/* Passes of the worker's loop since the process started: tells whether it rests. */
std::uint64_t mdchHttpCurl_passCount();

/* Wakes every thread in HttpAccess::select on the descriptor, whose mutex the caller holds. */
void mdchHttpCurl_wakeSelectWaiters(md::MdchCurlDescriptor_struct& desc, const char* function);

/*
 * Marks the transfer as ended for everybody who waits on it: state kStateFinalise, done, not connected.
 * Caller holds the descriptor's mutex.
 */
void mdchHttpCurl_endForReaders(md::MdchCurlDescriptor_struct& desc, const char* function);

/*
 * Drops what an earlier request on the descriptor left, so that the next starts clean. lock holds the
 * descriptor's mutex; it is released and taken again when there is something to drop, since the engine's lock
 * comes first. A transfer that was closed meanwhile stays as it is.
 */
void mdchHttpCurl_dropFormerRequest(md::MdchCurlDescriptor_struct& desc, MdpLock& lock);

// --- Request (mdc_hlp_http_curl_request.cpp); caller holds the descriptor's mutex ---

/*
 * Builds the libcurl handle for a request from startPos and sets the state to kStateConfigured. Always 0: a request
 * for parts of which there is no memory ends when the worker comes to start it. The descriptor has no handle yet: mdchHttpCurl_discardRequest comes first when it does.
 */
std::int32_t mdchHttpCurl_initDescriptor(const boost::shared_ptr<md::MdchCurlDescriptor_struct>& desc,
                                         long long startPos);

/*
 * Drops the request, its buffers and what its response told, so that initDescriptor starts clean. Caller
 * holds the engine's lock too when there is a handle.
 */
void mdchHttpCurl_discardRequest(md::MdchCurlDescriptor_struct& desc);

/* Asks for the bytes from position on. Rebuilds the header list where the Range stands in it. */
void mdchHttpCurl_setRange(md::MdchCurlDescriptor_struct& desc, std::int64_t position, const char* function);

/* Hands requestHeaderLines, and extraLine if not null, to the handle as its header list. */
void mdchHttpCurl_rebuildRequestHeaders(md::MdchCurlDescriptor_struct& desc, const char* extraLine,
                                        const char* function);

/* The TLS options of an "https://" transfer; nothing for others. (mdc_hlp_http_curl_request_tls.cpp) */
void mdchHttpCurl_applyTls(const boost::shared_ptr<md::MdchCurlDescriptor_struct>& desc,
                           const char* function);

// --- Moving and holding a transfer (mdc_hlp_http_curl_seek.cpp); any thread, no lock held ---

/* Restarts the transfer at byte position target. A closed or outlived transfer is left alone. */
void mdchHttpCurl_doSeek(const boost::shared_ptr<md::MdchCurlDescriptor_struct>& desc, long long target);

/* Restarts the transfer at a play time in milliseconds (DLNA TimeSeekRange). */
void mdchHttpCurl_doSeekTime(const boost::shared_ptr<md::MdchCurlDescriptor_struct>& desc,
                             std::uint32_t target);

/* Holds the transfer; a seekable one drops its connection. 0, or -EINVAL. */
std::int32_t mdchHttpCurl_pause(const boost::shared_ptr<md::MdchCurlDescriptor_struct>& desc);

/* Goes on after a pause. 0, or -EINVAL. */
std::int32_t mdchHttpCurl_resume(const boost::shared_ptr<md::MdchCurlDescriptor_struct>& desc);

// --- Called on the worker thread ---

/* Body of the worker thread. The argument is not used. */
void* mdchHttpCurl_fillBuffer(void* argument);

extern "C" {
/* libcurl's callbacks; userData is the stream's number as a pointer value. */
size_t mdchHttpCurl_writeCallback(char* data, size_t size, size_t nmemb, void* userData);
size_t mdchHttpCurl_headerCallback(char* line, size_t size, size_t nmemb, void* userData);
CURLcode mdchHttpCurl_sslctxCallback(CURL* easy, void* sslContext, void* userData);
}

/* Applies the rules for one header line (not the blank one). Caller holds the descriptor's mutex. */
void mdchHttpParseHeaderLine(md::MdchCurlDescriptor_struct& desc, const std::string& line);

/* The HTTP error code for a libcurl result; 0 for CURLE_OK. */
std::int32_t mdchHttpCurl_errorFromResult(CURLcode result);

/* Moves bytes that came during a pause into the ring buffer, at most 1024 at a time, as far as they fit. */
std::size_t mdchHttpCurl_refillFromBackBuffer(md::MdchCurlDescriptor_struct& desc);

#endif
