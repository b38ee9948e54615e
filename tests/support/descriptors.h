// The process's open descriptors.
#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <dirent.h>
#include <map>
#include <memory>
#include <string>
#include <unistd.h>

namespace support {

// Number to what /proc says it is: a path, "pipe:[..]" and the like.
inline std::map<int, std::string> openDescriptors()
{
    std::map<int, std::string> all;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), closedir);
    while (const dirent* entry = readdir(folder.get())) {
        char target[PATH_MAX] = {};
        if (entry->d_name[0] != '.' && entry->d_name != std::to_string(dirfd(folder.get())) &&
            readlinkat(dirfd(folder.get()), entry->d_name, target, sizeof(target) - 1) > 0) {
            all[std::stoi(entry->d_name)] = target;
        }
    }
    return all;
}

// Sockets and pipes of the process: what an engine opens. (The servers in this process have other kinds, too.)
inline std::size_t openChannels()
{
    const auto all = openDescriptors();
    return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [](const auto& entry) {
        return entry.second.rfind("socket:", 0) == 0 || entry.second.rfind("pipe:", 0) == 0;
    }));
}

// The descriptor that has a file open, or -1.
inline int descriptorOf(const std::string& path)
{
    for (const auto& [number, target] : openDescriptors()) {
        if (target == path) {
            return number;
        }
    }
    return -1;
}

// What was opened since `before` was taken, when that is one descriptor; -1 otherwise.
inline int descriptorOpenedSince(const std::map<int, std::string>& before)
{
    int found = -1;
    for (const auto& [number, target] : openDescriptors()) {
        if (before.count(number) == 0) {
            if (found >= 0) {
                return -1;
            }
            found = number;
        }
    }
    return found;
}

} // namespace support
