/*
 * White space of playlists: that of the C locale, whatever locale the process has set. In a Latin-1 locale
 * the C library counts 0xa0 as space as well, which is a part of many UTF-8 characters.
 */
#ifndef MDC_HLP_PLAYLIST_TEXT_H
#define MDC_HLP_PLAYLIST_TEXT_H

#include <string_view>

namespace md {

constexpr bool isSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr std::string_view withoutLeadingSpace(std::string_view text)
{
    while (!text.empty() && isSpace(text.front())) {
        text.remove_prefix(1);
    }
    return text;
}

constexpr std::string_view trimmed(std::string_view text)
{
    text = withoutLeadingSpace(text);
    while (!text.empty() && isSpace(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

constexpr bool startsWith(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

} // namespace md

#endif
