// Failures in words, and the exit statuses that go with them.
//
// Every failure is one line on standard error: what failed, the reason, what to try next. The wording of all
// of them stands in the table of failure.cpp.
#pragma once

#include "cause.h"

#include <cstdint>
#include <string>

namespace mdch {

enum ExitStatus : int
{
    kExitOk = 0,
    kExitUsage = 1,
    kExitNotFound = 2,
    kExitServer = 3,
    kExitCertificate = 4,
    kExitTls = 5,
    kExitNetwork = 6,
    kExitBrokenOff = 7,
    kExitOther = 8,
    kExitFile = 9,
    kExitInterrupted = 130,
    kExitTerminated = 143
};

struct Failure
{
    std::string what;   // "cannot open http://..."
    std::string reason; // "the server answered 404"
    std::string next;   // "Check the address."
    int status = kExitOther;
};

// A failure of an HTTP stream. code: of error() or of an open call; httpStatus: of the response, if one came; cause:
// counts when it belongs to the code.
Failure httpFailure(std::string what, int code, int httpStatus, const Cause& cause);

// A failure of a local file. code: an errno value.
Failure localFailure(std::string what, int code);

// A failed upload. result and code: of md::FtpAccess::upload and getCurlCode.
Failure uploadFailure(std::string what, int result, int code);

// A path that looks like an address of a kind that is not served, and so was taken for a file.
Failure unservedFailure(std::string what, int code);

// A stream of datagrams that cannot be opened. code: an errno value.
Failure datagramFailure(std::string what, int code);

// A media volume that is not there.
Failure noVolumeFailure(std::string what);

// Nothing came for so many seconds.
Failure silenceFailure(std::string what, int seconds);

// Fewer bytes than the server had announced, without an error of its own.
Failure truncatedFailure(std::string what);

// "12 of 400 bytes", "12 bytes" when the total is not known (negative).
std::string bytesOf(std::int64_t count, std::int64_t total);

// The text without control characters, which could steer the user's terminal.
std::string printable(const std::string& text);

// Writes the line to standard error; returns the exit status.
int report(const Failure& failure);

// The exit statuses for the help text.
std::string exitStatusHelp();

} // namespace mdch
