#include "start.h"

#include "mdc_hlp_http_access.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

namespace mdch {

namespace {

Failure seekFailure(std::string what, std::string reason, std::string next)
{
    Failure failure;
    failure.what = std::move(what);
    failure.reason = std::move(reason);
    failure.next = std::move(next);
    failure.status = kExitOther;
    return failure;
}

// The stream's own error tells more than the seek's result, unless it only says that a seek was refused.
Failure refusedSeek(const Source& source, const std::string& what, int savedErrno)
{
    const int code = source.stream->error();
    if (source.http != nullptr && code != 0 && code != ESPIPE) {
        return failureOf(source, what, code, savedErrno);
    }
    return seekFailure(what, "this stream does not go there", "See with mdch info what it can do");
}

bool moveToOffset(const CatOptions& options, const Source& source, Failure& failure)
{
    MdchUrlBase& stream = *source.stream;
    const std::int64_t offset = options.offset;
    const std::string what = "cannot start " + options.url + " at byte " + std::to_string(offset);
    if (stream.isSeekable() == 0) {
        failure = seekFailure(what, "the server does not serve parts of it", "Leave out --offset");
        return false;
    }
    const std::int64_t size = stream.size();
    if (size >= 0 && (offset > size || offset < -size)) {
        failure = seekFailure(what, "it has " + std::to_string(size) + " bytes", "Name an offset within it");
        return false;
    }
    errno = 0;
    if (stream.seek(offset, offset < 0 ? SEEK_END : SEEK_SET) != 0) {
        failure = refusedSeek(source, what, errno);
        return false;
    }
    return true;
}

bool moveToTime(const CatOptions& options, const Source& source, Failure& failure)
{
    MdchUrlBase& stream = *source.stream;
    const std::string what = "cannot start " + options.url + " at " + std::to_string(options.timeMs) + " ms";
    if ((stream.capability() & MDCH_CAPABILITY_TIME_SEEK) == 0) {
        failure = seekFailure(what, "the stream has no time seek",
                              "Ask with --dlna-mode, or name a byte with --offset");
        return false;
    }
    if (stream.seekTime(static_cast<unsigned int>(options.timeMs)) != 0) {
        failure = refusedSeek(source, what, errno);
        return false;
    }
    return true;
}

} // namespace

bool moveToStart(const CatOptions& options, const Source& source, Failure& failure)
{
    if (options.timeMs >= 0) {
        return moveToTime(options, source, failure);
    }
    return options.offset == 0 || moveToOffset(options, source, failure);
}

std::int64_t expectedBytes(const CatOptions& options, const Source& source)
{
    const std::int64_t size = source.stream->size();
    if (size < 0) {
        return size;
    }
    const std::int64_t rest = std::max<std::int64_t>(0, size - source.stream->tell());
    return options.length >= 0 ? std::min(rest, options.length) : rest;
}

} // namespace mdch
