/*
 * A folder, what lies beside it, and the two ways to open files beneath it.
 */
#ifndef SUPPORT_BENEATH_H
#define SUPPORT_BENEATH_H

#include "mdp_descriptor.h"
#include "nvol2_beneath.h"
#include "support/temp_dir.h"

#include <array>
#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <ostream>
#include <set>
#include <string>
#include <sys/stat.h>
#include <system_error>

namespace support {

using OpenBeneath = int (*)(int root, const char* path, int flags, mode_t mode);

struct Way
{
    const char* name;
    OpenBeneath open;
};

constexpr std::array<Way, 2> kWays{Way{"kernel", nvol2OpenBeneath}, Way{"walk", nvol2WalkBeneath}};

/* What became of an attempt: the errno value, or the place that was opened, seen from the site's folder. */
struct Opened
{
    int error = 0;
    std::string place;
    int accessMode = 0;
    bool closesOnExec = true;

    bool operator==(const Opened& other) const
    {
        return error == other.error && place == other.place && accessMode == other.accessMode &&
               closesOnExec == other.closesOnExec;
    }
};

inline std::ostream& operator<<(std::ostream& out, const Opened& opened)
{
    if (opened.error != 0) {
        return out << std::generic_category().message(opened.error);
    }
    return out << "\"" << opened.place << "\" (" << opened.accessMode
               << (opened.closesOnExec ? ")" : ", stays open in other programs)");
}

inline Opened failed(int error)
{
    return {error, "", 0, true};
}

inline Opened openedAt(const std::string& place, int accessMode = O_RDONLY)
{
    return {0, place, accessMode, true};
}

/* The folder "volume" and, beside it, "outside" with the file "secret". */
class Site
{
public:
    Site()
    {
        m_dir.makeDir("volume");
        m_dir.write("outside/secret", "secret");
        m_home = std::filesystem::canonical(m_dir.path()).string() + "/";
        m_root = MdpDescriptor(::open(path("volume").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    }

    /* Names are seen from the folder that holds both. */
    std::string path(const std::string& name) const { return m_home + name; }
    void file(const std::string& name) const { m_dir.write(name, "content"); }
    void folder(const std::string& name) const { m_dir.makeDir(name); }
    void link(const std::string& name, const std::string& target) const
    {
        std::filesystem::create_symlink(target, path(name));
    }
    int root() const { return m_root.get(); }

    Opened open(const Way& way, const std::string& name, int flags) const
    {
        const int result = way.open(m_root.get(), name.c_str(), flags, 0644);
        if (result < 0) {
            return failed(-result);
        }
        const MdpDescriptor descriptor(result);
        std::array<char, PATH_MAX> place{};
        const std::string link = "/proc/self/fd/" + std::to_string(result);
        if (readlink(link.c_str(), place.data(), place.size() - 1) < 0) {
            ADD_FAILURE() << "no " << link;
        }
        const std::string where = place.data();
        const bool isHome = where.compare(0, m_home.size(), m_home) == 0;
        return {0, isHome ? where.substr(m_home.size()) : where,
                fcntl(result, F_GETFL) & (O_ACCMODE | O_PATH | O_APPEND | O_NONBLOCK),
                (fcntl(result, F_GETFD) & FD_CLOEXEC) != 0};
    }

    /* Everything that lies there, files with their sizes. */
    std::set<std::string> contents() const
    {
        std::set<std::string> all;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_home)) {
            std::string line = entry.path().string().substr(m_home.size());
            if (entry.is_symlink()) {
                line += " -> a link";
            } else if (entry.is_regular_file()) {
                line += " " + std::to_string(entry.file_size());
            }
            all.insert(line);
        }
        return all;
    }

private:
    TempDir m_dir;
    std::string m_home;
    MdpDescriptor m_root;
};

} // namespace support

#endif
