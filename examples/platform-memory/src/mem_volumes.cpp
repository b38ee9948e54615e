#include "mem_volumes.h"

#include "nvol2.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <new>

namespace {

// One entry for each UUID that was ever registered: its place is the media ID, which stays its own.
struct Entry
{
    std::string uuid;
    std::shared_ptr<MemVolume> volume; // null: removed
};

struct Table
{
    std::mutex mutex;
    std::vector<Entry> entries;
};

// Never destroyed: other threads may still read while static objects go.
Table& table()
{
    static auto* instance = new Table;
    return *instance;
}

bool isSameUuid(const std::string& a, const std::string& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

// With the table locked: the entry, or null.
Entry* entryOf(const std::string& uuid)
{
    std::vector<Entry>& entries = table().entries;
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](const Entry& entry) { return isSameUuid(entry.uuid, uuid); });
    return found != entries.end() ? &*found : nullptr;
}

// With the table locked: the entry of a volume that is there, or null.
Entry* entryOf(int mediaId)
{
    std::vector<Entry>& entries = table().entries;
    if (mediaId < 1 || static_cast<std::size_t>(mediaId) > entries.size()) {
        return nullptr;
    }
    Entry& entry = entries[static_cast<std::size_t>(mediaId) - 1];
    return entry.volume != nullptr ? &entry : nullptr;
}

int mediaIdOf(const Entry& entry)
{
    return static_cast<int>(&entry - table().entries.data()) + 1;
}

// Runs an action with the table locked; exceptions end here, behind C functions.
template <class Action>
int locked(Action action)
{
    try {
        const std::lock_guard<std::mutex> lock(table().mutex);
        return action();
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    }
}

} // namespace

std::shared_ptr<MemVolume> memVolumeById(int mediaId)
{
    const std::lock_guard<std::mutex> lock(table().mutex);
    const Entry* entry = entryOf(mediaId);
    return entry != nullptr ? entry->volume : nullptr;
}

// Makes an empty volume. Nothing of it lies in the native file system, so accessPath has only to be a text.
int nvol2VolumeAdd(const char* uuid, const char* accessPath)
{
    if (uuid == nullptr || accessPath == nullptr || *uuid == '\0' || *accessPath == '\0' ||
        std::strchr(uuid, '/') != nullptr) {
        return -EINVAL;
    }
    if (std::strlen(uuid) >= sizeof(nvol2Media_struct::uuid)) {
        return -ENAMETOOLONG;
    }
    return locked([&]() -> int {
        Entry* entry = entryOf(std::string(uuid));
        if (entry != nullptr && entry->volume != nullptr) {
            return -EEXIST;
        }
        auto volume = std::make_shared<MemVolume>();
        if (entry == nullptr) {
            table().entries.push_back({uuid, std::move(volume)});
            return mediaIdOf(table().entries.back());
        }
        entry->uuid = uuid;
        entry->volume = std::move(volume);
        return mediaIdOf(*entry);
    });
}

int nvol2VolumeRemove(const char* uuid)
{
    if (uuid == nullptr) {
        return -EINVAL;
    }
    return locked([&]() -> int {
        Entry* entry = entryOf(std::string(uuid));
        if (entry == nullptr || entry->volume == nullptr) {
            return -ENODEV;
        }
        entry->volume.reset();
        return 0;
    });
}

int nvol2MediaIDGetByUUID(const char* uuid)
{
    if (uuid == nullptr) {
        return -EINVAL;
    }
    return locked([&]() -> int {
        const Entry* entry = entryOf(std::string(uuid));
        return entry != nullptr && entry->volume != nullptr ? mediaIdOf(*entry) : -ENODEV;
    });
}

int nvol2MediaGet(int mediaId, nvol2Media_struct* record)
{
    if (record == nullptr) {
        return -EINVAL;
    }
    return locked([&]() -> int {
        const Entry* entry = entryOf(mediaId);
        if (entry == nullptr) {
            return -ENODEV;
        }
        *record = {};
        record->mediaType = NVOL2_MEDIA_DIRECTORY;
        record->connectType = NVOL2_CONNECT_NONE;
        record->functions = NVOL2_FUNCTION_READ | NVOL2_FUNCTION_WRITE;
        entry->uuid.copy(record->uuid, sizeof record->uuid - 1);
        return 0;
    });
}

int nvol2MediaIDList(int* mediaIds, int capacity)
{
    return locked([&]() -> int {
        int count = 0;
        for (const Entry& entry : table().entries) {
            if (entry.volume != nullptr) {
                if (mediaIds != nullptr && count < capacity) {
                    mediaIds[count] = mediaIdOf(entry);
                }
                ++count;
            }
        }
        return count;
    });
}
