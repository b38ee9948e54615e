// A folder of its own for a test, gone with the object.
#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

namespace support {

class TempDir
{
public:
    // Makes a folder with a unique name under TMPDIR (or /tmp). Throws std::system_error when that fails.
    explicit TempDir(std::string_view namePrefix = "test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    // Absolute path, without a slash at the end.
    const std::string& path() const { return path_; }

    // The path of `name` inside the folder; nothing is created.
    std::string file(std::string_view name) const;

    // Writes a file (making folders on the way) and returns its path.
    std::string write(std::string_view name, std::string_view content) const;

    // Makes a folder inside and returns its path.
    std::string makeDir(std::string_view name) const;

private:
    std::string path_;
    pid_t owner_;
};

} // namespace support
