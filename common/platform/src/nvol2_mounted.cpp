#include "nvol2_volume.h"

#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <libmount/libmount.h>
#include <map>
#include <memory>
#include <sys/stat.h>
#include <sys/sysmacros.h>

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
    struct stat facts = {};
    if (stat(device.c_str(), &facts) != 0 || !S_ISBLK(facts.st_mode)) {
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

class Mounted
{
public:
    explicit Mounted(const char* linksByUuid) : m_links(uuidsByLink(linksByUuid)) {}

    void add(libmnt_fs* mount)
    {
        const char* source = mnt_fs_get_srcpath(mount);
        const char* target = mnt_fs_get_target(mount);
        if (source == nullptr || target == nullptr ||
            std::strncmp(source, kDevices, std::strlen(kDevices)) != 0) {
            return;
        }
        const auto known = m_places.find(source);
        if (known != m_places.end()) { // mounted elsewhere, too
            Place& place = known->second;
            if (place.index >= 0 && !place.isWhole && showsWholeTree(mount)) {
                m_volumes[static_cast<std::size_t>(place.index)].accessPath = withSlash(target);
                place.isWhole = true;
            }
            return;
        }
        const std::string uuid = uuidOf(source);
        m_places[source] = {uuid.empty() ? -1 : static_cast<long>(m_volumes.size()), showsWholeTree(mount)};
        if (!uuid.empty()) {
            m_volumes.push_back({uuid, withSlash(target), source, mediaTypeOf(mount), connectTypeOf(source)});
        }
    }

    std::vector<Nvol2Volume> take() { return std::move(m_volumes); }

private:
    struct Place
    {
        long index = -1; // in m_volumes; -1: the device tells no UUID
        bool isWhole = false;
    };

    static std::string withSlash(std::string path)
    {
        if (path.empty() || path.back() != '/') {
            path += '/';
        }
        return path;
    }

    std::string uuidOf(const char* device)
    {
        const auto link = m_links.find(realPath(device));
        if (link != m_links.end()) {
            return link->second;
        }
        const char* tag = mnt_cache_find_tag_value(m_cache.get(), device, "UUID");
        return tag != nullptr ? tag : "";
    }

    std::map<std::string, std::string> m_links;
    std::unique_ptr<libmnt_cache, UnrefCache> m_cache{mnt_new_cache()}; // owns the tags that it has read
    std::map<std::string, Place> m_places;
    std::vector<Nvol2Volume> m_volumes;
};

} // namespace

std::vector<Nvol2Volume> nvol2MountedVolumes(const char* mountTable, const char* linksByUuid)
{
    const std::unique_ptr<libmnt_table, UnrefTable> table(mnt_new_table_from_file(mountTable));
    const std::unique_ptr<libmnt_iter, FreeIterator> iterator(mnt_new_iter(MNT_ITER_FORWARD));
    if (table == nullptr || iterator == nullptr) {
        return {};
    }
    Mounted mounted(linksByUuid);
    libmnt_fs* mount = nullptr;
    while (mnt_table_next_fs(table.get(), iterator.get(), &mount) == 0) {
        mounted.add(mount);
    }
    return mounted.take();
}

std::string nvol2UuidKey(const std::string& uuid)
{
    std::string key = uuid;
    for (char& letter : key) {
        letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
    return key;
}
