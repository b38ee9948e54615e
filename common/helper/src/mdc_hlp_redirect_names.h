/* The names that redirects turn on, compared over their full length and without regard to case. */
#ifndef MDC_HLP_REDIRECT_NAMES_H
#define MDC_HLP_REDIRECT_NAMES_H

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <strings.h>

namespace md {

constexpr std::string_view kHttp = "http://";
constexpr std::string_view kHttps = "https://";
constexpr std::string_view kMms = "mms://";
constexpr std::string_view kMmsh = "mmsh://";

constexpr std::array<std::string_view, 4> kAsxTypes = {"audio/x-ms-wax", "audio/x-ms-asf", "video/x-ms-wvx",
                                                       "video/x-ms-asf"};
constexpr std::array<std::string_view, 2> kM3uTypes = {"audio/mpegurl", "audio/x-mpegurl"};
constexpr std::array<std::string_view, 1> kTextTypes = {"text/plain"};

inline bool beginsWith(const std::string& text, std::string_view name)
{
    return strncasecmp(text.c_str(), name.data(), name.size()) == 0;
}

template <class Names>
bool beginsWithAny(const std::string& text, const Names& names)
{
    return std::any_of(names.begin(), names.end(),
                       [&text](std::string_view name) { return beginsWith(text, name); });
}

} // namespace md

#endif
