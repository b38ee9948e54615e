/*
 * What stands behind md::FtpAccess: the settings, one blocking transfer over libcurl's easy interface, and what
 * other threads may ask and say meanwhile.
 *
 * The mutex guards the abort flag, the two progress values, the result's code and the record of open sockets. It
 * is never held while libcurl or the user's callback runs. Everything else belongs to the thread that uploads.
 */
#ifndef MDC_HLP_UPLOAD_IMPL_H
#define MDC_HLP_UPLOAD_IMPL_H

#include "mdc_hlp_upload.h"
#include "mdc_hlp_upload_impl_sockets.h"
#include "mdp_thread.h"

#include <cstdint>
#include <curl/curl.h>
#include <string>

namespace md {

class UploadSource;

class FtpAccess::Impl
{
public:
    Impl() = default;
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    /* As the public functions of these names; upload may throw std::bad_alloc. */
    int upload();
    int getProgress(double& total, double& actual);
    void cancel();
    int getCurlCode();

    /* 0, or -1 when a setting is missing or no good; an empty protocol becomes "ftp". */
    int checkUploadSettings();

    /* The URL of the settings as they stand. */
    std::string generateURL() const;

    /* libcurl's transfer-info callback, and the object's part of it; a result other than 0 stops the transfer. */
    static int transferInfo(void* impl, curl_off_t downloadTotal, curl_off_t downloadNow,
                            curl_off_t uploadTotal, curl_off_t uploadNow);
    int reportProgress(curl_off_t total, curl_off_t now);

    /* upload's result for a result of libcurl. */
    static int convertErrorCode(CURLcode code);

    MdpMutex mutex;
    std::string url;          // built for the transfer
    std::int32_t aborted = 0; // set by cancel, never cleared
    double uploadTotal = 0;   // as last reported by libcurl
    double uploadActual = 0;
    std::string serverUrl; // without scheme
    std::string serverPath;
    std::string userName;
    std::string userPassword;
    std::string sourceFile;
    std::string uploadedFile;
    std::string protocol; // empty: "ftp"
    void (*progressCallback)(void* userData, long long total, long long now) = nullptr;
    void* userData = nullptr;
    CURLcode curlCode = CURLE_OK; // of the last transfer

private:
    CURLcode transfer(CURL* easy, const UploadSource& source);
    CURLcode configure(CURL* easy, const UploadSource& source);
    bool callUser(curl_off_t total, curl_off_t now) const;
    bool isSecure() const;

    static curl_socket_t openSocket(void* impl, curlsocktype purpose, curl_sockaddr* address);
    static int closeSocket(void* impl, curl_socket_t socket);

    UploadSockets m_sockets;
    bool m_isInterruptible = false; // a transfer over TLS is under way and has sent nothing yet
    bool m_isInterrupted = false;   // a cancel has broken the connections off
};

} // namespace md

#endif
