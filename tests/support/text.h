// The little text handling that the scripted servers need.
#pragma once

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace support {

inline bool startsWithIgnoringCase(std::string_view text, std::string_view prefix)
{
    if (text.size() < prefix.size()) {
        return false;
    }
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(text[i])) !=
            std::tolower(static_cast<unsigned char>(prefix[i]))) {
            return false;
        }
    }
    return true;
}

inline bool equalIgnoringCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && startsWithIgnoringCase(a, b);
}

inline std::string_view trimmed(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// "Name" of "Name: value"; the empty text when there is no colon.
inline std::string_view headerName(std::string_view line)
{
    const std::size_t colon = line.find(':');
    return colon == std::string_view::npos ? std::string_view() : line.substr(0, colon);
}

// Takes a decimal number from the front of `text`; none when there is no digit or no room for the value.
inline std::optional<std::uint64_t> takeNumber(std::string_view& text)
{
    std::size_t used = 0;
    std::uint64_t value = 0;
    for (; used < text.size() && text[used] >= '0' && text[used] <= '9'; ++used) {
        const auto digit = static_cast<std::uint64_t>(text[used] - '0');
        if (value > (UINT64_MAX - digit) / 10) {
            return std::nullopt;
        }
        value = value * 10 + digit;
    }
    if (used == 0) {
        return std::nullopt;
    }
    text.remove_prefix(used);
    return value;
}

// Takes `prefix` from the front of `text`, if it stands there.
inline bool takePrefix(std::string_view& text, std::string_view prefix)
{
    if (text.substr(0, prefix.size()) != prefix) {
        return false;
    }
    text.remove_prefix(prefix.size());
    return true;
}

} // namespace support
