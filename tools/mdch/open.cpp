#include "open.h"

#include "interrupt.h"
#include "prompt.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_url_nvol2.h"
#include "mdc_hlp_url_udp.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
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

mdch_UrlExtended_struct extendedFrom(const StreamOptions& options)
{
    mdch_UrlExtended_struct ext{};
    ext.userAgent = orNull(options.userAgent);
    ext.cookie = orNull(options.cookie);
    ext.caCertPath = orNull(options.caPath);
    ext.clientCert = orNull(options.clientCert);
    ext.certPasswd = orNull(options.keyPassword);
    ext.bufferSize = options.bufferSize;
    if (options.icy) {
        ext.flags |= MDCH_URL_ICY_METADATA;
    }
    if (options.forceRange) {
        ext.flags |= MDCH_URL_FORCE_RANGE;
    }
    if (options.pauseBuffering) {
        ext.flags |= MDCH_URL_PAUSE_BUFFERING;
    }
    if (options.native) {
        ext.flags |= MDCH_URL_NATIVE_PATH;
    }
    ext.flags |= options.dlnaMode * MDCH_URL_DLNA_STREAMING;
    return ext;
}

// The opening call has no place for header lines, time-outs and redirects: with these, the stream is set up here.
int openByHand(const StreamOptions& options, md::HttpAccess& http)
{
    if (!options.userAgent.empty()) {
        http.setUserAgent(options.userAgent);
    }
    if (options.icy) {
        http.setHeaderLine("icy-metadata:1");
    }
    for (const std::string& line : options.headerLines) {
        http.setHeaderLine(line);
    }
    http.setCookie(options.cookie);
    http.setCaCertPath(options.caPath);
    http.setClientCert(options.clientCert);
    http.setCertPasswd(options.keyPassword);
    if (options.dlnaMode != 0) {
        http.fcntl(MDCH_FCNTL_DLNA_MODE, options.dlnaMode);
    }
    if (options.bufferSize != 0) {
        http.fcntl(MDCH_FCNTL_BUFFER_SIZE, options.bufferSize);
    }
    if (options.forceRange) {
        http.fcntl(MDCH_FCNTL_FORCE_RANGE);
    }
    if (options.pauseBuffering) {
        http.fcntl(MDCH_FCNTL_PAUSE_BUFFERING);
    }
    http.fcntl(MDCH_FCNTL_FOLLOW_REDIRECTS, options.followRedirects ? 1 : 0);
    if (options.maxRedirects >= 0) {
        http.fcntl(MDCH_FCNTL_MAX_REDIRECTS, options.maxRedirects);
    }
    constexpr int kHeaderSeconds = 40; // as the opening call has them
    constexpr int kDataSeconds = 30;
    const int header = headerSeconds(options);
    const int data = dataSeconds(options);
    http.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, header != 0 ? header : kHeaderSeconds);
    http.fcntl(MDCH_FCNTL_DATA_TIMEOUT, data != 0 ? data : kDataSeconds);
    const int opened = http.open(options.url.c_str(), MDCH_MODE_READ);
    return opened < 0 ? opened : http.error();
}

std::int32_t icyIntervalFrom(const Source& source)
{
    const std::string value = headerValue(headerLines(source), "icy-metaint");
    const long interval = std::strtol(value.c_str(), nullptr, 10);
    return interval > 0 && interval <= INT32_MAX ? static_cast<std::int32_t>(interval) : 0;
}

bool hasScheme(const std::string& url, const char* scheme)
{
    return strncasecmp(url.c_str(), scheme, std::strlen(scheme)) == 0;
}

bool isFileUrl(const std::string& url)
{
    return hasScheme(url, kFileScheme);
}

// A folder can be opened like a file, but gives nothing.
bool isFolder(const std::string& url)
{
    struct stat facts = {};
    return stat(localPath(url).c_str(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

bool needsHand(const StreamOptions& options)
{
    const bool isWeb = hasScheme(options.url, "http://") || hasScheme(options.url, "https://");
    return isWeb && (!options.headerLines.empty() || headerSeconds(options) != 0 ||
                     dataSeconds(options) != 0 || !options.followRedirects || options.maxRedirects >= 0);
}

// True, or false with the failure.
bool readKeyPassword(StreamOptions& options, Interrupt& interrupt, Failure& failure)
{
    if (options.keyPasswordPrompt) {
        options.keyPasswordPrompt = false; // once
        const Question question = {"Pass phrase of " + options.clientCert + ": ", "no pass phrase",
                                   "Use --key-password-file"};
        return askUnseen(question, interrupt, options.keyPassword, failure);
    }
    if (options.keyPasswordFile.empty()) {
        return true;
    }
    std::ifstream file(options.keyPasswordFile);
    if (!file || !std::getline(file, options.keyPassword)) {
        failure = localFailure("cannot read " + options.keyPasswordFile, errno);
        return false;
    }
    return true;
}

bool tellsStatus(int code)
{
    return code == ENOENT || code == EINVAL || code == MDCH_HTTP_EMOVED;
}

// What an open call's result means for the kind of address.
Failure openFailure(const StreamOptions& options, const Source& source, const std::string& what, int result)
{
    const int code = std::abs(result);
    if (source.isDatagrams()) {
        return datagramFailure(what, code);
    }
    if (source.http == nullptr && code == ENODEV && hasScheme(options.url, "nvl2://")) {
        return noVolumeFailure(what);
    }
    const bool looksLikeAddress = options.url.find("://") != std::string::npos && !isFileUrl(options.url);
    return std::strcmp(source.backEnd(), "file") == 0 && looksLikeAddress && !options.native
               ? unservedFailure(what, code)
               : failureOf(source, what, result, code);
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

Source::~Source()
{
    if (stream != nullptr) {
        stream->close(); // a stream of datagrams stays in its group otherwise
    }
}

const char* Source::backEnd() const
{
    if (http != nullptr) {
        return "HTTP";
    }
    if (isDatagrams()) {
        return "UDP";
    }
    return dynamic_cast<MdchUrlNvol2*>(stream.get()) != nullptr ? "media volume" : "file";
}

bool Source::isDatagrams() const
{
    return dynamic_cast<MdchUrlUdp*>(stream.get()) != nullptr;
}

bool openSource(StreamOptions& options, Interrupt& interrupt, Source& source, Failure& failure)
{
    if (!readKeyPassword(options, interrupt, failure)) {
        return false;
    }
    setProxy(options.proxyHost, options.proxyPort);
    const std::string what = "cannot open " + options.url;
    int result = 0;
    if (needsHand(options)) {
        source.stream.reset(MdchUrlBase::createInstance(options.url.c_str()));
        source.http = dynamic_cast<md::HttpAccess*>(source.stream.get());
        result = openByHand(options, *source.http);
    } else {
        mdch_UrlExtended_struct ext = extendedFrom(options);
        result = mdch_OpenUrl(options.url.c_str(), MDCH_MODE_READ, &ext, source.stream);
        source.http = dynamic_cast<md::HttpAccess*>(source.stream.get());
    }
    if (result == 0 && std::strcmp(source.backEnd(), "file") == 0 && isFolder(options.url)) {
        result = -EISDIR;
    }
    if (result == 0 || brokeOffLater(source, result)) {
        source.icyInterval = icyIntervalFrom(source);
        return true;
    }
    failure = openFailure(options, source, what, result);
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
    return httpFailure(what, code, status, source.causes.cause());
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
