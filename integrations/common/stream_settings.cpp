#include "stream_settings.h"

#include "mdc_hlp_httpproxy.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <strings.h>

namespace player {

namespace {

constexpr const char* kHttp = "http://";
constexpr long kLargestPort = 65535;

// "http://HOST:PORT/" and "HOST:PORT"; without a port, that of HTTP. False: anything else.
bool parseProxy(std::string text, md::httpProxyInfo_struct& info)
{
    const std::size_t scheme = std::string(kHttp).size();
    if (strncasecmp(text.c_str(), kHttp, scheme) == 0) {
        text.erase(0, scheme);
    }
    text.erase(std::min(text.find('/'), text.size()));
    const std::size_t bracket = text.rfind(']'); // of an IPv6 address
    const std::size_t colon = text.rfind(':');
    info.port = 80;
    info.host = text;
    if (colon != std::string::npos && (bracket == std::string::npos || colon > bracket)) {
        char* end = nullptr;
        const long port = std::strtol(text.c_str() + colon + 1, &end, 10);
        if (*end != '\0' || port < 1 || port > kLargestPort) {
            return false;
        }
        info.port = static_cast<std::int32_t>(port);
        info.host = text.substr(0, colon);
    }
    return !info.host.empty() && info.host.find_first_of("@: ") == std::string::npos;
}

} // namespace

void apply(const StreamSettings& settings, md::HttpAccess& http)
{
    if (!settings.userAgent.empty()) {
        http.setUserAgent(settings.userAgent);
    }
    for (const std::string& cookie : settings.cookies) {
        http.setCookie(cookie);
    }
    for (const std::string& line : settings.headerLines) {
        http.setHeaderLine(line);
    }
    if (settings.wantsTitles) {
        http.setHeaderLine("icy-metadata:1");
    }
    http.setCaCertPath(settings.caDirectory);
    http.setVerifyHost(settings.verifiesServer);
    http.setClientCert(settings.clientCertificate);
    http.setCertPasswd(settings.clientPassword);
    http.fcntl(MDCH_FCNTL_FOLLOW_REDIRECTS, settings.followsRedirects ? 1 : 0);
    if (settings.transferMode != 0) {
        http.fcntl(MDCH_FCNTL_DLNA_MODE, settings.transferMode);
    }
    if (settings.bufferBytes != 0) {
        http.fcntl(MDCH_FCNTL_BUFFER_SIZE, settings.bufferBytes);
    }
    if (settings.pauseBuffering) {
        http.fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
    }
    applyTimeout(settings, http);
}

void applyTimeout(const StreamSettings& settings, md::HttpAccess& http)
{
    // 0 would mean to the library that nothing waits.
    const int seconds =
        settings.timeoutSeconds > 0 ? settings.timeoutSeconds : std::numeric_limits<int>::max();
    http.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, seconds);
    http.fcntl(MDCH_FCNTL_DATA_TIMEOUT, seconds);
}

bool applyProxy(const StreamSettings& settings)
{
    if (settings.proxy.empty()) {
        return true;
    }
    md::httpProxyInfo_struct info;
    if (!parseProxy(settings.proxy, info)) {
        return false;
    }
    info.user = settings.proxyUser;
    info.password = settings.proxyPassword;
    return md::setHttpProxyInfo(info, true, !info.user.empty());
}

} // namespace player
