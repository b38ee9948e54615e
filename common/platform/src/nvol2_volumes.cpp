#include "mdp_thread.h"
#include "nvol2_volume.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace {

constexpr const char* kMountTable = "/proc/self/mountinfo";
constexpr const char* kLinksByUuid = "/dev/disk/by-uuid";

// Every UUID that was ever seen or registered. A media ID is the place in the table, counted from 1, so that it
// is never given to another volume.
struct Known
{
    std::string key;
    bool isRegistered = false;
    Nvol2Volume volume; // of the registration
};

struct Table
{
    MdpMutex mutex;
    std::vector<Known> known; // guarded by mutex

    // The entry, made if there is none. The mutex is held.
    std::size_t indexOf(const std::string& key)
    {
        const auto found =
            std::find_if(known.begin(), known.end(), [&key](const Known& one) { return one.key == key; });
        if (found != known.end()) {
            return static_cast<std::size_t>(found - known.begin());
        }
        known.push_back({key, false, {}});
        return known.size() - 1;
    }
};

// Never destroyed: other threads may still use volumes while static objects go.
Table& table()
{
    static auto* instance = new Table;
    return *instance;
}

int idOf(std::size_t index)
{
    return static_cast<int>(index) + 1;
}

struct Present
{
    int mediaId;
    Nvol2Volume volume;
};

// All volumes that are there: the registered ones, and the mounted ones whose UUID is not registered.
std::vector<Present> presentVolumes()
{
    const std::vector<Nvol2Volume> mounted = nvol2MountedVolumes(kMountTable, kLinksByUuid);
    Table& volumes = table();
    const MdpLock lock(volumes.mutex);
    std::vector<Present> present;
    for (std::size_t index = 0; index < volumes.known.size(); ++index) {
        if (volumes.known[index].isRegistered) {
            present.push_back({idOf(index), volumes.known[index].volume});
        }
    }
    for (const Nvol2Volume& volume : mounted) {
        const std::size_t index = volumes.indexOf(nvol2UuidKey(volume.uuid));
        if (!volumes.known[index].isRegistered) {
            present.push_back({idOf(index), volume});
        }
    }
    return present;
}

// A registered volume is known without a look at the mounted devices. 0 or -ENODEV.
template <class IsWanted>
int findRegistered(IsWanted isWanted, Present& found)
{
    Table& volumes = table();
    const MdpLock lock(volumes.mutex);
    for (std::size_t index = 0; index < volumes.known.size(); ++index) {
        const Known& one = volumes.known[index];
        if (one.isRegistered && isWanted(idOf(index), one.volume)) {
            found = {idOf(index), one.volume};
            return 0;
        }
    }
    return -ENODEV;
}

template <class IsWanted>
int find(IsWanted isWanted, Present& found)
{
    if (findRegistered(isWanted, found) == 0) {
        return 0;
    }
    for (Present& one : presentVolumes()) {
        if (isWanted(one.mediaId, one.volume)) {
            found = std::move(one);
            return 0;
        }
    }
    return -ENODEV;
}

// False when the text does not fit with its NUL.
template <std::size_t size>
bool store(const std::string& text, char (&field)[size])
{
    if (text.size() >= size) {
        return false;
    }
    std::memcpy(field, text.c_str(), text.size() + 1);
    return true;
}

unsigned int functionsAt(const std::string& accessPath)
{
    struct statvfs64 facts = {};
    if (statvfs64(accessPath.c_str(), &facts) != 0) {
        return 0;
    }
    const bool isReadOnly = (facts.f_flag & ST_RDONLY) != 0;
    return isReadOnly ? NVOL2_FUNCTION_READ : NVOL2_FUNCTION_READ | NVOL2_FUNCTION_WRITE;
}

bool fill(const Nvol2Volume& volume, nvol2Media_struct& record)
{
    record = {};
    record.mediaType = volume.mediaType;
    record.connectType = volume.connectType;
    record.functions = functionsAt(volume.accessPath);
    return store(volume.accessPath, record.accessPath) && store(volume.deviceName, record.deviceName) &&
           store(volume.uuid, record.uuid);
}

int checkRegistration(const char* uuid, const char* accessPath)
{
    if (uuid == nullptr || accessPath == nullptr || *uuid == '\0' || *accessPath == '\0' ||
        std::strchr(uuid, '/') != nullptr) {
        return -EINVAL;
    }
    if (std::strlen(uuid) >= sizeof nvol2Media_struct::uuid ||
        std::strlen(accessPath) >= sizeof nvol2Media_struct::accessPath) {
        return -ENAMETOOLONG;
    }
    struct stat64 facts = {};
    if (stat64(accessPath, &facts) != 0) {
        return -errno;
    }
    return S_ISDIR(facts.st_mode) ? 0 : -ENOTDIR;
}

int addRegistration(const char* uuid, const char* accessPath)
{
    const int checked = checkRegistration(uuid, accessPath);
    if (checked != 0) {
        return checked;
    }
    Nvol2Volume volume;
    volume.uuid = uuid;
    volume.accessPath = accessPath;
    Table& volumes = table();
    const MdpLock lock(volumes.mutex);
    const std::size_t index = volumes.indexOf(nvol2UuidKey(uuid));
    Known& known = volumes.known[index];
    if (known.isRegistered) {
        return -EEXIST;
    }
    known.volume = std::move(volume);
    known.isRegistered = true;
    return idOf(index);
}

int removeRegistration(const char* uuid)
{
    if (uuid == nullptr) {
        return -EINVAL;
    }
    const std::string key = nvol2UuidKey(uuid);
    Table& volumes = table();
    const MdpLock lock(volumes.mutex);
    for (Known& known : volumes.known) {
        if (known.isRegistered && known.key == key) {
            known.isRegistered = false;
            return 0;
        }
    }
    return -ENODEV;
}

int idByUuid(const char* uuid)
{
    if (uuid == nullptr) {
        return -EINVAL;
    }
    const std::string key = nvol2UuidKey(uuid);
    Present found{};
    const int result =
        find([&key](int, const Nvol2Volume& volume) { return nvol2UuidKey(volume.uuid) == key; }, found);
    return result == 0 ? found.mediaId : result;
}

int get(int mediaId, nvol2Media_struct* record)
{
    if (record == nullptr) {
        return -EINVAL;
    }
    Nvol2Volume volume;
    const int result = nvol2VolumeById(mediaId, volume);
    if (result != 0) {
        return result;
    }
    return fill(volume, *record) ? 0 : -ENAMETOOLONG;
}

int list(int* mediaIds, int capacity)
{
    const std::vector<Present> present = presentVolumes();
    for (std::size_t index = 0; mediaIds != nullptr && index < present.size(); ++index) {
        if (static_cast<int>(index) < capacity) {
            mediaIds[index] = present[index].mediaId;
        }
    }
    return static_cast<int>(present.size());
}

// No exception leaves the C face.
template <class Function>
int guarded(Function function)
{
    try {
        return function();
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    }
}

} // namespace

int nvol2VolumeById(int mediaId, Nvol2Volume& volume)
{
    Present found{};
    const int result = find([mediaId](int id, const Nvol2Volume&) { return id == mediaId; }, found);
    if (result == 0) {
        volume = std::move(found.volume);
    }
    return result;
}

int nvol2VolumeAdd(const char* uuid, const char* accessPath)
{
    return guarded([=] { return addRegistration(uuid, accessPath); });
}

int nvol2VolumeRemove(const char* uuid)
{
    return guarded([=] { return removeRegistration(uuid); });
}

int nvol2MediaIDGetByUUID(const char* uuid)
{
    return guarded([=] { return idByUuid(uuid); });
}

int nvol2MediaGet(int mediaId, nvol2Media_struct* record)
{
    return guarded([=] { return get(mediaId, record); });
}

int nvol2MediaIDList(int* mediaIds, int capacity)
{
    return guarded([=] { return list(mediaIds, capacity); });
}
