/*
 * Volumes for tests: folders that are registered with the media file-system service.
 */
#ifndef SUPPORT_VOLUME_H
#define SUPPORT_VOLUME_H

#include "nvol2.h"
#include "support/temp_dir.h"

#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>

namespace support {

/* A registered folder while it lives, empty at first. */
class Volume
{
public:
    explicit Volume(const std::string& uuid = "1234-ABCD")
        : m_uuid(uuid), m_id(nvol2VolumeAdd(uuid.c_str(), accessPath().c_str()))
    {
        if (m_id < 0) {
            throw std::runtime_error("the volume is not registered: " + std::to_string(m_id));
        }
    }
    ~Volume() { remove(); }
    Volume(const Volume&) = delete;
    Volume& operator=(const Volume&) = delete;

    int id() const { return m_id; }
    const std::string& uuid() const { return m_uuid; }
    const TempDir& dir() const { return m_dir; }

    /* With a slash at its end. */
    std::string accessPath() const { return m_dir.path() + "/"; }

    /* "nvl2://" + UUID + "/" + path. */
    std::string url(const std::string& path) const { return "nvl2://" + m_uuid + "/" + path; }

    /* Ends the registration; the folder stays. */
    int remove() { return nvol2VolumeRemove(m_uuid.c_str()); }

    std::string contentOf(const std::string& name) const
    {
        std::ifstream stream(m_dir.file(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

private:
    TempDir m_dir;
    std::string m_uuid;
    int m_id;
};

/* An open file of the service. */
struct CloseVolumeFile
{
    void operator()(nvol2File* file) const { nvol2_fclose(file); }
};
using VolumeFile = std::unique_ptr<nvol2File, CloseVolumeFile>;

inline VolumeFile openFile(int mediaId, const std::string& path, const std::string& mode = "r")
{
    return VolumeFile(nvol2_fopen(mediaId, path.c_str(), mode.c_str()));
}

inline std::string readAll(nvol2File* file)
{
    std::string content;
    for (int byte = nvol2_fgetc(file); byte >= 0; byte = nvol2_fgetc(file)) {
        content.push_back(static_cast<char>(byte));
    }
    return content;
}

} // namespace support

#endif
