// Playlists as they occur, read whole: files with what must come out of them (tests/corpus/playlists), and
// large ones that are made here.
#include "mdc_hlp_playlist.h"

#include "support/temp_dir.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <list>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path kFolder = MDC_PLAYLIST_CORPUS;
constexpr const char* kExpected = ".expected";
constexpr const char* kUntouched = "(untouched)";

std::string contentOf(const fs::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    EXPECT_TRUE(stream) << file;
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::vector<std::string> playlistNames()
{
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(kFolder)) {
        const fs::path& file = entry.path();
        if (file.extension() != kExpected && file.extension() != ".md") {
            names.push_back(file.filename());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string escaped(const std::string& text)
{
    std::string result;
    for (const char c : text) {
        if (c >= ' ' && c <= '~' && c != '\\') {
            result += c;
        } else {
            std::array<char, 8> escape{};
            std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned char>(c));
            result += escape.data();
        }
    }
    return result;
}

std::string asLine(const md::PlaylistEntry& entry)
{
    EXPECT_EQ(entry.extra, "");
    std::string line = escaped(entry.locator);
    for (const std::string* field : {&entry.title, &entry.artist, &entry.playtime, &entry.thumb}) {
        line += '\t' + escaped(*field);
    }
    return line + '\n';
}

// What reading gives, in the form of the expected files.
std::string readingOf(const std::string& name, const std::string& content, int conversion)
{
    std::list<md::PlaylistEntry> entries;
    std::string text = kUntouched;
    const int result =
        parseM3uBufferToPlaylist("nvl2://1234-ABCD/music/lists/" + name, {content.begin(), content.end()},
                                 static_cast<md::Conversion_t>(conversion), entries, text);
    std::string reading = "conversion " + std::to_string(conversion) + "\nresult " + std::to_string(result) +
                          "\ntext " + escaped(text) + '\n';
    for (const md::PlaylistEntry& entry : entries) {
        reading += asLine(entry);
    }
    return reading;
}

int conversionIn(const std::string& expected)
{
    int conversion = -1;
    EXPECT_EQ(std::sscanf(expected.c_str(), "conversion %1d", &conversion), 1) << expected;
    return conversion;
}

class PlaylistCorpus : public testing::TestWithParam<std::string>
{
};

std::string testName(const testing::TestParamInfo<std::string>& info)
{
    std::string name = info.param;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == '-' || c == '.'; }, '_');
    return name;
}

// Item number i of the large playlist: 54 bytes with its EXTINF line.
std::string numbered(int i)
{
    std::array<char, 64> lines{};
    std::snprintf(lines.data(), lines.size(), "#EXTINF:%05d,Artist - Title %05d\r\nfolder/%05d.mp3\r\n", i, i,
                  i);
    return lines.data();
}

} // namespace

TEST_P(PlaylistCorpus, isReadAsExpected)
{
    const std::string expected = contentOf(kFolder / (GetParam() + kExpected));
    EXPECT_EQ(readingOf(GetParam(), contentOf(kFolder / GetParam()), conversionIn(expected)), expected);
}

TEST_P(PlaylistCorpus, isReadAlikeFromAFile)
{
    const std::string file = kFolder / GetParam();
    const std::string content = contentOf(file);
    std::list<md::PlaylistEntry> parsed;
    std::list<md::PlaylistEntry> scanned;
    std::string parsedText = kUntouched;
    std::string scannedText = kUntouched;
    parseM3uBufferToPlaylist(file, {content.begin(), content.end()}, md::kConversionNone, parsed, parsedText);
    EXPECT_EQ(md::scanPlaylist(file, scanned, scannedText, md::kConversionNone), 0);
    EXPECT_EQ(scannedText, parsedText);
    ASSERT_EQ(scanned.size(), parsed.size());
    EXPECT_TRUE(std::equal(scanned.begin(), scanned.end(), parsed.begin(),
                           [](const auto& a, const auto& b) { return asLine(a) == asLine(b); }));
}

INSTANTIATE_TEST_SUITE_P(Files, PlaylistCorpus, testing::ValuesIn(playlistNames()), testName);

TEST(PlaylistCorpusFolder, everyExpectedFileHasItsPlaylist)
{
    EXPECT_GE(playlistNames().size(), 30U);
    for (const fs::directory_entry& entry : fs::directory_iterator(kFolder)) {
        fs::path file = entry.path();
        if (file.extension() == kExpected) {
            EXPECT_TRUE(fs::exists(file.replace_extension())) << entry.path();
        }
    }
}

TEST(LargePlaylist, tenThousandItemsAreReadWholeFromMemory)
{
    std::string content = "#EXTM3U\r\n";
    for (int i = 0; i < 10000; ++i) {
        content += numbered(i);
    }
    std::list<md::PlaylistEntry> entries;
    std::string text;
    EXPECT_EQ(parseM3uBufferToPlaylist("/a.m3u", {content.begin(), content.end()}, md::kConversionNone,
                                       entries, text),
              0);
    ASSERT_EQ(entries.size(), 10000U);
    int i = 0;
    for (const md::PlaylistEntry& entry : entries) {
        const std::string number = std::to_string(100000 + i).substr(1);
        ASSERT_EQ(entry.locator, "folder/" + number + ".mp3");
        ASSERT_EQ(entry.title, "Title " + number);
        ASSERT_EQ(entry.playtime, std::to_string(i) + "s");
        ++i;
    }
}

TEST(LargePlaylist, tenThousandItemsOfAFileEndAtByteFiftyThousand)
{
    std::string content = "#EXTM3U\r\n";
    for (int i = 0; i < 10000; ++i) {
        content += numbered(i);
    }
    ASSERT_GT(content.size(), 500000U);
    const support::TempDir folder;
    std::list<md::PlaylistEntry> entries;
    std::string text;
    EXPECT_EQ(md::scanPlaylist(folder.write("large.m3u", content), entries, text, md::kConversionNone), 0);

    // The last item is what is left of the line that the limit cuts; its EXTINF line, "#EXTM3U" and two lines
    // for each item before it are whole.
    const std::string head = content.substr(0, 50000);
    const auto items = static_cast<std::size_t>(std::count(head.begin(), head.end(), '\n')) / 2;
    const std::string rest = head.substr(head.rfind('\n') + 1);
    ASSERT_EQ(rest, "folde") << "the limit is meant to cut an item";
    ASSERT_EQ(entries.size(), items);
    EXPECT_EQ(entries.back().locator, rest);
    EXPECT_EQ(std::next(entries.rbegin())->locator,
              "folder/" + std::to_string(100000 + items - 2).substr(1) + ".mp3");
}
