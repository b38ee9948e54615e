#include "support/request.h"

#include "support/text.h"

namespace support {

std::vector<std::string> Request::headerValues(std::string_view name) const
{
    std::vector<std::string> values;
    for (const std::string& line : lines) {
        if (headerName(line).size() == name.size() && startsWithIgnoringCase(line, name)) {
            values.emplace_back(trimmed(std::string_view(line).substr(line.find(':') + 1)));
        }
    }
    return values;
}

bool Request::hasHeader(std::string_view name) const
{
    return !headerValues(name).empty();
}

std::string Request::header(std::string_view name) const
{
    const std::vector<std::string> values = headerValues(name);
    return values.empty() ? std::string() : values.front();
}

} // namespace support
