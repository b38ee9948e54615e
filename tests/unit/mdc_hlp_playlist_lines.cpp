// Lines of a playlist: what they are, and to which entry they belong.
#include "mdc_hlp_playlist.h"

#include "support/trace_capture.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <list>
#include <string>
#include <vector>

namespace {

constexpr const char* kUntouched = "untouched";

struct Parsed
{
    int result = -77;
    std::string text = kUntouched;
    std::list<md::PlaylistEntry> entries;

    // "artist|title|playtime|locator" of every entry.
    std::vector<std::string> summary() const
    {
        std::vector<std::string> lines;
        for (const md::PlaylistEntry& entry : entries) {
            std::string line = entry.artist;
            line += '|' + entry.title + '|' + entry.playtime + '|' + entry.locator;
            lines.push_back(line);
        }
        return lines;
    }
};

using Lines = std::vector<std::string>;

Parsed parse(const std::string& text, md::Conversion_t conversion = md::kConversionNone,
             const std::string& locator = "/lists/a.m3u")
{
    Parsed parsed;
    const std::vector<unsigned char> data(text.begin(), text.end());
    parsed.result = parseM3uBufferToPlaylist(locator, data, conversion, parsed.entries, parsed.text);
    return parsed;
}

Lines itemsOf(const std::string& text)
{
    const Parsed parsed = parse(text);
    EXPECT_EQ(parsed.result, 0);
    return parsed.summary();
}

std::string nameOf(const std::string& text)
{
    return parse(text).text;
}

std::string lengthTrace(const char* step, int length)
{
    return "mdc_hlp_playlist_lines.cpp:#:parseM3uBufferToPlaylist(): Length of line after " +
           std::string(step) + " stripping is " + std::to_string(length) + " bytes.\n";
}

} // namespace

TEST(PlaylistLines, itemsBecomeEntriesInTheirOrder)
{
    const Parsed parsed = parse("#EXTM3U\n#EXTINF:1,A - B\none.mp3\n#EXTINF:2,C - D\ntwo.mp3\nthree.mp3\n");
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.summary(), (Lines{"A|B|1s|one.mp3", "C|D|2s|two.mp3", "|||three.mp3"}));
    EXPECT_EQ(parsed.text, kUntouched);
}

TEST(PlaylistLines, entriesAreAppended)
{
    Parsed parsed;
    parsed.entries.push_back({"first", "", "", "", "", "kept"});
    const std::string text = "a.mp3";
    parseM3uBufferToPlaylist("", {text.begin(), text.end()}, md::kConversionNone, parsed.entries,
                             parsed.text);
    EXPECT_EQ(parsed.summary(), (Lines{"|||first", "|||a.mp3"}));
    EXPECT_EQ(parsed.entries.front().extra, "kept");
    EXPECT_EQ(parsed.entries.back().extra, "");
}

TEST(PlaylistLines, nothingAndBlankLinesGiveNothing)
{
    for (const char* text : {"", "\n", "\r\n\r\n", " \t \n\n", "#EXTM3U", "#EXTM3U\n#EXTINF:1,A - B\n"}) {
        EXPECT_EQ(itemsOf(text), Lines{}) << text;
    }
}

TEST(PlaylistLines, lastLineNeedsNoEnd)
{
    EXPECT_EQ(itemsOf("a.mp3\nb.mp3"), (Lines{"|||a.mp3", "|||b.mp3"}));
    EXPECT_EQ(itemsOf("a.mp3\nb.mp3\n"), (Lines{"|||a.mp3", "|||b.mp3"}));
}

TEST(PlaylistLines, returnsAtEitherEndOfALineGo)
{
    EXPECT_EQ(itemsOf("\r\ra.mp3\r\r\n\rb.mp3\r"), (Lines{"|||a.mp3", "|||b.mp3"}));
    EXPECT_EQ(itemsOf("#EXTINF:1,A - B\r\na.mp3\r\n"), Lines{"A|B|1s|a.mp3"});
}

TEST(PlaylistLines, returnInsideALineEndsNothing)
{
    EXPECT_EQ(itemsOf("a.mp3\rb.mp3"), Lines{"|||a.mp3\rb.mp3"});
}

TEST(PlaylistLines, leadingWhiteSpaceGoes)
{
    EXPECT_EQ(itemsOf(" \t\v\f #EXTINF:1,A - B\n \t a b.mp3\n"), Lines{"A|B|1s|a b.mp3"});
    EXPECT_EQ(itemsOf("\r \r a.mp3"), Lines{"|||a.mp3"});
}

TEST(PlaylistLines, trailingWhiteSpaceIsPartOfAnItem)
{
    EXPECT_EQ(itemsOf("a.mp3 \t\r\n"), Lines{"|||a.mp3 \t"});
}

TEST(PlaylistLines, lengthsAreTraced)
{
    const support::TraceCapture traces;
    parse("\r  #EXTM3U\r\r\n\nabc");
    EXPECT_EQ(traces.count(lengthTrace("\r", 9)), 1U);
    EXPECT_EQ(traces.count(lengthTrace("space", 7)), 1U);
    EXPECT_EQ(traces.count(lengthTrace("\r", 0)), 1U);
    EXPECT_EQ(traces.count(lengthTrace("space", 0)), 1U);
    EXPECT_EQ(traces.count(lengthTrace("\r", 3)), 1U);
    EXPECT_EQ(traces.count(lengthTrace("space", 3)), 1U);
    EXPECT_EQ(traces.severityOf(lengthTrace("\r", 9)), 5000U);
    EXPECT_EQ(traces.severityOf(lengthTrace("space", 7)), 5000U);
}

TEST(PlaylistLines, linesAreTracedInTheirOrder)
{
    const support::TraceCapture traces;
    parse(" a\n\n");
    std::vector<std::string> texts;
    for (const std::string& text : traces.texts()) {
        if (text.find("Length of line") != std::string::npos) {
            texts.push_back(support::TraceCapture::withoutLineNumber(text));
        }
    }
    EXPECT_EQ(texts, (Lines{lengthTrace("\r", 2), lengthTrace("space", 1), lengthTrace("\r", 0),
                            lengthTrace("space", 0)}));
}

TEST(PlaylistLines, directivesAreKnownByTheirFirstSevenBytes)
{
    EXPECT_EQ(itemsOf("#EXTM3U8 and more\na.mp3"), Lines{"|||a.mp3"});
    EXPECT_EQ(nameOf("#EXTM3U8 and more\na.mp3"), kUntouched);
    EXPECT_EQ(itemsOf("#EXTINFO\na.mp3"), Lines{"|||a.mp3"});
    EXPECT_EQ(nameOf("#EXTINFO\na.mp3"), kUntouched);
    EXPECT_EQ(nameOf("#extm3u\na.mp3"), "extm3u");
    EXPECT_EQ(nameOf("#EXTM3\na.mp3"), "EXTM3");
}

TEST(PlaylistLines, extinfBelongsToTheNextItemOnly)
{
    EXPECT_EQ(itemsOf("#EXTINF:1,A - B\n\n \r\na.mp3\nb.mp3\n"), (Lines{"A|B|1s|a.mp3", "|||b.mp3"}));
}

TEST(PlaylistLines, laterExtinfReplacesTheOneBefore)
{
    EXPECT_EQ(itemsOf("#EXTINF:1,A - B\n#EXTINF:2,C - D\na.mp3"), Lines{"C|D|2s|a.mp3"});
    EXPECT_EQ(itemsOf("#EXTINF:1,A - B\n# x\n#EXTINF:oops\na.mp3"), Lines{"|||a.mp3"});
}

TEST(PlaylistLines, commentsBehindExtinfBelongToItAsTheyAre)
{
    EXPECT_EQ(itemsOf("#EXTINF:1,A - B\n # x \na.mp3"), Lines{"A|B# x|1s|a.mp3"});
    EXPECT_EQ(itemsOf("#EXTINF:1,A\n#EXTGRP:Rock\n#PLAYLIST:P\n#EXTM3U\na.mp3"),
              Lines{"|A#EXTGRP:Rock#PLAYLIST:P#EXTM3U|1s|a.mp3"});
    EXPECT_EQ(nameOf("#EXTINF:1,A\n#PLAYLIST:P\n# x\na.mp3"), kUntouched);
}

TEST(PlaylistLines, privateTagMayStandOnALineOfItsOwn)
{
    const Parsed parsed = parse("#EXTINF:1,A - B\n##VOREN{thumbURL=\"c.jpg\"}\na.mp3\n", md::kConversionNone,
                                "nvl2://v/x/a.m3u");
    ASSERT_EQ(parsed.entries.size(), 1U);
    EXPECT_EQ(parsed.entries.front().thumb, "nvl2://v/x/c.jpg");
    EXPECT_EQ(parsed.entries.front().title, "B");
}

TEST(PlaylistLines, commentsBehindAnItemBelongToNothing)
{
    EXPECT_EQ(itemsOf("a.mp3\n# x\n##VOREN{thumbURL=\"c.jpg\"}\n#EXTM3U\nb.mp3\n#EXTINF:1,C\nc.mp3"),
              (Lines{"|||a.mp3", "|||b.mp3", "|C|1s|c.mp3"}));
    EXPECT_EQ(nameOf("a.mp3\n# x\n#PLAYLIST:P\nb.mp3"), kUntouched);
}

TEST(PlaylistLines, playlistLineNamesThePlaylist)
{
    EXPECT_EQ(nameOf("#EXTM3U\n#PLAYLIST: \t My list \r\na.mp3"), "My list");
    EXPECT_EQ(nameOf("#PLAYLIST:\na.mp3"), "");
    EXPECT_EQ(nameOf("#PLAYLIST:One\n#PLAYLIST:Two\na.mp3"), "Two");
}

TEST(PlaylistLines, firstCommentNamesThePlaylistOtherwise)
{
    EXPECT_EQ(nameOf("#EXTM3U\n#  made by hand \t\r\n# on a Monday\na.mp3"), "made by hand");
    EXPECT_EQ(nameOf("#\n# second\na.mp3"), "");
    EXPECT_EQ(nameOf("##VOREN{x\na.mp3"), "#VOREN{x");
    EXPECT_EQ(nameOf("#PLAYLIST without a colon\n"), "PLAYLIST without a colon");
}

TEST(PlaylistLines, playlistLineWinsOverAComment)
{
    EXPECT_EQ(nameOf("# x\n#PLAYLIST:P\na.mp3"), "P");
    EXPECT_EQ(nameOf("#PLAYLIST:P\n# x\na.mp3"), "P");
    EXPECT_EQ(nameOf("#PLAYLIST:\n# x\na.mp3"), "");
}

TEST(PlaylistLines, nameIsNotConverted)
{
    EXPECT_EQ(parse("#PLAYLIST:f\xfcr\na.mp3", md::kConversionLatin1ToUtf8).text, "f\xfcr");
}

TEST(PlaylistLines, conversionReachesTheEntries)
{
    EXPECT_EQ(parse("#EXTINF:1,\xc4 - \xd6\na\xfc.mp3", md::kConversionLatin1ToUtf8).summary(),
              Lines{"\xc3\x84|\xc3\x96|1s|a\xfc.mp3"});
}

TEST(PlaylistLines, locatorOfThePlaylistReachesTheEntries)
{
    EXPECT_EQ(parse("x/a.mp3", md::kConversionNone, "nvl2://v/l/a.m3u").summary(),
              Lines{"|||nvl2://v/l/x/a.mp3"});
}

TEST(PlaylistLines, byteOrderMarkAtTheStartIsSkipped)
{
    EXPECT_EQ(itemsOf("\xef\xbb\xbf#EXTM3U\na.mp3"), Lines{"|||a.mp3"});
    EXPECT_EQ(itemsOf("\xef\xbb\xbf"
                      "a.mp3"),
              Lines{"|||a.mp3"});
    EXPECT_EQ(itemsOf("\xef\xbb\xbf"), Lines{});
    EXPECT_EQ(nameOf("\xef\xbb\xbf# x\na.mp3"), "x");
}

TEST(PlaylistLines, byteOrderMarkElsewhereIsText)
{
    EXPECT_EQ(itemsOf("\xef\xbb"), Lines{"|||\xef\xbb"});
    EXPECT_EQ(itemsOf("a.mp3\n\xef\xbb\xbf"
                      "b.mp3"),
              (Lines{"|||a.mp3", "|||\xef\xbb\xbf"
                                 "b.mp3"}));
    EXPECT_EQ(itemsOf("\xef\xbb\xbf\xef\xbb\xbf"
                      "a"),
              Lines{"|||\xef\xbb\xbf"
                    "a"});
}

TEST(PlaylistLines, nulAmongTheFirst512BytesMeansNoPlaylist)
{
    for (const std::size_t place : {0U, 1U, 20U, 511U}) {
        std::string text = "#PLAYLIST:P\na.mp3\n" + std::string(600, 'x') + "\n";
        text[place] = '\0';
        const Parsed parsed = parse(text);
        EXPECT_EQ(parsed.result, -EINVAL) << place;
        EXPECT_EQ(parsed.result, -22);
        EXPECT_TRUE(parsed.entries.empty());
        EXPECT_EQ(parsed.text, kUntouched);
    }
}

TEST(PlaylistLines, nulBehindTheFirst512BytesIsText)
{
    std::string text = "a.mp3\n" + std::string(600, 'x') + "\nb.mp3";
    text[512] = '\0';
    const Parsed parsed = parse(text);
    EXPECT_EQ(parsed.result, 0);
    ASSERT_EQ(parsed.entries.size(), 3U);
    EXPECT_EQ(parsed.entries.back().locator, "b.mp3");
}

TEST(PlaylistLines, nothingIsTracedOfDataThatAreNoPlaylist)
{
    const support::TraceCapture traces;
    EXPECT_EQ(parse(std::string("\0", 1)).result, -EINVAL);
    EXPECT_TRUE(traces.lines().empty());
}

TEST(PlaylistLines, manyCommentsAndLongLinesAreTaken)
{
    std::string text = "#EXTINF:1,A - B\n";
    for (int i = 0; i < 100000; ++i) {
        text += "#\n";
    }
    text += std::string(1000000, 'y') + "\n";
    const Parsed parsed = parse(text);
    ASSERT_EQ(parsed.entries.size(), 1U);
    EXPECT_EQ(parsed.entries.front().title, "B" + std::string(100000, '#'));
    EXPECT_EQ(parsed.entries.front().locator, std::string(1000000, 'y'));
}
