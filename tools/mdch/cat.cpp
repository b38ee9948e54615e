#include "commands.h"
#include "failure.h"
#include "interrupt.h"
#include "open.h"
#include "output.h"
#include "progress.h"
#include "start.h"

#include "mdc_hlp_http_access.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <unistd.h>

namespace mdch {

namespace {

// A read waits until it has all that it asked for: a live stream is taken in small pieces, so that a player
// behind a pipe gets them in time.
constexpr std::size_t kPiece = 16384;
constexpr std::size_t kLivePiece = 4096;

struct Copying
{
    const Source& source;
    Output& output;
    Interrupt& interrupt;
    std::string url;
    std::int64_t total; // that are to come; negative: unknown
    std::int64_t limit; // most that are wanted; negative: all
    std::int64_t count = 0;

    // Bytes to ask for at once: not more than are wanted.
    unsigned int nextPiece(std::size_t piece) const
    {
        const auto most = static_cast<std::int64_t>(piece);
        return static_cast<unsigned int>(limit >= 0 ? std::min(most, limit - count) : most);
    }
};

Failure readFailure(const Copying& copying, int code, int savedErrno)
{
    const std::string what = "cannot read " + copying.url + " after " + bytesOf(copying.count, copying.total);
    return code != 0 ? failureOf(copying.source, what, code, savedErrno) : truncatedFailure(what);
}

// True at the true end of the stream, false with the failure.
bool isWhole(const Copying& copying, int savedErrno, Failure& failure)
{
    MdchUrlBase& stream = *copying.source.stream;
    const int error = stream.error();
    const bool isHttp = copying.source.http != nullptr;
    // A file may grow while it is read, and some files of the system tell no size.
    const bool isShort = isHttp && copying.total >= 0 && copying.count < copying.total;
    if (error != 0 || stream.eof() == 0 || isShort) {
        failure = readFailure(copying, error, savedErrno);
        return false;
    }
    return true;
}

// Copies to the end. True, or false with the failure.
bool copyAll(Copying& copying, Progress& progress, Failure& failure)
{
    std::array<unsigned char, kPiece> buffer{};
    const std::size_t piece = copying.total >= 0 ? kPiece : kLivePiece;
    while (!copying.interrupt.requested()) {
        const unsigned int wanted = copying.nextPiece(piece);
        if (wanted == 0) {
            return true;
        }
        errno = 0;
        const int got = copying.source.stream->read(buffer.data(), wanted);
        const int savedErrno = errno;
        if (got > 0) {
            if (!copying.output.write(buffer.data(), static_cast<std::size_t>(got), failure)) {
                return false;
            }
            copying.count += got;
            copying.interrupt.setBytes(copying.count);
            progress.update(copying.count);
        }
        if (got < static_cast<int>(wanted)) {
            return isWhole(copying, savedErrno, failure);
        }
    }
    return true;
}

} // namespace

int runCat(const Arguments& arguments, Interrupt& interrupt)
{
    Source source;
    Failure failure;
    if (!openSource(arguments, source, failure)) {
        return interrupt.requested() ? interrupt.report() : report(failure);
    }
    if (!moveToStart(arguments, source, failure)) {
        return interrupt.requested() ? interrupt.report() : report(failure);
    }
    // Opened after the source, so that a wrong address leaves an existing file alone.
    Output output(arguments.output);
    if (!output.open(localPath(arguments.url), failure)) {
        return report(failure);
    }
    if (source.http != nullptr) {
        interrupt.setAction([stream = source.stream] { stream->close(); }); // releases a waiting read
    }
    const std::int64_t expected = expectedBytes(arguments, source);
    Progress progress(expected, isatty(STDERR_FILENO) != 0 && !output.isTerminal());
    Copying copying{source, output, interrupt, arguments.url, expected, arguments.length};
    const bool whole = copyAll(copying, progress, failure);
    interrupt.setAction(nullptr);
    progress.clear();
    if (interrupt.requested()) {
        return interrupt.report();
    }
    if (!whole || !output.close(failure)) {
        return report(failure);
    }
    return kExitOk;
}

} // namespace mdch
