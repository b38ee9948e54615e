/*
 * Streams for programs that use FFmpeg: an AVIOContext over any address that the library opens. C11 and C++.
 *
 *     AVIOContext* io = NULL;
 *     const int result = mdchAvioOpen(&io, url, NULL, NULL, 0);
 *     if (result == 0) {
 *         AVFormatContext* format = avformat_alloc_context();
 *         format->pb = io;
 *         ... avformat_open_input(&format, url, NULL, NULL) ... avformat_close_input(&format) ...
 *         mdchAvioClose(&io);
 *     }
 *
 * A thread per context does what may wait, so that an interrupt takes effect within some hundredths of a second
 * whatever the stream waits for. Callbacks run on the threads that use the context.
 */
#ifndef MDCH_AVIO_H
#define MDCH_AVIO_H

#include <mdc_hlp_export.h>
#include <mdc_hlp_url_types.h>

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#include <libavformat/avio.h>

/*
 * What mdchAvioOpen may be told. Zero the record and set its size; what is 0 or null has its default. Records and
 * texts are read during the open call only. Fields may be added behind the last.
 */
typedef struct mdchAvioOptions
{
    uint32_t size;          /* sizeof(mdchAvioOptions) */
    int32_t flags;          /* mdch_UrlFlags */
    const char* userAgent;  /* User-Agent of an HTTP stream; null: that of mdch_UrlInit */
    const char* headers;    /* further header lines of its requests, each ended by CR LF but for the last */
    const char* cookie;     /* cookies, name=value, joined by ";" */
    const char* caCertPath; /* directory of PEM files, the only certificates that are trusted */
    const char* clientCert; /* client certificate file, PEM, or PKCS#12 when its name holds ".p12" */
    const char* certPasswd; /* pass phrase of the client key */
    int32_t receiveBuffer;  /* receive buffer of an HTTP stream in bytes, 98304 to 3211264; 0: 196608 */
    int32_t headerTimeout;  /* seconds that a response header may take; 0: 40 */
    int32_t dataTimeout;    /* seconds without a byte before a read fails; 0: 30 */
    int32_t reconnects;     /* tries in a row to take up a transfer that broke off; 0: 3, negative: none */

    /*
     * Called within a read for each new title of a radio station, when its first byte has been read: UTF-8, the texts
     * are valid during the call. Null: titles are not asked for.
     */
    void (*title)(void* opaque, const char* title, const char* url);
    void* titleOpaque;
} mdchAvioOptions;

/*
 * Opens url for reading and gives a context for it, which mdchAvioClose frees; returns when its length and abilities
 * are known, or the open failed.
 *
 * context: receives the context, null on failure. url: as mdch_UrlOpen takes it. options: may be null. interrupt: asked
 * now and then during every wait, on the waiting thread; may be null, is copied. bufferSize: of the context, in bytes; 0
 * or less: 32768.
 *
 * The context reads; it seeks by bytes and tells its size where the stream can, as "seekable" (AVIO_SEEKABLE_NORMAL)
 * and avio_size say; seeks by time with avio_seek_time where "seekable" has AVIO_SEEKABLE_TIME (DLNA; stream index -1,
 * rounded down to tenths of a second, avformat_flush behind it); and pauses network streams with avio_pause. A
 * transfer that breaks off on a seekable stream is taken up where it broke. AVERROR_EOF is the end of the stream and
 * nothing else; a failure is in the context's "error", too, since many demuxers keep it to themselves.
 *
 * Returns 0 or, as reads and seeks do:
 * AVERROR_EXIT                        interrupted; the context may be used further
 * AVERROR_HTTP_BAD_REQUEST,
 *   _UNAUTHORIZED, _FORBIDDEN,
 *   _NOT_FOUND, _OTHER_4XX            refused by the server
 * AVERROR_HTTP_SERVER_ERROR           status 5xx
 * AVERROR(ETIMEDOUT)                  no response header, or no data, in time; a further read waits on
 * AVERROR(EACCES)                     the server's certificate is not trusted; a file that must not be read
 * AVERROR(EPROTO)                     no TLS connection
 * AVERROR(EHOSTUNREACH)               no name, no connection
 * AVERROR(ECONNRESET)                 the connection was lost
 * AVERROR(EIO)                        the body ended early or cannot be used; a file cannot be read on
 * AVERROR(ESPIPE)                     no seek here; reading goes on where it was
 * AVERROR_PROTOCOL_NOT_FOUND          redirected to what is no HTTP
 * AVERROR_EXTERNAL                    any other failure of the transfer
 * AVERROR(errno)                      what the system says of a file or socket
 * AVERROR(EINVAL)                     a null context or url, a record without its size, or of a later version with a
 *                                     field set that this one does not know
 * AVERROR(ENOSYS)                     from avio_size: the length is unknown
 *
 * Any thread; a context is used by one thread at a time.
 */
MDCH_API int mdchAvioOpen(AVIOContext** context, const char* url, const mdchAvioOptions* options,
                          const AVIOInterruptCB* interrupt, int bufferSize);

/*
 * Closes the stream, frees the context and sets it to null. A null context, and a pointer to null, do nothing. Not
 * while another thread uses the context: interrupt it first. Does not wait for a file system that does not answer.
 */
MDCH_API void mdchAvioClose(AVIOContext** context);

#ifdef __cplusplus
}
#endif

#endif
