#include "address.h"

#include <cstring>
#include <gst/gst.h>
#include <memory>
#include <strings.h>

namespace gstmdch {

namespace {

using Text = std::unique_ptr<char, void (*)(gpointer)>;

} // namespace

const char* const kProtocols[] = {"http", "https", "udp", "nvl2", "file", nullptr};

bool isProtocol(const std::string& location, const char* protocol)
{
    const std::string begin = std::string(protocol) + "://";
    return strncasecmp(location.c_str(), begin.c_str(), begin.size()) == 0;
}

bool isSupported(const std::string& location)
{
    for (const char* const* protocol = kProtocols; *protocol != nullptr; ++protocol) {
        if (isProtocol(location, *protocol)) {
            return true;
        }
    }
    return !location.empty() && location.find("://") == std::string::npos;
}

std::string libraryAddress(const std::string& location)
{
    if (!isProtocol(location, "file")) {
        return location;
    }
    gchar* host = nullptr;
    const Text path(g_filename_from_uri(location.c_str(), &host, nullptr), g_free);
    const Text owned(host, g_free);
    const bool isHere = host == nullptr || strcasecmp(host, "localhost") == 0;
    return path != nullptr && isHere ? path.get() : location;
}

std::string uriOf(const std::string& location)
{
    if (location.empty() || location.find("://") != std::string::npos) {
        return location;
    }
    const Text uri(gst_filename_to_uri(location.c_str(), nullptr), g_free);
    return uri != nullptr ? uri.get() : "";
}

} // namespace gstmdch
