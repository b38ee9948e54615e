#include "cat_options.h"
#include "command.h"
#include "failure.h"
#include "interrupt.h"
#include "live_line.h"
#include "open.h"
#include "output.h"
#include "resume.h"
#include "start.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_icy.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
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
    LiveLine& line;
    md::IcyReader* radio; // what the stream is read through, to take titles out of it; null: nothing
    std::string url;
    std::int64_t total; // all that there will be; negative: unknown
    std::int64_t limit; // most that are wanted; negative: all
    std::int64_t count; // there already

    // Bytes to ask for at once: not more than are wanted.
    unsigned int nextPiece(std::size_t piece) const
    {
        const auto most = static_cast<std::int64_t>(piece);
        return static_cast<unsigned int>(limit >= 0 ? std::min(most, limit - count) : most);
    }

    int read(unsigned char* buffer, unsigned int size)
    {
        if (radio == nullptr) {
            return source.stream->read(buffer, size);
        }
        const int got = radio->read(buffer, size);
        line.setTitle(radio->title());
        return got;
    }

    bool write(const unsigned char* buffer, std::size_t size, Failure& failure)
    {
        if (!output.write(buffer, size, failure)) {
            return false;
        }
        count += static_cast<std::int64_t>(size);
        interrupt.setBytes(count);
        line.setCount(count);
        return true;
    }

    // A reader of titles may return early, with the stream as it was.
    bool goesOn() const
    {
        return radio != nullptr && source.stream->error() == 0 && source.stream->eof() == 0;
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
bool copyAll(Copying& copying, Failure& failure)
{
    std::array<unsigned char, kPiece> buffer{};
    const std::size_t piece = copying.total >= 0 ? kPiece : kLivePiece;
    while (!copying.interrupt.requested()) {
        const unsigned int wanted = copying.nextPiece(piece);
        if (wanted == 0) {
            return true;
        }
        errno = 0;
        const int got = copying.read(buffer.data(), wanted);
        const int savedErrno = errno;
        if (got > 0 && !copying.write(buffer.data(), static_cast<std::size_t>(got), failure)) {
            return false;
        }
        if (got < static_cast<int>(wanted) && !copying.goesOn()) {
            return isWhole(copying, savedErrno, failure);
        }
    }
    return true;
}

// Copies datagrams until enough has come, nothing comes any more, or the user has enough.
bool copyDatagrams(Copying& copying, int timeout, Failure& failure)
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
            if (!copying.write(buffer.data(), wanted, failure)) {
                return false;
            }
            last = now;
        } else if (now - last >= patience) {
            failure = silenceFailure("cannot read " + copying.url + " after " + bytesOf(copying.count, -1),
                                     static_cast<int>(patience.count()));
            return false;
        }
    }
    return true;
}

// The bytes that the file has already, and where to start with the stream.
bool moveIntoPlace(const CatOptions& options, const Source& source, bool takesTitles, std::int64_t& have,
                   Failure& failure)
{
    if (options.resume) {
        return moveBehindFile(options, source, have, failure);
    }
    if (takesTitles && (options.offset != 0 || options.timeMs >= 0)) {
        failure = {"cannot start " + options.url + " elsewhere than at its beginning",
                   "the place of the titles within it would be lost", "Take them along with --raw",
                   kExitUsage};
        return false;
    }
    return moveToStart(options, source, failure);
}

// The user sees a line of progress when nothing else goes to the terminal, and nothing is redirected.
bool showsLine(const CatOptions& options)
{
    return !options.output.empty() && isatty(STDOUT_FILENO) != 0 && isatty(STDERR_FILENO) != 0;
}

// Whether a copy that breaks off can be finished later. Asked before it does; total: as it is expected, or negative.
bool canBeFinished(const CatOptions& options, const Source& source, std::int64_t total)
{
    const bool isAll = options.offset == 0 && options.timeMs < 0 && options.length < 0;
    return !options.output.empty() && isAll && total >= 0 && source.stream->isSeekable() != 0;
}

int runCat(CatOptions& options, Interrupt& interrupt)
{
    Source source;
    Failure failure;
    std::int64_t have = 0;
    const auto refuse = [&] { return interrupt.requested() ? interrupt.report() : report(failure); };
    if (!openSource(options, interrupt, source, failure)) {
        return refuse();
    }
    if (source.http != nullptr) {
        interrupt.setAction([stream = source.stream] { stream->close(); }); // releases a waiting read
    }
    const bool takesTitles = source.icyInterval > 0 && !options.raw;
    if (!moveIntoPlace(options, source, takesTitles, have, failure)) {
        interrupt.setAction(nullptr);
        return refuse();
    }
    // Opened after the source, so that a wrong address leaves an existing file alone.
    Output output(options.output, options.resume);
    if (!output.open(localPath(options.url), failure)) {
        return report(failure);
    }
    // With titles in between nobody knows how much of it is audio.
    std::int64_t total = takesTitles ? options.length : expectedBytes(options, source);
    if (options.resume && have > 0) {
        total = source.stream->size();
    }
    const std::int64_t limit = have > 0 ? total : options.length;
    std::optional<md::IcyReader> radio;
    if (takesTitles) {
        radio.emplace(source.stream, source.icyInterval);
    }
    LiveLine line(source, total, have, showsLine(options));
    Copying copying{source,      output, interrupt, line, radio ? &*radio : nullptr,
                    options.url, total,  limit,     have};
    const bool finishable = canBeFinished(options, source, total);
    const bool whole = source.isDatagrams() ? copyDatagrams(copying, dataSeconds(options), failure)
                                            : copyAll(copying, failure);
    interrupt.setAction(nullptr);
    line.end();
    if (interrupt.requested()) {
        return interrupt.report();
    }
    if (!whole && finishable && failure.status == kExitBrokenOff) {
        failure.next = "Go on with --resume";
    }
    if (!whole || !output.close(failure)) {
        return report(failure);
    }
    return kExitOk;
}

void addCatOptions(CLI::App& cat, CatOptions& options)
{
    CLI::Option* output = cat.add_option("-o,--output", options.output, "write to FILE")->option_text("FILE");
    CLI::Option* resume =
        cat.add_flag("--resume", options.resume, "go on where FILE ends, if it is the same")->needs(output);
    CLI::Option* offset =
        cat.add_option("--offset", options.offset, "start there; -N starts N bytes before the end")
            ->option_text("BYTES")
            ->excludes(resume);
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
        ->excludes(offset)
        ->excludes(resume);
    cat.add_option("--length", options.length, "stop after so many bytes")
        ->option_text("BYTES")
        ->check([](const std::string& text) {
            return text.rfind('-', 0) == 0 ? "\"" + text + "\" is below 0" : std::string();
        })
        ->excludes(resume);
    cat.add_flag("--raw", options.raw, "with --icy: leave the titles in the bytes, as the server sends them")
        ->needs(cat.get_option("--icy"));
}

} // namespace

Command addCat(CLI::App& line)
{
    const auto options = std::make_shared<CatOptions>();
    CLI::App* cat = line.add_subcommand("cat", "copy the bytes to standard output or to a file");
    addStreamOptions(*cat, *options);
    addCatOptions(*cat, *options);
    cat->footer("Examples:\n"
                "  mdch cat http://media.example/film.ts -o film.ts --resume\n"
                "  mdch cat http://media.example/film.ts --offset -65536 -o end.ts\n"
                "  mdch cat http://radio.example/live --icy -o live.mp3\n");
    return {cat, [options](Interrupt& interrupt) { return runCat(*options, interrupt); }};
}

} // namespace mdch
