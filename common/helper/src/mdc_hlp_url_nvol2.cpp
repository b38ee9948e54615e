#include "mdc_hlp_url_nvol2.h"

#include "mdc_hlp_trace.h"
#include "mdc_hlp_url_handle.h"

#include <cerrno>
#include <cstdio>
#include <new>

namespace {

// What the service makes of anything else than these two is its own decision.
const char* serviceMode(int mode)
{
    switch (mode) {
    case MDCH_MODE_READ:
        return "r";
    case MDCH_MODE_WRITE:
        return "w";
    default:
        return "";
    }
}

} // namespace

MdchUrlNvol2::MdchUrlNvol2() : m_file(std::make_unique<md::SharedHandle<nvol2File>>(nvol2_fclose)) {}

MdchUrlNvol2::~MdchUrlNvol2()
{
    if (m_file->use() != nullptr) {
        MdchUrlNvol2::close();
    }
}

int MdchUrlNvol2::open(const char* url, int mode)
try {
    if (url == nullptr) {
        errno = EINVAL;
        return -EINVAL;
    }
    std::string protocol;
    std::string volumeId;
    std::string path;
    if (!md::parseNvol2Url(url, protocol, volumeId, path)) {
        errno = ENOMEM; // of what the URL says, parts may be missing
        return -ENOMEM;
    }
    const int mediaId = nvol2MediaIDGetByUUID(volumeId.c_str());
    if (mediaId < 0) {
        MDCH_TRACE(md::kTraceNotice, "MdchUrlNvol2::%s() Could not get mediaID for volumeID=%s\n", "open",
                   volumeId.c_str());
        errno = -mediaId;
        return mediaId;
    }
    nvol2File* file = nvol2_fopen(mediaId, path.c_str(), serviceMode(mode));
    const int code = errno;
    if (!m_file->replace(file)) {
        errno = ENOMEM;
        return -ENOMEM;
    }
    errno = code;
    return file != nullptr ? 0 : -code;
} catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -ENOMEM;
}

int MdchUrlNvol2::close()
{
    return m_file->close();
}

int MdchUrlNvol2::read(unsigned char* buffer, unsigned int size)
{
    return static_cast<int>(nvol2_fread(buffer, 1, md::atMostInt(size), m_file->use().get()));
}

int MdchUrlNvol2::write(unsigned char* buffer, unsigned int size)
{
    return static_cast<int>(nvol2_fwrite(buffer, 1, md::atMostInt(size), m_file->use().get()));
}

long long MdchUrlNvol2::tell()
{
    return nvol2_ftell(m_file->use().get());
}

int MdchUrlNvol2::seek(long long offset, int whence)
{
    const int from = whence == SEEK_CUR || whence == SEEK_END ? whence : SEEK_SET;
    return nvol2_fseek(m_file->use().get(), offset, from);
}

int MdchUrlNvol2::seekTime(unsigned int /*time*/)
{
    MDCH_TRACE(md::kTraceError, "MdchUrlNvol2::%s() time seek not supported\n", "seekTime");
    return -1;
}

int MdchUrlNvol2::getc()
{
    return nvol2_fgetc(m_file->use().get());
}

int MdchUrlNvol2::eof()
{
    return nvol2_feof(m_file->use().get());
}

int MdchUrlNvol2::error()
{
    return nvol2_ferror(m_file->use().get());
}

void MdchUrlNvol2::clearerr()
{
    nvol2_clearerr(m_file->use().get());
}

int MdchUrlNvol2::isSeekable()
{
    return 1;
}

unsigned int MdchUrlNvol2::capability()
{
    return MDCH_CAPABILITY_BYTE_SEEK | MDCH_CAPABILITY_STALLING;
}

long long MdchUrlNvol2::size()
{
    const std::shared_ptr<nvol2File> file = m_file->use();
    const long long position = nvol2_ftell(file.get());
    if (position < 0) {
        return position;
    }
    const int moved = nvol2_fseek(file.get(), 0, SEEK_END);
    if (moved < 0) {
        return moved;
    }
    const long long size = nvol2_ftell(file.get());
    if (size < 0) {
        return size;
    }
    const int movedBack = nvol2_fseek(file.get(), position, SEEK_SET);
    return movedBack < 0 ? movedBack : size;
}

int MdchUrlNvol2::pause()
{
    return 0;
}

int MdchUrlNvol2::resume()
{
    return 0;
}
