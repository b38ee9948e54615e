/*
 * Upload of one local file to an FTP server (RFC 959, RFC 2428; over TLS: implicit TLS as "ftps" has it).
 *
 * Settings first, then upload(), which blocks its caller to the end. Any thread may call getProgress, cancel
 * and getCurlCode meanwhile; one mutex of the object guards what they share with the upload. The setters have
 * no lock: they are done before upload() starts. One object serves one upload.
 *
 * The URL is put together as it stands: nothing is escaped. In serverPath and uploadedFile, "#" and "?" start
 * a fragment or a query, which is cut off, "%41" means "A", ";type=a" at the end asks for a text transfer, and
 * a blank or a control character makes the URL invalid (result -2). Callers that mean these characters write
 * "%23", "%3F", "%25", "%3B" and "%20" (RFC 3986). serverPath is relative to the directory in which the log-in
 * ends; one that begins with "/" is absolute. Missing directories are made.
 *
 * No environment variable has any effect; in particular no proxy is used.
 */
#ifndef MDC_HLP_UPLOAD_H
#define MDC_HLP_UPLOAD_H

#include "mdc_hlp_export.h"

#include <boost/shared_ptr.hpp>
#include <string>

namespace md {

/*
 * Copies share one upload. An object that was moved from, or for which there was no memory, has none: its
 * setters and cancel do nothing, upload gives -5, getProgress 3, getCurlCode 0.
 */
class MDCH_API FtpAccess
{
public:
    /* The state; declared in the library's sources. */
    class MDCH_LOCAL Impl;

    FtpAccess();

    /* Host, optionally with ":port"; an IPv6 address stands in brackets. Goes into traces: no password here. */
    void setServerUrl(const std::string& serverUrl);

    /* Directory on the server; empty: that of the log-in. */
    void setServerPath(const std::string& serverPath);

    /* Sent as it is; no line ends. Empty: neither name nor password is sent, but an anonymous log-in made. */
    void setUserName(const std::string& userName);

    /* Sent as it is, and never traced; no line ends. Without a user name it has no effect. */
    void setUserPassword(const std::string& userPassword);

    /*
     * Path of the local file. As many bytes are sent as it has when upload() starts; what is appended later
     * is left out. A FIFO is waited for.
     */
    void setSourceFile(const std::string& sourceFile);

    /* Name of the file on the server. An existing one is replaced. */
    void setUploadedFile(const std::string& uploadedFile);

    /*
     * "ftp", "ftps" (TLS from the first byte, for log-in and file; port 990 unless serverUrl names one; the
     * system's trust store decides about the certificate), or empty for "ftp". Others give -2.
     */
    void setProtocol(const std::string& protocol);

    /*
     * Called by upload() on its own thread, without any lock, at least once a second: bytes to upload (0 as
     * long as that is not known) and bytes uploaded so far. It may call getProgress and cancel. An exception
     * out of it stops the upload (-5) and goes no further. userData is handed back; a null callback: none.
     */
    void setProgressCallback(void* userData,
                             void (*callback)(void* userData, long long total, long long now));

    /*
     * Uploads, and returns when all is done:
     *    0  the server has the file (also, by tradition, when libcurl has no memory for a transfer)
     *   -1  the file cannot be opened; sourceFile, serverUrl or uploadedFile is missing; a line end in the
     *       user's name or password
     *   -2  no connection, wrong URL, log-in refused, connection lost, no answer in time
     *   -3  fewer bytes were sent than announced: the file shrank, or cannot be read, as a directory
     *   -4  the server refused the file
     *   -5  cancelled
     *   -6  any other failure, an untrusted certificate for one
     * After a failure, what the server has of the file stays there.
     */
    int upload();

    /*
     * Bytes to upload and bytes uploaded. Returns 0 as long as the first is 0 (so for an empty file always),
     * 1 under way, 2 when all bytes are sent, 3 after cancel. Any thread.
     */
    int getProgress(double& total, double& actual);

    /*
     * Stops the upload at its next progress call, within about a second. For good: a later upload of this
     * object stops at its first progress call. Any thread.
     */
    void cancel();

    /*
     * libcurl's code (CURLcode) of the last transfer, finer than upload's result: 60 is an untrusted
     * certificate, 67 a refused log-in, 70 a full disk. 0 before its end. Any thread.
     */
    int getCurlCode();

private:
    boost::shared_ptr<Impl> m_impl;
};

} // namespace md

#endif
