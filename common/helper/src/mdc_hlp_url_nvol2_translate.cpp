#include "mdc_hlp_trace.h"
#include "mdc_hlp_url_nvol2.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <strings.h>

namespace md {

namespace {

constexpr const char* kSeparator = "://";
constexpr const char* kProtocol = "nvl2";

void traceException(const char* function, const std::exception& error)
{
    MDCH_TRACE(kTraceError, "MdchUrlNvol2::%s() exception: %s\n", function, error.what());
}

// The volume and the path of a URL whose scheme is the right one. The media ID, or negative when there is none.
int findVolume(const char* function, const std::string& url, std::string& path)
{
    std::string protocol;
    std::string volumeId;
    if (!parseNvol2Url(url, protocol, volumeId, path)) {
        return -1; // of what the URL says, parts may be missing
    }
    const bool isRight = protocol.size() == std::strlen(kProtocol) && // no NUL within cuts it off
                         strcasecmp(protocol.c_str(), kProtocol) == 0;
    if (!isRight) {
        MDCH_TRACE(kTraceError, "MdchUrlNvol2::%s() No nvol2 protocol\n", function);
        return -1;
    }
    const int mediaId = nvol2MediaIDGetByUUID(volumeId.c_str());
    if (mediaId < 0) {
        MDCH_TRACE(kTraceNotice, "MdchUrlNvol2::%s() Could not get mediaID for volumeID=%s\n", function,
                   volumeId.c_str());
    }
    return mediaId;
}

bool toNative(const char* function, const std::string& url, std::string& nativePath)
{
    std::string path;
    const int mediaId = findVolume(function, url, path);
    if (mediaId < 0) {
        return false;
    }
    nvol2Media_struct record{};
    if (nvol2MediaGet(mediaId, &record) != 0) {
        MDCH_TRACE(kTraceNotice, "MdchUrlNvol2::%s() No media record for mediaID=%i\n", function, mediaId);
        return false;
    }
    MDCH_TRACE(kTraceCall,
               "MdchUrlNvol2::%s() media record: mediaType=%i, connectType%i, functions=0x%04x, "
               "accessPath=%s, devName=%s\n",
               function, record.mediaType, record.connectType, record.functions, record.accessPath,
               record.deviceName);
    if (record.accessPath[0] == '\0') {
        return false;
    }
    const std::size_t first = !path.empty() && path.front() == '/' ? 1 : 0;
    std::string native = record.accessPath + path.substr(first);
    MDCH_TRACE(kTraceNotice, "MdchUrlNvol2::%s() translate to file protocol: %s\n", function, native.c_str());
    nativePath.swap(native);
    return true;
}

} // namespace

bool parseNvol2Url(const std::string& url, std::string& protocol, std::string& volumeId, std::string& path)
{
    MDCH_TRACE(kTraceCall, "%s() uri=%s\n", __func__, url.c_str());
    try {
        std::size_t readPosition = 0;
        const std::size_t separator = url.find(kSeparator);
        if (separator != std::string::npos) {
            protocol = url.substr(0, separator);
            readPosition = separator + std::strlen(kSeparator);
            MDCH_TRACE(kTraceCall, "MdchUrlNvol2::%s() protocol=%s posProtocolSeparator=%i readPos=%i\n",
                       __func__, protocol.c_str(), static_cast<int>(separator),
                       static_cast<int>(readPosition));
        }
        const std::size_t slash = std::min(url.find('/', readPosition), url.size());
        volumeId = url.substr(readPosition, slash - readPosition);
        MDCH_TRACE(kTraceCall, "MdchUrlNvol2::%s() volumeID=%s posSlash=%i readPos=%i\n", __func__,
                   volumeId.c_str(), static_cast<int>(slash), static_cast<int>(readPosition));
        path = slash < url.size() ? url.substr(slash + 1) : std::string();
        MDCH_TRACE(kTraceCall, "MdchUrlNvol2::%s() fullpath=%s\n", __func__, path.c_str());
        return true;
    } catch (const std::exception& error) {
        traceException(__func__, error);
        return false;
    }
}

bool nvol2UrlToNative(const std::string& url, std::string& nativePath)
{
    MDCH_TRACE(kTraceCall, "MdchUrlNvol2::%s()\n", __func__);
    try {
        return toNative(__func__, url, nativePath);
    } catch (const std::exception& error) {
        traceException(__func__, error);
        return false;
    }
}

bool nvol2UrlToMediaIdAndName(const std::string& url, int& mediaId, std::string& name)
{
    MDCH_TRACE(kTraceCall, "MdchUrlNvol2::%s()\n", __func__);
    try {
        std::string path;
        const int found = findVolume(__func__, url, path);
        if (found < 0) {
            return false;
        }
        MDCH_TRACE(kTraceCall, "MdchUrlNvol2::%s() translate into mediaId=%d, filename='%s'\n", __func__,
                   found, path.c_str());
        mediaId = found;
        name.swap(path);
        return true;
    } catch (const std::exception& error) {
        traceException(__func__, error);
        return false;
    }
}

} // namespace md
