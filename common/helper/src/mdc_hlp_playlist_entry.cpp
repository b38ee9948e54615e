#include "mdc_hlp_playlist_entry.h"

#include "mdc_hlp_playlist.h"
#include "mdc_hlp_playlist_text.h"
#include "mdc_hlp_trace.h"
#include "mdp_charset.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string_view>

namespace md {

int scanSeconds(const char* line, int& seconds)
{
    for (const char c : std::string_view("#EXTINF:")) {
        if (*line != c) {
            return *line == '\0' ? EOF : 0;
        }
        ++line;
    }
    while (isSpace(*line)) {
        ++line;
    }
    if (*line == '\0') {
        return EOF;
    }
    const bool negative = *line == '-';
    if (negative || *line == '+') {
        ++line;
    }
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (!isDigit(*line)) {
        return 0;
    }
    using Limits = std::numeric_limits<int>;
    std::int64_t value = 0;
    for (; isDigit(*line); ++line) {
        const int digit = *line - '0';
        value = value * 10 + (negative ? -digit : digit);
        value = std::clamp<std::int64_t>(value, Limits::min(), Limits::max());
    }
    seconds = static_cast<int>(value);
    return 1;
}

namespace {

constexpr std::string_view kTag = "##VOREN{";

// The thumbnail that stands right behind the tag; empty when there is none.
std::string_view thumbnailIn(std::string_view behindTag)
{
    constexpr std::string_view kKey = "thumbURL=\"";
    if (!startsWith(behindTag, kKey)) {
        return {};
    }
    const std::string_view value = behindTag.substr(kKey.size());
    const std::size_t quote = value.find('"');
    return quote != std::string_view::npos ? value.substr(0, quote) : std::string_view();
}

std::string converted(std::string_view text, Conversion_t conversion)
{
    std::string bytes(text);
    return conversion == kConversionLatin1ToUtf8 ? mdpLatin1ToUtf8(bytes) : bytes;
}

void setNames(PlaylistEntry& entry, std::string_view artistAndTitle, Conversion_t conversion)
{
    const std::size_t dash = artistAndTitle.find('-');
    std::string_view title = artistAndTitle;
    if (dash != std::string_view::npos) {
        entry.artist = converted(trimmed(artistAndTitle.substr(0, dash)), conversion);
        title = artistAndTitle.substr(dash + 1);
    }
    entry.title = converted(trimmed(title), conversion);
}

std::string playtimeOf(int seconds)
{
    std::array<char, 38> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%ds", seconds);
    return buffer.data();
}

// What stands behind the seconds: names, and perhaps a tag. Returns the thumbnail as the tag has it.
std::string_view takeDescription(PlaylistEntry& entry, std::string_view line, Conversion_t conversion)
{
    const std::size_t comma = line.find(',');
    if (comma == std::string_view::npos) {
        return {};
    }
    const std::string_view description = line.substr(comma + 1);
    const std::size_t tag = description.find(kTag);
    setNames(entry, description.substr(0, tag), conversion);
    return tag != std::string_view::npos ? thumbnailIn(description.substr(tag + kTag.size()))
                                         : std::string_view();
}

} // namespace

} // namespace md

void createM3uEntryFromData(const std::string& playlistLocator, md::Conversion_t conversion,
                            const std::string& extinfLine, const std::string& itemLine,
                            md::PlaylistEntry& entry)
{
    entry = {};
    int seconds = 0;
    const int scanned = md::scanSeconds(extinfLine.c_str(), seconds);
    MDCH_TRACE(md::kTraceCall, "%s:%d:%s(): Trying to parse ext3inf %.*s. sscanf returned %d\n", MDCH_HERE,
               static_cast<int>(extinfLine.size()), extinfLine.c_str(), scanned);
    std::string thumbnail;
    if (scanned == 1) {
        entry.playtime = md::playtimeOf(seconds);
        thumbnail = md::takeDescription(entry, extinfLine, conversion);
    }
    entry.locator = createM3uItemLocator(playlistLocator, itemLine);
    if (!thumbnail.empty()) {
        const bool isPath = thumbnail.find_first_of("\\/") != std::string::npos;
        entry.thumb = isPath ? thumbnail : createM3uItemLocator(playlistLocator, thumbnail);
    }
    MDCH_TRACE(md::kTraceCall,
               "%s:%d:%s(): locator='%s' title='%s' artist='%s' playtime='%s' thumb='%s'\n"
               "    thumb2='%s' plloc='%s'\n",
               MDCH_HERE, entry.locator.c_str(), entry.title.c_str(), entry.artist.c_str(),
               entry.playtime.c_str(), entry.thumb.c_str(), thumbnail.c_str(), playlistLocator.c_str());
}
