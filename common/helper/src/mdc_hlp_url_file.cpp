#include "mdc_hlp_url_file.h"

#include "mdc_hlp_trace.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <strings.h>
#include <sys/stat.h>

namespace {

constexpr const char* kScheme = "file://";

void traceEntry(const char* operation)
{
    MDCH_TRACE(md::kTraceCall, "MdchUrlFile::%s() in\n", operation);
}

// Results are ints: no more than an int can tell is moved at once.
size_t atMostInt(unsigned int size)
{
    return std::min(size, static_cast<unsigned int>(std::numeric_limits<int>::max()));
}

const char* libraryMode(int mode)
{
    switch (mode) {
    case MDCH_MODE_READ:
        return "rb";
    case MDCH_MODE_WRITE:
        return "wb";
    default:
        return nullptr;
    }
}

} // namespace

// Owns a C library stream. Held by the object and by each operation under way.
class MdchUrlFile::File
{
public:
    explicit File(FILE* stream) : m_stream(stream) {}
    ~File()
    {
        if (m_stream != nullptr) {
            fclose(m_stream);
        }
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    FILE* get() const { return m_stream; }

    // Only by the last holder.
    int close()
    {
        FILE* stream = m_stream;
        m_stream = nullptr;
        return fclose(stream);
    }

private:
    FILE* m_stream;
};

// An operation under way: keeps the file that was open at its start. The hold is given up under the object's
// mutex, so that a close can tell whether it is the last holder.
class MdchUrlFile::Use
{
public:
    explicit Use(MdchUrlFile& owner) : m_owner(owner)
    {
        const MdpLock lock(m_owner.m_mutex);
        m_file = m_owner.m_stream;
    }
    ~Use()
    {
        const MdpLock lock(m_owner.m_mutex);
        m_file.reset();
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    // Null when the stream is not open.
    FILE* stream() const { return m_file != nullptr ? m_file->get() : nullptr; }

private:
    MdchUrlFile& m_owner;
    std::shared_ptr<File> m_file;
};

MdchUrlFile::MdchUrlFile()
{
    MDCH_TRACE(md::kTraceCall, "MdchUrlFile::%s()\n", "MdchUrlFile");
}

MdchUrlFile::~MdchUrlFile()
{
    MDCH_TRACE(md::kTraceCall, "MdchUrlFile::%s()\n", "~MdchUrlFile");
    if (m_stream != nullptr) {
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
    std::shared_ptr<File> file = stream != nullptr ? std::make_shared<File>(stream) : nullptr;
    const MdpLock lock(m_mutex);
    m_stream.swap(file);
    return result;
}

int MdchUrlFile::close()
{
    traceEntry("close");
    std::shared_ptr<File> file;
    bool last = false;
    {
        const MdpLock lock(m_mutex);
        file.swap(m_stream);
        last = file.use_count() == 1; // otherwise the last operation under way closes it
    }
    return last ? file->close() : 0;
}

int MdchUrlFile::read(unsigned char* buffer, unsigned int size)
{
    traceEntry("read");
    const Use use(*this);
    if (use.stream() == nullptr) {
        errno = EBADF;
        return 0;
    }
    return static_cast<int>(fread(buffer, 1, atMostInt(size), use.stream()));
}

int MdchUrlFile::write(unsigned char* buffer, unsigned int size)
{
    traceEntry("write");
    const Use use(*this);
    if (use.stream() == nullptr) {
        errno = EBADF;
        return 0;
    }
    return static_cast<int>(fwrite(buffer, 1, atMostInt(size), use.stream()));
}

long long MdchUrlFile::tell()
{
    traceEntry("tell");
    const Use use(*this);
    if (use.stream() == nullptr) {
        errno = EBADF;
        return -1;
    }
    return ftello64(use.stream());
}

int MdchUrlFile::seek(long long offset, int whence)
{
    traceEntry("seek");
    if (static_cast<unsigned int>(whence) > SEEK_END) {
        errno = EINVAL;
        return -1;
    }
    const Use use(*this);
    if (use.stream() == nullptr) {
        errno = EBADF;
        return -1;
    }
    return fseeko64(use.stream(), offset, whence);
}

int MdchUrlFile::seekTime(unsigned int /*time*/)
{
    MDCH_TRACE(md::kTraceError, "MdchUrlFile::%s() time seek not supported\n", "seekTime");
    return -1;
}

int MdchUrlFile::getc()
{
    traceEntry("getc");
    const Use use(*this);
    return use.stream() != nullptr ? fgetc(use.stream()) : -1;
}

int MdchUrlFile::eof()
{
    traceEntry("eof");
    const Use use(*this);
    return use.stream() != nullptr ? feof(use.stream()) : -1;
}

int MdchUrlFile::error()
{
    traceEntry("error");
    const Use use(*this);
    return use.stream() != nullptr ? ferror(use.stream()) : 0;
}

void MdchUrlFile::clearerr()
{
    traceEntry("clearerr");
    const Use use(*this);
    if (use.stream() != nullptr) {
        ::clearerr(use.stream());
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
    const Use use(*this);
    if (use.stream() == nullptr) {
        errno = EBADF;
        return -1;
    }
    struct stat64 facts = {};
    const int result = fstat64(fileno(use.stream()), &facts);
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
