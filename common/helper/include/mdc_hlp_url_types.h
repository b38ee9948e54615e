/*
 * Records and numbers that the C handle interface and the C++ stream classes share. C11 and C++.
 */
#ifndef MDC_HLP_URL_TYPES_H
#define MDC_HLP_URL_TYPES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Values of an open call's mode. */
enum mdch_UrlMode
{
    MDCH_MODE_READ = 0,
    MDCH_MODE_WRITE = 1 /* local files: create or truncate */
};

/* Bits of a stream's capability mask. */
enum mdch_UrlCapability_bits
{
    MDCH_CAPABILITY_BYTE_SEEK = 1,
    MDCH_CAPABILITY_TIME_SEEK = 2, /* DLNA time seek */
    MDCH_CAPABILITY_STALLING = 4   /* a pause may hold the connection (DLNA connection stalling) */
};

/* Control commands of an HTTP stream; the argument's type stands behind each. Others answer -ENOSYS. */
enum mdch_UrlCommand
{
    MDCH_FCNTL_BLOCKING = 0,          /* none: reads wait up to 20 s for data */
    MDCH_FCNTL_NONBLOCKING = 1,       /* none: reads never wait */
    MDCH_FCNTL_BUFFER_SIZE = 2,       /* int, bytes: 98304 to 3211264; other values are ignored */
    MDCH_FCNTL_DATA_TIMEOUT = 3,      /* int, seconds */
    MDCH_FCNTL_HEADER_TIMEOUT = 4,    /* int, seconds */
    MDCH_FCNTL_FOLLOW_REDIRECTS = 5,  /* int, 0 or 1 */
    MDCH_FCNTL_FORCE_RANGE = 6,       /* none: send a Range header even from position 0 */
    MDCH_FCNTL_PAUSE_BUFFERING = 7,   /* none: keep receiving into an overflow buffer while paused */
    MDCH_FCNTL_DLNA_MODE = 8,         /* int: 1 Streaming, 2 Interactive, 3 Background */
    MDCH_FCNTL_MAX_REDIRECTS = 9,     /* int, count */
    MDCH_FCNTL_ACCEPT_AFTER_DONE = 10 /* none: deliver data before the connection and after its end */
};

/* Error codes of an HTTP stream beside errno values; 2 stands for an HTTP status 4xx, 22 for 5xx. */
enum mdch_HttpError
{
    MDCH_HTTP_ECERT = 150,     /* the server's certificate was not accepted */
    MDCH_HTTP_ESSL = 151,      /* the TLS connection could not be made */
    MDCH_HTTP_ENETWORK = 152,  /* resolve, connect, send, receive, time-out, too many redirects */
    MDCH_HTTP_ETRANSFER = 153, /* the body ended early, or came in a form that cannot be used */
    MDCH_HTTP_EPROTOCOL = 154, /* not a protocol that this stream speaks */
    MDCH_HTTP_EMOVED = 155,    /* moved, and redirects are not followed */
    MDCH_HTTP_EUNKNOWN = 156   /* any other failure of the transfer */
};

/* Bits of mdch_UrlExtended_struct.flags. The delivery modes are one field of two bits. */
enum mdch_UrlFlags
{
    MDCH_URL_ICY_METADATA = 1,     /* ask a radio server for titles within the stream */
    MDCH_URL_FORCE_RANGE = 2,      /* MDCH_FCNTL_FORCE_RANGE */
    MDCH_URL_PAUSE_BUFFERING = 4,  /* MDCH_FCNTL_PAUSE_BUFFERING */
    MDCH_URL_NATIVE_PATH = 8,      /* open a media-volume URL as the native file that it names */
    MDCH_URL_DLNA_STREAMING = 16,  /* MDCH_FCNTL_DLNA_MODE 1 */
    MDCH_URL_DLNA_INTERACTIVE = 32 /* MDCH_FCNTL_DLNA_MODE 2; 48, both bits, is mode 3 */
};

/*
 * Extended open parameters. The caller owns the record and its texts, and keeps them until the open call
 * returns. All texts may be null: not set.
 */
typedef struct mdch_UrlExtended_struct
{
    const char* userAgent;  /* in: User-Agent of an HTTP stream */
    int32_t flags;          /* in: mdch_UrlFlags */
    int32_t icyMetaInt;     /* out: bytes between radio titles; untouched when the server sends none */
    const char* cookie;     /* in: cookies, name=value, joined by ";" */
    const char* caCertPath; /* in: directory of PEM files, the only certificates that are trusted */
    const char* clientCert; /* in: client certificate file, PEM, or PKCS#12 when its name holds ".p12" */
    const char* certPasswd; /* in: pass phrase of the client key */
    int32_t error;          /* out: code of the step that failed */
    int32_t bufferSize;     /* in: receive buffer in bytes, 98304 to 3211264; 0: the default, 196608 */
} mdch_UrlExtended_struct;

#ifdef __cplusplus
}
#endif

#endif
