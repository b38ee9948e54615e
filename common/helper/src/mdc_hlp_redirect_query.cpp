#include "mdc_hlp_redirect_query.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_redirect_names.h"
#include "mdc_hlp_trace.h"
#include "mdc_hlp_url.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace md {

namespace {

constexpr const char* kName = "queryHeaderMDCH";

constexpr std::size_t kBodyLimit = 10000;
constexpr std::size_t kPieceSize = 2500;
constexpr useconds_t kNextTry = 50000; // microseconds

// The time-out of a stream that nobody sets is meant for players that buffer minutes; here a caller waits.
constexpr int kDataTimeout = 30; // seconds
constexpr std::chrono::seconds kPatience{60};

std::string shortUserAgent()
{
    std::array<char, 100> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%s", mdch_getUserAgent());
    return buffer.data();
}

// What stands behind the name, wherever in the line that is; null when it is not there.
const char* valueBehind(const std::string& line, const char* name)
{
    const char* at = strcasestr(line.c_str(), name);
    if (at == nullptr) {
        return nullptr;
    }
    at += std::strlen(name);
    return at + std::strspn(at, " \t");
}

void dropLast(std::string& text, char what)
{
    if (!text.empty() && text.back() == what) {
        text.pop_back();
    }
}

bool isPlaylist(const std::string& contentType)
{
    return beginsWithAny(contentType, kAsxTypes) || beginsWithAny(contentType, kM3uTypes) ||
           beginsWithAny(contentType, kTextTypes);
}

bool isGone(HttpAccess& stream)
{
    return stream.getResponseCode() == -ENOSYS;
}

// Whether a stream that gave nothing will give something later.
bool mayGiveMore(HttpAccess& stream)
{
    if (stream.eof() != 0) {
        MDCH_TRACE(kTraceCall, "%s() eof\n", kName);
        return false;
    }
    if (stream.error() != 0 || isGone(stream)) {
        MDCH_TRACE(kTraceError, "%s() error\n", kName);
        return false;
    }
    return true;
}

} // namespace

void takeHeaderLines(const std::deque<std::string>& lines, HeaderQuery& query)
{
    for (const std::string& line : lines) {
        MDCH_TRACE(kTraceCall, "%s() Header=%s.\n", kName, line.c_str());
        if (const char* type = valueBehind(line, "content-type:")) {
            query.contentType = type;
            MDCH_TRACE(kTraceCall, "%s() contentType=%s.\n", kName, query.contentType.c_str());
        }
        if (const char* location = valueBehind(line, "location:")) {
            query.location = location;
            dropLast(query.location, '\n');
            dropLast(query.location, '\r');
            MDCH_TRACE(kTraceCall, "%s() location=%s.\n", kName, query.location.c_str());
        }
    }
}

void readBody(HttpAccess& stream, std::string& body, std::chrono::steady_clock::duration patience)
{
    const auto end = std::chrono::steady_clock::now() + patience;
    for (;;) {
        std::array<unsigned char, kPieceSize> piece{};
        const int count = stream.read(piece.data(), static_cast<unsigned int>(piece.size()));
        MDCH_TRACE(kTraceCall, "%s() read=%i.\n", kName, count);
        if (count > 0) {
            body.append(reinterpret_cast<const char*>(piece.data()), static_cast<std::size_t>(count));
            if (body.size() >= kBodyLimit) {
                MDCH_TRACE(kTraceCall, "%s() done\n", kName);
                return;
            }
        } else if (!mayGiveMore(stream)) {
            return;
        }
        if (std::chrono::steady_clock::now() >= end) {
            MDCH_TRACE(kTraceError, "%s() error\n", kName);
            return;
        }
        if (count <= 0) {
            usleep(kNextTry);
        }
    }
}

QueryStatus queryHeaderMDCH(HeaderQuery& query)
{
    HttpAccess stream(shortUserAgent(), false);
    const int fd = stream.open(query.url.c_str(), 0);
    if (fd < 0) {
        MDCH_TRACE(kTraceError, "%s() fd=%i: could not open %s.\n", kName, fd, query.url.c_str());
        return kQueryFailed;
    }
    MDCH_TRACE(kTraceCall, "%s() fd=%i.\n", kName, fd);
    stream.fcntl(MDCH_FCNTL_DATA_TIMEOUT, kDataTimeout);

    QueryStatus status = kQueryDone;
    std::deque<std::string> lines;
    const int listed = stream.getHeaderList(lines);
    if (listed < 0) {
        MDCH_TRACE(kTraceError, "%s() getHeaderError=%i.\n", kName, listed);
        status = kQueryFailed;
    }
    takeHeaderLines(lines, query);
    MDCH_TRACE(kTraceCall, "%s() Header done.\n", kName);

    const int error = stream.error();
    MDCH_TRACE(kTraceCall, "%s() httpError=%i.\n", kName, error);
    if (error == MDCH_HTTP_EPROTOCOL) {
        status = kQueryRedirected;
    } else if (error != 0) {
        status = kQueryFailed;
    } else if (isPlaylist(query.contentType)) {
        readBody(stream, query.body, kPatience);
        if (query.body.empty() && stream.error() != 0) {
            status = kQueryFailed; // what stands in the body is not known
        }
    }
    stream.close();
    return status;
}

} // namespace md
