/*
 * A made-up machine: a mount table and the device manager's folder of links by UUID.
 */
#ifndef SUPPORT_MOUNT_TABLE_H
#define SUPPORT_MOUNT_TABLE_H

#include "nvol2_volume.h"
#include "support/temp_dir.h"

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace support {

/* One line of the table; paths are written as the kernel does, blanks as \040. */
struct Mount
{
    int id;
    int parent;
    std::string source;
    std::string target;
    std::string type = "ext4";
    std::string root = "/";
    std::string device = "8:1";
};

class MountTable
{
public:
    MountTable() { m_dir.makeDir("by-uuid"); }

    void line(const std::string& text) { m_text += text + "\n"; }
    void mount(const Mount& mount)
    {
        line(std::to_string(mount.id) + " " + std::to_string(mount.parent) + " " + mount.device + " " +
             mount.root + " " + mount.target + " rw,relatime shared:1 - " + mount.type + " " + mount.source +
             " rw");
    }
    void text(const std::string& whole) { m_text = whole; }

    /* Devices must exist to be recognised; any node will do. */
    void uuid(const std::string& uuid, const std::string& device) const
    {
        std::filesystem::create_symlink(device, m_dir.file("by-uuid/" + uuid));
    }

    std::vector<Nvol2Volume> volumes() const
    {
        const std::string table = m_dir.write("mountinfo", m_text);
        return nvol2MountedVolumes(table.c_str(), m_dir.file("by-uuid").c_str());
    }

    /* UUID to access path. */
    std::map<std::string, std::string> places() const
    {
        std::map<std::string, std::string> all;
        for (const Nvol2Volume& volume : volumes()) {
            all[volume.uuid] = volume.accessPath;
        }
        return all;
    }

    const TempDir& dir() const { return m_dir; }

private:
    TempDir m_dir;
    std::string m_text;
};

} // namespace support

#endif
