// ISO 8859-1 to UTF-8: every byte has a meaning, so nothing can fail.
#include "mdp_charset.h"

#include <cstddef>
#include <gtest/gtest.h>
#include <string>

namespace {

// The UTF-8 form of a code point below 0x100, from the definition of the encoding.
std::string encoded(unsigned int codePoint)
{
    if (codePoint < 0x80) {
        return std::string(1, static_cast<char>(codePoint));
    }
    return {static_cast<char>(0xc0 | (codePoint >> 6)), static_cast<char>(0x80 | (codePoint & 0x3f))};
}

} // namespace

TEST(Latin1ToUtf8, everyByteHasItsCodePoint)
{
    for (unsigned int byte = 0; byte <= 0xff; ++byte) {
        EXPECT_EQ(mdpLatin1ToUtf8(std::string(1, static_cast<char>(byte))), encoded(byte)) << "byte " << byte;
    }
}

TEST(Latin1ToUtf8, asciiStaysAsItIs)
{
    const std::string ascii = "Artist - Title (2001) #1 \t\r\n~";
    EXPECT_EQ(mdpLatin1ToUtf8(ascii), ascii);
}

TEST(Latin1ToUtf8, lettersWithMarksBecomeTwoBytes)
{
    EXPECT_EQ(mdpLatin1ToUtf8("M\xfcnchen, caf\xe9, \xc5ngstr\xf6m, \xdf"),
              "M\u00fcnchen, caf\u00e9, \u00c5ngstr\u00f6m, \u00df");
}

TEST(Latin1ToUtf8, controlCodesFrom80To9fAreKept)
{
    EXPECT_EQ(mdpLatin1ToUtf8("\x80\x9f"), "\xc2\x80\xc2\x9f");
}

TEST(Latin1ToUtf8, theBorderBetweenTheTwoLeadBytesIsRight)
{
    EXPECT_EQ(mdpLatin1ToUtf8("\xbf\xc0\xff"), "\xc2\xbf\xc3\x80\xc3\xbf");
}

TEST(Latin1ToUtf8, nulBytesDoNotEndTheText)
{
    const std::string latin1("a\0\xe4\0b", 5);
    EXPECT_EQ(mdpLatin1ToUtf8(latin1), std::string("a\0\xc3\xa4\0b", 6));
}

TEST(Latin1ToUtf8, emptyStaysEmpty)
{
    EXPECT_EQ(mdpLatin1ToUtf8(""), "");
}

TEST(Latin1ToUtf8, textThatIsUtf8AlreadyIsConvertedByteByByte)
{
    EXPECT_EQ(mdpLatin1ToUtf8("\xc3\xa4"), "\xc3\x83\xc2\xa4");
}

TEST(Latin1ToUtf8, longTextKeepsItsOrder)
{
    std::string latin1;
    std::string expected;
    for (unsigned int i = 0; i < 100000; ++i) {
        latin1 += static_cast<char>(i * 7 % 256);
        expected += encoded(i * 7 % 256);
    }
    EXPECT_EQ(mdpLatin1ToUtf8(latin1), expected);
}
