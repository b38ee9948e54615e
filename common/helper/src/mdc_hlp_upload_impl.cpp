#include "mdc_hlp_upload_impl.h"

#include "mdc_hlp_curl_setup.h"
#include "mdc_hlp_sigpipe.h"
#include "mdc_hlp_trace.h"
#include "mdc_hlp_upload_impl_source.h"

#include <cstring>
#include <cxxabi.h>
#include <memory>
#include <strings.h>

namespace md {

namespace {

struct Cleanup
{
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
using EasyHandle = std::unique_ptr<CURL, Cleanup>;

// libcurl sends names as they are: what stands behind a line end would be a command of its own.
bool breaksLine(const std::string& text)
{
    return text.find_first_of(std::string("\r\n\0", 3)) != std::string::npos;
}

} // namespace

int FtpAccess::Impl::checkUploadSettings()
{
    int result = 0;
    if (protocol.empty()) {
        protocol = "ftp";
        MDCH_TRACE(kTraceNotice, "%s:%d:%s(): protocol set to: FTP \n", MDCH_HERE);
    }
    if (serverUrl.empty()) {
        MDCH_TRACE(kTraceError, "%s:%d:%s(): serverUrl not set: abort ftp upload\n", MDCH_HERE);
        result = -1;
    }
    if (uploadedFile.empty()) {
        MDCH_TRACE(kTraceError, "%s:%d:%s(): uploadedFile not set: abort ftp upload\n", MDCH_HERE);
        result = -1;
    }
    if (sourceFile.empty()) {
        MDCH_TRACE(kTraceError, "%s:%d:%s(): sourceFile not set: abort ftp upload\n", MDCH_HERE);
        result = -1;
    }
    if (!userPassword.empty() && userName.empty()) {
        MDCH_TRACE(kTraceError, "%s:%d:%s(): userPassword set, but userName not set\n", MDCH_HERE);
    }
    if (breaksLine(userName) || breaksLine(userPassword)) {
        MDCH_TRACE(kTraceError, "%s:%d:%s(): line end in userName or userPassword: abort ftp upload\n",
                   MDCH_HERE);
        result = -1;
    }
    return result;
}

std::string FtpAccess::Impl::generateURL() const
{
    std::string result = protocol + "://" + serverUrl;
    if (!serverPath.empty()) {
        result += "/" + serverPath;
    }
    return result + "/" + uploadedFile;
}

int FtpAccess::Impl::upload()
{
    MDCH_TRACE(kTraceCall, "%s:%d:%s(): called with parameters: serverUrl: %s   serverPath: %s\n", MDCH_HERE,
               serverUrl.c_str(), serverPath.c_str());
    MDCH_TRACE(kTraceCall, "%s:%d:%s(): called with parameters: sourceFile: %s  uploadedFile: %s\n",
               MDCH_HERE, sourceFile.c_str(), uploadedFile.c_str());
    UploadSource source;
    if (const int error = source.open(sourceFile); error != 0) {
        MDCH_TRACE(kTraceError, "%s:%d:%s(): upload failed: Couldn't open '%s': %s\n", MDCH_HERE,
                   sourceFile.c_str(), std::strerror(error));
        return -1;
    }
    if (const int error = source.measure(); error != 0) {
        MDCH_TRACE(kTraceError, "%s:%d:%s(): upload failed: Couldnt open '%s': %s\n", MDCH_HERE,
                   sourceFile.c_str(), std::strerror(error));
        return -1;
    }
    MDCH_TRACE(kTraceNotice, "%s:%d:%s(): Local file size: %lld bytes.\n", MDCH_HERE,
               static_cast<long long>(source.size()));
    if (checkUploadSettings() < 0) {
        MDCH_TRACE(kTraceError, "%s:%d:%s(): if( checkUploadSettings() < 0 ) aborted\n", MDCH_HERE);
        return -1;
    }
    url = generateURL();
    MDCH_TRACE(kTraceNotice, "%s:%d:%s(): URL generated: %s\n", MDCH_HERE, url.c_str());

    initCurl();
    const SigpipeBlocked noSigpipe;
    EasyHandle easy(curl_easy_init());
    if (easy == nullptr) {
        return convertErrorCode(CURLE_OK);
    }
    const CURLcode code = transfer(easy.get(), source);
    easy.reset();
    {
        const MdpLock lock(mutex);
        m_sockets.clear();
    }
    source.close();
    if (code != CURLE_OK) {
        MDCH_TRACE(kTraceError, "%s:%d:%s(): curl_easy_perform() failed:  errorCode: %d    %s\n", MDCH_HERE,
                   static_cast<int>(code), curl_easy_strerror(code));
    } else {
        MDCH_TRACE(kTraceNotice, "%s:%d:%s(): curl_easy_perform() succeed: errorCode: %d\n", MDCH_HERE,
                   static_cast<int>(code));
    }
    // libcurl only knows that bytes are missing.
    if (source.error() != 0) {
        MDCH_TRACE(kTraceError, "%s:%d:%s(): upload failed: Couldn't read '%s': %s\n", MDCH_HERE,
                   sourceFile.c_str(), std::strerror(source.error()));
    } else if (code == CURLE_PARTIAL_FILE && source.taken() < source.size()) {
        MDCH_TRACE(kTraceError, "%s:%d:%s(): upload failed: '%s' ended after %lld of %lld bytes\n", MDCH_HERE,
                   sourceFile.c_str(), static_cast<long long>(source.taken()),
                   static_cast<long long>(source.size()));
    }
    return convertErrorCode(code);
}

CURLcode FtpAccess::Impl::transfer(CURL* easy, const UploadSource& source)
{
    {
        const MdpLock lock(mutex);
        m_isInterruptible = isSecure();
        m_isInterrupted = false;
    }
    CURLcode code = configure(easy, source);
    if (code == CURLE_OK) {
        code = curl_easy_perform(easy);
    }
    const MdpLock lock(mutex);
    // The end of the handle says good-bye to the server and waits for its answer, which nobody needs. After a
    // failure even a data connection may still be open, and the server wait for its end.
    if (code == CURLE_OK) {
        m_sockets.expectNothing();
    } else {
        m_sockets.breakOff();
    }
    m_isInterruptible = false;
    if (m_isInterrupted && code != CURLE_OK && code != CURLE_ABORTED_BY_CALLBACK) {
        // libcurl met the end of the connection before its next progress call.
        MDCH_TRACE(kTraceNotice, "%s:%d:%s(): upload aborted after: %lld\n", MDCH_HERE,
                   static_cast<long long>(uploadActual));
        code = CURLE_ABORTED_BY_CALLBACK;
    }
    curlCode = code;
    return code;
}

bool FtpAccess::Impl::isSecure() const
{
    return strcasecmp(protocol.c_str(), "ftps") == 0;
}

CURLcode FtpAccess::Impl::configure(CURL* easy, const UploadSource& source)
{
    CURLcode result = CURLE_OK;
    const auto note = [&result](CURLcode code) { result = result == CURLE_OK ? code : result; };
    const auto set = [easy, &note](CURLoption option, auto value) {
        note(curl_easy_setopt(easy, option, value));
    };
    set(CURLOPT_UPLOAD, 1L);
    set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(source.size()));
    set(CURLOPT_READDATA, source.stream());
    if (!userName.empty()) {
        set(CURLOPT_USERNAME, userName.c_str());
        set(CURLOPT_PASSWORD, userPassword.c_str());
    }
    set(CURLOPT_XFERINFOFUNCTION, &Impl::transferInfo);
    set(CURLOPT_XFERINFODATA, this);
    set(CURLOPT_NOPROGRESS, 0L);
    set(CURLOPT_FTP_CREATE_MISSING_DIRS, 1L);
    set(CURLOPT_URL, url.c_str());

    note(setCurlBasics(easy));
    note(allowOnly(easy, CurlProtocols::kFtp));
    // Otherwise the environment's proxy gets the file, by HTTP and with the password.
    set(CURLOPT_PROXY, "");
    set(CURLOPT_NOPROXY, "");
    if (isSecure()) {
        // A server that wants the file in the clear does not get it.
        set(CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
    }
    set(CURLOPT_OPENSOCKETFUNCTION, &Impl::openSocket);
    set(CURLOPT_OPENSOCKETDATA, this);
    set(CURLOPT_CLOSESOCKETFUNCTION, &Impl::closeSocket);
    set(CURLOPT_CLOSESOCKETDATA, this);
    return result;
}

curl_socket_t FtpAccess::Impl::openSocket(void* impl, curlsocktype purpose, curl_sockaddr* address)
{
    auto& self = *static_cast<Impl*>(impl);
    const MdpLock lock(self.mutex);
    if (self.m_isInterrupted) {
        return CURL_SOCKET_BAD; // opened behind the cancel, nothing would break it off
    }
    const curl_socket_t socket = openCurlSocket(nullptr, purpose, address);
    if (socket != CURL_SOCKET_BAD) {
        self.m_sockets.add(socket);
    }
    return socket;
}

int FtpAccess::Impl::closeSocket(void* impl, curl_socket_t socket)
{
    auto& self = *static_cast<Impl*>(impl);
    const MdpLock lock(self.mutex);
    return self.m_sockets.close(socket);
}

int FtpAccess::Impl::transferInfo(void* impl, curl_off_t /*downloadTotal*/, curl_off_t /*downloadNow*/,
                                  curl_off_t uploadTotal, curl_off_t uploadNow)
{
    return impl != nullptr ? static_cast<Impl*>(impl)->reportProgress(uploadTotal, uploadNow) : 1;
}

int FtpAccess::Impl::reportProgress(curl_off_t total, curl_off_t now)
{
    bool isAborted = false;
    {
        const MdpLock lock(mutex);
        uploadActual = static_cast<double>(now);
        uploadTotal = static_cast<double>(total);
        isAborted = aborted != 0;
        if (now > 0) {
            m_isInterruptible = false; // from here on the progress calls come in time
        }
    }
    MDCH_TRACE(kTraceCall, "%s:%d:%s(): uploadActual: %g   uploadTotal: %g \n", MDCH_HERE,
               static_cast<double>(now), static_cast<double>(total));
    if (progressCallback != nullptr) {
        MDCH_TRACE(kTraceCall, "%s:%d:%s(): call user callback\n", MDCH_HERE);
        if (!callUser(total, now)) {
            MDCH_TRACE(kTraceError, "%s:%d:%s(): exception in user callback\n", MDCH_HERE);
            isAborted = true;
        }
    }
    if (isAborted) {
        MDCH_TRACE(kTraceNotice, "%s:%d:%s(): upload aborted after: %lld\n", MDCH_HERE,
                   static_cast<long long>(now));
        return 1;
    }
    return 0;
}

// False when it threw: an exception must not travel through libcurl, which is C and would be left half-way. The
// end of a cancelled thread has to travel on, as the C library wants it.
bool FtpAccess::Impl::callUser(curl_off_t total, curl_off_t now) const
{
    try {
        progressCallback(userData, total, now);
        return true;
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        return false;
    }
}

void FtpAccess::Impl::cancel()
{
    const MdpLock lock(mutex);
    aborted = 1;
    MDCH_TRACE(kTraceNotice, "%s:%d:%s(): abort initialized\n", MDCH_HERE);
    if (m_isInterruptible) {
        m_isInterrupted = true;
        m_sockets.breakOff();
    }
}

int FtpAccess::Impl::getProgress(double& total, double& actual)
{
    constexpr int kUnknown = 0;
    constexpr int kUnderWay = 1;
    constexpr int kComplete = 2;
    constexpr int kAborted = 3;
    const MdpLock lock(mutex);
    total = uploadTotal;
    actual = uploadActual;
    if (aborted != 0) {
        return kAborted;
    }
    if (total == 0) {
        return kUnknown;
    }
    return actual == total ? kComplete : kUnderWay;
}

int FtpAccess::Impl::getCurlCode()
{
    const MdpLock lock(mutex);
    return curlCode;
}

int FtpAccess::Impl::convertErrorCode(CURLcode code)
{
    constexpr int kNetwork = -2;
    constexpr int kPartial = -3;
    constexpr int kRefused = -4;
    constexpr int kCancelled = -5;
    constexpr int kOther = -6;
    switch (code) {
    case CURLE_OK:
        return 0;
    case CURLE_UNSUPPORTED_PROTOCOL:  // 1
    case CURLE_FAILED_INIT:           // 2
    case CURLE_URL_MALFORMAT:         // 3
    case CURLE_COULDNT_RESOLVE_PROXY: // 5
    case CURLE_COULDNT_RESOLVE_HOST:  // 6
    case CURLE_COULDNT_CONNECT:       // 7
    case CURLE_WEIRD_SERVER_REPLY:    // 8
    case CURLE_FTP_WEIRD_227_FORMAT:  // 14
    case CURLE_FTP_CANT_GET_HOST:     // 15
    case CURLE_HTTP_RETURNED_ERROR:   // 22
    case CURLE_OPERATION_TIMEDOUT:    // 28
    case CURLE_FTP_PORT_FAILED:       // 30
    case CURLE_SEND_ERROR:            // 55
    case CURLE_RECV_ERROR:            // 56
    case CURLE_LOGIN_DENIED:          // 67
        return kNetwork;
    case CURLE_PARTIAL_FILE: // 18
        return kPartial;
    case CURLE_WRITE_ERROR:       // 23
    case CURLE_UPLOAD_FAILED:     // 25
    case CURLE_FILESIZE_EXCEEDED: // 63
        return kRefused;
    case CURLE_ABORTED_BY_CALLBACK: // 42
        return kCancelled;
    default:
        return kOther;
    }
}

} // namespace md
