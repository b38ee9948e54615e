#include "mdc_hlp_playlist.h"
#include "mdc_hlp_trace.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <strings.h>

namespace {

constexpr std::string_view kVolumeScheme = "NVL2://";

bool startsWithNoCase(const std::string& text, std::string_view prefix)
{
    return strncasecmp(text.c_str(), prefix.data(), prefix.size()) == 0;
}

bool isAbsolute(const std::string& item)
{
    constexpr std::array<std::string_view, 3> kSchemes = {"http://", "mms://", "rtsp://"};
    return std::any_of(kSchemes.begin(), kSchemes.end(),
                       [&item](std::string_view scheme) { return startsWithNoCase(item, scheme); });
}

// Walks the steps of a path; those that are left stand in result, each behind a slash. The part of result in
// front of root is never given up.
void addSteps(std::string& result, std::size_t root, std::string_view path)
{
    while (!path.empty()) {
        const std::size_t end = std::min(path.find('/'), path.size());
        const std::string_view step = path.substr(0, end);
        path.remove_prefix(std::min(end + 1, path.size()));
        if (step == "..") {
            if (result.size() > root) {
                result.resize(result.rfind('/'));
            }
        } else if (!step.empty() && step != ".") {
            result += '/';
            result += step;
        }
    }
}

} // namespace

std::string createM3uItemLocator(const std::string& playlistLocator, const std::string& item)
{
    if (!startsWithNoCase(playlistLocator, kVolumeScheme)) {
        MDCH_TRACE(md::kTraceCall,
                   "%s:%d:%s(): Playlist does not seem to be stored on an nvol2 media, has locator \"%s\".\n",
                   MDCH_HERE, playlistLocator.c_str());
        return item;
    }
    if (isAbsolute(item)) {
        return item;
    }
    // Volumes know paths as C texts: what they would not see must not hide a step from us.
    const std::string_view playlist(playlistLocator.c_str());
    std::string path(item.c_str());
    std::replace(path.begin(), path.end(), '\\', '/');

    const std::size_t root = std::min(playlist.find('/', kVolumeScheme.size()), playlist.size());
    std::string result(playlist.substr(0, root));
    const std::size_t folderEnd = playlist.rfind('/');
    if (path.compare(0, 1, "/") != 0 && folderEnd > root) {
        addSteps(result, root, playlist.substr(root, folderEnd - root));
    }
    addSteps(result, root, path);
    if (result.size() == root) {
        result += '/'; // the root itself
    }
    return result;
}
