/*
 * Repair of URLs from playlists, tags and people, in a character set that nobody knows. C11 and C++.
 *
 * Printable ASCII stays, "%" included, so that nothing is escaped twice; spaces, controls, double quotes,
 * braces, bars and non-ASCII bytes are percent-encoded (RFC 3986, section 2.1). Non-ASCII bytes are taken
 * for UTF-8 until one of them cannot be; then all of them are taken for ISO 8859-1 and converted, so that
 * the result is always escaped UTF-8. Repairing a repaired URL changes nothing. Pure functions: any thread.
 */
#ifndef MDC_HLP_URL_PATCH_H
#define MDC_HLP_URL_PATCH_H

#include "mdc_hlp_export.h"

#ifdef __cplusplus

#include <string>

namespace md {

/*
 * The repaired URL; a null url gives the empty text. Looks at the first 8191 bytes. A URL in which they need
 * no repair comes back whole, however long it is; any other is repaired as far as these bytes go, and its
 * result is cut at 8191 bytes, never within an escape that the repair made. UTF-8 that does not fit there
 * counts as ISO 8859-1. Throws std::bad_alloc only.
 */
MDCH_API std::string urlPatch(const char* url);

/* The same for the text up to its first NUL. */
MDCH_API std::string urlPatch(const std::string& url);

/*
 * Length in bytes, 1 to 4, of the UTF-8 sequence that begins at lead, of which following more bytes are
 * there to read; 0 when there is no sequence, or lead is null. Checks lead byte and continuation bytes, no
 * more: surrogates, overlong forms of three and four bytes and values beyond U+10FFFF pass (RFC 3629 forbids
 * them).
 */
MDCH_API int validUtf8Char(const unsigned char* lead, int following);

} // namespace md

extern "C" {
#endif

/*
 * md::urlPatch for C callers. buffer, of bufferSize bytes, receives the result and a NUL; it may be the same
 * memory as the url.
 *
 * Returns 0; -EINVAL when a pointer is null; -ENOMEM when the result and its NUL do not fit (as in any
 * bufferSize of 0 or less), or when there is no memory. Nothing is written then.
 */
MDCH_API int mdc_httphelper_urlPatch(const char* url, char* buffer, int bufferSize);

#ifdef __cplusplus
}
#endif

#endif
