#include "mdc_hlp_http_curl_engine.h"
#include "mdc_hlp_trace.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <strings.h>

namespace {

using md::MdchCurlDescriptor_struct;

// A block of header lines larger than this is no answer to wait for: libcurl bounds a line, not their number.
constexpr std::size_t kMostHeaderBytes = 307200;

constexpr unsigned long kDlnaStallingFlag = 0x00200000; // primary flags word, bit 21

const char* findIgnoringCase(const std::string& line, const char* name)
{
    // A NUL in a line ends what is searched, so no name is found in what a server hid behind it.
    return strcasestr(line.c_str(), name);
}

void setCapability(MdchCurlDescriptor_struct& desc, std::uint32_t bit, bool on)
{
    desc.capabilities = on ? desc.capabilities | bit : desc.capabilities & ~bit;
}

// A decimal number that fits, as strtoll reads it, and where it ends.
bool parseNumber(const char* text, std::int64_t& number)
{
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text, &end, 10);
    if (end == text || errno == ERANGE) {
        return false;
    }
    number = value;
    return true;
}

// The first byte of "bytes FIRST-LAST/TOTAL" (RFC 9110, 14.4); -1 for "bytes */TOTAL" and anything else.
std::int64_t firstByteOf(const char* contentRange)
{
    const char* unit = strcasestr(contentRange, "bytes");
    if (unit == nullptr) {
        return -1;
    }
    const char* at = unit + std::strlen("bytes");
    at += std::strspn(at, " \t=:");
    std::int64_t first = -1;
    return *at >= '0' && *at <= '9' && parseNumber(at, first) ? first : -1;
}

void parseContentRange(MdchCurlDescriptor_struct& desc, const char* range, const char* function)
{
    MDCH_TRACE(md::kTraceCall, "%s(): allow seek on fd %i. (Content-Range)\n", function, desc.fd);
    setCapability(desc, MDCH_CAPABILITY_BYTE_SEEK, true);
    desc.contentRangeStart = firstByteOf(range);
    const char* slash = std::strchr(range, '/');
    if (slash == nullptr) {
        return;
    }
    std::int64_t total = 0;
    if (!parseNumber(slash + 1, total)) {
        MDCH_TRACE(md::kTraceError, "%s(): instance length invalid '%s' on fd %i. \n", function, slash + 1,
                   desc.fd);
        return;
    }
    MDCH_TRACE(md::kTraceCall, "%s(): instance length %lli on fd %i. \n", function,
               static_cast<long long>(total), desc.fd);
    desc.instanceLength = total;
}

void parseAcceptRanges(MdchCurlDescriptor_struct& desc, const std::string& line, const char* function)
{
    const bool allowed = findIgnoringCase(line, "none") == nullptr;
    if (allowed) {
        MDCH_TRACE(md::kTraceCall, "%s(): allow seek on fd %i. (Accept-Ranges)\n", function, desc.fd);
    } else {
        MDCH_TRACE(md::kTraceCall, "%s(): disallow seek on fd %i. (Accept-Ranges: none)\n", function,
                   desc.fd);
    }
    setCapability(desc, MDCH_CAPABILITY_BYTE_SEEK, allowed);
}

// DLNA guidelines, 4th field of protocolInfo: OP is two flags, time seek and byte seek.
void parseDlnaOperations(MdchCurlDescriptor_struct& desc, const std::string& line, const char* function)
{
    constexpr const char* kName = "DLNA.ORG_OP=";
    const char* found = findIgnoringCase(line, kName);
    if (found != nullptr) {
        const char* flags = found + std::strlen(kName);
        if (flags[0] == '1') {
            MDCH_TRACE(md::kTraceCall, "%s(): allow seek on fd %i. (dlna time seek)\n", function, desc.fd);
            setCapability(desc, MDCH_CAPABILITY_TIME_SEEK, true);
        }
        if (flags[0] != '\0' && flags[1] == '1') {
            MDCH_TRACE(md::kTraceCall, "%s(): allow seek on fd %i. (dlna byte seek)\n", function, desc.fd);
            setCapability(desc, MDCH_CAPABILITY_BYTE_SEEK, true);
        }
    }
    if ((desc.capabilities & (MDCH_CAPABILITY_BYTE_SEEK | MDCH_CAPABILITY_TIME_SEEK)) == 0) {
        MDCH_TRACE(md::kTraceCall, "%s(): disallow seek on fd %i. (missing DLNA.ORG_OP) %s\n", function,
                   desc.fd, line.c_str());
    }
}

void parseDlnaFlags(MdchCurlDescriptor_struct& desc, const std::string& line, const char* function)
{
    constexpr const char* kName = "DLNA.ORG_FLAGS=";
    constexpr std::size_t kPrimaryDigits = 8;
    const char* found = findIgnoringCase(line, kName);
    if (found == nullptr) {
        return;
    }
    const char* value = found + std::strlen(kName);
    const std::string primary(value, strnlen(value, kPrimaryDigits));
    const unsigned long flags = std::strtoul(primary.c_str(), nullptr, 16);
    MDCH_TRACE(md::kTraceCall, "%s(): dlna flags on fd %i. 0x%08x %s\n", function, desc.fd,
               static_cast<unsigned int>(flags), primary.c_str());
    if ((flags & kDlnaStallingFlag) != 0) {
        MDCH_TRACE(md::kTraceCall, "%s(): dlna connection stalling flag on fd %i. \n", function, desc.fd);
        setCapability(desc, MDCH_CAPABILITY_STALLING, true);
    } else {
        MDCH_TRACE(md::kTraceCall, "%s(): dlna no connection stalling flag on fd %i. \n", function, desc.fd);
    }
}

void parseContentFeatures(MdchCurlDescriptor_struct& desc, const std::string& line, const char* function)
{
    desc.capabilities = 0;
    if (std::strchr(line.c_str(), '*') != nullptr) {
        MDCH_TRACE(md::kTraceCall, "%s(): allow all on fd %i. (dlna *)\n", function, desc.fd);
        desc.capabilities = MDCH_CAPABILITY_BYTE_SEEK | MDCH_CAPABILITY_STALLING;
    }
    parseDlnaOperations(desc, line, function);
    parseDlnaFlags(desc, line, function);
}

void parseTimeSeekRange(MdchCurlDescriptor_struct& desc, const char* bytes, const char* function)
{
    // No number, a sign or one that no position can hold: the position stays as it is.
    std::int64_t position = 0;
    if (*bytes < '0' || *bytes > '9' || !parseNumber(bytes, position)) {
        return;
    }
    MDCH_TRACE(md::kTraceCall, "%s(): dlna TimeSeekRange.dlna.org on fd %i.  newPos=%lli\n", function,
               desc.fd, static_cast<long long>(position));
    // A response to a Range begins where Content-Range says, whatever else the server adds.
    if (desc.requestedStart <= 0) {
        desc.writePos = position;
        desc.startPos = position;
    }
}

// The position of a response's end: its Content-Length behind the position of its first byte.
std::int64_t lengthFrom(const MdchCurlDescriptor_struct& desc, std::int64_t contentLength)
{
    // A Range tells where the response begins, whatever is still buffered in front of it or skipped in it; a
    // time seek has no Range, and its response told the reader's position.
    const std::int64_t first =
        desc.requestedStart > 0 ? desc.requestedStart - desc.leadingSkip : desc.startPos - desc.skipBytes;
    if (first <= 0 || contentLength <= 0) {
        return contentLength;
    }
    std::int64_t end = 0;
    return __builtin_add_overflow(first, contentLength, &end) ? md::kLengthUnknown : end;
}

void takeLength(MdchCurlDescriptor_struct& desc, const char* function)
{
    curl_off_t contentLength = -1;
    desc.length = curl_easy_getinfo(desc.easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &contentLength) == CURLE_OK
                      ? lengthFrom(desc, contentLength)
                      : md::kLengthUnknown;
    if (desc.length < 0 && desc.instanceLength >= 0) {
        MDCH_TRACE(md::kTraceCall, "%s(): using instanceLength %lli for length on fd %i\n", function,
                   static_cast<long long>(desc.instanceLength), desc.fd);
        desc.length = desc.instanceLength;
    }
}

void endWithError(MdchCurlDescriptor_struct& desc, std::int32_t error)
{
    desc.connected = 0;
    desc.headerComplete = 0;
    desc.done = 1;
    desc.error = error;
}

// Where the response's body begins, measured against the Range that was sent. A server may answer with the
// whole resource, or begin elsewhere; what comes before the position asked for is dropped, and a body that
// begins behind it cannot be used.
void alignWithRange(MdchCurlDescriptor_struct& desc, long status, const char* function)
{
    constexpr long kPartialContent = 206;
    desc.leadingSkip = 0;
    desc.misplaced = false;
    if (desc.requestedStart < 0) {
        return;
    }
    std::int64_t first = desc.requestedStart;
    if (desc.contentRangeStart >= 0) {
        first = desc.contentRangeStart;
    } else if (status != kPartialContent) {
        first = 0;
    }
    if (first > desc.requestedStart) {
        MDCH_TRACE(md::kTraceError, "%s(): response starts at %lld instead of %lld on fd %i\n", function,
                   static_cast<long long>(first), static_cast<long long>(desc.requestedStart), desc.fd);
        endWithError(desc, MDCH_HTTP_ETRANSFER);
        desc.misplaced = true;
        return;
    }
    desc.leadingSkip = desc.requestedStart - first;
    if (desc.leadingSkip > 0 && desc.contentRangeStart < 0) {
        setCapability(desc, MDCH_CAPABILITY_BYTE_SEEK, false); // it ignored the Range, and will again
    }
}

void takeContentType(MdchCurlDescriptor_struct& desc)
{
    const char* type = nullptr;
    if (curl_easy_getinfo(desc.easy, CURLINFO_CONTENT_TYPE, &type) == CURLE_OK && type != nullptr) {
        desc.contentType = type;
    }
}

void classify(MdchCurlDescriptor_struct& desc, long status, const char* function)
{
    const int code = static_cast<int>(status);
    if (status >= 500) {
        MDCH_TRACE(md::kTraceError, "%s(): got server error %i on fd %i\n", function, code, desc.fd);
        endWithError(desc, EINVAL);
    } else if (status >= 400) {
        MDCH_TRACE(md::kTraceError, "%s(): got error %i on fd %i\n", function, code, desc.fd);
        endWithError(desc, ENOENT);
    } else if (status >= 300) {
        MDCH_TRACE(md::kTraceNotice, "%s(): got moved content on fd %i\n", function, desc.fd);
        if (desc.followLocation == 0) {
            endWithError(desc, MDCH_HTTP_EMOVED);
        }
    } else if (status >= 200) {
        MDCH_TRACE(md::kTraceNotice, "%s(): got connect for type '%s' with size %lld on %i\n", function,
                   desc.contentType.c_str(), static_cast<long long>(desc.length), desc.fd);
        desc.connected = 1;
        desc.headerComplete = 1;
    }
}

void takeCookies(MdchCurlDescriptor_struct& desc, const char* function)
{
    curl_slist* list = nullptr;
    if (curl_easy_getinfo(desc.easy, CURLINFO_COOKIELIST, &list) != CURLE_OK) {
        return;
    }
    if (!desc.cookiesReceived) {
        desc.callerCookies = desc.cookies; // the next open sends these, never the lines below
        desc.cookiesReceived = true;
    }
    std::string joined;
    for (const curl_slist* entry = list; entry != nullptr; entry = entry->next) {
        joined += entry == list ? "" : ";";
        joined += entry->data;
    }
    curl_slist_free_all(list);
    desc.cookies.swap(joined);
    if (!desc.cookies.empty()) {
        MDCH_TRACE(md::kTraceCall, "%s(): got cookies on fd %i: '%s'\n", function, desc.fd,
                   desc.cookies.c_str());
    }
}

void endBlock(MdchCurlDescriptor_struct& desc, const char* function)
{
    desc.headerBlockEnded = 1;
    long status = 0;
    const bool hasStatus = curl_easy_getinfo(desc.easy, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK;
    const bool success = hasStatus && status >= 200 && status < 300;
    if (success) {
        alignWithRange(desc, status, function);
    }
    takeLength(desc, function);
    takeContentType(desc);
    if (hasStatus) {
        desc.httpStatus = static_cast<std::int32_t>(status);
        if (desc.done == 0) {
            classify(desc, status, function);
        }
    }
    takeCookies(desc, function);
    pthread_cond_broadcast(&desc.cond);
}

// Only a status line begins a block. Trailers of a chunked body come behind the block's blank line, too.
bool isStatusLine(const std::string& line)
{
    return line.compare(0, 5, "HTTP/") == 0 || line.compare(0, 4, "ICY ") == 0;
}

// False: the server sends more than anybody can want.
bool keepLine(MdchCurlDescriptor_struct& desc, const char* data, std::size_t size)
{
    std::string line(data, size);
    bool trailer = false;
    if (desc.headerBlockEnded != 0) {
        if (isStatusLine(line)) {
            desc.headerBlockEnded = 0;
            desc.responseHeaders.clear();
            desc.headerBytes = 0;
            desc.instanceLength = -1;
            desc.contentRangeStart = -1;
        } else {
            trailer = true;
        }
    }
    if (size > kMostHeaderBytes - desc.headerBytes) {
        return false;
    }
    desc.headerBytes += size;
    if (!trailer) {
        mdchHttpParseHeaderLine(desc, line);
    }
    desc.responseHeaders.push_back(std::move(line));
    return true;
}

bool isBlankLine(const char* data, std::size_t size)
{
    return (size == 2 && data[0] == '\r' && data[1] == '\n') || (size == 1 && data[0] == '\n');
}

} // namespace

void mdchHttpParseHeaderLine(MdchCurlDescriptor_struct& desc, const std::string& line)
{
    if (const char* range = findIgnoringCase(line, "Content-Range")) {
        parseContentRange(desc, range, __func__);
    } else if (findIgnoringCase(line, "Accept-Ranges") != nullptr) {
        parseAcceptRanges(desc, line, __func__);
    } else if (findIgnoringCase(line, "contentFeatures.dlna.org") != nullptr) {
        parseContentFeatures(desc, line, __func__);
    } else if (findIgnoringCase(line, "TimeSeekRange.dlna.org") != nullptr) {
        constexpr const char* kBytes = "bytes=";
        if (const char* bytes = findIgnoringCase(line, kBytes)) {
            parseTimeSeekRange(desc, bytes + std::strlen(kBytes), __func__);
        }
    }
}

size_t mdchHttpCurl_headerCallback(char* line, size_t size, size_t nmemb, void* userData)
{
    MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): Called.\n", MDCH_HERE);
    const size_t count = size * nmemb;
    const auto fd = static_cast<int>(reinterpret_cast<std::intptr_t>(userData));
    const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(fd);
    if (desc == nullptr) {
        MDCH_TRACE(md::kTraceError, "%s(): received header callback for unknown fd %i\n", __func__, fd);
        return count;
    }
    const MdpLock lock = md::lockDescriptor(*desc);
    if (desc->done != 0) {
        return count;
    }
    try {
        if (isBlankLine(line, count)) {
            endBlock(*desc, __func__);
            return count;
        }
        // A short count makes libcurl end the transfer.
        return keepLine(*desc, line, count) ? count : 0;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}
