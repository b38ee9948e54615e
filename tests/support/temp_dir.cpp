#include "support/temp_dir.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include <unistd.h>

namespace support {

TempDir::TempDir(std::string_view namePrefix) : owner_(getpid())
{
    const char* parent = std::getenv("TMPDIR");
    std::string pattern = parent != nullptr && *parent != '\0' ? parent : "/tmp";
    pattern = std::filesystem::absolute(pattern).string() + "/";
    pattern.append(namePrefix).append("-XXXXXX");
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), pattern);
    }
    path_ = pattern;
}

TempDir::~TempDir()
{
    // A forked child must not take the folder away from its parent.
    if (getpid() != owner_) {
        return;
    }
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::file(std::string_view name) const
{
    return path_ + "/" + std::string(name);
}

std::string TempDir::write(std::string_view name, std::string_view content) const
{
    std::string target = file(name);
    std::filesystem::create_directories(std::filesystem::path(target).parent_path());
    std::ofstream stream(target, std::ios::binary | std::ios::trunc);
    stream.write(content.data(), static_cast<std::streamsize>(content.size()));
    stream.close();
    if (!stream) {
        throw std::runtime_error("cannot write " + target);
    }
    return target;
}

std::string TempDir::makeDir(std::string_view name) const
{
    std::string target = file(name);
    std::filesystem::create_directories(target);
    return target;
}

} // namespace support
