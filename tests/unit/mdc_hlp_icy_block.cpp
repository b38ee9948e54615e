// The texts between the audio as stations send them, and as they should not.
#include "mdc_hlp_icy_block.h"

#include "support/slow_icy.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace {

using Value = std::optional<std::string>;

struct Case
{
    const char* name;
    std::string text;
    Value title;
    Value url = std::nullopt;
};

void PrintTo(const Case& value, std::ostream* out)
{
    *out << value.name;
}

class Block : public testing::TestWithParam<Case>
{
};

TEST_P(Block, saysItsTitleAndUrl)
{
    const md::IcyFields fields = md::parseIcyBlock(GetParam().text);
    EXPECT_EQ(fields.title, GetParam().title);
    EXPECT_EQ(fields.url, GetParam().url);
}

TEST_P(Block, saysTheSameWithItsPadding)
{
    const std::string padded = support::icyBlock(GetParam().text).substr(1) + std::string(16, '\0');
    const md::IcyFields fields = md::parseIcyBlock(padded);
    EXPECT_EQ(fields.title, GetParam().title);
    EXPECT_EQ(fields.url, GetParam().url);
}

// Cut anywhere, a block is still what the slow implementation reads.
TEST_P(Block, cutAnywhereIsTheSlowReaders)
{
    for (std::size_t size = 0; size <= GetParam().text.size(); ++size) {
        const std::string text = GetParam().text.substr(0, size);
        const support::SlowIcyFields expected = support::slowIcyFields(text);
        const md::IcyFields fields = md::parseIcyBlock(text);
        EXPECT_EQ(fields.title, expected.hasTitle ? Value(expected.title) : std::nullopt) << text;
        EXPECT_EQ(fields.url, expected.hasUrl ? Value(expected.url) : std::nullopt) << text;
    }
}

std::string nameOf(const testing::TestParamInfo<Case>& info)
{
    return info.param.name;
}

const std::vector<Case> kStations = {
    {"plain", "StreamTitle='Artist - Title';", "Artist - Title"},
    {"titleAndUrl", "StreamTitle='Artist - Title';StreamUrl='http://radio.example/';", "Artist - Title",
     "http://radio.example/"},
    {"emptyUrl", "StreamTitle='Artist - Title';StreamUrl='';", "Artist - Title", ""},
    {"urlFirst", "StreamUrl='http://radio.example/';StreamTitle='Artist - Title';", "Artist - Title",
     "http://radio.example/"},
    {"emptyTitle", "StreamTitle='';", ""},
    {"onlyADash", "StreamTitle=' - ';StreamUrl='';", " - ", ""},
    {"apostrophe", "StreamTitle='Guns N' Roses - Sweet Child O' Mine';",
     "Guns N' Roses - Sweet Child O' Mine"},
    {"apostropheAtTheEnd", "StreamTitle='Nothin'';", "Nothin'"},
    {"apostropheAtTheEndAndUrl", "StreamTitle='Nothin'';StreamUrl='';", "Nothin'", ""},
    {"apostropheAtTheStart", "StreamTitle=''Til I Collapse';", "'Til I Collapse"},
    {"onlyApostrophes", "StreamTitle=''''';", "'''"},
    {"semicolon", "StreamTitle='AC;DC; Live';StreamUrl='';", "AC;DC; Live", ""},
    {"quoteAndSemicolon", "StreamTitle='Rockin'; Rollin';StreamUrl='';", "Rockin'; Rollin", ""},
    {"quoteAndSemicolonAtTheEnd", "StreamTitle='Rockin';';", "Rockin';"},
    {"equalsSign", "StreamTitle='E=mc2; x=1';", "E=mc2; x=1"},
    {"quoteSemicolonAndEqualsSign", "StreamTitle='Rockin';x=1';", "Rockin';x=1"},
    {"doubleQuotes", "StreamTitle='\"Heroes\" - Live';", "\"Heroes\" - Live"},
    {"ampersandInUrl", "StreamTitle='a';StreamUrl='http://x/?a=1&b='2';c=3;d';", "a",
     "http://x/?a=1&b='2';c=3;d"},
    {"songDetailsInUrl", "StreamTitle='A - B';StreamUrl='&artist=A&title=B&duration=215000&cover=';", "A - B",
     "&artist=A&title=B&duration=215000&cover="},
    {"advertising", "StreamTitle='';adw_ad='true';durationMilliseconds='29985';insertionType='preroll';", ""},
    {"unknownKeyBetween", "StreamTitle='Artist - Title';adw_ad='false';StreamUrl='u';", "Artist - Title",
     "u"},
    {"unknownKeyFirst", "adw_ad='StreamTitle';StreamTitle='Artist';", "Artist"},
    {"htmlEntities", "StreamTitle='Simon &amp; Garfunkel';", "Simon &amp; Garfunkel"},
    {"jsonInTitle", "StreamTitle='{\"t\":\"x\";\"a\":\"y\"}';", "{\"t\":\"x\";\"a\":\"y\"}"},
    {"textInTitle", "StreamTitle='text=\"Song\" song_spot=\"M\" MediaBaseId=\"0\"';",
     "text=\"Song\" song_spot=\"M\" MediaBaseId=\"0\""},
    {"blanksAround", " StreamTitle='a'; StreamUrl='b'; ", "a", "b"},
    {"lineBreaks", "StreamTitle='a';\r\nStreamUrl='b';\r\n", "a", "b"},
    {"lowerCaseKeys", "streamtitle='a';STREAMURL='b';", "a", "b"},
    {"utf8", "StreamTitle='Bj\xc3\xb6rk - J\xc3\xb3ga';", "Bj\xc3\xb6rk - J\xc3\xb3ga"},
    {"latin1", "StreamTitle='Bj\xf6rk - J\xf3ga';", "Bj\xc3\xb6rk - J\xc3\xb3ga"},
    {"cyrillic", "StreamTitle='\xd0\x9a\xd0\xb8\xd0\xbd\xd0\xbe';", "\xd0\x9a\xd0\xb8\xd0\xbd\xd0\xbe"},
    {"japanese", "StreamTitle='\xe5\x9d\x82\xe6\x9c\xac';", "\xe5\x9d\x82\xe6\x9c\xac"},
    {"emoji", "StreamTitle='\xf0\x9f\x8e\xb5';", "\xf0\x9f\x8e\xb5"},
    {"eachValueItsCharacterSet", "StreamTitle='\xc3\xb6';StreamUrl='\xf6';", "\xc3\xb6", "\xc3\xb6"},
};

const std::vector<Case> kBroken = {
    {"nothing", "", std::nullopt},
    {"garbage", "no key here", std::nullopt},
    {"onlyPunctuation", "=;';=';", std::nullopt},
    {"keyWithoutValue", "StreamTitle", std::nullopt},
    {"keyAndEqualsSign", "StreamTitle=", ""},
    {"openingQuoteOnly", "StreamTitle='", ""},
    {"noClosingQuote", "StreamTitle='Artist - Title", "Artist - Title"},
    {"noClosingQuoteInTheUrl", "StreamTitle='a';StreamUrl='http://x", "a", "http://x"},
    {"noSemicolon", "StreamTitle='Artist - Title'", "Artist - Title"},
    {"noSemicolonButBlanks", "StreamTitle='Artist - Title' \r\n", "Artist - Title"},
    {"noOpeningQuote", "StreamTitle=Artist - Title;StreamUrl=http://x/;", "Artist - Title", "http://x/"},
    {"noQuotesButSemicolons", "StreamTitle=Artist; Title", "Artist; Title"},
    {"noQuotesNoSemicolon", "StreamTitle=Artist - Title", "Artist - Title"},
    {"garbageBehindAValue", "StreamTitle='Artist';garbage", "Artist"},
    {"garbageBehindTheLastOfTwoEnds", "StreamTitle='Rockin'; Rollin';garbage", "Rockin'; Rollin"},
    {"garbageInFront", "?? StreamTitle='Artist';", "Artist"},
    {"twoSemicolons", "StreamTitle='a';;StreamUrl='b';;", "a", "b"},
    {"closingQuoteLostBeforeAKey", "StreamTitle='a;StreamUrl='b';", "a;StreamUrl='b"},
    {"sameKeyTwice", "StreamTitle='a';StreamTitle='b';", "b"},
    {"longerKey", "MyStreamTitle='a';StreamTitle2='b';", std::nullopt},
    {"textBehindANul", std::string("StreamTitle='a';\0StreamTitle='b';", 33), "a"},
    {"nulInAValue", std::string("StreamTitle='a\0b';", 18), "a"},
    {"nulFirst", std::string("\0StreamTitle='a';", 17), std::nullopt},
    {"controlCharacters", "StreamTitle='a\tb\r\nc\x1b[2Jd\x7f';", "a b  c [2Jd "},
    {"controlCharactersInLatin1", "StreamTitle='\xe9\x01\xe9';", "\xc3\xa9 \xc3\xa9"},
};

INSTANTIATE_TEST_SUITE_P(Stations, Block, testing::ValuesIn(kStations), nameOf);
INSTANTIATE_TEST_SUITE_P(Broken, Block, testing::ValuesIn(kBroken), nameOf);

// --- Character sets ---

TEST(IcyText, everyCodePointInUtf8Passes)
{
    for (std::uint32_t code = 0x80; code <= 0x10ffff; code += code < 0x10000 ? 1 : 0x11) {
        if (code < 0xd800 || code > 0xdfff) {
            std::string text;
            support::appendUtf8(text, code);
            ASSERT_EQ(md::icyText(text), text) << code;
        }
    }
}

TEST(IcyText, everyLatin1CharacterAloneIsConverted)
{
    for (std::uint32_t code = 0x80; code <= 0xff; ++code) {
        std::string expected = "x";
        support::appendUtf8(expected, code);
        EXPECT_EQ(md::icyText("x" + std::string(1, static_cast<char>(code))), expected);
    }
}

TEST(IcyText, whatUtf8ForbidsCountsAsLatin1)
{
    for (const std::string text :
         {"\xc0\xaf", "\xc1\xbf", "\xe0\x80\xaf", "\xe0\x9f\xbf", "\xf0\x80\x80\xaf", "\xf0\x8f\xbf\xbf",
          "\xed\xa0\x80", "\xed\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff", "\x80", "\xc3",
          "\xe2\x82", "\xf0\x9f\x8e", "\xc3(", "\xe2(\xac", "\xe2\x82(", "\xf0\x9f\x8e("}) {
        std::string expected;
        for (const char byte : text) {
            support::appendUtf8(expected, static_cast<unsigned char>(byte));
        }
        EXPECT_EQ(md::icyText(text), expected);
    }
}

TEST(IcyText, theLimitsOfUtf8Pass)
{
    for (const std::string text : {"\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
                                   "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_EQ(md::icyText(text), text);
    }
}

TEST(IcyText, asciiPassesButForControls)
{
    for (int code = 0; code < 0x80; ++code) {
        const char character = static_cast<char>(code);
        const bool control = code < 0x20 || code == 0x7f;
        EXPECT_EQ(md::icyText(std::string(1, character)), std::string(1, control ? ' ' : character));
    }
}

// --- Size ---

TEST(LargestBlock, isReadWhateverItHolds)
{
    constexpr std::size_t kSize = 4080;
    for (const std::string piece :
         {"';", "'", ";", "=", "a", "a=", "a='", "a=';", "StreamTitle='", "';x='", "; ", " ", "';a", ";a"}) {
        std::string text = "StreamTitle='";
        while (text.size() + piece.size() <= kSize) {
            text += piece;
        }
        const support::SlowIcyFields expected = support::slowIcyFields(text);
        const md::IcyFields fields = md::parseIcyBlock(text);
        EXPECT_EQ(fields.title, expected.hasTitle ? Value(expected.title) : std::nullopt) << piece;
        EXPECT_EQ(fields.url, expected.hasUrl ? Value(expected.url) : std::nullopt) << piece;
    }
}

} // namespace
