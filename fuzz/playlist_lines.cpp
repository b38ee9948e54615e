// Playlists: the input is the file. What comes out is compared with a reading that looks backwards from each item.
#include "harness.h"
#include "mdc_hlp_playlist.h"
#include "mdp_charset.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <list>
#include <string>
#include <vector>

namespace {

constexpr const char* kElsewhere = "/media/lists/a.m3u";
constexpr const char* kOnVolume = "nvl2://v/lists/a.m3u";
constexpr const char* kUntouched = "untouched";

using Entries = std::list<md::PlaylistEntry>;

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::string stripped(std::string text, const std::string& front, const std::string& back)
{
    text.erase(0, std::min(text.find_first_not_of(front), text.size()));
    text.erase(text.find_last_not_of(back) + 1);
    return text;
}

std::vector<std::string> linesOf(std::string text)
{
    const std::string white = " \t\n\v\f\r";
    if (startsWith(text, "\xef\xbb\xbf")) {
        text.erase(0, 3);
    }
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(stripped(text.substr(begin, end - begin), white, "\r"));
        begin = end + 1;
    }
    return lines;
}

bool isItem(const std::string& line)
{
    return !line.empty() && line[0] != '#';
}

bool isComment(const std::string& line)
{
    return startsWith(line, "#") && !startsWith(line, "#EXTINF");
}

// The EXTINF line of an item, with the comments behind it.
std::string extinfOf(const std::vector<std::string>& lines, std::size_t item)
{
    std::size_t first = item;
    while (first > 0 && !isItem(lines[first - 1]) && !startsWith(lines[first], "#EXTINF")) {
        --first;
    }
    std::string extinf;
    for (std::size_t i = first; startsWith(lines[first], "#EXTINF") && i < item; ++i) {
        extinf += lines[i];
    }
    return extinf;
}

// The playlist's name, from the lines in front of everything that belongs to an item.
std::string nameOf(const std::vector<std::string>& lines)
{
    const std::string white = " \t\n\v\f\r";
    const std::string directive = "#PLAYLIST:";
    std::string comment = kUntouched;
    std::string name;
    bool commented = false;
    bool named = false;
    for (const std::string& line : lines) {
        if (isItem(line) || startsWith(line, "#EXTINF")) {
            break;
        }
        if (startsWith(line, directive)) {
            named = true;
            name = stripped(line.substr(directive.size()), white, white);
        } else if (isComment(line) && !startsWith(line, "#EXTM3U") && !commented) {
            commented = true;
            comment = stripped(line.substr(1), white, white);
        }
    }
    return named ? name : comment;
}

Entries expectedOf(const std::string& locator, md::Conversion_t conversion,
                   const std::vector<std::string>& lines)
{
    Entries entries;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (isItem(lines[i])) {
            entries.emplace_back();
            createM3uEntryFromData(locator, conversion, extinfOf(lines, i), lines[i], entries.back());
        }
    }
    return entries;
}

bool same(const md::PlaylistEntry& a, const md::PlaylistEntry& b)
{
    return a.locator == b.locator && a.title == b.title && a.artist == b.artist && a.playtime == b.playtime &&
           a.thumb == b.thumb && a.extra.empty() && b.extra.empty();
}

Entries parse(const std::string& locator, md::Conversion_t conversion, const std::string& input)
{
    Entries entries(1);
    std::string text = kUntouched;
    const std::vector<unsigned char> data(input.begin(), input.end());
    const int result = parseM3uBufferToPlaylist(locator, data, conversion, entries, text);
    entries.pop_front();
    if (input.substr(0, 512).find('\0') != std::string::npos) {
        fuzz::require(result == -EINVAL && entries.empty() && text == kUntouched,
                      "what is no text gives nothing");
        return entries;
    }
    fuzz::require(result == 0, "any text is a playlist");
    const std::vector<std::string> lines = linesOf(input);
    const Entries expected = expectedOf(locator, conversion, lines);
    fuzz::require(std::equal(entries.begin(), entries.end(), expected.begin(), expected.end(), same),
                  "the entries that looking backwards finds");
    fuzz::require(text == nameOf(lines), "the name in front of the first item");
    return entries;
}

void checkOrder(const Entries& entries, const std::string& input)
{
    std::size_t place = 0;
    for (const md::PlaylistEntry& entry : entries) {
        place = input.find(entry.locator, place);
        fuzz::require(place != std::string::npos, "items stand in the file, in their order");
        place += entry.locator.size();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const fuzz::TracesFormatted traces;
    const std::string input = fuzz::textOf(data, size);
    const Entries plain = parse(kElsewhere, md::kConversionNone, input);
    checkOrder(plain, input);
    const Entries onVolume = parse(kOnVolume, md::kConversionLatin1ToUtf8, input);
    fuzz::require(plain.size() == onVolume.size(), "as many items wherever the playlist is");
    auto other = onVolume.begin();
    for (const md::PlaylistEntry& entry : plain) {
        fuzz::require(other->title == mdpLatin1ToUtf8(entry.title) &&
                          other->artist == mdpLatin1ToUtf8(entry.artist),
                      "conversion changes the names and nothing else");
        ++other;
    }
    return 0;
}
