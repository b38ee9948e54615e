/*
 * The one stream through which callers reach media wherever it lies, and the way to open it.
 *
 * MdchUrlBase mirrors the stream functions of the C library and adds size, capabilities, time seek, pause
 * and control. Streams are made by mdch_OpenUrl or MdchUrlBase::createInstance and held by
 * boost::shared_ptr. The interface has no lock: one caller at a time uses a stream, except where a back-end
 * says more. No operation throws for a failure of the medium; failures are results.
 */
#ifndef MDC_HLP_URL_BASE_H
#define MDC_HLP_URL_BASE_H

#include "mdc_hlp_export.h"
#include "mdc_hlp_url_types.h"

#include <boost/shared_ptr.hpp>

/* The stream that all back-ends are. */
class MDCH_API MdchUrlBase
{
public:
    /*
     * Makes the back-end for a URL's scheme, not yet opened; the caller owns it. The scheme is compared
     * without regard to case: "http://" and "https://" give md::HttpAccess, "udp://" MdchUrlUdp, "nvl2://"
     * MdchUrlNvol2, anything else (null and the empty text included) a local file.
     */
    static MdchUrlBase* createInstance(const char* url);

    MdchUrlBase() = default;
    MdchUrlBase(const MdchUrlBase&) = delete;
    MdchUrlBase& operator=(const MdchUrlBase&) = delete;

    // The order of the virtual operations is part of the binary interface: back-ends of other libraries
    // rely on their slots. Add new ones behind the last.

    /* Closes what is still open, but for a UDP stream's socket. */
    virtual ~MdchUrlBase() = default;

    /* Opens url for reading (mode 0) or writing (1). Negative on failure (a negated errno value). */
    virtual int open(const char* url, int mode) = 0;

    /* 0 on success. Closing a stream that is not open is harmless. */
    virtual int close() = 0;

    /* Stores up to size bytes. Returns their number: 0 at the end or on an error. */
    virtual int read(unsigned char* buffer, unsigned int size) = 0;

    /* Writes up to size bytes. Returns their number. */
    virtual int write(unsigned char* buffer, unsigned int size) = 0;

    /* Position in bytes of the next byte that read gives; negative on failure. */
    virtual long long tell() = 0;

    /* Moves to offset bytes from the start (whence 0), the position (1) or the end (2). 0 on success. */
    virtual int seek(long long offset, int whence) = 0;

    /* Moves to a play time in milliseconds. -1 where unsupported. */
    virtual int seekTime(unsigned int time) = 0;

    /* The next byte, 0 to 255, or -1. */
    virtual int getc() = 0;

    /* Non-zero once the end has been reached. */
    virtual int eof() = 0;

    /* Non-zero once an error has occurred: the stream's error code. */
    virtual int error() = 0;

    /* Forgets end and error. */
    virtual void clearerr() = 0;

    /* 1 when seek can work, else 0. */
    virtual int isSeekable() = 0;

    /* mdch_UrlCapability_bits. A negative result is its value converted. */
    virtual unsigned int capability() = 0;

    /* Length in bytes; negative when unknown or on failure. */
    virtual long long size() = 0;

    /* Suspends delivery (network streams). */
    virtual int pause() = 0;

    /* Goes on after a pause. */
    virtual int resume() = 0;

    /* Control command (mdch_UrlCommand) with its argument. -ENOSYS where unsupported. */
    virtual int fcntl(int command, ...);
};

/*
 * The whole opening sequence: turns the URL of a file on a media volume into its native path if that is asked for
 * (MDCH_URL_NATIVE_PATH; without such a volume the URL stays), makes the back-end for url, applies the extended parameters to an HTTP stream,
 * opens it, checks error(), and reads the radio-title interval from the response header.
 *
 * url: null gives -EINVAL. mode: as for MdchUrlBase::open. ext: may be null, and then an HTTP stream keeps its
 * own time-outs (7 s for the header, 330 s for data) instead of 40 s and 30 s. stream: holds the created
 * object whenever one was created, also when opening failed; the caller then drops it.
 *
 * Returns 0, or a negative open result, a non-zero error() after open (mdch_HttpError, errno value), or a
 * negative result of reading the header lines; ext->error receives the same. Any thread; keeps no state.
 * Throws std::bad_alloc only.
 */
MDCH_API int mdch_OpenUrl(const char* url, int mode, mdch_UrlExtended_struct* ext,
                          boost::shared_ptr<MdchUrlBase>& stream);

#endif
