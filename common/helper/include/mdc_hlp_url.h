/*
 * Streams for C callers: plain functions on integer handles. C11 and C++.
 *
 * The conventions; a function that differs says so at its declaration.
 *
 *  1. Results. An open gives a handle, 1 or more, or 0; the reason of a failure is in mdch_UrlExtended_struct.error.
 *     Counts and positions are 0 or more. Actions give 0 when they worked. Failures are negative: -1, or a negated
 *     errno value; no function throws for a failure of the medium.
 *  2. A read of fewer bytes than asked for is the end, an error, or nothing more in time: mdch_UrlEof and
 *     mdch_UrlError tell which; an end with an error is a transfer that broke off. The error is an errno value or an
 *     mdch_HttpError. It stays until mdch_UrlClearerr, and on an HTTP stream until bytes come again.
 *  3. Handles. Numbers count from 1 and are never reused; one is valid from the open call to mdch_UrlClose. What an
 *     invalid one gives stands at each function and differs on purpose: "end", "error" and "refused" are 1, bytes
 *     and abilities are 0, all else is -1.
 *  4. Ownership. The library owns streams and what it returns; the caller owns what it passes. Texts and records
 *     are read, and records written, during the call only; buffers likewise. Each handle is closed by its
 *     opener, once.
 *  5. Threads. Any thread may call any function, but mdch_UrlInit, which comes once and first. Different handles
 *     never wait for each other. One HTTP handle may be used by several threads at a time; any other handle by one,
 *     but for mdch_UrlClose: a close from another thread is always safe. It ends the waits of an HTTP handle at
 *     once; what runs elsewhere goes on to its own end on the still living stream, and may give a negative count
 *     when it came behind the close. After fork only the parent uses streams.
 *  6. Waiting. Files wait as the system lets them. Network streams never wait without limit: the header time-out for
 *     a response that does not come, the data time-out in a read, 10 s in a seek, half a second for a datagram.
 *  7. errno. EBADF for an invalid handle, where that stands at the function. Files and media volumes leave what the
 *     C library set; HTTP streams do not report through it. It is never set to 0: read it after a failure only.
 *  8. Null. A url that is null cannot be opened. A null record stands for its defaults, a null text in a record
 *     for "not set". A null buffer goes with a size of 0 only. No function returns a null text.
 */
#ifndef MDC_HLP_URL_H
#define MDC_HLP_URL_H

#include "mdc_hlp_export.h"
#include "mdc_hlp_url_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What mdch_UrlInit reads. Fields may be added behind the first. */
typedef struct mdch_UrlInit_struct
{
    const char* userAgent; /* copied by mdch_UrlInit */
} mdch_UrlInit_struct;

/* The process-wide User-Agent text, null until mdch_UrlInit. Read it with mdch_getUserAgent. */
extern MDCH_API char* userAgent;

/*
 * Sets the User-Agent that streams of mdch_UrlOpen send. Call it once, before any stream is opened: it takes
 * no lock, and a second call leaks the former text on purpose, since a stream may be using it.
 *
 * A null init changes nothing and returns 0. Returns 0, -EINVAL (null text) or -ENOMEM.
 */
MDCH_API int mdch_UrlInit(const mdch_UrlInit_struct* init);

/* The text that mdch_UrlInit stored, or an empty text. Never null; not to be freed. */
MDCH_API const char* mdch_getUserAgent(void);

/*
 * Opens a stream with the stored User-Agent; returns when the response header has come or the open failed.
 *
 * url: "http://", "https://", "udp://", "nvl2://" (media volumes), "file://" or a path; null fails. mode:
 * MDCH_MODE_READ or MDCH_MODE_WRITE (files only).
 * Returns a handle, or 0.
 */
MDCH_API unsigned int mdch_UrlOpen(const char* url, int mode);

/*
 * As mdch_UrlOpen, with extended parameters; ext may be null, and then no User-Agent is set. On failure
 * ext->error tells the reason: a negated errno value or an mdch_HttpError.
 */
MDCH_API unsigned int mdch_UrlOpenExt(const char* url, int mode, mdch_UrlExtended_struct* ext);

/*
 * Closes the stream and gives the handle up. The stream's result, which is negative for a UDP stream that was in no
 * multicast group; -1 with EBADF for an invalid handle.
 */
MDCH_API int mdch_UrlClose(unsigned int handle);

/*
 * Reads up to size bytes. Returns the bytes stored; 0 at the end, on an error, and for an invalid handle.
 * An HTTP stream waits up to its data time-out for bytes that are missing. A UDP stream gives one datagram, cut to
 * size, or 0 when none came for half a second, which is no end.
 */
MDCH_API int mdch_UrlRead(unsigned int handle, unsigned char* buffer, unsigned int size);

/* Writes size bytes (files). Returns the bytes written; 0 for an invalid handle. */
MDCH_API int mdch_UrlWrite(unsigned int handle, unsigned char* buffer, unsigned int size);

/* Position of the next byte that a read gives. -1 with EBADF for an invalid handle. */
MDCH_API long long mdch_UrlTell(unsigned int handle);

/* Moves to offset from the start (whence 0), the position (1) or the end (2). 0, or -1; EBADF as above. */
MDCH_API int mdch_UrlSeek(unsigned int handle, long long offset, int whence);

/* Moves to a play time in milliseconds (DLNA time seek). 0, or -1; EBADF for an invalid handle. */
MDCH_API int mdch_UrlSeekTime(unsigned int handle, unsigned int time);

/* The next byte, 0 to 255, or -1; -1 for an invalid handle. */
MDCH_API int mdch_UrlGetc(unsigned int handle);

/* Non-zero once the end has been reached; 1 for an invalid handle. */
MDCH_API int mdch_UrlEof(unsigned int handle);

/* Non-zero once an error has occurred: its code; 1 for an invalid handle. */
MDCH_API int mdch_UrlError(unsigned int handle);

/* Forgets end and error. */
MDCH_API void mdch_UrlClearerr(unsigned int handle);

/* Length in bytes, negative when unknown. -1 with EBADF for an invalid handle. */
MDCH_API long long mdch_UrlSize(unsigned int handle);

/* 1 when mdch_UrlSeek can work, else 0; 0 with EBADF for an invalid handle. */
MDCH_API int mdch_UrlIsSeekable(unsigned int handle);

/* mdch_UrlCapability_bits; 0 with EBADF for an invalid handle. */
MDCH_API unsigned int mdch_UrlCapability(unsigned int handle);

/* Suspends delivery. 0 on success; 1 for an invalid handle. */
MDCH_API int mdch_UrlPause(unsigned int handle);

/* Goes on after a pause. 0 on success; 1 for an invalid handle. */
MDCH_API int mdch_UrlResume(unsigned int handle);

#ifdef __cplusplus
}
#endif

#endif
