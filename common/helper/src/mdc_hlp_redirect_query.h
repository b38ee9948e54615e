/*
 * What a server says about a URL: the response's header, and as much of its body as a playlist can be long.
 * Traces under the name queryHeaderMDCH.
 */
#ifndef MDC_HLP_REDIRECT_QUERY_H
#define MDC_HLP_REDIRECT_QUERY_H

#include <chrono>
#include <deque>
#include <string>

namespace md {

class HttpAccess;

struct HeaderQuery
{
    std::string url;         // what is asked for
    std::string contentType; // rest of that header line, its line end included
    std::string body;        // empty unless the content type tells of a playlist
    std::string location;    // rest of that header line
};

/* Results of queryHeaderMDCH; the two that are none can be told to the caller as libcurl's. */
enum QueryStatus : int
{
    kQueryDone = 0,
    kQueryRedirected = 1, // to where the location says, by a scheme that HTTP streams do not speak
    kQueryFailed = 7
};

/* Asks for query.url and fills the rest in. Throws std::bad_alloc only. */
QueryStatus queryHeaderMDCH(HeaderQuery& query);

/* Takes content type and location out of header lines; later lines replace earlier ones. */
void takeHeaderLines(const std::deque<std::string>& lines, HeaderQuery& query);

/*
 * Appends what the stream gives to body until the stream ends or fails, 10,000 bytes are there, or patience
 * has passed when a read ends. A stream whose transfer is gone (md::HttpAccess::shutdown) counts as failed.
 */
void readBody(HttpAccess& stream, std::string& body, std::chrono::steady_clock::duration patience);

} // namespace md

#endif
