#include "support/http_status.h"

#include <map>

namespace support {

std::string usualReason(int status)
{
    static const std::map<int, std::string> reasons{
        {100, "Continue"},
        {102, "Processing"},
        {103, "Early Hints"},
        {200, "OK"},
        {204, "No Content"},
        {206, "Partial Content"},
        {300, "Multiple Choices"},
        {301, "Moved Permanently"},
        {302, "Found"},
        {303, "See Other"},
        {304, "Not Modified"},
        {305, "Use Proxy"},
        {307, "Temporary Redirect"},
        {308, "Permanent Redirect"},
        {400, "Bad Request"},
        {401, "Unauthorized"},
        {403, "Forbidden"},
        {404, "Not Found"},
        {406, "Not Acceptable"},
        {407, "Proxy Authentication Required"},
        {408, "Request Timeout"},
        {410, "Gone"},
        {413, "Content Too Large"},
        {416, "Range Not Satisfiable"},
        {417, "Expectation Failed"},
        {429, "Too Many Requests"},
        {500, "Internal Server Error"},
        {501, "Not Implemented"},
        {502, "Bad Gateway"},
        {503, "Service Unavailable"},
        {504, "Gateway Timeout"},
    };
    const auto found = reasons.find(status);
    return found == reasons.end() ? "Scripted" : found->second;
}

} // namespace support
