/*
 * Streams over HTTP and HTTPS, DLNA servers and internet radio included.
 *
 * No network work happens on a caller's thread: one worker thread for the whole process fills a receive
 * buffer per stream, and the operations here take bytes out of it. Any thread may call any operation of an
 * object, also at the same time; a close releases every operation that waits. The object's mutex guards its
 * number and its closed flag; the rest of a stream's state has a lock of its own in the engine.
 *
 * After fork the child has no worker: it must not use streams, but may exec.
 */
#ifndef MDC_HLP_HTTP_ACCESS_H
#define MDC_HLP_HTTP_ACCESS_H

#include "mdc_hlp_url_base.h"
#include "mdp_thread.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <sys/select.h>

struct x509_st;

namespace md {

class HttpAccessImpl;
struct MdchCurlDescriptor_struct;

/* One stream over HTTP or HTTPS, and what only such streams have. */
class MDCH_API HttpAccess : public MdchUrlBase
{
public:
    /* Starts the worker thread if this is the first stream. Throws std::bad_alloc only. */
    HttpAccess();

    /* agent: User-Agent, empty: none. headRequest: the first open asks with HEAD, so no body comes. */
    HttpAccess(std::string agent, bool headRequest);

    /* Closes the stream if it is open. */
    ~HttpAccess() override;

    /*
     * Starts the transfer of url from its first byte and returns at once: the stream's number, from 100
     * upward. mode is not used. A failure to connect shows in error() and as a read of 0 bytes. On an open
     * stream the former transfer is dropped and the new one starts clean; a closed stream opens again under a
     * new number. -EINVAL for a null or empty url.
     */
    int open(const char* url, int mode) override;

    /*
     * As above with a POST of length bytes of body, from a start position. The body is copied; null or a
     * length of 0 gives a plain GET. The body is sent again whenever a seek restarts the transfer.
     */
    int open(const char* url, const void* body, unsigned int length, int startPos);

    /* 0; -EINVAL when the transfer is gone already. Every waiting operation returns. */
    int close() override;

    /*
     * Reads up to size bytes; waits for the header, then up to the data time-out for bytes that are missing.
     * Returns the bytes stored: fewer than asked for at the end, on an error and on a time-out, which eof()
     * and error() tell apart. -EINVAL after close.
     */
    int read(unsigned char* buffer, unsigned int size) override;

    /* Always 0: the stream is read-only. */
    int write(unsigned char* buffer, unsigned int size) override;

    /* Position of the next byte that read gives. Does not wait. -EINVAL after close. */
    long long tell() override;

    /*
     * A short way forward is taken inside the buffer, any other seek restarts the transfer with a Range and
     * waits up to 10 s for its header. 0; -ESPIPE when refused or failed; -EAGAIN, -EFAULT when no header
     * came; -EINVAL after close.
     */
    int seek(long long offset, int whence) override;

    /* DLNA time seek to ms milliseconds. Results as seek's. */
    int seekTime(unsigned int ms) override;

    /* The next byte, 0 to 255; -1 when none came; -EINVAL after close. */
    int getc() override;

    /* 1 when the transfer has ended and every byte was read, else 0; -EINVAL after close. */
    int eof() override;

    /* mdch_HttpError, an errno value, or 0; -EINVAL after close. */
    int error() override;

    /* Sets the error to 0. */
    void clearerr() override;

    /* Whether bytes can be sought, as the response header told: 1 or 0. */
    int isSeekable() override;

    /* mdch_UrlCapability_bits as the response header set them; -EINVAL, converted, after close. */
    unsigned int capability() override;

    /* Content length; negative when unknown; -EAGAIN when no header came, -EINVAL after close. */
    long long size() override;

    /* Seekable streams drop their connection, others hold it. 0, or -EINVAL. */
    int pause() override;
    int resume() override;

    /*
     * Commands of mdch_UrlCommand. 0; -EINVAL after close; -ENOSYS for an unknown command. When the transfer
     * is gone: -EINVAL for commands 0, 1, 3 and 4, -ENOSYS for the others.
     */
    int fcntl(int command, ...) override;

    /*
     * Copies the header lines of the last response, each with its line end. 0; -EAGAIN or -EFAULT when no
     * header came; -EINVAL after close.
     */
    virtual int getHeaderList(std::deque<std::string>& lines);

    /*
     * Waits until one of the stream numbers below nfds in readfds has bytes, has ended or is closed, or the
     * time-out has passed (null: without limit, as long as one of them is a stream). Works on stream numbers,
     * not on system descriptors; others are ignored. On return readfds holds the ready ones; writefds and
     * exceptfds are cleared. Returns the number of ready streams; -EINVAL for a null readfds, and for nfds
     * above FD_SETSIZE: numbers from 1024 upward, reached after 924 streams, do not fit into an fd_set.
     */
    static int select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, timeval* timeout);

    /* User-Agent of this and of every later transfer of the object. Settings act at the next open. */
    void setUserAgent(const std::string& agent);

    /* Adds cookies, "name=value", joined by ";". An empty text is ignored. */
    void setCookie(const std::string& cookie);

    /* Before the response: the cookies to be sent. After it: those that libcurl knows, as Netscape lines. */
    std::string getCookies();

    /* Adds one whole request header line: name, colon, value. */
    void setHeaderLine(const std::string& line);

    /* HTTP status of the last response, -1 before; -EAGAIN, -EFAULT, -ENOSYS (gone), -EINVAL (closed). */
    int getResponseCode();

    /*
     * How full the receive buffer is: used, bytes that have come and were not read yet, and size, bytes that it
     * holds; 0 of 0 before the first open. used passes size when bytes come during a pause
     * (MDCH_FCNTL_PAUSE_BUFFERING). Does not wait. 0; -EINVAL after close, -ENOSYS when the transfer is gone,
     * which both leave the values alone.
     */
    int getBufferLevel(std::size_t& used, std::size_t& size) const;

    /* Adds a copy of a trusted server certificate. 0, or -EINVAL. */
    int setCertificate(x509_st* cert);

    /* Directory of PEM files, the only certificates that the next open trusts. */
    void setCaCertPath(const std::string& path);

    /* Whether the server of an HTTPS transfer is verified; true at first. */
    void setVerifyHost(bool on);

    /* Client certificate: PEM file, or PKCS#12 when its name holds ".p12". */
    void setClientCert(const std::string& file);

    /* Pass phrase of the client key. */
    void setCertPasswd(const std::string& password);

    /*
     * Stops and joins the worker thread; every waiting operation of every stream returns. Streams that exist
     * afterwards answer as if their transfer were gone. The next stream starts a new worker. Always 0. Any
     * thread, but not from a trace sink.
     */
    static int shutdown();

    /* The running engine; null before the first stream and after shutdown. Written under the class mutex. */
    static std::atomic<HttpAccessImpl*> m_impl;

private:
    void createDescriptor(bool headRequest);
    // False: closed. The pointer stays empty when the transfer is gone.
    bool lookUp(boost::shared_ptr<MdchCurlDescriptor_struct>& desc) const;
    // Runs action(desc, lock) on the locked descriptor and returns its result; or what stands for a closed
    // stream, or for a transfer that is gone.
    template <class Result, class Action>
    Result onTransfer(Result ifClosed, Result ifGone, Action action);
    // Runs action(desc) on the locked descriptor, if there is one.
    template <class Action>
    void withDescriptor(Action action);
    // Waits for the header, then runs an operation of the engine, which takes its own locks.
    int afterHeader(std::int32_t (*operation)(const boost::shared_ptr<MdchCurlDescriptor_struct>&));
    int start(const char* url, const void* body, unsigned int length, long long startPos);

    std::string m_userAgent;
    std::int32_t m_fd = -1;
    bool m_closed = true;
    std::uint32_t m_engineRun = 0; // numbers start over with each engine: this one tells whose m_fd is
    mutable MdpMutex m_mutex;      // guards the four above
};

} // namespace md

#endif
