/*
 * The three parsers as streamNeedRedirect needs them: as parseM3U, parseASX and parseSIMPLE, but want of memory is an
 * exception. Nothing was found, and nothing could be looked for, are two things to its callers.
 */
#ifndef MDC_HLP_REDIRECT_READ_H
#define MDC_HLP_REDIRECT_READ_H

#include <string>

namespace md {

/* Each throws std::bad_alloc only. */
bool readM3U(const std::string& text, std::string& url);
bool readASX(const std::string& text, std::string& url, bool& mmsh);
bool readSIMPLE(const std::string& text, std::string& url);

} // namespace md

#endif
