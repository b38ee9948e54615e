// Percent-encoding and decoding: the exact bytes, in both directions.
#include "mdc_hlp_url_encode.h"

#include <array>
#include <cstddef>
#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace {

// What becomes of each byte: itself, or its escape. Row and column are its two hexadecimal digits.
constexpr std::array<std::array<const char*, 16>, 16> kEncoded{{
    {"", "%01", "%02", "%03", "%04", "%05", "%06", "%07", "%08", "%09", "%0A", "%0B", "%0C", "%0D", "%0E",
     "%0F"},
    {"%10", "%11", "%12", "%13", "%14", "%15", "%16", "%17", "%18", "%19", "%1A", "%1B", "%1C", "%1D", "%1E",
     "%1F"},
    {"%20", "%21", "%22", "%23", "%24", "%25", "%26", "%27", "%28", "%29", "%2A", "%2B", "%2C", "-", ".",
     "/"},
    {"0", "1", "2", "3", "4", "5", "6", "7", "8", "9", ":", ";", "<", "=", ">", "%3F"},
    {"%40", "A", "B", "C", "D", "E", "F", "G", "H", "I", "J", "K", "L", "M", "N", "O"},
    {"P", "Q", "R", "S", "T", "U", "V", "W", "X", "Y", "Z", "%5B", "\\", "%5D", "^", "_"},
    {"`", "a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l", "m", "n", "o"},
    {"p", "q", "r", "s", "t", "u", "v", "w", "x", "y", "z", "{", "|", "}", "~", "\x7f"},
    {"%80", "%81", "%82", "%83", "%84", "%85", "%86", "%87", "%88", "%89", "%8A", "%8B", "%8C", "%8D", "%8E",
     "%8F"},
    {"%90", "%91", "%92", "%93", "%94", "%95", "%96", "%97", "%98", "%99", "%9A", "%9B", "%9C", "%9D", "%9E",
     "%9F"},
    {"%A0", "%A1", "%A2", "%A3", "%A4", "%A5", "%A6", "%A7", "%A8", "%A9", "%AA", "%AB", "%AC", "%AD", "%AE",
     "%AF"},
    {"%B0", "%B1", "%B2", "%B3", "%B4", "%B5", "%B6", "%B7", "%B8", "%B9", "%BA", "%BB", "%BC", "%BD", "%BE",
     "%BF"},
    {"%C0", "%C1", "%C2", "%C3", "%C4", "%C5", "%C6", "%C7", "%C8", "%C9", "%CA", "%CB", "%CC", "%CD", "%CE",
     "%CF"},
    {"%D0", "%D1", "%D2", "%D3", "%D4", "%D5", "%D6", "%D7", "%D8", "%D9", "%DA", "%DB", "%DC", "%DD", "%DE",
     "%DF"},
    {"%E0", "%E1", "%E2", "%E3", "%E4", "%E5", "%E6", "%E7", "%E8", "%E9", "%EA", "%EB", "%EC", "%ED", "%EE",
     "%EF"},
    {"%F0", "%F1", "%F2", "%F3", "%F4", "%F5", "%F6", "%F7", "%F8", "%F9", "%FA", "%FB", "%FC", "%FD", "%FE",
     "%FF"},
}};

// Every byte but NUL, in order.
std::string everyByte()
{
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

std::string everyByteEncoded()
{
    std::string text;
    for (const auto& row : kEncoded) {
        for (const char* each : row) {
            text += each;
        }
    }
    return text;
}

} // namespace

// --- Encoding ---

TEST(UrlEncode, escapesTheSpaceAndLeavesWhatSeparatesTheParts)
{
    EXPECT_EQ(md::urlEncode("http://host/a b"), "http://host/a%20b");
    EXPECT_EQ(md::urlEncode("http://host:80/a/b;c=d"), "http://host:80/a/b;c=d");
}

TEST(UrlEncode, escapesQueryAndUserSeparators)
{
    EXPECT_EQ(md::urlEncode("http://u@h/x?y=1&z"), "http://u%40h/x%3Fy=1%26z");
}

TEST(UrlEncode, everyByteAlone)
{
    for (std::size_t byte = 1; byte < 256; ++byte) {
        EXPECT_EQ(md::urlEncode(std::string(1, static_cast<char>(byte))), kEncoded[byte / 16][byte % 16])
            << byte;
    }
}

TEST(UrlEncode, everyByteAmongTheOthers)
{
    EXPECT_EQ(md::urlEncode(everyByte()), everyByteEncoded());
}

TEST(UrlEncode, escapesWhatIsEscapedOnceMore)
{
    EXPECT_EQ(md::urlEncode("%"), "%25");
    EXPECT_EQ(md::urlEncode("a%20b"), "a%2520b");
    EXPECT_EQ(md::urlEncode(md::urlEncode("a b")), "a%2520b");
}

TEST(UrlEncode, escapesUtf8ByteByByte)
{
    EXPECT_EQ(md::urlEncode("\xc3"), "%C3");
    EXPECT_EQ(md::urlEncode("caf\xc3\xa9"), "caf%C3%A9");
}

TEST(UrlEncode, leavesMediaVolumeUrlsWhateverTheirCase)
{
    for (const char* url : {"nvl2:/a b", "NVL2://x y", "nVl2: ?@[]%\xff", "nvl2:"}) {
        EXPECT_EQ(md::urlEncode(url), url);
    }
    const std::string withNul("nvl2:a b\0c d", 12);
    EXPECT_EQ(md::urlEncode(withNul), withNul);
}

TEST(UrlEncode, escapesWhatOnlyResemblesAMediaVolumeUrl)
{
    EXPECT_EQ(md::urlEncode("nvl2 : b"), "nvl2%20:%20b");
    EXPECT_EQ(md::urlEncode("nvl3: b"), "nvl3:%20b");
    EXPECT_EQ(md::urlEncode(" nvl2:"), "%20nvl2:");
    EXPECT_EQ(md::urlEncode("xnvl2: b"), "xnvl2:%20b");
    EXPECT_EQ(md::urlEncode("nvl2 "), "nvl2%20");
    EXPECT_EQ(md::urlEncode(std::string("nvl2\0: b", 8)), std::string("nvl2\0: b", 8)) << "nothing to escape";
}

TEST(UrlEncode, theEmptyUrlStaysEmpty)
{
    EXPECT_EQ(md::urlEncode(""), "");
}

TEST(UrlEncode, aUrlWithoutAByteToEscapeIsHandedBackItself)
{
    std::string url = "http://host/a-path-that-is-too-long-for-a-string-without-memory-of-its-own";
    const std::string expected = url;
    const char* memory = url.data();
    const std::string result = md::urlEncode(std::move(url));
    EXPECT_EQ(result, expected);
    EXPECT_TRUE(result.data() == memory);

    std::string volume = "nvl2://a path that is too long for a string without memory of its own";
    const char* volumeMemory = volume.data();
    EXPECT_TRUE(md::urlEncode(std::move(volume)).data() == volumeMemory);
}

TEST(UrlEncode, looksNoFurtherThanTheFirstNul)
{
    EXPECT_EQ(md::urlEncode(std::string("a b\0c d", 7)), "a%20b");
    const std::string nothingToEscapeInFront("ab\0c d", 6);
    EXPECT_EQ(md::urlEncode(nothingToEscapeInFront), nothingToEscapeInFront);
    EXPECT_EQ(md::urlEncode(std::string(1, '\0')), std::string(1, '\0'));
}

TEST(UrlEncode, longUrlsAreNotCut)
{
    constexpr std::size_t kCount = 1000000;
    std::string expected;
    for (std::size_t i = 0; i < kCount; ++i) {
        expected += "%20";
    }
    EXPECT_TRUE(md::urlEncode(std::string(kCount, ' ')) == expected);
}

// --- Decoding ---

TEST(UrlDecode, turnsEscapesIntoBytesAndLeavesTheRest)
{
    EXPECT_EQ(md::urlDecode("%41%4a%zz%4"), "AJ%zz%4");
    EXPECT_EQ(md::urlDecode("http://host/a%20b"), "http://host/a b");
}

TEST(UrlDecode, leavesThePlus)
{
    EXPECT_EQ(md::urlDecode("a+b"), "a+b");
    EXPECT_EQ(md::urlDecode("a%2Bb"), "a+b");
}

TEST(UrlDecode, everyByteInDigitsOfEveryCase)
{
    const std::string upper = "0123456789ABCDEF";
    const std::string lower = "0123456789abcdef";
    for (std::size_t byte = 0; byte < 256; ++byte) {
        for (const std::string& high : {upper, lower}) {
            for (const std::string& low : {upper, lower}) {
                const std::string text = std::string("<%") + high[byte / 16] + low[byte % 16] + ">";
                EXPECT_EQ(md::urlDecode(text), std::string("<") + static_cast<char>(byte) + ">") << text;
            }
        }
    }
}

TEST(UrlDecode, leavesAPercentSignWithoutTwoDigitsInEveryForm)
{
    const std::string digits = "0123456789abcdefABCDEF";
    for (int first = 1; first < 256; ++first) {
        for (int second = 1; second < 256; ++second) {
            const std::string pair{static_cast<char>(first), static_cast<char>(second)};
            if (pair.find_first_not_of(digits) != std::string::npos) {
                ASSERT_EQ(md::urlDecode("%" + pair), "%" + pair);
            }
        }
    }
}

TEST(UrlDecode, goesOnWithTheCharacterBehindAPercentSignThatStays)
{
    EXPECT_EQ(md::urlDecode("%%41"), "%A");
    EXPECT_EQ(md::urlDecode("%4%41"), "%4A");
    EXPECT_EQ(md::urlDecode("%zz%41"), "%zzA");
    EXPECT_EQ(md::urlDecode("%%%%"), "%%%%");
}

TEST(UrlDecode, leavesAPercentSignAtTheEnd)
{
    EXPECT_EQ(md::urlDecode("%"), "%");
    EXPECT_EQ(md::urlDecode("%4"), "%4");
    EXPECT_EQ(md::urlDecode("a%"), "a%");
    EXPECT_EQ(md::urlDecode("a%4"), "a%4");
}

TEST(UrlDecode, doesNotDecodeWhatItDecoded)
{
    EXPECT_EQ(md::urlDecode("%2541"), "%41");
    EXPECT_EQ(md::urlDecode("%25%34%31"), "%41");
}

TEST(UrlDecode, anEscapedNulIsAByteOfTheResult)
{
    EXPECT_EQ(md::urlDecode("a%00b"), std::string("a\0b", 3));
    EXPECT_EQ(md::urlDecode("%00%00%41"), std::string("\0\0A", 3));
}

TEST(UrlDecode, looksNoFurtherThanTheFirstNul)
{
    EXPECT_EQ(md::urlDecode(std::string("a%41\0b%41", 9)), "aA");
    EXPECT_EQ(md::urlDecode(std::string("a%4\0001", 5)), "a%4");
    EXPECT_EQ(md::urlDecode(std::string("%41%00%42\0c", 11)), std::string("A\0B", 3));
}

TEST(UrlDecode, everyByteThatIsNoEscapeStays)
{
    std::string text = everyByte();
    text.erase(text.find('%'), 1);
    EXPECT_EQ(md::urlDecode(text), text);
    EXPECT_EQ(md::urlDecode(""), "");
}

TEST(UrlDecode, undoesTheEncoding)
{
    EXPECT_EQ(md::urlDecode(md::urlEncode(everyByte())), everyByte());
    EXPECT_EQ(md::urlDecode(md::urlEncode("%41%zz%")), "%41%zz%");
}

// --- C functions; mdc_hlp_text_buffer.cpp has the rules for their buffers ---

TEST(UrlEncodeForC, encodesAndDecodes)
{
    std::array<char, 64> buffer{};
    EXPECT_EQ(mdc_httphelper_urlEncode("http://u@h/a b", buffer.data(), 64), 0);
    EXPECT_STREQ(buffer.data(), "http://u%40h/a%20b");
    EXPECT_EQ(mdc_httphelper_urlDecode("http://u%40h/a%20b", buffer.data(), 64), 0);
    EXPECT_STREQ(buffer.data(), "http://u@h/a b");
}

TEST(UrlEncodeForC, anEscapedNulEndsTheDecodedText)
{
    std::array<char, 8> buffer{};
    buffer.fill('x');
    EXPECT_EQ(mdc_httphelper_urlDecode("a%00b", buffer.data(), 8), 0);
    EXPECT_STREQ(buffer.data(), "a");
    EXPECT_EQ(buffer[2], 'x') << "more than the text was written";
    EXPECT_EQ(mdc_httphelper_urlDecode("a%00b", buffer.data(), 2), 0) << "only what is copied has to fit";
}
