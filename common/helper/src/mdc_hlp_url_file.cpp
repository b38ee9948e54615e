#include "mdc_hlp_url_file.h"

#include "mdc_hlp_trace.h"
#include "mdc_hlp_url_handle.h"

#include <cerrno>
#include <cstring>
#include <strings.h>
#include <sys/stat.h>

namespace {

constexpr const char* kScheme = "file://";

void traceEntry(const char* operation)
{
    MDCH_TRACE(md::kTraceCall, "MdchUrlFile::%s() in\n", operation);
}

// Closed in a program that is executed, as everything else that the library opens.
const char* libraryMode(int mode)
{
    switch (mode) {
    case MDCH_MODE_READ:
        return "rbe";
    case MDCH_MODE_WRITE:
        return "wbe";
    default:
        return nullptr;
    }
}

int closeStream(FILE* stream)
{
    return stream != nullptr ? fclose(stream) : 0;
}

} // namespace

MdchUrlFile::MdchUrlFile() : m_stream(std::make_unique<md::SharedHandle<FILE>>(closeStream))
{
    MDCH_TRACE(md::kTraceCall, "MdchUrlFile::%s()\n", "MdchUrlFile");
}

MdchUrlFile::~MdchUrlFile()
{
    MDCH_TRACE(md::kTraceCall, "MdchUrlFile::%s()\n", "~MdchUrlFile");
    if (m_stream->use() != nullptr) {
        MdchUrlFile::close();
    }
}

int MdchUrlFile::open(const char* url, int mode)
{
    traceEntry("open");
    if (url == nullptr) {
        return -EINVAL;
    }
    const char* path =
        strncasecmp(url, kScheme, std::strlen(kScheme)) == 0 ? url + std::strlen(kScheme) : url;
    const char* how = libraryMode(mode);
    if (how == nullptr) {
        errno = EINVAL;
        return -1;
    }
    FILE* stream = fopen64(path, how);
    const int result = stream != nullptr ? 0 : -errno;
    if (!m_stream->replace(stream)) {
        errno = ENOMEM;
        return -ENOMEM;
    }
    return result;
}

int MdchUrlFile::close()
{
    traceEntry("close");
    return m_stream->close();
}

int MdchUrlFile::read(unsigned char* buffer, unsigned int size)
{
    traceEntry("read");
    const std::shared_ptr<FILE> stream = m_stream->use();
    if (stream == nullptr) {
        errno = EBADF;
        return 0;
    }
    return static_cast<int>(fread(buffer, 1, md::atMostInt(size), stream.get()));
}

int MdchUrlFile::write(unsigned char* buffer, unsigned int size)
{
    traceEntry("write");
    const std::shared_ptr<FILE> stream = m_stream->use();
    if (stream == nullptr) {
        errno = EBADF;
        return 0;
    }
    return static_cast<int>(fwrite(buffer, 1, md::atMostInt(size), stream.get()));
}

long long MdchUrlFile::tell()
{
    traceEntry("tell");
    const std::shared_ptr<FILE> stream = m_stream->use();
    if (stream == nullptr) {
        errno = EBADF;
        return -1;
    }
    return ftello64(stream.get());
}

int MdchUrlFile::seek(long long offset, int whence)
{
    traceEntry("seek");
    if (static_cast<unsigned int>(whence) > SEEK_END) {
        errno = EINVAL;
        return -1;
    }
    const std::shared_ptr<FILE> stream = m_stream->use();
    if (stream == nullptr) {
        errno = EBADF;
        return -1;
    }
    return fseeko64(stream.get(), offset, whence);
}

int MdchUrlFile::seekTime(unsigned int /*time*/)
{
    MDCH_TRACE(md::kTraceError, "MdchUrlFile::%s() time seek not supported\n", "seekTime");
    return -1;
}

int MdchUrlFile::getc()
{
    traceEntry("getc");
    const std::shared_ptr<FILE> stream = m_stream->use();
    return stream != nullptr ? fgetc(stream.get()) : -1;
}

int MdchUrlFile::eof()
{
    traceEntry("eof");
    const std::shared_ptr<FILE> stream = m_stream->use();
    return stream != nullptr ? feof(stream.get()) : -1;
}

int MdchUrlFile::error()
{
    traceEntry("error");
    const std::shared_ptr<FILE> stream = m_stream->use();
    return stream != nullptr ? ferror(stream.get()) : 0;
}

void MdchUrlFile::clearerr()
{
    traceEntry("clearerr");
    const std::shared_ptr<FILE> stream = m_stream->use();
    if (stream != nullptr) {
        ::clearerr(stream.get());
    }
}

int MdchUrlFile::isSeekable()
{
    return 1;
}

unsigned int MdchUrlFile::capability()
{
    return MDCH_CAPABILITY_BYTE_SEEK | MDCH_CAPABILITY_STALLING;
}

long long MdchUrlFile::size()
{
    traceEntry("size");
    const std::shared_ptr<FILE> stream = m_stream->use();
    if (stream == nullptr) {
        errno = EBADF;
        return -1;
    }
    struct stat64 facts = {};
    const int result = fstat64(fileno(stream.get()), &facts);
    return result < 0 ? result : facts.st_size;
}

int MdchUrlFile::pause()
{
    return 0;
}

int MdchUrlFile::resume()
{
    return 0;
}
