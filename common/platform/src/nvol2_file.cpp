#include "mdp_descriptor.h"
#include "nvol2_beneath.h"
#include "nvol2_volume.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/stat.h>

struct nvol2File
{
    FILE* stream;
};

namespace {

constexpr mode_t kNewFile = 0666; // less the process's umask

struct Mode
{
    int flags = -1; // of open; negative: no mode
    char text[3] = {};
};

// "r", "w" or "a"; behind it "b" and "+", each at most once and in any order.
Mode parseMode(const char* text)
{
    if (text == nullptr || (text[0] != 'r' && text[0] != 'w' && text[0] != 'a')) {
        return {};
    }
    bool isBinary = false;
    bool isUpdate = false;
    for (const char* at = text + 1; *at != '\0'; ++at) {
        bool& seen = *at == '+' ? isUpdate : isBinary;
        if ((*at != '+' && *at != 'b') || seen) {
            return {};
        }
        seen = true;
    }
    Mode mode;
    mode.text[0] = text[0];
    mode.text[1] = isUpdate ? '+' : '\0';
    switch (text[0]) {
    case 'w':
        mode.flags = O_CREAT | O_TRUNC;
        break;
    case 'a':
        mode.flags = O_CREAT | O_APPEND;
        break;
    default:
        mode.flags = 0;
        break;
    }
    mode.flags |= isUpdate ? O_RDWR : (text[0] == 'r' ? O_RDONLY : O_WRONLY);
    return mode;
}

// 0, or the errno value that tells why this is nothing to read from or write to.
int checkIsFile(int descriptor)
{
    struct stat64 facts = {};
    if (fstat64(descriptor, &facts) != 0) {
        return errno;
    }
    if (S_ISDIR(facts.st_mode)) {
        return EISDIR;
    }
    return S_ISREG(facts.st_mode) ? 0 : EACCES;
}

// A descriptor, or a negated errno value.
int openOnVolume(int mediaId, const char* path, const Mode& mode)
{
    Nvol2Volume volume;
    const int found = nvol2VolumeById(mediaId, volume);
    if (found != 0) {
        return found;
    }
    while (*path == '/') {
        ++path;
    }
    // The folder is opened anew each time: kept open, it would hold the volume against being unmounted.
    const MdpDescriptor root(nvol2OpenRoot(volume));
    if (!root.isOpen()) {
        return -errno;
    }
    // Opening a device can be felt by it: what lies there is looked at first.
    const MdpDescriptor thing(nvol2OpenBeneath(root.get(), path, O_PATH, 0));
    const int reason = thing.isOpen() ? checkIsFile(thing.get()) : 0;
    if (reason != 0) {
        return -reason;
    }
    // O_NONBLOCK: a pipe that has come there since is turned away below, not waited for.
    const int flags = mode.flags | O_NONBLOCK | O_NOCTTY | O_LARGEFILE;
    return nvol2OpenBeneath(root.get(), path, flags, kNewFile);
}

// 0 and the file, or a negated errno value.
int openFile(int mediaId, const char* path, const char* modeText, std::unique_ptr<nvol2File>& file)
{
    const Mode mode = parseMode(modeText);
    if (mode.flags < 0 || path == nullptr) {
        return -EINVAL;
    }
    file = std::make_unique<nvol2File>();
    const int result = openOnVolume(mediaId, path, mode);
    if (result < 0) {
        return result;
    }
    MdpDescriptor descriptor(result);
    const int reason = checkIsFile(descriptor.get());
    if (reason != 0) {
        return -reason;
    }
    file->stream = fdopen(descriptor.get(), mode.text);
    if (file->stream == nullptr) {
        return -errno;
    }
    descriptor.release(); // the stream's now
    // fdopen leaves the position of a file for appending at the start, unlike fopen.
    if (std::strcmp(mode.text, "a") == 0 && fseeko64(file->stream, 0, SEEK_END) != 0) {
        const int code = errno;
        fclose(file->stream);
        return -code;
    }
    return 0;
}

// For a null file.
template <class Result>
Result noFile(Result result)
{
    errno = EBADF;
    return result;
}

} // namespace

int nvol2OpenRoot(const Nvol2Volume& volume)
{
    MdpDescriptor root(open(volume.accessPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat64 facts = {};
    if (!root.isOpen() || fstat64(root.get(), &facts) != 0) {
        return -1;
    }
    if (volume.device != 0 && facts.st_dev != volume.device) {
        errno = ENODEV;
        return -1;
    }
    return root.release();
}

nvol2File* nvol2_fopen(int mediaId, const char* path, const char* mode)
{
    int result = -ENOMEM;
    std::unique_ptr<nvol2File> file;
    try {
        result = openFile(mediaId, path, mode, file);
    } catch (const std::bad_alloc&) {
        result = -ENOMEM;
    }
    if (result != 0) {
        file.reset();
        errno = -result;
    }
    return file.release();
}

size_t nvol2_fread(void* buffer, size_t size, size_t count, nvol2File* file)
{
    return file != nullptr ? fread(buffer, size, count, file->stream) : noFile<size_t>(0);
}

size_t nvol2_fwrite(const void* buffer, size_t size, size_t count, nvol2File* file)
{
    return file != nullptr ? fwrite(buffer, size, count, file->stream) : noFile<size_t>(0);
}

int nvol2_fseek(nvol2File* file, int64_t offset, int whence)
{
    return file != nullptr ? fseeko64(file->stream, offset, whence) : noFile(-1);
}

int64_t nvol2_ftell(nvol2File* file)
{
    return file != nullptr ? ftello64(file->stream) : noFile<int64_t>(-1);
}

int nvol2_fgetc(nvol2File* file)
{
    return file != nullptr ? fgetc(file->stream) : noFile(-1);
}

int nvol2_feof(nvol2File* file)
{
    return file != nullptr ? feof(file->stream) : noFile(1);
}

int nvol2_ferror(nvol2File* file)
{
    return file != nullptr ? ferror(file->stream) : noFile(1);
}

void nvol2_clearerr(nvol2File* file)
{
    if (file != nullptr) {
        clearerr(file->stream);
    }
}

int nvol2_fclose(nvol2File* file)
{
    if (file == nullptr) {
        return noFile(-1);
    }
    const std::unique_ptr<nvol2File> owned(file);
    return fclose(file->stream);
}
