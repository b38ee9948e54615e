#include "mdc_hlp_url.h"

#include "mdc_hlp_trace.h"
#include "mdc_hlp_url_base.h"
#include "mdp_thread.h"

#include <boost/shared_ptr.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>

char* userAgent = nullptr;

namespace {

using StreamPtr = boost::shared_ptr<MdchUrlBase>;

struct HandleTable
{
    MdpMutex mutex;
    std::map<std::uint32_t, StreamPtr> streams; // guarded by mutex, as is the counter
    std::uint32_t lastHandle = 0;
};

// Never destroyed: other threads may still use their handles while static objects go.
HandleTable& handleTable()
{
    static auto* instance = new HandleTable;
    return *instance;
}

void traceCalled(const char* function, int line)
{
    MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): Called.\n", md::traceBaseName(__FILE__), line, function);
}

// The handle's stream, held for the call; empty and traced when there is none.
StreamPtr find(unsigned int handle, const char* function, int line)
{
    traceCalled(function, line);
    HandleTable& table = handleTable();
    {
        const MdpLock lock(table.mutex);
        const auto found = table.streams.find(handle);
        if (found != table.streams.end()) {
            return found->second;
        }
    }
    MDCH_TRACE(md::kTraceError, "%s:%d:%s(): Invalid handle %d.\n", md::traceBaseName(__FILE__), line,
               function, static_cast<int>(handle));
    return {};
}

// For the functions that tell an invalid handle through errno.
template <class Result>
Result badHandle(Result result)
{
    errno = EBADF;
    return result;
}

// Callers of the seek functions see 0 or -1, whatever a back-end returns.
int zeroOrMinusOne(int result, const char* function, int line)
{
    if (result == 0) {
        return 0;
    }
    MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): return -1 instead of %i.\n", md::traceBaseName(__FILE__), line,
               function, result);
    return -1;
}

} // namespace

int mdch_UrlInit(const mdch_UrlInit_struct* init)
{
    traceCalled(__func__, __LINE__);
    if (init == nullptr) {
        return 0;
    }
    if (init->userAgent == nullptr) {
        MDCH_TRACE(md::kTraceError, "%s:%d:%s(): missing user agent string\n", MDCH_HERE);
        return -EINVAL;
    }
    const std::size_t size = std::strlen(init->userAgent) + 1;
    userAgent = static_cast<char*>(std::malloc(size));
    if (userAgent == nullptr) {
        MDCH_TRACE(md::kTraceError, "%s:%d:%s(): Failed to alloc %u bytes for user agent\n", MDCH_HERE,
                   static_cast<unsigned int>(size));
        return -ENOMEM;
    }
    std::memcpy(userAgent, init->userAgent, size);
    return 0;
}

const char* mdch_getUserAgent(void)
{
    traceCalled(__func__, __LINE__);
    if (userAgent != nullptr) {
        return userAgent;
    }
    MDCH_TRACE(md::kTraceError, "%s:%d:%s(): user agent string not set, returning empty string\n", MDCH_HERE);
    return "";
}

unsigned int mdch_UrlOpen(const char* url, int mode)
{
    traceCalled(__func__, __LINE__);
    mdch_UrlExtended_struct ext{};
    ext.userAgent = userAgent;
    return mdch_UrlOpenExt(url, mode, &ext);
}

unsigned int mdch_UrlOpenExt(const char* url, int mode, mdch_UrlExtended_struct* ext)
{
    traceCalled(__func__, __LINE__);
    StreamPtr stream;
    if (mdch_OpenUrl(url, mode, ext, stream) != 0 || stream == nullptr) {
        return 0;
    }
    HandleTable& table = handleTable();
    const MdpLock lock(table.mutex);
    table.streams[table.lastHandle + 1] = stream; // throws, if at all, before a number is used up
    return ++table.lastHandle;
}

int mdch_UrlClose(unsigned int handle)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    if (stream == nullptr) {
        return badHandle(-1);
    }
    const int result = stream->close();
    HandleTable& table = handleTable();
    const MdpLock lock(table.mutex);
    table.streams.erase(handle); // the object lives on in stream until the lock is released
    return result;
}

int mdch_UrlRead(unsigned int handle, unsigned char* buffer, unsigned int size)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    return stream != nullptr ? stream->read(buffer, size) : 0;
}

int mdch_UrlWrite(unsigned int handle, unsigned char* buffer, unsigned int size)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    return stream != nullptr ? stream->write(buffer, size) : 0;
}

long long mdch_UrlTell(unsigned int handle)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    return stream != nullptr ? stream->tell() : badHandle(-1LL);
}

int mdch_UrlSeek(unsigned int handle, long long offset, int whence)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    return stream != nullptr ? zeroOrMinusOne(stream->seek(offset, whence), __func__, __LINE__)
                             : badHandle(-1);
}

int mdch_UrlSeekTime(unsigned int handle, unsigned int time)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    return stream != nullptr ? zeroOrMinusOne(stream->seekTime(time), __func__, __LINE__) : badHandle(-1);
}

int mdch_UrlGetc(unsigned int handle)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    return stream != nullptr ? stream->getc() : -1;
}

int mdch_UrlEof(unsigned int handle)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    return stream != nullptr ? stream->eof() : 1;
}

int mdch_UrlError(unsigned int handle)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    return stream != nullptr ? stream->error() : 1;
}

void mdch_UrlClearerr(unsigned int handle)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    if (stream != nullptr) {
        stream->clearerr();
    }
}

long long mdch_UrlSize(unsigned int handle)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    return stream != nullptr ? stream->size() : badHandle(-1LL);
}

int mdch_UrlIsSeekable(unsigned int handle)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    return stream != nullptr ? stream->isSeekable() : badHandle(0);
}

unsigned int mdch_UrlCapability(unsigned int handle)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    return stream != nullptr ? stream->capability() : badHandle(0U);
}

int mdch_UrlPause(unsigned int handle)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    return stream != nullptr ? stream->pause() : 1;
}

int mdch_UrlResume(unsigned int handle)
{
    const StreamPtr stream = find(handle, __func__, __LINE__);
    return stream != nullptr ? stream->resume() : 1;
}
