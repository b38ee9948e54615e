// Opening a stream as the command line says.
#pragma once

#include "cause.h"
#include "failure.h"
#include "stream_options.h"

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <deque>
#include <string>

class MdchUrlBase;

namespace md {
class HttpAccess;
}

namespace mdch {

class Interrupt;

// An open stream; closed when it goes.
struct Source
{
    Source() = default;
    ~Source();
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    // What kind of stream it is, in words.
    const char* backEnd() const;

    // A stream of datagrams without an end: reading nothing means that nothing came for a while.
    bool isDatagrams() const;

    CauseListener causes; // hears all of the stream
    boost::shared_ptr<MdchUrlBase> stream;
    md::HttpAccess* http = nullptr; // the stream, when it is one over HTTP
    std::int32_t icyInterval = 0;   // 0: the server sends no titles
};

// Takes the key's pass phrase from where the options say, unless they hold it already, and opens. True, or false
// with the failure.
bool openSource(StreamOptions& options, Interrupt& interrupt, Source& source, Failure& failure);

// What the stream's own error code means. what: "cannot read ..."; savedErrno: errno after the failed call.
Failure failureOf(const Source& source, const std::string& what, int code, int savedErrno);

// The path in the local file system that an address of a file means: "file://" in front is taken away. Addresses
// of other kinds come back as they are.
std::string localPath(const std::string& url);

// The response header, lines without their ends.
std::deque<std::string> headerLines(const Source& source);

// Value of the first of the lines that has this name; empty without one.
std::string headerValue(const std::deque<std::string>& lines, const std::string& name);

} // namespace mdch
