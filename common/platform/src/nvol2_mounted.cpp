#include "nvol2_volume.h"

#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <libmount/libmount.h>
#include <map>
#include <memory>
#include <set>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <utility>

namespace {

struct FreeText
{
    void operator()(char* text) const { std::free(text); }
};
using Text = std::unique_ptr<char, FreeText>;

struct UnrefTable
{
    void operator()(libmnt_table* table) const { mnt_unref_table(table); }
};
struct UnrefCache
{
    void operator()(libmnt_cache* cache) const { mnt_unref_cache(cache); }
};
struct FreeIterator
{
    void operator()(libmnt_iter* iterator) const { mnt_free_iter(iterator); }
};
struct CloseFolder
{
    void operator()(DIR* folder) const { closedir(folder); }
};

constexpr const char* kDevices = "/dev/";

std::string realPath(const char* path)
{
    const Text real(realpath(path, nullptr));
    return real != nullptr ? real.get() : path;
}

// Device node to UUID, as the device manager's links tell it without any right to read the devices.
std::map<std::string, std::string> uuidsByLink(const char* folderPath)
{
    std::map<std::string, std::string> uuids;
    const std::unique_ptr<DIR, CloseFolder> folder(opendir(folderPath));
    if (folder == nullptr) {
        return uuids;
    }
    while (const dirent* entry = readdir(folder.get())) {
        if (entry->d_name[0] != '.') {
            uuids[realPath((std::string(folderPath) + "/" + entry->d_name).c_str())] = entry->d_name;
        }
    }
    return uuids;
}

nvol2ConnectType connectTypeOf(const std::string& device)
{
    struct stat64 facts = {};
    if (stat64(device.c_str(), &facts) != 0 || !S_ISBLK(facts.st_mode)) {
        return NVOL2_CONNECT_INTERNAL;
    }
    const std::string link =
        "/sys/dev/block/" + std::to_string(major(facts.st_rdev)) + ":" + std::to_string(minor(facts.st_rdev));
    const std::string place = realPath(link.c_str()); // names the buses on the way to the device
    if (place.find("/usb") != std::string::npos) {
        return NVOL2_CONNECT_USB;
    }
    return place.find("/mmc") != std::string::npos ? NVOL2_CONNECT_MMC : NVOL2_CONNECT_INTERNAL;
}

nvol2MediaType mediaTypeOf(libmnt_fs* mount)
{
    const char* type = mnt_fs_get_fstype(mount);
    const bool isDisc =
        type != nullptr && (std::strcmp(type, "iso9660") == 0 || std::strcmp(type, "udf") == 0);
    return isDisc ? NVOL2_MEDIA_OPTICAL : NVOL2_MEDIA_DISK;
}

bool showsWholeTree(libmnt_fs* mount)
{
    const char* root = mnt_fs_get_root(mount);
    return root == nullptr || std::strcmp(root, "/") == 0;
}

// Whoever mounts a file system of his own in user space may give it any device's name; "fuseblk" takes the right to
// use that device.
bool isFromUserSpace(libmnt_fs* mount)
{
    const char* type = mnt_fs_get_fstype(mount);
    return type == nullptr || std::strcmp(type, "fuse") == 0 || std::strncmp(type, "fuse.", 5) == 0;
}

// File systems without a device number of their own show another one in each of their parts.
dev_t deviceNumberOf(libmnt_fs* mount)
{
    const dev_t number = mnt_fs_get_devno(mount);
    return major(number) != 0 ? number : 0;
}

// Single files are mounted, too.
bool isNoFolder(const char* path)
{
    struct stat64 facts = {};
    return stat64(path, &facts) == 0 && !S_ISDIR(facts.st_mode);
}

// Tells which mount a path leads to: a later one hides what it lies on, and all that was mounted below.
class MountTree
{
public:
    explicit MountTree(const std::vector<libmnt_fs*>& mounts) : m_count(mounts.size())
    {
        std::set<int> ids;
        for (libmnt_fs* mount : mounts) {
            ids.insert(mnt_fs_get_id(mount));
        }
        for (libmnt_fs* mount : mounts) {
            const int parent = mnt_fs_get_parent_id(mount);
            const bool isKnown = parent != mnt_fs_get_id(mount) && ids.count(parent) > 0;
            m_above[Place(isKnown ? parent : kNowhere, mnt_fs_get_target(mount))] = mount;
        }
    }

    bool canBeReached(libmnt_fs* mount) const
    {
        const std::string target = mnt_fs_get_target(mount);
        libmnt_fs* at = topmostAt("/", nullptr);
        for (std::size_t end = 0; target != "/" && end != std::string::npos;) {
            end = target.find('/', end + 1);
            at = topmostAt(target.substr(0, end), at);
        }
        return at == mount;
    }

private:
    using Place = std::pair<int, std::string>; // the mount on which it lies, and where
    static constexpr int kNowhere = 0;         // of mounts that lie on none in the table

    // From the mount that was reached so far to the topmost of those that lie on it at that path.
    libmnt_fs* topmostAt(const std::string& path, libmnt_fs* at) const
    {
        for (std::size_t count = 0; count < m_count; ++count) { // the table may go in circles
            const auto next = m_above.find(Place(at != nullptr ? mnt_fs_get_id(at) : kNowhere, path));
            if (next == m_above.end()) {
                break;
            }
            at = next->second;
        }
        return at;
    }

    std::size_t m_count;
    std::map<Place, libmnt_fs*> m_above;
};

class Mounted
{
public:
    explicit Mounted(const char* linksByUuid) : m_links(uuidsByLink(linksByUuid)) {}

    void add(libmnt_fs* mount)
    {
        const char* source = mnt_fs_get_srcpath(mount);
        const char* target = mnt_fs_get_target(mount);
        if (source == nullptr || std::strncmp(source, kDevices, std::strlen(kDevices)) != 0 ||
            isFromUserSpace(mount) || isNoFolder(target)) {
            return;
        }
        const std::string uuid = uuidOf(source);
        if (uuid.empty()) {
            return;
        }
        const auto [known, isNew] = m_places.insert({nvol2UuidKey(uuid), {m_volumes.size(), false}});
        Place& place = known->second;
        if (!isNew && (place.isWhole || !showsWholeTree(mount))) {
            return;
        }
        Nvol2Volume volume{uuid,
                           withSlash(target),
                           source,
                           mediaTypeOf(mount),
                           connectTypeOf(source),
                           deviceNumberOf(mount)};
        place.isWhole = showsWholeTree(mount);
        if (isNew) {
            m_volumes.push_back(std::move(volume));
        } else {
            m_volumes[place.index] = std::move(volume);
        }
    }

    std::vector<Nvol2Volume> take() { return std::move(m_volumes); }

private:
    struct Place
    {
        std::size_t index; // in m_volumes
        bool isWhole;
    };

    static std::string withSlash(std::string path)
    {
        if (path.empty() || path.back() != '/') {
            path += '/';
        }
        return path;
    }

    const std::string& uuidOf(const char* source)
    {
        const std::string device = realPath(source);
        const auto [known, isNew] = m_links.insert({device, ""});
        if (isNew) {
            const char* tag = mnt_cache_find_tag_value(m_cache.get(), device.c_str(), "UUID");
            known->second = tag != nullptr ? tag : "";
        }
        return known->second;
    }

    std::map<std::string, std::string> m_links; // device node to UUID, empty when it tells none
    std::unique_ptr<libmnt_cache, UnrefCache> m_cache{mnt_new_cache()}; // owns the tags that it has read
    std::map<std::string, Place> m_places;                              // by UUID
    std::vector<Nvol2Volume> m_volumes;
};

std::vector<libmnt_fs*> mountsOf(libmnt_table* table)
{
    std::vector<libmnt_fs*> mounts;
    const std::unique_ptr<libmnt_iter, FreeIterator> iterator(mnt_new_iter(MNT_ITER_FORWARD));
    libmnt_fs* mount = nullptr;
    while (iterator != nullptr && mnt_table_next_fs(table, iterator.get(), &mount) == 0) {
        const char* target = mnt_fs_get_target(mount);
        if (mnt_fs_get_id(mount) > 0 && target != nullptr && target[0] == '/') {
            mounts.push_back(mount);
        }
    }
    return mounts;
}

} // namespace

std::vector<Nvol2Volume> nvol2MountedVolumes(const char* mountTable, const char* linksByUuid)
{
    const std::unique_ptr<libmnt_table, UnrefTable> table(mnt_new_table_from_file(mountTable));
    if (table == nullptr) {
        return {};
    }
    const std::vector<libmnt_fs*> mounts = mountsOf(table.get());
    const MountTree tree(mounts);
    Mounted mounted(linksByUuid);
    for (libmnt_fs* mount : mounts) {
        if (tree.canBeReached(mount)) {
            mounted.add(mount);
        }
    }
    return mounted.take();
}

std::string nvol2UuidKey(const std::string& uuid)
{
    std::string key = uuid;
    for (char& letter : key) {
        if (letter >= 'A' && letter <= 'Z') { // in any locale
            letter = static_cast<char>(letter - 'A' + 'a');
        }
    }
    return key;
}
