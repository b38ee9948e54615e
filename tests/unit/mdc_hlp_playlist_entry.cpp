// One entry: an EXTINF line and an item line.
#include "mdc_hlp_playlist.h"

#include "mdc_hlp_playlist_entry.h"
#include "support/trace_capture.h"

#include <clocale>
#include <cstdio>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr const char* kPlaylist = "nvl2://v/lists/a.m3u";
constexpr const char* kTag = "##VOREN{thumbURL=";

md::PlaylistEntry entryOf(const std::string& extinf, md::Conversion_t conversion = md::kConversionNone,
                          const std::string& playlist = kPlaylist)
{
    md::PlaylistEntry entry;
    createM3uEntryFromData(playlist, conversion, extinf, "song.mp3", entry);
    return entry;
}

void expectOnlyLocator(const std::string& extinf)
{
    const md::PlaylistEntry entry = entryOf(extinf);
    EXPECT_EQ(entry.locator, "nvl2://v/lists/song.mp3") << extinf;
    EXPECT_EQ(entry.title, "") << extinf;
    EXPECT_EQ(entry.artist, "") << extinf;
    EXPECT_EQ(entry.playtime, "") << extinf;
    EXPECT_EQ(entry.thumb, "") << extinf;
    EXPECT_EQ(entry.extra, "") << extinf;
}

void expectNames(const std::string& description, const std::string& artist, const std::string& title)
{
    const md::PlaylistEntry entry = entryOf("#EXTINF:1," + description);
    EXPECT_EQ(entry.artist, artist) << description;
    EXPECT_EQ(entry.title, title) << description;
}

std::string playtimeOf(const std::string& extinf)
{
    return entryOf(extinf).playtime;
}

std::string thumbOf(const std::string& behindComma)
{
    return entryOf("#EXTINF:1," + behindComma).thumb;
}

std::string quoted(const std::string& text)
{
    return '"' + text + '"';
}

} // namespace

TEST(PlaylistEntryLayout, fieldsStandInTheirOrder)
{
    const md::PlaylistEntry entry{"locator", "title", "artist", "playtime", "thumb", "extra"};
    EXPECT_EQ(entry.locator, "locator");
    EXPECT_EQ(entry.title, "title");
    EXPECT_EQ(entry.artist, "artist");
    EXPECT_EQ(entry.playtime, "playtime");
    EXPECT_EQ(entry.thumb, "thumb");
    EXPECT_EQ(entry.extra, "extra");
    EXPECT_EQ(static_cast<int>(md::kConversionLatin1ToUtf8), 1);
}

TEST(PlaylistEntry, linePartsBecomeTheFields)
{
    const md::PlaylistEntry entry = entryOf("#EXTINF:215,Name One - Name Two");
    EXPECT_EQ(entry.locator, "nvl2://v/lists/song.mp3");
    EXPECT_EQ(entry.artist, "Name One");
    EXPECT_EQ(entry.title, "Name Two");
    EXPECT_EQ(entry.playtime, "215s");
    EXPECT_EQ(entry.thumb, "");
    EXPECT_EQ(entry.extra, "");
}

TEST(PlaylistEntry, formerContentOfTheEntryGoes)
{
    md::PlaylistEntry entry{"a", "b", "c", "d", "e", "f"};
    createM3uEntryFromData(kPlaylist, md::kConversionNone, "", "song.mp3", entry);
    EXPECT_EQ(entry.locator, "nvl2://v/lists/song.mp3");
    EXPECT_EQ(entry.title + entry.artist + entry.playtime + entry.thumb + entry.extra, "");
}

TEST(PlaylistEntry, malformedLineGivesTheLocatorAlone)
{
    for (const char* line :
         {"", "#EXT", "#EXTINF", "#EXTINF:", "#EXTINF:   ", "#EXTINF:x,A - B", "#EXTINF:,A - B",
          "#EXTINF:-,A", "#EXTINF:+", "#EXTINF:- 1,A", "#extinf:1,A - B", "#EXTINF 1,A - B",
          " #EXTINF:1,A - B", "#EXTINF:.5,A - B", "#EXTINF:x,A##VOREN{thumbURL=\"c.jpg\""}) {
        expectOnlyLocator(line);
    }
}

TEST(PlaylistEntry, secondsBecomeThePlaytime)
{
    EXPECT_EQ(playtimeOf("#EXTINF:0,A"), "0s");
    EXPECT_EQ(playtimeOf("#EXTINF:-1,A"), "-1s");
    EXPECT_EQ(playtimeOf("#EXTINF:+7,A"), "7s");
    EXPECT_EQ(playtimeOf("#EXTINF:0012,A"), "12s");
    EXPECT_EQ(playtimeOf("#EXTINF: \t 12,A"), "12s");
    EXPECT_EQ(playtimeOf("#EXTINF:12.75,A"), "12s");
    EXPECT_EQ(playtimeOf("#EXTINF:12x,A"), "12s");
    EXPECT_EQ(playtimeOf("#EXTINF:12 tvg-id=\"x\",A"), "12s");
    EXPECT_EQ(playtimeOf("#EXTINF:0x1F,A"), "0s");
    EXPECT_EQ(playtimeOf("#EXTINF:2147483647,A"), "2147483647s");
    EXPECT_EQ(playtimeOf("#EXTINF:-2147483648,A"), "-2147483648s");
}

TEST(PlaylistEntry, secondsBeyondAnIntBecomeTheNearestOne)
{
    const std::string digits(3000, '9');
    for (const char* number : {"2147483648", "4294967296", "4294967297", "9223372036854775808",
                               "18446744073709551617", digits.c_str()}) {
        const md::PlaylistEntry entry = entryOf("#EXTINF:" + std::string(number) + ",A - B");
        EXPECT_EQ(entry.playtime, "2147483647s") << number;
        EXPECT_EQ(entry.title, "B");
    }
    EXPECT_EQ(playtimeOf("#EXTINF:-2147483649,A"), "-2147483648s");
    EXPECT_EQ(playtimeOf("#EXTINF:-" + digits), "-2147483648s");
}

TEST(PlaylistEntry, lineWithoutACommaHasAPlaytimeAndNoNames)
{
    const md::PlaylistEntry entry = entryOf("#EXTINF:12 Artist - Title##VOREN{thumbURL=\"c.jpg\"");
    EXPECT_EQ(entry.playtime, "12s");
    EXPECT_EQ(entry.title, "");
    EXPECT_EQ(entry.artist, "");
    EXPECT_EQ(entry.thumb, "");
}

TEST(PlaylistEntry, emptyTextBehindTheCommaLeavesTheNamesEmpty)
{
    expectNames("", "", "");
    expectNames(" \t ", "", "");
}

TEST(PlaylistEntry, textBehindTheFirstCommaCounts)
{
    expectNames("One, Two - Three, Four", "One, Two", "Three, Four");
    const md::PlaylistEntry entry = entryOf("#EXTINF:-1 group=\"a,b\",Name");
    EXPECT_EQ(entry.title, "b\",Name");
}

TEST(PlaylistEntry, namesAreSplitAtTheFirstDash)
{
    expectNames("A - B", "A", "B");
    expectNames("A-B", "A", "B");
    expectNames("Jean-Michel Jarre - Oxygene", "Jean", "Michel Jarre - Oxygene");
    expectNames("A - B - C - D", "A", "B - C - D");
    expectNames("- B", "", "B");
    expectNames("A -", "A", "");
    expectNames("-", "", "");
    expectNames("--", "", "-");
    expectNames("A \xe2\x80\x93 B", "", "A \xe2\x80\x93 B"); // another dash
}

TEST(PlaylistEntry, textWithoutADashIsTheTitle)
{
    expectNames("Oxygene", "", "Oxygene");
    expectNames("  Oxygene Part 4\t", "", "Oxygene Part 4");
}

TEST(PlaylistEntry, whiteSpaceGoesAtBothEndsOfBothParts)
{
    expectNames(" \t\v\f\r A  a \r - \t B  b \v\f\r", "A  a", "B  b");
}

TEST(PlaylistEntry, whiteSpaceDoesNotDependOnTheLocale)
{
    const char* set = std::setlocale(LC_CTYPE, "de_DE.ISO-8859-1");
    expectNames("\xa0"
                "A\xa0-\xa0"
                "B\xa0",
                "\xa0"
                "A\xa0",
                "\xa0"
                "B\xa0");
    if (set != nullptr) {
        std::setlocale(LC_CTYPE, "C");
    }
}

TEST(PlaylistEntry, namesAreConvertedWhenAskedFor)
{
    const std::string line = "#EXTINF:1,Bj\xf6rk - J\xf3ga \x80\xff";
    const md::PlaylistEntry converted = entryOf(line, md::kConversionLatin1ToUtf8);
    EXPECT_EQ(converted.artist, "Bj\xc3\xb6rk");
    EXPECT_EQ(converted.title, "J\xc3\xb3ga \xc2\x80\xc3\xbf");
    for (const int other : {0, 2, -1, 17}) {
        const md::PlaylistEntry kept = entryOf(line, static_cast<md::Conversion_t>(other));
        EXPECT_EQ(kept.artist, "Bj\xf6rk") << other;
        EXPECT_EQ(kept.title, "J\xf3ga \x80\xff") << other;
    }
}

TEST(PlaylistEntry, locatorAndThumbAreNotConverted)
{
    md::PlaylistEntry entry;
    createM3uEntryFromData(kPlaylist, md::kConversionLatin1ToUtf8,
                           "#EXTINF:1,A##VOREN{thumbURL=\"b\xfcld.jpg\"", "lied\xfc.mp3", entry);
    EXPECT_EQ(entry.locator, "nvl2://v/lists/lied\xfc.mp3");
    EXPECT_EQ(entry.thumb, "nvl2://v/lists/b\xfcld.jpg");
}

TEST(PlaylistEntry, thumbnailIsResolvedLikeAnItem)
{
    EXPECT_EQ(thumbOf("Title##VOREN{thumbURL=\"cover.jpg\"}"), "nvl2://v/lists/cover.jpg");
    EXPECT_EQ(thumbOf("Title##VOREN{thumbURL=\"..\"}"), "nvl2://v/");
    EXPECT_EQ(entryOf("#EXTINF:1,T##VOREN{thumbURL=\"cover.jpg\"}", md::kConversionNone, "/a.m3u").thumb,
              "cover.jpg");
}

TEST(PlaylistEntry, thumbnailWithASlashIsKeptAsItIs)
{
    for (const char* thumb : {"img/cover.jpg", "img\\cover.jpg", "/cover.jpg", "\\", "http://host/c.jpg",
                              "../cover.jpg", "nvl2://w/c.jpg"}) {
        EXPECT_EQ(thumbOf("Title" + std::string(kTag) + quoted(thumb) + "}"), thumb);
    }
}

TEST(PlaylistEntry, thumbnailEndsAtTheNextQuote)
{
    EXPECT_EQ(thumbOf("T##VOREN{thumbURL=\"a/b\" more=\"c\"}"), "a/b");
    EXPECT_EQ(thumbOf("T##VOREN{thumbURL=\"a/b - ,c\""), "a/b - ,c");
}

TEST(PlaylistEntry, thumbnailIsKeptOnlyWhenItIsComplete)
{
    for (const char* tag :
         {"##VOREN{", "##VOREN{thumbURL=", "##VOREN{thumbURL=\"", "##VOREN{thumbURL=\"\"}",
          "##VOREN{thumbURL=\"a.jpg", "##VOREN{ thumbURL=\"a.jpg\"}", "##VOREN{x=\"1\" thumbURL=\"a.jpg\"}",
          "##VOREN{thumburl=\"a.jpg\"}", "##VOREN{thumbURL='a.jpg'}", "##voren{thumbURL=\"a.jpg\"}",
          "#VOREN{thumbURL=\"a.jpg\"}", "##VOREN thumbURL=\"a.jpg\"}"}) {
        EXPECT_EQ(thumbOf("Title" + std::string(tag)), "") << tag;
    }
}

TEST(PlaylistEntry, namesEndAtTheTag)
{
    expectNames("Artist - Title ##VOREN{thumbURL=\"c-d.jpg\"}", "Artist", "Title");
    expectNames("Title##VOREN{anything - at all", "", "Title");
    expectNames("##VOREN{thumbURL=\"c.jpg\"}A - B", "", "");
    expectNames("A - B #VOREN{x", "A", "B #VOREN{x");
}

TEST(PlaylistEntry, tagCountsOnlyBehindTheFirstComma)
{
    const md::PlaylistEntry entry = entryOf("#EXTINF:1##VOREN{thumbURL=\"a,b.jpg\"}");
    EXPECT_EQ(entry.title, "b.jpg\"}");
    EXPECT_EQ(entry.thumb, "");
}

TEST(PlaylistEntry, firstOfTwoTagsCounts)
{
    EXPECT_EQ(thumbOf("T##VOREN{thumbURL=\"a/1\"}##VOREN{thumbURL=\"a/2\"}"), "a/1");
}

TEST(PlaylistEntry, traces)
{
    const support::TraceCapture traces;
    entryOf("#EXTINF:12,A - B##VOREN{thumbURL=\"c.jpg\"}");
    const std::string parsed =
        "mdc_hlp_playlist_entry.cpp:#:createM3uEntryFromData(): Trying to parse ext3inf "
        "#EXTINF:12,A - B##VOREN{thumbURL=\"c.jpg\"}. sscanf returned 1\n";
    const std::string done =
        "mdc_hlp_playlist_entry.cpp:#:createM3uEntryFromData(): locator='nvl2://v/lists/song.mp3' title='B' "
        "artist='A' playtime='12s' thumb='nvl2://v/lists/c.jpg'\n    thumb2='c.jpg' "
        "plloc='nvl2://v/lists/a.m3u'\n";
    const std::vector<std::string> texts = traces.texts();
    ASSERT_EQ(texts.size(), 2U);
    EXPECT_EQ(support::TraceCapture::withoutLineNumber(texts[0]), parsed);
    EXPECT_EQ(support::TraceCapture::withoutLineNumber(texts[1]), done);
    EXPECT_EQ(traces.severityOf(parsed), 5000U);
    EXPECT_EQ(traces.severityOf(done), 5000U);
}

TEST(PlaylistEntry, tracesOfALineThatDoesNotMatch)
{
    const support::TraceCapture traces;
    entryOf("#EXTINF:x,A");
    entryOf("");
    EXPECT_TRUE(traces.has("mdc_hlp_playlist_entry.cpp:#:createM3uEntryFromData(): Trying to parse ext3inf "
                           "#EXTINF:x,A. sscanf returned 0\n"));
    EXPECT_TRUE(traces.has("mdc_hlp_playlist_entry.cpp:#:createM3uEntryFromData(): Trying to parse ext3inf "
                           ". sscanf returned -1\n"));
    EXPECT_EQ(traces.count("mdc_hlp_playlist_entry.cpp:#:createM3uEntryFromData(): "
                           "locator='nvl2://v/lists/song.mp3' title='' artist='' playtime='' thumb=''\n"
                           "    thumb2='' plloc='nvl2://v/lists/a.m3u'\n"),
              2U);
}

TEST(PlaylistSeconds, areThoseOfSscanf)
{
    const char* const pieces[] = {"#EXTINF:", "#EXTINF", "#EXT", ":", " ", "\t", "\r\n", "-",    "+", "0",
                                  "1",        "9",       "12",   ",", ".", "x",  "-1",   "0x1f", "",  "1e3"};
    // Few enough digits that an int holds them: the rest is undefined there.
    std::mt19937 random(5); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same texts in every run
    std::uniform_int_distribution<std::size_t> any(0, std::size(pieces) - 1);
    std::uniform_int_distribution<int> count(0, 4);
    int matches = 0;
    constexpr int kRounds = 20000;
    for (int round = 0; round < kRounds; ++round) {
        std::string line = round % 4 != 0 ? "#EXTINF:" : "";
        for (int i = count(random); i > 0; --i) {
            line += pieces[any(random)];
        }
        int theirs = -77;
        int ours = -77;
        const int expected = std::sscanf(line.c_str(), "#EXTINF:%d,", &theirs);
        ASSERT_EQ(md::scanSeconds(line.c_str(), ours), expected) << line;
        ASSERT_EQ(ours, theirs) << line;
        matches += expected == 1 ? 1 : 0;
    }
    EXPECT_GT(matches, kRounds / 10);
}
