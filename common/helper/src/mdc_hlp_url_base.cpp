#include "mdc_hlp_url_base.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_text_find.h"
#include "mdc_hlp_trace.h"
#include "mdc_hlp_url_file.h"
#include "mdc_hlp_url_nvol2.h"
#include "mdc_hlp_url_udp.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <limits>
#include <string>
#include <strings.h>

namespace {

constexpr const char* kVolumeScheme = "nvl2://";

bool beginsWith(const char* url, const char* scheme)
{
    return strncasecmp(url, scheme, std::strlen(scheme)) == 0;
}

void storeError(mdch_UrlExtended_struct* ext, int error)
{
    if (ext != nullptr) {
        ext->error = error;
    }
}

void configure(md::HttpAccess& http, const mdch_UrlExtended_struct& ext)
{
    constexpr int kHeaderSeconds = 40;
    constexpr int kDataSeconds = 30;
    constexpr std::uint32_t kModeMask = MDCH_URL_DLNA_STREAMING | MDCH_URL_DLNA_INTERACTIVE;

    const auto flags = static_cast<std::uint32_t>(ext.flags);
    if (ext.userAgent != nullptr) {
        http.setUserAgent(ext.userAgent);
    }
    if ((flags & MDCH_URL_ICY_METADATA) != 0) {
        http.setHeaderLine("icy-metadata:1");
    }
    if (ext.cookie != nullptr) {
        http.setCookie(ext.cookie);
    }
    if (ext.caCertPath != nullptr) {
        http.setCaCertPath(ext.caCertPath);
    }
    if (ext.clientCert != nullptr) {
        http.setClientCert(ext.clientCert);
    }
    if (ext.certPasswd != nullptr) {
        http.setCertPasswd(ext.certPasswd);
    }
    if ((flags & MDCH_URL_FORCE_RANGE) != 0) {
        http.fcntl(MDCH_FCNTL_FORCE_RANGE);
    }
    if ((flags & kModeMask) != 0) {
        // The field counts in steps of its lowest bit: 1 Streaming, 2 Interactive, 3 Background.
        http.fcntl(MDCH_FCNTL_DLNA_MODE, static_cast<int>((flags & kModeMask) / MDCH_URL_DLNA_STREAMING));
    }
    if ((flags & MDCH_URL_PAUSE_BUFFERING) != 0) {
        http.fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
    }
    if (ext.bufferSize != 0) {
        http.fcntl(MDCH_FCNTL_BUFFER_SIZE, ext.bufferSize);
    }
    http.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, kHeaderSeconds);
    http.fcntl(MDCH_FCNTL_DATA_TIMEOUT, kDataSeconds);
}

// What a server may send fits into the field, or counts as its largest value.
std::int32_t intervalFrom(const char* text)
{
    const long value = std::strtol(text, nullptr, 10);
    constexpr long kMost = std::numeric_limits<std::int32_t>::max();
    constexpr long kLeast = std::numeric_limits<std::int32_t>::min();
    return static_cast<std::int32_t>(value > kMost ? kMost : (value < kLeast ? kLeast : value));
}

// Finds the interval of radio titles. 0, or the negative result of reading the header lines.
int scanHeaderLines(md::HttpAccess& http, mdch_UrlExtended_struct& ext, const char* function)
{
    const char* file = md::traceBaseName(__FILE__);
    MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): parse header lines\n", file, __LINE__, function);
    std::deque<std::string> lines;
    const int result = http.getHeaderList(lines);
    if (result < 0) {
        MDCH_TRACE(md::kTraceError, "%s:%d:%s(): parse header lines error %i\n", file, __LINE__, function,
                   result);
        return result;
    }
    for (const std::string& line : lines) {
        MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): header line = %s.\n", file, __LINE__, function, line.c_str());
        const char* colon = std::strchr(line.c_str(), ':');
        if (colon != nullptr && md::findIgnoringCase(line.c_str(), "icy-metaint") != nullptr) {
            ext.icyMetaInt = intervalFrom(colon + 1);
            MDCH_TRACE(md::kTraceNotice, "%s:%d:%s(): found icy-metaint = %i.\n", file, __LINE__, function,
                       ext.icyMetaInt);
        }
    }
    MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): header lines done\n", file, __LINE__, function);
    return 0;
}

} // namespace

int MdchUrlBase::fcntl(int /*command*/, ...)
{
    return -ENOSYS;
}

MdchUrlBase* MdchUrlBase::createInstance(const char* url)
{
    const char* text = url != nullptr ? url : "";
    if (beginsWith(text, "http://") || beginsWith(text, "https://")) {
        MDCH_TRACE(md::kTraceCall, "%s(%s) => HTTP\n", __func__, text);
        return new md::HttpAccess;
    }
    if (beginsWith(text, "udp://")) {
        MDCH_TRACE(md::kTraceCall, "%s(%s) => UDP\n", __func__, text);
        return new MdchUrlUdp;
    }
    if (beginsWith(text, kVolumeScheme)) {
        MDCH_TRACE(md::kTraceCall, "%s(%s) => NVL2\n", __func__, text);
        return new MdchUrlNvol2;
    }
    MDCH_TRACE(md::kTraceCall, "%s(%s) => FILE\n", __func__, text);
    return new MdchUrlFile;
}

int mdch_OpenUrl(const char* url, int mode, mdch_UrlExtended_struct* ext,
                 boost::shared_ptr<MdchUrlBase>& stream)
{
    if (url == nullptr) {
        storeError(ext, -EINVAL);
        return -EINVAL;
    }
    std::string workingUrl(url);
    if (ext != nullptr && (ext->flags & MDCH_URL_NATIVE_PATH) != 0 && beginsWith(url, kVolumeScheme)) {
        std::string native;
        if (md::nvol2UrlToNative(workingUrl, native)) {
            MDCH_TRACE(md::kTraceCall, "%s() nvol2 translated name=%s\n", __func__, native.c_str());
            workingUrl.swap(native);
        }
    }
    stream.reset(MdchUrlBase::createInstance(workingUrl.c_str()));
    if (stream == nullptr) {
        return -ENOMEM;
    }
    auto* http = dynamic_cast<md::HttpAccess*>(stream.get());
    if (http != nullptr && ext != nullptr) {
        configure(*http, *ext);
    }
    const int opened = stream->open(workingUrl.c_str(), mode);
    if (opened < 0) {
        MDCH_TRACE(md::kTraceError, "%s:%d:%s(): open returned error=%i %s.\n", MDCH_HERE, opened,
                   workingUrl.c_str());
        storeError(ext, opened);
        return opened;
    }
    const int error = stream->error();
    if (error != 0) {
        MDCH_TRACE(md::kTraceError, "%s:%d:%s(): error after open: %i\n", MDCH_HERE, error);
        storeError(ext, error);
        return error;
    }
    if (http == nullptr || ext == nullptr) {
        return 0;
    }
    const int scanned = scanHeaderLines(*http, *ext, __func__);
    if (scanned < 0) {
        storeError(ext, scanned);
    }
    return scanned;
}
