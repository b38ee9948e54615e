// Media-volume URLs: the parser and both translations, with one volume registered.
#include "harness.h"
#include "mdc_hlp_url_nvol2.h"
#include "nvol2.h"

#include <string>
#include <strings.h>

namespace {

constexpr const char* kUuid = "1234-ABCD";
constexpr const char* kAccessPath = "/tmp/"; // never looked into

int volume()
{
    static const int id = nvol2VolumeAdd(kUuid, kAccessPath);
    fuzz::require(id > 0, "the volume is there");
    return id;
}

struct Parts
{
    std::string protocol = "untouched";
    std::string volumeId = "untouched";
    std::string path = "untouched";
};

Parts checkParts(const std::string& url)
{
    Parts parts;
    fuzz::require(md::parseNvol2Url(url, parts.protocol, parts.volumeId, parts.path),
                  "any text can be parsed");
    const bool hasProtocol = url.find("://") != std::string::npos;
    fuzz::require(hasProtocol || parts.protocol == "untouched", "no protocol: left as it was");
    fuzz::require(!hasProtocol || parts.protocol.find("://") == std::string::npos,
                  "the first separator counts");
    fuzz::require(parts.volumeId.find('/') == std::string::npos, "a volume has no slash");
    const std::string begin = (hasProtocol ? parts.protocol + "://" : "") + parts.volumeId;
    fuzz::require(url == begin + "/" + parts.path || (parts.path.empty() && url == begin),
                  "the parts give the text back");
    return parts;
}

bool isVolumes(const Parts& parts)
{
    const std::string& protocol = parts.protocol;
    // The service takes the name up to its first NUL.
    return protocol.size() == 4 && strncasecmp(protocol.data(), "nvl2", 4) == 0 &&
           strcasecmp(parts.volumeId.c_str(), kUuid) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const fuzz::TracesFormatted traces;
    const int id = volume();
    const std::string url = fuzz::textOf(data, size);
    const Parts parts = checkParts(url);

    std::string native = "untouched";
    const bool hasNative = md::nvol2UrlToNative(url, native);
    int mediaId = -1;
    std::string name = "untouched";
    const bool hasName = md::nvol2UrlToMediaIdAndName(url, mediaId, name);
    if (!isVolumes(parts)) {
        // Volumes that are mounted on this machine may be met by chance; the registered one may not.
        fuzz::require(!hasName || mediaId != id, "another text is not the volume");
        fuzz::require(hasName || (mediaId == -1 && name == "untouched"), "a failure leaves both alone");
        fuzz::require(hasNative || native == "untouched", "a failure leaves the path alone");
        return 0;
    }
    fuzz::require(hasName && mediaId == id && name == parts.path, "media ID and path");
    const bool hasSlash = !parts.path.empty() && parts.path.front() == '/';
    fuzz::require(hasNative && native == kAccessPath + parts.path.substr(hasSlash ? 1 : 0),
                  "the access path, and the path without one slash");
    return 0;
}
