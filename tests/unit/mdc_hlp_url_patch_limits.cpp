// URL repair at its limits: 8191 bytes that are looked at, 8191 bytes of result.
#include "mdc_hlp_url_patch.h"

#include "support/trace_capture.h"

#include <algorithm>
#include <cstddef>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr std::size_t kMost = 8191;

std::string repeated(const std::string& text, std::size_t count)
{
    std::string result;
    for (std::size_t i = 0; i < count; ++i) {
        result += text;
    }
    return result;
}

std::string letters(std::size_t count)
{
    return std::string(count, 'a');
}

// A text with long runs of one letter as "(a*8000)", so that a failure can be read.
std::string packed(const std::string& text)
{
    std::string result;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t end = std::min(text.find_first_not_of(text[i], i), text.size());
        result += end - i < 10 ? text.substr(i, end - i)
                               : std::string("(") + text[i] + "*" + std::to_string(end - i) + ")";
        i = end;
    }
    return result;
}

std::string patched(const std::string& url)
{
    return packed(md::urlPatch(url));
}

} // namespace

// --- What is looked at ---

TEST(UrlPatchLimits, aLongUrlOfPlainBytesComesBackWhole)
{
    for (const std::size_t length : {kMost - 1, kMost, kMost + 1, 3 * kMost}) {
        EXPECT_EQ(patched(letters(length)), packed(letters(length))) << length;
    }
}

TEST(UrlPatchLimits, bytesBehindTheLimitNeedNoRepair)
{
    const std::string url = letters(kMost) + " \xe9|";
    EXPECT_EQ(patched(url), packed(url));
}

TEST(UrlPatchLimits, theLastByteThatIsLookedAtNeedsRepair)
{
    // Its escape does not fit: the result is as long as the input already.
    EXPECT_EQ(patched(letters(kMost - 1) + " zz"), packed(letters(kMost - 1)));
}

TEST(UrlPatchLimits, aRepairedUrlEndsWhereItWasLookedAt)
{
    EXPECT_EQ(patched("|" + letters(kMost)), packed("%7C" + letters(kMost - 3)));
    EXPECT_EQ(patched("\xe9" + letters(2 * kMost)), packed("%C3%A9" + letters(kMost - 6)));
}

TEST(UrlPatchLimits, aSequenceAcrossTheLimitIsCutOff)
{
    const support::TraceCapture traces;
    EXPECT_EQ(patched(letters(kMost - 1) + "\xc3\xa9"), packed(letters(kMost - 1)));
    EXPECT_TRUE(traces.has("urlPatch(): error: 8190: C3 is assumed to be ISO 8859-1!\n"));
    EXPECT_FALSE(traces.hasAnywhere("error: 8191:"));
}

TEST(UrlPatchLimits, whatAFullResultLeavesOutDoesNotCount)
{
    const std::string url = "\xc3\xa9" + letters(kMost - 6) + "\xe9";
    EXPECT_EQ(patched(url), packed("%C3%A9" + letters(kMost - 6)))
        << "the last byte would make it ISO 8859-1";
    const support::TraceCapture traces;
    md::urlPatch(" " + letters(kMost - 3) + "\xe9");
    EXPECT_TRUE(traces.has("urlPatch(): assume: ASCII\n"));
}

// --- The result ---

TEST(UrlPatchLimits, aShortUrlHasRoomForEveryByteInItsLongestForm)
{
    EXPECT_EQ(patched("\xe9"), packed("%C3%A9"));
    EXPECT_EQ(patched(repeated("\xe9", 1365)), packed(repeated("%C3%A9", 1365)));
    EXPECT_EQ(md::urlPatch(repeated("\xe9", 1365)).size(), kMost - 1);
}

TEST(UrlPatchLimits, anEscapeThatDoesNotFitIsLeftOut)
{
    for (std::size_t room = 0; room <= 2; ++room) {
        EXPECT_EQ(patched("|" + letters(kMost - 3 - room) + "|"), packed("%7C" + letters(kMost - 3 - room)))
            << room;
    }
    EXPECT_EQ(patched("|" + letters(kMost - 6) + "|"), packed("%7C" + letters(kMost - 6) + "%7C"));
}

TEST(UrlPatchLimits, plainBytesBehindAnEscapeThatIsLeftOutStillFit)
{
    EXPECT_EQ(patched("|" + letters(kMost - 5) + "|bcd"), packed("%7C" + letters(kMost - 5) + "bc"));
    EXPECT_EQ(patched("|" + letters(kMost - 5) + "||bcd"), packed("%7C" + letters(kMost - 5) + "bc"));
    EXPECT_EQ(patched("|" + letters(kMost - 4) + "|bcd"), packed("%7C" + letters(kMost - 4) + "b"));
    EXPECT_EQ(patched("|" + letters(kMost - 5) + "\xe9xy"), packed("%7C" + letters(kMost - 5) + "xy"));
}

TEST(UrlPatchLimits, latin1NeedsRoomForSixBytes)
{
    for (std::size_t room = 0; room <= 5; ++room) {
        EXPECT_EQ(patched("|" + letters(kMost - 3 - room) + "\xe9"),
                  packed("%7C" + letters(kMost - 3 - room)))
            << room;
    }
    EXPECT_EQ(patched("|" + letters(kMost - 9) + "\xe9"), packed("%7C" + letters(kMost - 9) + "%C3%A9"));
    EXPECT_EQ(patched(repeated("\xe9", 2000)), packed(repeated("%C3%A9", 1365)));
}

TEST(UrlPatchLimits, utf8NeedsRoomForTheWholeSequence)
{
    // 6, 9 and 12 bytes of room: just enough.
    EXPECT_EQ(patched("|" + letters(kMost - 9) + "\xc3\xa9"), packed("%7C" + letters(kMost - 9) + "%C3%A9"));
    EXPECT_EQ(patched("|" + letters(kMost - 12) + "\xe2\x82\xac"),
              packed("%7C" + letters(kMost - 12) + "%E2%82%AC"));
    EXPECT_EQ(patched("|" + letters(kMost - 15) + "\xf0\x9f\x8e\xb5"),
              packed("%7C" + letters(kMost - 15) + "%F0%9F%8E%B5"));
}

TEST(UrlPatchLimits, utf8WithoutRoomCountsAsLatin1)
{
    // 8 bytes of room: not for the sequence of 3, but for the first byte of it as ISO 8859-1.
    EXPECT_EQ(patched("|" + letters(kMost - 11) + "\xe2\x82\xac"),
              packed("%7C" + letters(kMost - 11) + "%C3%A2"));
    EXPECT_EQ(patched("|" + letters(kMost - 8) + "\xc3\xa9"), packed("%7C" + letters(kMost - 8)));
}

TEST(UrlPatchLimits, utf8WithoutRoomTurnsAllBeforeItIntoLatin1)
{
    const std::string url = repeated("\xc3\xa9", 1366);
    EXPECT_EQ(patched(repeated("\xc3\xa9", 1365)), packed(repeated("%C3%A9", 1365)));
    EXPECT_EQ(md::urlPatch(url).size(), kMost - 1);
    EXPECT_EQ(patched(url), packed(repeated("%C3%83%C2%A9", 682) + "%C3%83"));
}

TEST(UrlPatchLimits, bytesThatAreLeftOutAreTracedAllTheSame)
{
    const support::TraceCapture traces;
    md::urlPatch("|" + letters(kMost - 4) + "|\xe9");
    EXPECT_TRUE(traces.has("urlPatch(): error: 8188: 7C is invalid but ASCII!\n"));
    EXPECT_TRUE(traces.has("urlPatch(): error: 8189: E9 is assumed to be ISO 8859-1!\n"));
    EXPECT_TRUE(traces.has("urlPatch(): assume: ISO 8859-1\n"));
}

TEST(UrlPatchLimits, theInputIsTracedAsFarAsItWasLookedAtInHexAndWholeAsText)
{
    const std::string url = "|" + letters(kMost + 8);
    const support::TraceCapture traces;
    md::urlPatch(url);
    EXPECT_TRUE(traces.has("urlPatch(): input:  " + url + "\n"));
    EXPECT_TRUE(traces.hasAnywhere("00001ff0  61 61 61 61 61 61 61 61 61 61 61 61 61 61 61     |"));
    EXPECT_FALSE(traces.hasAnywhere("00002000 "));
}

TEST(UrlPatchLimits, repairingACutResultChangesNothing)
{
    for (const std::string& url : {repeated("\xe9", 2000), repeated("\xc3\xa9", 2000), repeated(" ", 4000),
                                   " " + repeated("%C3", 4000)}) {
        const std::string once = md::urlPatch(url);
        EXPECT_EQ(patched(once), packed(once));
    }
}

TEST(UrlPatchLimits, anEscapeOfTheInputMayBeCut)
{
    // 8188 bytes of room hold 2729 escapes and the "%" of one more.
    EXPECT_EQ(patched(" " + repeated("%C3", 4000)), packed("%20" + repeated("%C3", 2729) + "%"));
}

TEST(UrlPatchLimits, aUrlOfManyMegabytesIsLookedAtOnlyAtItsStart)
{
    const std::string url = " " + letters(64U << 20U);
    EXPECT_EQ(patched(url), packed("%20" + letters(kMost - 3)));
}
