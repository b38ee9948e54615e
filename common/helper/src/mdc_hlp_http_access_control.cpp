#include "mdc_hlp_http_access.h"
#include "mdc_hlp_http_access_impl.h"
#include "mdc_hlp_http_ssl.h"
#include "mdc_hlp_trace.h"

#include <cerrno>
#include <cstdarg>

namespace md {

namespace {

constexpr std::int32_t kSmallestBuffer = 0x18000;
constexpr std::int32_t kLargestBuffer = 0x310000;
constexpr std::int32_t kBlockingSeconds = 20;

void setBufferSize(MdchCurlDescriptor_struct& desc, int size)
{
    // One unsigned comparison: sizes below the smallest wrap to huge ones.
    if (static_cast<unsigned int>(size) - static_cast<unsigned int>(kSmallestBuffer) >
        static_cast<unsigned int>(kLargestBuffer - kSmallestBuffer)) {
        MDCH_TRACE(kTraceError, "%s(): invalid buffer size %i [%i..%i]. \n", "setBufsize", size,
                   kSmallestBuffer, kLargestBuffer);
        return;
    }
    desc.receiveBufferSize = size;
}

bool takesArgument(int command)
{
    switch (command) {
    case MDCH_FCNTL_BUFFER_SIZE:
    case MDCH_FCNTL_DATA_TIMEOUT:
    case MDCH_FCNTL_HEADER_TIMEOUT:
    case MDCH_FCNTL_FOLLOW_REDIRECTS:
    case MDCH_FCNTL_DLNA_MODE:
    case MDCH_FCNTL_MAX_REDIRECTS:
        return true;
    default:
        return false;
    }
}

void apply(MdchCurlDescriptor_struct& desc, int command, int argument)
{
    switch (command) {
    case MDCH_FCNTL_BLOCKING:
        desc.dataTimeout = kBlockingSeconds;
        break;
    case MDCH_FCNTL_NONBLOCKING:
        desc.dataTimeout = 0;
        break;
    case MDCH_FCNTL_BUFFER_SIZE:
        setBufferSize(desc, argument);
        break;
    case MDCH_FCNTL_DATA_TIMEOUT:
        desc.dataTimeout = argument;
        break;
    case MDCH_FCNTL_HEADER_TIMEOUT:
        desc.headerTimeout = argument;
        break;
    case MDCH_FCNTL_FOLLOW_REDIRECTS:
        desc.followLocation = argument;
        break;
    case MDCH_FCNTL_FORCE_RANGE:
        desc.forceRange = true;
        break;
    case MDCH_FCNTL_PAUSE_BUFFERING:
        desc.pauseBuffering = true;
        break;
    case MDCH_FCNTL_DLNA_MODE:
        desc.dlnaTransferMode = argument;
        break;
    case MDCH_FCNTL_MAX_REDIRECTS:
        desc.maxRedirects = argument;
        break;
    default:
        desc.acceptAfterDone = true;
        break;
    }
}

// The result of a command for a transfer that is gone.
int resultWhenGone(int command)
{
    switch (command) {
    case MDCH_FCNTL_BLOCKING:
    case MDCH_FCNTL_NONBLOCKING:
    case MDCH_FCNTL_DATA_TIMEOUT:
    case MDCH_FCNTL_HEADER_TIMEOUT:
        return -EINVAL;
    default:
        return -ENOSYS;
    }
}

void appendCookie(std::string& cookies, const std::string& cookie)
{
    if (!cookies.empty()) {
        cookies += ';';
    }
    cookies += cookie;
}

} // namespace

int HttpAccess::fcntl(int command, ...)
{
    MdchDescriptorPtr desc;
    if (!lookUp(desc)) {
        return -EINVAL;
    }
    if (command < MDCH_FCNTL_BLOCKING || command > MDCH_FCNTL_ACCEPT_AFTER_DONE) {
        return -ENOSYS;
    }
    if (desc == nullptr) {
        return resultWhenGone(command);
    }
    int argument = 0;
    if (takesArgument(command)) {
        va_list arguments;
        va_start(arguments, command);
        argument = va_arg(arguments, int);
        va_end(arguments);
    }
    const MdpLock lock = lockDescriptor(*desc);
    apply(*desc, command, argument);
    return 0;
}

int HttpAccess::afterHeader(std::int32_t (*operation)(const boost::shared_ptr<MdchCurlDescriptor_struct>&))
{
    MdchDescriptorPtr desc;
    if (!lookUp(desc)) {
        return -EINVAL;
    }
    if (desc != nullptr) {
        MdpLock lock = lockDescriptor(*desc);
        waitForHeader(*desc, lock);
    }
    return operation(desc);
}

int HttpAccess::pause()
{
    return afterHeader(mdchHttpCurl_pause);
}

int HttpAccess::resume()
{
    return afterHeader(mdchHttpCurl_resume);
}

template <class Action>
void HttpAccess::withDescriptor(Action action)
{
    onTransfer<bool>(false, false, [&action](const MdchDescriptorPtr& desc, MdpLock& /*lock*/) {
        action(*desc);
        return true;
    });
}

void HttpAccess::setUserAgent(const std::string& agent)
{
    {
        const MdpLock lock(m_mutex);
        m_userAgent = agent;
    }
    withDescriptor([&agent](MdchCurlDescriptor_struct& desc) { desc.userAgent = agent; });
}

void HttpAccess::setCookie(const std::string& cookie)
{
    if (cookie.empty()) {
        return;
    }
    withDescriptor([&cookie](MdchCurlDescriptor_struct& desc) {
        appendCookie(desc.cookies, cookie);
        if (desc.cookiesReceived) {
            appendCookie(desc.callerCookies, cookie);
        }
    });
}

std::string HttpAccess::getCookies()
{
    std::string cookies;
    withDescriptor([&cookies](const MdchCurlDescriptor_struct& desc) { cookies = desc.cookies; });
    return cookies;
}

void HttpAccess::setHeaderLine(const std::string& line)
{
    withDescriptor([&line](MdchCurlDescriptor_struct& desc) { desc.requestHeaderLines.push_back(line); });
}

int HttpAccess::getHeaderList(std::deque<std::string>& lines)
{
    return onTransfer<int>(-EINVAL, 0, [&](const MdchDescriptorPtr& desc, MdpLock& lock) -> int {
        const int waited = waitForHeader(*desc, lock);
        if (waited == 0) {
            lines = desc->responseHeaders;
        }
        return waited;
    });
}

int HttpAccess::getResponseCode()
{
    return onTransfer<int>(-EINVAL, -ENOSYS, [](const MdchDescriptorPtr& desc, MdpLock& lock) -> int {
        const int waited = waitForHeader(*desc, lock);
        return waited < 0 ? waited : desc->httpStatus;
    });
}

int HttpAccess::getBufferLevel(std::size_t& used, std::size_t& size) const
{
    MdchDescriptorPtr desc;
    if (!lookUp(desc)) {
        return -EINVAL;
    }
    if (desc == nullptr) {
        return -ENOSYS;
    }
    const MdpLock lock = lockDescriptor(*desc);
    used = bufferedBytes(*desc);
    size = desc->ringBuffer.usedBytes() + desc->ringBuffer.availableBytes();
    return 0;
}

int HttpAccess::setCertificate(x509_st* cert)
{
    MdchDescriptorPtr desc;
    if (!lookUp(desc) || desc == nullptr) {
        return -EINVAL;
    }
    return mdchHttpSsl_setCertificate(desc->fd, cert);
}

void HttpAccess::setCaCertPath(const std::string& path)
{
    withDescriptor([&path](MdchCurlDescriptor_struct& desc) { desc.caPath = path; });
}

void HttpAccess::setVerifyHost(bool on)
{
    withDescriptor([on](MdchCurlDescriptor_struct& desc) { desc.verifyHost = on; });
}

void HttpAccess::setClientCert(const std::string& file)
{
    withDescriptor([&file](MdchCurlDescriptor_struct& desc) { desc.clientCertificate = file; });
}

void HttpAccess::setCertPasswd(const std::string& password)
{
    withDescriptor([&password](MdchCurlDescriptor_struct& desc) { desc.keyPassword = password; });
}

} // namespace md
