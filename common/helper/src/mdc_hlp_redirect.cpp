#include "mdc_hlp_redirect.h"

#include "mdc_hlp_redirect_names.h"
#include "mdc_hlp_redirect_query.h"
#include "mdc_hlp_redirect_read.h"
#include "mdc_hlp_trace.h"
#include "mdc_hlp_url_patch.h"

#include <curl/curl.h>
#include <new>

namespace md {

namespace {

constexpr const char* kName = "streamNeedRedirect";

static_assert(kQueryRedirected == static_cast<int>(CURLE_UNSUPPORTED_PROTOCOL));
static_assert(kQueryFailed == static_cast<int>(CURLE_COULDNT_CONNECT));

// Media behind an ASX reference are served over HTTP by servers that want to be asked the MMS way.
void useMmsh(std::string& url)
{
    const std::size_t at = url.find(kHttp);
    if (at != std::string::npos) {
        url.replace(at, kHttp.size(), kMmsh);
    }
}

// The URL in a body. The order is fixed: plain text is tried as M3U first; M3U types are not, so that a list
// whose first line is a bare URL is taken by the reader for those.
bool findInBody(const HeaderQuery& query, std::string& url)
{
    if (beginsWithAny(query.contentType, kTextTypes) && readM3U(query.body, url)) {
        MDCH_TRACE(kTraceNotice, "%s() m3u redirect to %s\n", kName, url.c_str());
        return true;
    }
    bool mmsh = false;
    if (readASX(query.body, url, mmsh)) {
        MDCH_TRACE(kTraceNotice, "%s() ASX redirect to %s\n", kName, url.c_str());
        if (mmsh) {
            useMmsh(url);
        }
        return true;
    }
    if (readSIMPLE(query.body, url)) {
        MDCH_TRACE(kTraceNotice, "%s() SIMPLE redirect to %s\n", kName, url.c_str());
        if (beginsWithAny(query.contentType, kAsxTypes)) {
            useMmsh(url);
        }
        return true;
    }
    if (readM3U(query.body, url)) {
        MDCH_TRACE(kTraceNotice, "%s() m3u redirect (2) to %s\n", kName, url.c_str());
        return true;
    }
    MDCH_TRACE(kTraceNotice, "%s() can not parse content:\n%s\n", kName, query.body.c_str());
    return false;
}

int resolve(const std::string& url, std::deque<std::string>& out)
{
    HeaderQuery query;
    query.url = urlPatch(url);
    const bool encoded = query.url != url;
    if (encoded) {
        MDCH_TRACE(kTraceNotice, "%s() encode url to %s\n", kName, query.url.c_str());
    }
    const QueryStatus status = queryHeaderMDCH(query);
    if (status == kQueryRedirected && !query.location.empty()) {
        out.push_back(urlPatch(query.location));
        return 1;
    }
    if (status != kQueryDone) {
        MDCH_TRACE(kTraceError, "%s() error=%i %s\n", kName, static_cast<int>(status),
                   curl_easy_strerror(static_cast<CURLcode>(status)));
        return -status;
    }
    std::string found;
    if (!query.body.empty() && findInBody(query, found)) {
        out.push_back(urlPatch(found));
        return 1;
    }
    MDCH_TRACE(kTraceNotice, "%s() no redirect found. \n", kName);
    if (!encoded) {
        return 0;
    }
    MDCH_TRACE(kTraceNotice, "%s() use encode url as redirect.\n", kName);
    out.push_back(query.url);
    return 1;
}

} // namespace

int streamNeedRedirect(const std::string& url, std::deque<std::string>& out)
{
    if (!beginsWith(url, kHttp) && !beginsWith(url, kHttps)) {
        MDCH_TRACE(kTraceCall, "%s() redirect only http/https. url=%s\n", kName, url.c_str());
        return 0;
    }
    MDCH_TRACE(kTraceCall, "%s() url=%s\n", kName, url.c_str());
    try {
        return resolve(url, out);
    } catch (const std::bad_alloc&) {
        return -kQueryFailed;
    }
}

} // namespace md
