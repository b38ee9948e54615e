#include "mdc_hlp_http_curl_engine.h"
#include "mdc_hlp_http_curl_news.h"
#include "mdc_hlp_trace.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <strings.h>
#include <utility>

namespace {

using md::MdchCurlDescriptor_struct;

// A block of header lines larger than this is no answer to wait for: libcurl bounds a line, not their number.
constexpr std::size_t kMostHeaderBytes = 307200;

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

// A body that begins behind the position asked for: none of it can be used.
void refuseMisplaced(MdchCurlDescriptor_struct& desc, std::int64_t first, std::int64_t wanted,
                     const char* function)
{
    MDCH_TRACE(md::kTraceError, "%s(): response starts at %lld instead of %lld on fd %i\n", function,
               static_cast<long long>(first), static_cast<long long>(wanted), desc.fd);
    endWithError(desc, MDCH_HTTP_ETRANSFER);
    desc.misplaced = true;
}

// Whether a request without a Range of ours may be answered with a part: a time seek, whose response tells its
// position, and a request to which the caller added a Range.
bool mayStartAnywhere(const MdchCurlDescriptor_struct& desc)
{
    const auto& lines = desc.requestHeaderLines;
    return desc.rebuildHeaders || std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
               return strncasecmp(line.c_str(), "Range:", 6) == 0;
           });
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
        if (status == kPartialContent && desc.contentRangeStart > 0 && !mayStartAnywhere(desc)) {
            refuseMisplaced(desc, desc.contentRangeStart, 0, function);
        }
        return;
    }
    std::int64_t first = desc.requestedStart;
    if (desc.contentRangeStart >= 0) {
        first = desc.contentRangeStart;
    } else if (status != kPartialContent) {
        first = 0;
    }
    if (first > desc.requestedStart) {
        refuseMisplaced(desc, first, desc.requestedStart, function);
        return;
    }
    desc.leadingSkip = desc.requestedStart - first;
    if (desc.leadingSkip > 0 && desc.contentRangeStart < 0) {
        desc.capabilities &=
            ~static_cast<std::uint32_t>(MDCH_CAPABILITY_BYTE_SEEK); // it ignored the Range, and will again
    }
}

void takeContentType(MdchCurlDescriptor_struct& desc)
{
    const char* type = nullptr;
    if (curl_easy_getinfo(desc.easy, CURLINFO_CONTENT_TYPE, &type) == CURLE_OK && type != nullptr) {
        desc.contentType = type;
    }
}

// A stream whose length is not known may have come to its last byte before a pause; what the resume asks for
// does not exist then.
bool endsAtResume(MdchCurlDescriptor_struct& desc, long status)
{
    constexpr long kRangeNotSatisfiable = 416;
    if (status != kRangeNotSatisfiable || !desc.resumed) {
        return false;
    }
    desc.length = desc.writePos;
    desc.connected = 1;
    desc.headerComplete = 1;
    desc.done = 1;
    desc.error = 0;
    return true;
}

void classify(MdchCurlDescriptor_struct& desc, long status, const char* function)
{
    const int code = static_cast<int>(status);
    if (endsAtResume(desc, status)) {
        return;
    }
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

struct FreeList
{
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

void takeCookies(MdchCurlDescriptor_struct& desc, const char* function)
{
    curl_slist* list = nullptr;
    if (curl_easy_getinfo(desc.easy, CURLINFO_COOKIELIST, &list) != CURLE_OK) {
        return;
    }
    const std::unique_ptr<curl_slist, FreeList> owned(list);
    if (!desc.cookiesReceived) {
        desc.callerCookies = desc.cookies; // the next open sends these, never the lines below
        desc.cookiesReceived = true;
    }
    std::string joined;
    for (const curl_slist* entry = list; entry != nullptr; entry = entry->next) {
        joined += entry == list ? "" : ";";
        joined += entry->data;
    }
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

// CR LF, a bare LF, and whatever else libcurl takes for the end of a header: CR CR LF is what a server sends that
// writes CR LF through a text mode.
bool isBlankLine(const char* data, std::size_t size)
{
    return size > 0 && data[size - 1] == '\n' && (data[0] == '\r' || data[0] == '\n');
}

} // namespace

size_t mdchHttpCurl_headerCallback(char* line, size_t size, size_t nmemb, void* userData)
{
    MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): Called.\n", MDCH_HERE);
    const size_t count = size * nmemb;
    const std::int32_t fd = md::pointerAsNumber(userData);
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
            md::tellAll(desc);
            return count;
        }
        // A short count makes libcurl end the transfer.
        return keepLine(*desc, line, count) ? count : 0;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}
