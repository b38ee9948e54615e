/*
 * Redirects that stand in a body: station URLs often name a small playlist or reference file, and that file
 * names the stream.
 *
 * streamNeedRedirect asks the server once and looks; the three parsers are plain text functions, exported
 * for callers that have the body already. They read one URL out of one text and share nothing with the
 * playlist reading of mdc_hlp_playlist.h. Nothing is kept between calls: any thread may call anything here.
 */
#ifndef MDC_HLP_REDIRECT_H
#define MDC_HLP_REDIRECT_H

#include "mdc_hlp_export.h"

#include <deque>
#include <string>

namespace md {

/*
 * Finds out what to open instead of url, and appends it, repaired by urlPatch, to out.
 *
 * Blocks for one HTTP request and up to about ten kilobytes of body, for a minute or so when the server
 * stalls in it. Returns 1 when an entry was appended: the URL that the server's answer names, or url itself
 * where it needed repair; 0 when url is fine as it is, which covers every scheme but http and https; on
 * failure, with out as it was, -7 (no connection, an HTTP error) or -1 (a redirection to a scheme that HTTP
 * streams do not speak, without a Location). These are negated numbers of libcurl.
 */
MDCH_API int streamNeedRedirect(const std::string& url, std::deque<std::string>& out);

/*
 * Reads the first item of an M3U text into url. False, with url as it was, when there is none.
 *
 * For lists that are one column of lines with one kind of line end: after "#EXTM3U" and after one "#EXTINF"
 * line the reader goes on behind the next CR, or behind the next LF if no CR follows at all. In a CR LF file
 * it stops at the LF therefore; parseSIMPLE or nothing finds its URL. Names are compared with regard to case.
 * A NUL byte ends the text.
 */
MDCH_API bool parseM3U(const std::string& text, std::string& url);

/*
 * Reads the first reference of an ASX text, or else of a "[Reference]" text, into url. False, with url as it
 * was, when there is none.
 *
 * mmsh: whether url is the medium itself, to be opened as mmsh://; false when it is a further list
 * (ENTRYREF). Names are compared without regard to case. A NUL byte ends the text.
 */
MDCH_API bool parseASX(const std::string& text, std::string& url, bool& mmsh);

/*
 * Reads the first line of a text into url if it is an http, https, mms or mmsh URL, in any case. False, with
 * url as it was, if it is not. A NUL byte ends the text.
 */
MDCH_API bool parseSIMPLE(const std::string& text, std::string& url);

} // namespace md

#endif
