/*
 * Percent-encoding of a whole URL, and decoding (RFC 3986, section 2.1). C11 and C++.
 *
 * The encoder has a set of bytes of its own, not that of the RFC: what separates path, host and port passes,
 * and so do "<", ">", "\", "|" and DEL; spaces, controls, "%", "?", "@", "[", "]", "!", "#", "&", "+", ","
 * and all bytes from 0x80 on are escaped. A text that is escaped already is therefore escaped again;
 * mdc_hlp_url_patch.h repairs URLs that may be. Pure functions: any thread.
 */
#ifndef MDC_HLP_URL_ENCODE_H
#define MDC_HLP_URL_ENCODE_H

#include "mdc_hlp_export.h"

#ifdef __cplusplus

#include <string>

namespace md {

/*
 * The URL with every byte that does not pass as "%" and two upper-case hexadecimal digits. "nvl2:" URLs,
 * whatever their case, and URLs without a byte to escape come back as they are; the result of any other ends
 * at the URL's first NUL. Throws std::bad_alloc only.
 */
MDCH_API std::string urlEncode(std::string url);

/*
 * The text, up to its first NUL, with every "%" and two hexadecimal digits of either case as the byte that
 * they stand for, which may be NUL. Any other "%" stays, and so does "+". Throws nothing.
 */
MDCH_API std::string urlDecode(std::string text);

} // namespace md

extern "C" {
#endif

/*
 * md::urlEncode and md::urlDecode for C callers. buffer, of bufferSize bytes, receives the result up to its
 * first NUL, and a NUL behind it; it may be the same memory as the text.
 *
 * Returns 0; -EINVAL when a pointer is null; -ENOMEM when the result and its NUL do not fit (as in any
 * bufferSize of 0 or less), or when there is no memory. Nothing is written then.
 */
MDCH_API int mdc_httphelper_urlEncode(const char* url, char* buffer, int bufferSize);
MDCH_API int mdc_httphelper_urlDecode(const char* text, char* buffer, int bufferSize);

#ifdef __cplusplus
}
#endif

#endif
