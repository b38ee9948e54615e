#include "mdc_hlp_upload_impl_source.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace md {

int UploadSource::open(const std::string& path)
{
    close();
    m_file.reset(fopen64(path.c_str(), "rbe"));
    return m_file != nullptr ? 0 : errno;
}

int UploadSource::measure()
{
    struct stat64 facts = {};
    if (fstat64(fileno(m_file.get()), &facts) != 0) {
        return errno;
    }
    m_size = facts.st_size;
    cookie_io_functions_t functions = {};
    functions.read = readSome;
    m_stream.reset(fopencookie(this, "r", functions));
    if (m_stream == nullptr) {
        return errno;
    }
    // As much as libcurl sends at once.
    constexpr std::size_t kBuffer = 65536;
    m_buffer.resize(kBuffer);
    setvbuf(m_stream.get(), m_buffer.data(), _IOFBF, m_buffer.size());
    return 0;
}

void UploadSource::close()
{
    m_stream.reset();
    m_file.reset();
}

ssize_t UploadSource::readSome(void* source, char* buffer, std::size_t size)
{
    auto& self = *static_cast<UploadSource*>(source);
    const auto left = static_cast<std::uint64_t>(std::max<std::int64_t>(0, self.m_size - self.m_taken));
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size, left));
    ssize_t got = 0;
    do {
        got = ::read(fileno(self.m_file.get()), buffer, wanted);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        self.m_error = errno;
    } else {
        self.m_taken += got;
    }
    return got;
}

} // namespace md
