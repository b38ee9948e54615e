#include "cat_options.h"
#include "command.h"
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
#include <chrono>
#include <cmath>
#include <memory>
#include <unistd.h>
#include <vector>

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

// Copies datagrams until enough has come, nothing comes any more, or the user has enough.
bool copyDatagrams(Copying& copying, int timeout, Progress& progress, Failure& failure)
{
    using Clock = std::chrono::steady_clock;
    constexpr std::size_t kLargestDatagram = 65536;
    constexpr int kDataSeconds = 30; // as streams of web servers have it
    const std::chrono::seconds patience(timeout != 0 ? timeout : kDataSeconds);
    std::vector<unsigned char> buffer(kLargestDatagram);
    Clock::time_point last = Clock::now();
    while (!copying.interrupt.requested() && copying.nextPiece(kLargestDatagram) > 0) {
        const int got = copying.source.stream->read(buffer.data(), static_cast<unsigned int>(buffer.size()));
        const Clock::time_point now = Clock::now();
        if (got > 0) {
            // A datagram is read whole: the rest of one that is cut would be lost without a word.
            const unsigned int wanted = copying.nextPiece(static_cast<std::size_t>(got));
            if (!copying.output.write(buffer.data(), wanted, failure)) {
                return false;
            }
            copying.count += wanted;
            copying.interrupt.setBytes(copying.count);
            progress.update(copying.count);
            last = now;
        } else if (now - last >= patience) {
            failure = silenceFailure("cannot read " + copying.url + " after " + bytesOf(copying.count, -1),
                                     static_cast<int>(patience.count()));
            return false;
        }
    }
    return true;
}

int runCat(const CatOptions& options, Interrupt& interrupt)
{
    Source source;
    Failure failure;
    if (!openSource(options, source, failure)) {
        return interrupt.requested() ? interrupt.report() : report(failure);
    }
    if (!moveToStart(options, source, failure)) {
        return interrupt.requested() ? interrupt.report() : report(failure);
    }
    // Opened after the source, so that a wrong address leaves an existing file alone.
    Output output(options.output);
    if (!output.open(localPath(options.url), failure)) {
        return report(failure);
    }
    if (source.http != nullptr) {
        interrupt.setAction([stream = source.stream] { stream->close(); }); // releases a waiting read
    }
    const std::int64_t expected = expectedBytes(options, source);
    Progress progress(expected, isatty(STDERR_FILENO) != 0 && !output.isTerminal());
    Copying copying{source, output, interrupt, options.url, expected, options.length};
    const bool whole = source.isDatagrams() ? copyDatagrams(copying, options.timeout, progress, failure)
                                            : copyAll(copying, progress, failure);
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

void addCatOptions(CLI::App& cat, CatOptions& options)
{
    cat.add_option("-o,--output", options.output, "write to FILE")->option_text("FILE");
    CLI::Option* offset =
        cat.add_option("--offset", options.offset, "start there; -N starts N bytes before the end")
            ->option_text("BYTES");
    constexpr double kLatestSecond = 4294967; // in milliseconds still 32 bits
    cat.add_option_function<double>(
           "--time",
           [&options](double seconds) {
               constexpr double kMsPerSecond = 1000;
               options.timeMs = std::llround(seconds * kMsPerSecond);
           },
           "start at that play time (DLNA servers)")
        ->option_text("SECONDS")
        ->check(CLI::Range(0.0, kLatestSecond))
        ->excludes(offset);
    cat.add_option("--length", options.length, "stop after so many bytes")
        ->option_text("BYTES")
        ->check(CLI::NonNegativeNumber);
}

} // namespace

Command addCat(CLI::App& line)
{
    const auto options = std::make_shared<CatOptions>();
    CLI::App* cat = line.add_subcommand("cat", "copy the bytes to standard output or to a file");
    addStreamOptions(*cat, *options);
    addCatOptions(*cat, *options);
    cat->footer("Example:\n  mdch cat http://media.example/film.ts --offset -65536 -o end.ts\n");
    return {cat, [options](Interrupt& interrupt) { return runCat(*options, interrupt); }};
}

} // namespace mdch
