#include "resume.h"

#include "mdc_hlp_url_base.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>

namespace mdch {

namespace {

// Compared before the file is gone on with.
constexpr std::int64_t kOverlap = 16384;

using Bytes = std::vector<unsigned char>;

Failure notResumed(const CatOptions& options, std::string reason)
{
    return {"cannot go on with " + options.output + " from " + options.url, std::move(reason),
            "Start anew without --resume", kExitOther};
}

// Size of a regular file; 0 for anything else.
std::int64_t sizeOf(const std::string& path)
{
    struct stat facts = {};
    return stat(path.c_str(), &facts) == 0 && S_ISREG(facts.st_mode) ? facts.st_size : 0;
}

bool readFromFile(const std::string& path, std::int64_t position, Bytes& bytes)
{
    std::ifstream file(path, std::ios::binary);
    file.seekg(position);
    std::vector<char> text(bytes.size());
    if (!file.read(text.data(), static_cast<std::streamsize>(text.size()))) {
        return false;
    }
    std::copy(text.begin(), text.end(), bytes.begin());
    return true;
}

bool readFromStream(const CatOptions& options, const Source& source, std::int64_t position, Bytes& bytes,
                    Failure& failure)
{
    MdchUrlBase& stream = *source.stream;
    const std::string what = "cannot read " + options.url + " from byte " + std::to_string(position);
    errno = 0;
    if (stream.seek(position, SEEK_SET) != 0) {
        failure = failureOf(source, what, stream.error(), errno);
        return false;
    }
    const int got = stream.read(bytes.data(), static_cast<unsigned int>(bytes.size()));
    if (got != static_cast<int>(bytes.size())) {
        const int code = stream.error();
        failure = code != 0 ? failureOf(source, what, code, errno) : truncatedFailure(what);
        return false;
    }
    return true;
}

// Whether the lengths allow it, and the stream.
bool mayResume(const CatOptions& options, const Source& source, std::int64_t have, Failure& failure)
{
    const std::int64_t size = source.stream->size();
    if (size < 0) {
        failure = notResumed(options, "the stream's length is not known");
        return false;
    }
    if (have > size) {
        failure = notResumed(options, "it is not the same: the file has " + std::to_string(have) +
                                          " bytes, the stream " + std::to_string(size));
        return false;
    }
    if (source.stream->isSeekable() == 0) {
        failure = notResumed(options, "the server does not serve parts of it");
        return false;
    }
    return true;
}

} // namespace

bool moveBehindFile(const CatOptions& options, const Source& source, std::int64_t& have, Failure& failure)
{
    have = sizeOf(options.output);
    if (have == 0) {
        return true;
    }
    if (!mayResume(options, source, have, failure)) {
        return false;
    }
    const std::int64_t size = source.stream->size();
    const std::int64_t overlap = std::min(have, kOverlap);
    Bytes here(static_cast<std::size_t>(overlap));
    Bytes there(static_cast<std::size_t>(overlap));
    errno = 0;
    if (!readFromFile(options.output, have - overlap, here)) {
        failure = localFailure("cannot read " + options.output, errno);
        return false;
    }
    if (!readFromStream(options, source, have - overlap, there, failure)) {
        return false;
    }
    if (source.stream->size() != size) {
        failure = notResumed(options, "the stream's length has changed meanwhile");
        return false;
    }
    if (here != there) {
        failure = notResumed(options, "it is not the same: the file's last bytes differ from the stream's");
        return false;
    }
    return true;
}

} // namespace mdch
