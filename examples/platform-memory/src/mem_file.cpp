#include "mem_path.h"
#include "mem_volumes.h"
#include "nvol2.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>

// A file in use: a place in its content, and what stdio would know of it.
struct nvol2File
{
    std::shared_ptr<MemContent> content;
    std::size_t position = 0;
    bool isReadable = false;
    bool isWritable = false;
    bool isAppending = false;
    bool hasEnded = false;
    bool hasFailed = false;
};

namespace {

constexpr auto kLastPosition = static_cast<std::size_t>(std::numeric_limits<std::int64_t>::max());

// "r", "w" or "a"; behind it "b" and "+", each at most once and in any order. Null: no mode.
std::unique_ptr<nvol2File> fileForMode(const char* mode)
{
    if (mode == nullptr || (*mode != 'r' && *mode != 'w' && *mode != 'a')) {
        return nullptr;
    }
    const std::string rest(mode + 1);
    if (!rest.empty() && rest != "b" && rest != "+" && rest != "b+" && rest != "+b") {
        return nullptr;
    }
    const bool isUpdate = rest.find('+') != std::string::npos;
    auto file = std::make_unique<nvol2File>();
    file->isReadable = *mode == 'r' || isUpdate;
    file->isWritable = *mode != 'r' || isUpdate;
    file->isAppending = *mode == 'a';
    return file;
}

bool isFolder(const MemVolume& volume, const std::string& path)
{
    const std::string inside = path.empty() ? path : path + "/";
    const auto next = volume.files.lower_bound(inside);
    return path.empty() || (next != volume.files.end() && next->first.compare(0, inside.size(), inside) == 0);
}

// Whether a file stands where the path needs a folder.
bool leadsThroughFile(const MemVolume& volume, const std::string& path)
{
    for (std::size_t end = path.find('/'); end != std::string::npos; end = path.find('/', end + 1)) {
        if (volume.files.count(path.substr(0, end)) != 0) {
            return true;
        }
    }
    return false;
}

// 0 and the content, or an errno value.
int findContent(MemVolume& volume, const std::string& path, bool mayCreate,
                std::shared_ptr<MemContent>& content)
{
    const std::lock_guard<std::mutex> lock(volume.mutex);
    if (isFolder(volume, path)) {
        return EISDIR;
    }
    if (leadsThroughFile(volume, path)) {
        return ENOTDIR;
    }
    const auto found = volume.files.find(path);
    if (found != volume.files.end()) {
        content = found->second;
        return 0;
    }
    if (!mayCreate) {
        return ENOENT;
    }
    content = std::make_shared<MemContent>();
    volume.files[path] = content;
    return 0;
}

// 0, or an errno value.
int openContent(int mediaId, const char* path, char kind, nvol2File& file)
{
    const std::shared_ptr<MemVolume> volume = memVolumeById(mediaId);
    if (volume == nullptr) {
        return ENODEV;
    }
    std::string plain;
    const int refused = memPlainPath(path, plain);
    if (refused != 0) {
        return refused;
    }
    if (*path == '\0') {
        return ENOENT;
    }
    const int missing = findContent(*volume, plain, kind != 'r', file.content);
    if (missing == 0 && kind == 'w') {
        const std::lock_guard<std::mutex> lock(file.content->mutex);
        file.content->bytes.clear();
    }
    return missing;
}

// For a null file.
template <class Result>
Result noFile(Result result)
{
    errno = EBADF;
    return result;
}

std::size_t fail(nvol2File& file, int reason)
{
    file.hasFailed = true;
    errno = reason;
    return 0;
}

// size * count; false when no number of bytes can be so large.
bool byteCount(std::size_t size, std::size_t count, std::size_t& bytes)
{
    return !__builtin_mul_overflow(size, count, &bytes) && bytes <= kLastPosition;
}

} // namespace

nvol2File* nvol2_fopen(int mediaId, const char* path, const char* mode)
{
    int reason = EINVAL;
    try {
        std::unique_ptr<nvol2File> file = fileForMode(mode);
        if (file != nullptr && path != nullptr) {
            reason = openContent(mediaId, path, *mode, *file);
            if (reason == 0) {
                return file.release();
            }
        }
    } catch (const std::bad_alloc&) {
        reason = ENOMEM;
    }
    errno = reason;
    return nullptr;
}

size_t nvol2_fread(void* buffer, size_t size, size_t count, nvol2File* file)
{
    if (file == nullptr) {
        return noFile<size_t>(0);
    }
    std::size_t wanted = 0;
    if (!file->isReadable) {
        return fail(*file, EBADF);
    }
    if (!byteCount(size, count, wanted)) {
        return fail(*file, EINVAL);
    }
    if (wanted == 0) {
        return 0;
    }
    const std::lock_guard<std::mutex> lock(file->content->mutex);
    const std::vector<unsigned char>& bytes = file->content->bytes;
    const std::size_t first = std::min(file->position, bytes.size());
    const std::size_t taken = std::min(wanted, bytes.size() - first);
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(first), taken,
                static_cast<unsigned char*>(buffer));
    file->position += taken;
    file->hasEnded = file->hasEnded || taken < wanted;
    return taken / size;
}

size_t nvol2_fwrite(const void* buffer, size_t size, size_t count, nvol2File* file)
{
    if (file == nullptr) {
        return noFile<size_t>(0);
    }
    std::size_t wanted = 0;
    if (!file->isWritable) {
        return fail(*file, EBADF);
    }
    if (!byteCount(size, count, wanted)) {
        return fail(*file, EINVAL);
    }
    if (wanted == 0) {
        return 0;
    }
    const std::lock_guard<std::mutex> lock(file->content->mutex);
    std::vector<unsigned char>& bytes = file->content->bytes;
    const std::size_t first = file->isAppending ? bytes.size() : file->position;
    if (wanted > bytes.max_size() || first > bytes.max_size() - wanted) {
        return fail(*file, EFBIG);
    }
    try {
        bytes.resize(std::max(bytes.size(), first + wanted)); // zeros, where a seek has left a gap
    } catch (const std::bad_alloc&) {
        return fail(*file, ENOSPC);
    }
    std::copy_n(static_cast<const unsigned char*>(buffer), wanted,
                bytes.begin() + static_cast<std::ptrdiff_t>(first));
    file->position = first + wanted;
    return count;
}

int nvol2_fseek(nvol2File* file, int64_t offset, int whence)
{
    if (file == nullptr) {
        return noFile(-1);
    }
    std::int64_t from = 0;
    if (whence == SEEK_CUR) {
        from = static_cast<std::int64_t>(file->position);
    } else if (whence == SEEK_END) {
        const std::lock_guard<std::mutex> lock(file->content->mutex);
        from = static_cast<std::int64_t>(file->content->bytes.size());
    } else if (whence != SEEK_SET) {
        errno = EINVAL;
        return -1;
    }
    std::int64_t target = 0;
    if (__builtin_add_overflow(from, offset, &target) || target < 0) {
        errno = EINVAL;
        return -1;
    }
    // On a 32-bit system, a place that no memory reaches.
    if (static_cast<std::uint64_t>(target) > std::numeric_limits<std::size_t>::max()) {
        errno = EOVERFLOW;
        return -1;
    }
    file->position = static_cast<std::size_t>(target);
    file->hasEnded = false;
    return 0;
}

int64_t nvol2_ftell(nvol2File* file)
{
    return file != nullptr ? static_cast<std::int64_t>(file->position) : noFile<std::int64_t>(-1);
}

int nvol2_fgetc(nvol2File* file)
{
    unsigned char byte = 0;
    if (file == nullptr) {
        return noFile(-1);
    }
    return nvol2_fread(&byte, 1, 1, file) == 1 ? byte : -1;
}

int nvol2_feof(nvol2File* file)
{
    return file != nullptr ? static_cast<int>(file->hasEnded) : noFile(1);
}

int nvol2_ferror(nvol2File* file)
{
    return file != nullptr ? static_cast<int>(file->hasFailed) : noFile(1);
}

void nvol2_clearerr(nvol2File* file)
{
    if (file != nullptr) {
        file->hasEnded = false;
        file->hasFailed = false;
    }
}

int nvol2_fclose(nvol2File* file)
{
    if (file == nullptr) {
        return noFile(-1);
    }
    const std::unique_ptr<nvol2File> owned(file);
    return 0;
}
