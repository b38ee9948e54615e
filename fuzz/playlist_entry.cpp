// One entry of a playlist: the input is the playlist's path, the EXTINF line and the item line, a line feed apart.
#include "harness.h"
#include "mdc_hlp_playlist.h"
#include "mdc_hlp_playlist_entry.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <strings.h>
#include <vector>

namespace {

const std::string kVolume = "nVl2://1234-ABCD";

std::string takeLine(std::string& text)
{
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string line = text.substr(0, end);
    text.erase(0, end + 1);
    return line;
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// The steps of a path, "." and ".." not yet resolved.
std::vector<std::string> stepsOf(const std::string& path)
{
    std::vector<std::string> steps(1);
    for (const char c : path) {
        if (c == '/') {
            steps.emplace_back();
        } else {
            steps.back() += c;
        }
    }
    return steps;
}

// Where an item is on the volume, step by step.
std::string resolved(const std::string& playlistPath, std::string item)
{
    std::replace(item.begin(), item.end(), '\\', '/');
    std::vector<std::string> steps;
    if (item.substr(0, 1) != "/") {
        steps = stepsOf(playlistPath);
        steps.pop_back(); // the playlist's own name
    }
    for (const std::string& step : stepsOf(item)) {
        steps.push_back(step);
    }
    std::vector<std::string> left;
    for (const std::string& step : steps) {
        if (step == "..") {
            if (!left.empty()) {
                left.pop_back();
            }
        } else if (!step.empty() && step != ".") {
            left.push_back(step);
        }
    }
    std::string result = kVolume;
    for (const std::string& step : left) {
        result += '/' + step;
    }
    return left.empty() ? result + '/' : result;
}

bool isAbsolute(const std::string& item)
{
    for (const std::string scheme : {"http://", "mms://", "rtsp://"}) {
        if (strcasecmp(std::string(item.c_str()).substr(0, scheme.size()).c_str(), scheme.c_str()) == 0) {
            return true;
        }
    }
    return false;
}

void checkLocators(const std::string& path, const std::string& item)
{
    const std::string playlist = kVolume + '/' + path;
    const std::string locator = createM3uItemLocator(playlist, item);
    if (isAbsolute(item)) {
        fuzz::require(locator == item, "absolute items are kept");
    } else {
        fuzz::require(locator == resolved(path.c_str(), item.c_str()), "the place that its steps lead to");
        for (const std::string& step : stepsOf(locator.substr(kVolume.size()))) {
            fuzz::require(step != ".." && step != ".", "no step is left");
        }
        fuzz::require(!contains(locator, std::string(1, '\0')), "a locator is a C text");
        // A backslash in the playlist's own path is part of a name; in an item it would be a slash.
        fuzz::require(contains(locator, "\\") ||
                          createM3uItemLocator(playlist, locator.substr(kVolume.size())) == locator,
                      "a resolved item stays where it is");
    }
    if (strncasecmp(path.c_str(), "nvl2://", 7) != 0) {
        fuzz::require(createM3uItemLocator(path, item) == item, "elsewhere items stay as they stand");
    }
}

// The standard library where it is defined: few enough digits for an int.
void checkSeconds(const std::string& line)
{
    int seconds = -77;
    const int result = md::scanSeconds(line.c_str(), seconds);
    const std::size_t first = line.find_first_of("0123456789");
    const std::size_t end =
        std::min(line.find_first_not_of("0123456789", std::min(first, line.size())), line.size());
    int theirs = -77;
    if (first == std::string::npos || end - first <= std::numeric_limits<int>::digits10) {
        fuzz::require(result == std::sscanf(line.c_str(), "#EXTINF:%d,", &theirs) && seconds == theirs,
                      "the number that sscanf reads");
    }
}

bool isTrimmed(const std::string& text)
{
    const std::string white = " \t\n\v\f\r";
    return text.empty() ||
           (!contains(white, text.substr(0, 1)) && !contains(white, text.substr(text.size() - 1)));
}

void checkEntry(const std::string& path, const std::string& extinf, const std::string& item)
{
    const std::string playlist = kVolume + '/' + path;
    md::PlaylistEntry entry{"x", "x", "x", "x", "x", "x"};
    createM3uEntryFromData(playlist, md::kConversionNone, extinf, item, entry);
    fuzz::require(entry.locator == createM3uItemLocator(playlist, item), "the item's own locator");
    fuzz::require(entry.extra.empty(), "nothing extra");
    int seconds = 0;
    if (md::scanSeconds(extinf.c_str(), seconds) != 1) {
        fuzz::require((entry.title + entry.artist + entry.playtime + entry.thumb).empty(),
                      "the locator alone");
        return;
    }
    fuzz::require(entry.playtime == std::to_string(seconds) + "s", "seconds");
    fuzz::require(contains(extinf, entry.title) && contains(extinf, entry.artist),
                  "names that stand in the line");
    fuzz::require(isTrimmed(entry.title) && isTrimmed(entry.artist), "no white space around names");
    fuzz::require(!contains(entry.artist, "-"), "the first dash ends the artist");
    fuzz::require(!contains(entry.title + "\n" + entry.artist, "##VOREN{"), "the tag ends the names");
    if (!entry.thumb.empty()) {
        fuzz::require(contains(extinf, "##VOREN{thumbURL=\""), "a thumbnail comes from the tag");
        fuzz::require(contains(extinf, '"' + entry.thumb + '"') ||
                          entry.thumb.compare(0, kVolume.size(), kVolume) == 0,
                      "a thumbnail that stands in the line, or on the volume");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const fuzz::TracesFormatted traces;
    std::string text = fuzz::textOf(data, size);
    const std::string path = takeLine(text);
    const std::string extinf = takeLine(text);
    checkLocators(path, text);
    checkSeconds(extinf);
    checkEntry(path, extinf, text);
    return 0;
}
