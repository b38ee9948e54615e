#include "mdc_hlp_curl_setup.h"
#include "mdc_hlp_http_curl_engine.h"
#include "mdc_hlp_http_curl_option.h"
#include "mdc_hlp_http_ssl.h"
#include "mdc_hlp_httpproxy.h"
#include "mdc_hlp_sigpipe.h"
#include "mdc_hlp_trace.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

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
    void* number = md::numberAsPointer(desc.fd);
    md::setOption(desc, CURLOPT_FOLLOWLOCATION, static_cast<long>(desc.followLocation));
    md::setOption(desc, CURLOPT_MAXREDIRS, static_cast<long>(desc.maxRedirects));
    md::setOption(desc, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    md::setOption(desc, CURLOPT_URL, withEscapedBlanks(desc.url).c_str());
    md::setOption(desc, CURLOPT_PRIVATE, number);
    md::setOption(desc, CURLOPT_NOPROGRESS, 1L);
    md::setOption(desc, CURLOPT_WRITEDATA, number);
    md::setOption(desc, CURLOPT_WRITEFUNCTION, mdchHttpCurl_writeCallback);
    md::setOption(desc, CURLOPT_HEADERDATA, number);
    md::setOption(desc, CURLOPT_HEADERFUNCTION, mdchHttpCurl_headerCallback);

    md::noteResult(desc, md::setCurlBasics(desc.easy));
    // The first URL too: a redirect to FTP would send replies through the header callback that look like
    // header lines.
    md::noteResult(desc, md::allowOnly(desc.easy, md::CurlProtocols::kHttp));
    // A proxy's answer to CONNECT is not the server's header.
    md::setOption(desc, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    // Turns libcurl's cookie engine on without reading a file, so that received cookies are known and go along
    // on redirects and seeks.
    md::setOption(desc, CURLOPT_COOKIEFILE, "");
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
    for (const char* line : {"getcontentFeatures.dlna.org: 1", modeLine}) {
        desc.requestHeaderLines.emplace_back(line);
        ++desc.dlnaLines;
    }
}

void applyProxy(MdchCurlDescriptor_struct& desc, const char* function)
{
    // Set in every case: an empty text keeps the environment's proxies out.
    md::setOption(desc, CURLOPT_NOPROXY, "");
    md::httpProxyInfo_struct proxy;
    if (!md::getHttpProxyInfo(proxy)) {
        md::setOption(desc, CURLOPT_PROXY, "");
        return;
    }
    MDCH_TRACE(md::kTraceNotice, "%s() set proxy %s:%i\n", function, proxy.host.c_str(), proxy.port);
    md::setOption(desc, CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTP));
    md::setOption(desc, CURLOPT_PROXY, proxy.host.c_str());
    md::setOption(desc, CURLOPT_PROXYPORT, static_cast<long>(proxy.port));
    if (proxy.user.empty()) {
        return;
    }
    MDCH_TRACE(md::kTraceCall, "%s() set proxy user %s\n", function, proxy.user.c_str());
    md::setOption(desc, CURLOPT_PROXYUSERNAME, proxy.user.c_str());
    if (!proxy.password.empty()) {
        MDCH_TRACE(md::kTraceCall, "%s() set proxy pwd %s\n", function, proxy.password.c_str());
        md::setOption(desc, CURLOPT_PROXYPASSWORD, proxy.password.c_str());
    }
}

void applyCookies(MdchCurlDescriptor_struct& desc, const char* function)
{
    if (desc.cookies.empty()) {
        return;
    }
    MDCH_TRACE(md::kTraceCall, "%s() add cookies to request: %s\n", function, desc.cookies.c_str());
    md::setOption(desc, CURLOPT_COOKIE, desc.cookies.c_str());
}

// A POST carries its Range in the header list, which is built from what is noted here: libcurl would turn
// CURLOPT_RANGE of a POST into "Content-Range".
void noteRange(MdchCurlDescriptor_struct& desc, std::int64_t position)
{
    desc.requestedStart = position;
    std::snprintf(desc.rangeText, sizeof(desc.rangeText), "%lld-", static_cast<long long>(position));
    if (desc.postData == nullptr) {
        desc.lacking &= ~static_cast<std::uint32_t>(md::kPartRange);
        md::setOption(desc, CURLOPT_RANGE, desc.rangeText, md::kPartRange);
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

// May throw std::bad_alloc; the request then lacks what comes behind.
void configure(const md::MdchDescriptorPtr& ptr, std::int64_t startPos, const char* function)
{
    MdchCurlDescriptor_struct& desc = *ptr;
    setBasics(desc);
    if (desc.headRequest) {
        MDCH_TRACE(md::kTraceCall, "%s() start a HEAD request on fd %i\n", function, desc.fd);
        md::setOption(desc, CURLOPT_NOBODY, 1L);
    }
    if (desc.postData != nullptr) {
        md::setOption(desc, CURLOPT_POSTFIELDS, desc.postData);
        md::setOption(desc, CURLOPT_POSTFIELDSIZE, static_cast<long>(desc.postDataSize));
    }
    applyTransferMode(desc);
    if (startPos != 0 || (desc.dlnaTransferMode == 0 && desc.forceRange)) {
        noteRange(desc, startPos);
    }
    applyProxy(desc, function);
    if (!desc.userAgent.empty()) {
        md::setOption(desc, CURLOPT_USERAGENT, desc.userAgent.c_str());
    }
    if (!desc.requestHeaderLines.empty() || (desc.postData != nullptr && desc.requestedStart >= 0)) {
        mdchHttpCurl_rebuildRequestHeaders(desc, nullptr, function);
    }
    applyCookies(desc, function);
    mdchHttpCurl_applyTls(ptr, function);
    if (!appendTo(desc.http200Aliases, "ICY 200 OK")) {
        desc.lacking |= md::kPartOptions;
    }
    md::setOption(desc, CURLOPT_HTTP200ALIASES, desc.http200Aliases);
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
    desc.lacking = 0;
    desc.state = md::kStateConstructed;
}

void mdchHttpCurl_dropFormerRequest(MdchCurlDescriptor_struct& desc, MdpLock& lock)
{
    if (desc.easy == nullptr && desc.state == md::kStateConstructed) {
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
    curl_slist* list = nullptr;
    bool isComplete = true;
    const auto add = [&](const char* line) { isComplete = appendTo(list, line) && isComplete; };
    const auto addAndTrace = [&](const char* line) {
        MDCH_TRACE(md::kTraceCall, "%s() add header to request: %s\n", function, line);
        add(line);
    };
    for (const std::string& line : desc.requestHeaderLines) {
        addAndTrace(line.c_str());
    }
    if (desc.postData != nullptr && desc.requestedStart >= 0) {
        std::array<char, sizeof desc.rangeText + 16> range{};
        std::snprintf(range.data(), range.size(), "Range: bytes=%s", desc.rangeText);
        addAndTrace(range.data());
    }
    if (extraLine != nullptr) {
        add(extraLine);
    }
    desc.lacking &= ~static_cast<std::uint32_t>(md::kPartHeaderLines);
    if (curl_easy_setopt(desc.easy, CURLOPT_HTTPHEADER, list) != CURLE_OK || !isComplete) {
        desc.lacking |= md::kPartHeaderLines;
    }
    // libcurl keeps the list that it was given last, so the former one goes now.
    std::swap(list, desc.requestHeaders);
    curl_slist_free_all(list);
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
    desc->lacking = 0;
    desc->easy = curl_easy_init();
    try {
        configure(desc, startPos, __func__);
    } catch (const std::bad_alloc&) {
        desc->lacking |= md::kPartOptions;
    }
    desc->state = md::kStateConfigured;
    return 0;
}
