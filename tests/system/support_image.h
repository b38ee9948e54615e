// File systems in files, mounted where only the test's process sees them.
#pragma once

#include "support/temp_dir.h"

#include <string>

namespace support {

// From here on the calling thread, and threads and programs that it starts, have mounts of their own. They go with
// the process. Empty, or why that is not possible here.
std::string separateMounts();

// An ext4 file system in a file.
class Image
{
public:
    // uuid in lower case. Throws std::runtime_error when the file system cannot be made.
    explicit Image(const std::string& uuid);

    const std::string& uuid() const { return m_uuid; }
    std::string upperCaseUuid() const;
    const std::string& path() const { return m_path; }

private:
    TempDir m_dir;
    std::string m_uuid;
    std::string m_path;
};

// An image that is mounted through a loop device while the object lives.
class MountedImage
{
public:
    // flags: as of mount(2). folderName: of the folder made for it. Throws std::system_error.
    explicit MountedImage(const Image& image, unsigned long flags = 0,
                          const std::string& folderName = "mounted");
    ~MountedImage();
    MountedImage(const MountedImage&) = delete;
    MountedImage& operator=(const MountedImage&) = delete;

    // Where it was mounted, without a slash at the end.
    const std::string& place() const { return m_place; }
    const std::string& device() const { return m_device; }

    void write(const std::string& name, const std::string& content) const;

    // Takes it away from its place; files that are open stay usable.
    void detach();

private:
    TempDir m_dir;
    std::string m_place;
    std::string m_device;
};

} // namespace support
