#include "response_header.h"

#include "mdc_hlp_http_access.h"

#include <deque>
#include <strings.h>

namespace player {

std::string headerValue(md::HttpAccess& http, const std::string& name)
{
    constexpr const char* kBlanks = " \t\r\n";
    std::deque<std::string> lines;
    http.getHeaderList(lines);
    for (const std::string& line : lines) {
        if (line.size() <= name.size() || line[name.size()] != ':' ||
            strncasecmp(line.c_str(), name.c_str(), name.size()) != 0) {
            continue;
        }
        const std::size_t begin = line.find_first_not_of(kBlanks, name.size() + 1);
        return begin != std::string::npos ? line.substr(begin, line.find_last_not_of(kBlanks) + 1 - begin)
                                          : std::string();
    }
    return {};
}

Version versionOf(md::HttpAccess& http)
{
    return {http.size(), headerValue(http, "ETag")};
}

bool areOfOneFile(const Version& one, const Version& other)
{
    const bool haveSizes = one.size >= 0 && other.size >= 0;
    const bool haveTags = !one.tag.empty() && !other.tag.empty();
    return (!haveSizes || one.size == other.size) && (!haveTags || one.tag == other.tag);
}

} // namespace player
