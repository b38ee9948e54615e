#include "open.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_httpproxy.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <sys/stat.h>
#include <utility>

namespace mdch {

namespace {

constexpr const char* kFileScheme = "file://";

const char* orNull(const std::string& text)
{
    return text.empty() ? nullptr : text.c_str();
}

mdch_UrlExtended_struct extendedFrom(const Arguments& arguments)
{
    mdch_UrlExtended_struct ext{};
    ext.userAgent = orNull(arguments.userAgent);
    ext.cookie = orNull(arguments.cookie);
    ext.caCertPath = orNull(arguments.caPath);
    ext.clientCert = orNull(arguments.clientCert);
    ext.certPasswd = orNull(arguments.keyPassword);
    ext.bufferSize = arguments.bufferSize;
    if (arguments.icy) {
        ext.flags |= MDCH_URL_ICY_METADATA;
    }
    ext.flags |= arguments.dlnaMode * MDCH_URL_DLNA_STREAMING;
    return ext;
}

// The opening call has no place for header lines and time-outs: with these, the stream is set up here.
int openByHand(const Arguments& arguments, const mdch_UrlExtended_struct& ext, md::HttpAccess& http)
{
    if (ext.userAgent != nullptr) {
        http.setUserAgent(ext.userAgent);
    }
    if (arguments.icy) {
        http.setHeaderLine("icy-metadata:1");
    }
    for (const std::string& line : arguments.headerLines) {
        http.setHeaderLine(line);
    }
    http.setCookie(arguments.cookie);
    http.setCaCertPath(arguments.caPath);
    http.setClientCert(arguments.clientCert);
    http.setCertPasswd(arguments.keyPassword);
    if (arguments.dlnaMode != 0) {
        http.fcntl(MDCH_FCNTL_DLNA_MODE, arguments.dlnaMode);
    }
    if (arguments.bufferSize != 0) {
        http.fcntl(MDCH_FCNTL_BUFFER_SIZE, arguments.bufferSize);
    }
    constexpr int kHeaderSeconds = 40; // as the opening call has them
    constexpr int kDataSeconds = 30;
    http.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, arguments.timeout != 0 ? arguments.timeout : kHeaderSeconds);
    http.fcntl(MDCH_FCNTL_DATA_TIMEOUT, arguments.timeout != 0 ? arguments.timeout : kDataSeconds);
    const int opened = http.open(arguments.url.c_str(), MDCH_MODE_READ);
    return opened < 0 ? opened : http.error();
}

void setProxy(const Arguments& arguments)
{
    md::httpProxyInfo_struct info;
    info.host = arguments.proxyHost;
    info.port = arguments.proxyPort;
    md::setHttpProxyInfo(info, !arguments.proxyHost.empty(), false);
}

std::int32_t icyIntervalFrom(const Source& source)
{
    const std::string value = headerValue(headerLines(source), "icy-metaint");
    const long interval = std::strtol(value.c_str(), nullptr, 10);
    return interval > 0 && interval <= INT32_MAX ? static_cast<std::int32_t>(interval) : 0;
}

bool isFileUrl(const std::string& url)
{
    return strncasecmp(url.c_str(), kFileScheme, std::strlen(kFileScheme)) == 0;
}

// A folder can be opened like a file, but gives nothing.
bool isFolder(const std::string& url)
{
    struct stat facts = {};
    return stat(localPath(url).c_str(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

bool tellsStatus(int code)
{
    return code == ENOENT || code == EINVAL || code == MDCH_HTTP_EMOVED;
}

// A short transfer may have broken off before the opening call looked. What has come is there to be read, and
// the error stays for afterwards: the outcome must not depend on who was faster.
bool brokeOffLater(const Source& source, int code)
{
    constexpr int kOk = 200;
    constexpr int kRedirect = 300;
    if (source.http == nullptr ||
        (code != MDCH_HTTP_ENETWORK && code != MDCH_HTTP_ETRANSFER && code != MDCH_HTTP_EUNKNOWN)) {
        return false;
    }
    const int status = source.http->getResponseCode();
    return status >= kOk && status < kRedirect;
}

} // namespace

bool openSource(const Arguments& arguments, Source& source, Failure& failure)
{
    setProxy(arguments);
    mdch_UrlExtended_struct ext = extendedFrom(arguments);
    int result = 0;
    if (arguments.headerLines.empty() && arguments.timeout == 0) {
        result = mdch_OpenUrl(arguments.url.c_str(), MDCH_MODE_READ, &ext, source.stream);
        source.http = dynamic_cast<md::HttpAccess*>(source.stream.get());
    } else {
        source.stream.reset(MdchUrlBase::createInstance(arguments.url.c_str()));
        source.http = dynamic_cast<md::HttpAccess*>(source.stream.get());
        result = source.http != nullptr ? openByHand(arguments, ext, *source.http)
                                        : source.stream->open(arguments.url.c_str(), MDCH_MODE_READ);
    }
    if (result == 0 && source.http == nullptr && isFolder(arguments.url)) {
        result = -EISDIR;
    }
    if (result == 0 || brokeOffLater(source, result)) {
        source.icyInterval = icyIntervalFrom(source);
        return true;
    }
    const std::string what = "cannot open " + arguments.url;
    const bool looksLikeAddress = arguments.url.find("://") != std::string::npos && !isFileUrl(arguments.url);
    failure = source.http == nullptr && looksLikeAddress ? unservedFailure(what, std::abs(result))
                                                         : failureOf(source, what, result, std::abs(result));
    return false;
}

std::string localPath(const std::string& url)
{
    return isFileUrl(url) ? url.substr(std::strlen(kFileScheme)) : url;
}

Failure failureOf(const Source& source, const std::string& what, int code, int savedErrno)
{
    if (source.http == nullptr) {
        return localFailure(what, savedErrno);
    }
    // Not asked for otherwise: without a response it would be waited for again.
    const int status = tellsStatus(code) ? source.http->getResponseCode() : 0;
    return httpFailure(what, code, status);
}

std::deque<std::string> headerLines(const Source& source)
{
    std::deque<std::string> lines;
    if (source.http == nullptr || source.http->getHeaderList(lines) < 0) {
        return {};
    }
    for (std::string& line : lines) {
        line.erase(line.find_last_not_of("\r\n") + 1);
    }
    return lines;
}

std::string headerValue(const std::deque<std::string>& lines, const std::string& name)
{
    for (const std::string& line : lines) {
        const std::size_t colon = line.find(':');
        if (colon != name.size() || strncasecmp(line.c_str(), name.c_str(), colon) != 0) {
            continue;
        }
        const std::size_t first = line.find_first_not_of(" \t", colon + 1);
        return first == std::string::npos ? std::string() : line.substr(first);
    }
    return {};
}

} // namespace mdch
