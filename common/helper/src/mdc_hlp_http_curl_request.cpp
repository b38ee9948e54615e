#include "mdc_hlp_curl_setup.h"
#include "mdc_hlp_http_curl_engine.h"
#include "mdc_hlp_http_ssl.h"
#include "mdc_hlp_httpproxy.h"
#include "mdc_hlp_sigpipe.h"
#include "mdc_hlp_trace.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace {

using md::MdchCurlDescriptor_struct;

// libcurl refuses a blank in a URL; players have them in their lists. Nothing else is touched.
std::string withEscapedBlanks(const std::string& url)
{
    std::string escaped;
    escaped.reserve(url.size());
    for (const char c : url) {
        if (c == ' ') {
            escaped += "%20";
        } else {
            escaped += c;
        }
    }
    return escaped;
}

bool appendTo(curl_slist*& list, const char* line)
{
    curl_slist* longer = curl_slist_append(list, line);
    if (longer == nullptr) {
        return false; // the list stays as it was, and the descriptor still owns it
    }
    list = longer;
    return true;
}

void allocateReceiveBuffer(MdchCurlDescriptor_struct& desc, const char* function)
{
    MDCH_TRACE(md::kTraceCall, "%s(): receive buffer size %i on fd %i\n", function, desc.receiveBufferSize,
               desc.fd);
    desc.ringBuffer.release();
    std::free(desc.receiveBufferMemory);
    const auto size = desc.receiveBufferSize > 0 ? static_cast<std::size_t>(desc.receiveBufferSize) : 0;
    desc.receiveBufferMemory = size > 0 ? static_cast<unsigned char*>(std::malloc(size)) : nullptr;
    if (desc.receiveBufferMemory == nullptr) {
        // The request goes on all the same; its first block finds no room and ends it.
        MDCH_TRACE(md::kTraceError, "%s(): error obtaining receive buffer on fd %i\n", function, desc.fd);
        return;
    }
    desc.ringBuffer.init(desc.receiveBufferMemory, size);
}

void setBasics(MdchCurlDescriptor_struct& desc)
{
    CURL* easy = desc.easy;
    void* number = md::numberAsPointer(desc.fd);
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, static_cast<long>(desc.followLocation));
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, static_cast<long>(desc.maxRedirects));
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(easy, CURLOPT_URL, withEscapedBlanks(desc.url).c_str());
    curl_easy_setopt(easy, CURLOPT_PRIVATE, number);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 1L);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, number);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, mdchHttpCurl_writeCallback);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, number);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, mdchHttpCurl_headerCallback);

    md::setCurlBasics(easy);
    // The first URL too: a redirect to FTP would send replies through the header callback that look like
    // header lines.
    md::allowOnly(easy, md::CurlProtocols::kHttp);
    // A proxy's answer to CONNECT is not the server's header.
    curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    // Turns libcurl's cookie engine on without reading a file, so that received cookies are known and go along
    // on redirects and seeks.
    curl_easy_setopt(easy, CURLOPT_COOKIEFILE, "");
}

const char* transferModeLine(std::int32_t mode)
{
    switch (mode) {
    case 1:
        return "transferMode.dlna.org: Streaming";
    case 2:
        return "transferMode.dlna.org: Interactive";
    case 3:
        return "transferMode.dlna.org: Background";
    default:
        return nullptr;
    }
}

void applyTransferMode(MdchCurlDescriptor_struct& desc)
{
    desc.capabilities = desc.dlnaTransferMode == 0 ? MDCH_CAPABILITY_STALLING : 0;
    const char* modeLine = transferModeLine(desc.dlnaTransferMode);
    if (modeLine == nullptr) {
        return;
    }
    desc.capabilities = MDCH_CAPABILITY_STALLING | MDCH_CAPABILITY_BYTE_SEEK;
    desc.dlnaLinesAt = desc.requestHeaderLines.size();
    desc.requestHeaderLines.emplace_back("getcontentFeatures.dlna.org: 1");
    desc.requestHeaderLines.emplace_back(modeLine);
    desc.dlnaLines = 2;
}

void applyProxy(CURL* easy, const char* function)
{
    // Set in every case: an empty text keeps the environment's proxies out.
    curl_easy_setopt(easy, CURLOPT_NOPROXY, "");
    md::httpProxyInfo_struct proxy;
    if (!md::getHttpProxyInfo(proxy)) {
        curl_easy_setopt(easy, CURLOPT_PROXY, "");
        return;
    }
    MDCH_TRACE(md::kTraceNotice, "%s() set proxy %s:%i\n", function, proxy.host.c_str(), proxy.port);
    curl_easy_setopt(easy, CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTP));
    curl_easy_setopt(easy, CURLOPT_PROXY, proxy.host.c_str());
    curl_easy_setopt(easy, CURLOPT_PROXYPORT, static_cast<long>(proxy.port));
    if (proxy.user.empty()) {
        return;
    }
    MDCH_TRACE(md::kTraceCall, "%s() set proxy user %s\n", function, proxy.user.c_str());
    curl_easy_setopt(easy, CURLOPT_PROXYUSERNAME, proxy.user.c_str());
    if (!proxy.password.empty()) {
        MDCH_TRACE(md::kTraceCall, "%s() set proxy pwd %s\n", function, proxy.password.c_str());
        curl_easy_setopt(easy, CURLOPT_PROXYPASSWORD, proxy.password.c_str());
    }
}

void applyCookies(MdchCurlDescriptor_struct& desc, const char* function)
{
    if (desc.cookies.empty()) {
        return;
    }
    MDCH_TRACE(md::kTraceCall, "%s() add cookies to request: %s\n", function, desc.cookies.c_str());
    curl_easy_setopt(desc.easy, CURLOPT_COOKIE, desc.cookies.c_str());
}

// A POST carries its Range in the header list, which is built from what is noted here: libcurl would turn
// CURLOPT_RANGE of a POST into "Content-Range".
void noteRange(MdchCurlDescriptor_struct& desc, std::int64_t position)
{
    desc.requestedStart = position;
    std::snprintf(desc.rangeText, sizeof(desc.rangeText), "%lld-", static_cast<long long>(position));
    if (desc.postData == nullptr) {
        curl_easy_setopt(desc.easy, CURLOPT_RANGE, desc.rangeText);
    }
}

void forgetReceived(MdchCurlDescriptor_struct& desc)
{
    desc.ringBuffer.release();
    std::free(desc.receiveBufferMemory);
    desc.receiveBufferMemory = nullptr;
    desc.backBuffer.release();
    std::free(desc.backBufferMemory);
    desc.backBufferMemory = nullptr;
    desc.writePos = 0;
    desc.startPos = 0;
    desc.lastDataTime = 0;
    desc.skipBytes = 0;
    desc.leadingSkip = 0;
}

void forgetResponse(MdchCurlDescriptor_struct& desc)
{
    desc.length = md::kLengthNotYetKnown;
    desc.instanceLength = -1;
    desc.contentRangeStart = -1;
    desc.contentType.clear();
    desc.httpStatus = -1;
    desc.capabilities = 0;
    desc.responseHeaders.clear();
    desc.headerBytes = 0;
    desc.headerBlockEnded = 0;
    desc.headerComplete = 0;
    desc.connected = 0;
    desc.done = 0;
    desc.error = 0;
    if (desc.cookiesReceived) {
        desc.cookies = desc.callerCookies;
        desc.cookiesReceived = false;
    }
}

} // namespace

void mdchHttpCurl_discardRequest(MdchCurlDescriptor_struct& desc)
{
    if (desc.inMulti != 0) {
        md::removeFromMulti(md::httpEngine(), desc);
    }
    md::freeRequest(desc);
    ++desc.moveSerial;
    ++desc.requestSerial; // a completion of this request may already be on its way
    std::free(const_cast<char*>(desc.postData));
    desc.postData = nullptr;
    desc.postDataSize = 0;
    forgetReceived(desc);
    forgetResponse(desc);
    const auto dlnaAt = desc.requestHeaderLines.begin() + static_cast<std::ptrdiff_t>(desc.dlnaLinesAt);
    desc.requestHeaderLines.erase(dlnaAt, dlnaAt + static_cast<std::ptrdiff_t>(desc.dlnaLines));
    desc.dlnaLinesAt = 0;
    desc.dlnaLines = 0;
    if (desc.certificatesFromPath) {
        mdchHttpSsl_cleanupCerts(desc.certificates);
        desc.certificates = nullptr;
        desc.certificatesFromPath = false;
    }
    desc.paused = 0;
    desc.pausePending = false;
    desc.closedInPause = false;
    desc.resumed = false;
    desc.misplaced = false;
    desc.rebuildHeaders = false;
    desc.rangeText[0] = '\0';
    desc.requestedStart = -1;
    desc.state = md::kStateConstructed;
}

void mdchHttpCurl_dropFormerRequest(MdchCurlDescriptor_struct& desc, MdpLock& lock)
{
    if (desc.easy == nullptr) {
        return;
    }
    lock.unlock();
    const md::SigpipeBlocked noSigpipe;
    const MdpFairLock engineLock(md::httpEngine().mutex);
    lock.lock();
    if (desc.state != md::kStateFinalise) {
        mdchHttpCurl_discardRequest(desc);
    }
}

void mdchHttpCurl_rebuildRequestHeaders(MdchCurlDescriptor_struct& desc, const char* extraLine,
                                        const char* function)
{
    curl_easy_setopt(desc.easy, CURLOPT_HTTPHEADER, nullptr);
    curl_slist_free_all(desc.requestHeaders);
    desc.requestHeaders = nullptr;
    const auto add = [&desc, function](const char* line) {
        MDCH_TRACE(md::kTraceCall, "%s() add header to request: %s\n", function, line);
        appendTo(desc.requestHeaders, line);
    };
    for (const std::string& line : desc.requestHeaderLines) {
        add(line.c_str());
    }
    if (desc.postData != nullptr && desc.requestedStart >= 0) {
        add(("Range: bytes=" + std::string(desc.rangeText)).c_str());
    }
    if (extraLine != nullptr) {
        appendTo(desc.requestHeaders, extraLine);
    }
    curl_easy_setopt(desc.easy, CURLOPT_HTTPHEADER, desc.requestHeaders);
}

void mdchHttpCurl_setRange(MdchCurlDescriptor_struct& desc, std::int64_t position, const char* function)
{
    noteRange(desc, position);
    if (desc.postData != nullptr) {
        mdchHttpCurl_rebuildRequestHeaders(desc, nullptr, function);
    }
}

std::int32_t mdchHttpCurl_initDescriptor(const boost::shared_ptr<MdchCurlDescriptor_struct>& desc,
                                         long long startPos)
{
    allocateReceiveBuffer(*desc, __func__);
    desc->startPos = startPos;
    desc->writePos = startPos;
    desc->easy = curl_easy_init();
    CURL* easy = desc->easy;
    setBasics(*desc);
    if (desc->headRequest) {
        MDCH_TRACE(md::kTraceCall, "%s() start a HEAD request on fd %i\n", __func__, desc->fd);
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    }
    if (desc->postData != nullptr) {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, desc->postData);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(desc->postDataSize));
    }
    applyTransferMode(*desc);
    if (startPos != 0 || (desc->dlnaTransferMode == 0 && desc->forceRange)) {
        noteRange(*desc, startPos);
    }
    applyProxy(easy, __func__);
    if (!desc->userAgent.empty()) {
        curl_easy_setopt(easy, CURLOPT_USERAGENT, desc->userAgent.c_str());
    }
    if (!desc->requestHeaderLines.empty() || (desc->postData != nullptr && desc->requestedStart >= 0)) {
        mdchHttpCurl_rebuildRequestHeaders(*desc, nullptr, __func__);
    }
    applyCookies(*desc, __func__);
    mdchHttpCurl_applyTls(desc, __func__);
    appendTo(desc->http200Aliases, "ICY 200 OK");
    curl_easy_setopt(easy, CURLOPT_HTTP200ALIASES, desc->http200Aliases);
    desc->state = md::kStateConfigured;
    return 0;
}
