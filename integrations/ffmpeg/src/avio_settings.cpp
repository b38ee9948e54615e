#include "avio_settings.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_url.h"
#include "mdc_hlp_url_nvol2.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

extern "C" {
#include <libavutil/error.h>
}

namespace avio {

namespace {

// The record as of the first version: no smaller one was ever handed out.
constexpr std::size_t kFirstSize = offsetof(mdchAvioOptions, titleOpaque) + sizeof(void*);

constexpr int kHeaderSeconds = 40; // as streams have them that mdch_UrlOpen opens
constexpr int kDataSeconds = 30;
constexpr int kReconnects = 3;

std::string textOf(const char* text)
{
    return text != nullptr ? text : "";
}

template <class Number>
void setIfZero(Number& number, Number value)
{
    if (number == 0) {
        number = value;
    }
}

// A field that this version does not know must not be asked for in vain: it might be about trust.
bool asksForMore(const mdchAvioOptions& given)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(&given);
    return given.size > sizeof given && std::any_of(bytes + sizeof given, bytes + given.size,
                                                    [](unsigned char byte) { return byte != 0; });
}

void setHeaderLines(md::HttpAccess& http, const std::string& lines)
{
    std::size_t at = 0;
    while (at < lines.size()) {
        const std::size_t end = std::min(lines.find("\r\n", at), lines.size());
        if (end > at) {
            http.setHeaderLine(lines.substr(at, end - at));
        }
        at = end + 2;
    }
}

} // namespace

int takeOptions(const char* url, const mdchAvioOptions* given, Settings& settings)
{
    mdchAvioOptions& options = settings.options;
    if (given != nullptr) {
        if (given->size < kFirstSize || asksForMore(*given)) {
            return AVERROR(EINVAL);
        }
        std::memcpy(&options, given, std::min<std::size_t>(given->size, sizeof options));
    }
    if (options.dataTimeout < 0 || options.headerTimeout < 0) {
        return AVERROR(EINVAL);
    }
    setIfZero(options.headerTimeout, kHeaderSeconds);
    setIfZero(options.dataTimeout, kDataSeconds);
    setIfZero(options.reconnects, kReconnects);
    settings.url = url;
    settings.userAgent = options.userAgent != nullptr ? options.userAgent : mdch_getUserAgent();
    settings.headers = textOf(options.headers);
    settings.cookie = textOf(options.cookie);
    settings.caCertPath = textOf(options.caCertPath);
    settings.clientCert = textOf(options.clientCert);
    settings.certPasswd = textOf(options.certPasswd);
    std::string native;
    if ((options.flags & MDCH_URL_NATIVE_PATH) != 0 && md::nvol2UrlToNative(settings.url, native)) {
        settings.url = native;
    }
    return 0;
}

void configure(md::HttpAccess& http, const Settings& settings)
{
    constexpr int kModeMask = MDCH_URL_DLNA_STREAMING | MDCH_URL_DLNA_INTERACTIVE;
    const int flags = settings.options.flags;
    http.setUserAgent(settings.userAgent);
    setHeaderLines(http, settings.headers);
    if (settings.wantsTitles()) {
        http.setHeaderLine("icy-metadata:1");
    }
    http.setCookie(settings.cookie);
    if (!settings.caCertPath.empty()) {
        http.setCaCertPath(settings.caCertPath);
    }
    if (!settings.clientCert.empty()) {
        http.setClientCert(settings.clientCert);
        http.setCertPasswd(settings.certPasswd);
    }
    if ((flags & MDCH_URL_FORCE_RANGE) != 0) {
        http.fcntl(MDCH_FCNTL_FORCE_RANGE);
    }
    if ((flags & kModeMask) != 0) {
        http.fcntl(MDCH_FCNTL_DLNA_MODE, (flags & kModeMask) / MDCH_URL_DLNA_STREAMING);
    }
    if ((flags & MDCH_URL_PAUSE_BUFFERING) != 0) {
        http.fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
    }
    if (settings.options.receiveBuffer != 0) {
        http.fcntl(MDCH_FCNTL_BUFFER_SIZE, settings.options.receiveBuffer);
    }
    http.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, settings.options.headerTimeout);
    // The worker counts the seconds itself: a seek need not wait for a read that nobody waits for any more.
    http.fcntl(MDCH_FCNTL_DATA_TIMEOUT, 1);
}

} // namespace avio
