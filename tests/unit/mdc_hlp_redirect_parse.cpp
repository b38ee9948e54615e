// The three readers of small playlists, text by text.
#include "mdc_hlp_redirect.h"

#include "support/trace_capture.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

constexpr const char* kUntouched = "untouched";

// What a reader found; "untouched" when nothing, and then it must not have touched the output.
std::string m3u(const std::string& text)
{
    std::string url = kUntouched;
    const bool found = md::parseM3U(text, url);
    EXPECT_EQ(found, url != kUntouched) << text;
    return url;
}

std::string simple(const std::string& text)
{
    std::string url = kUntouched;
    const bool found = md::parseSIMPLE(text, url);
    EXPECT_EQ(found, url != kUntouched) << text;
    return url;
}

// With a "+" in front when the reference is the medium itself.
std::string asx(const std::string& text)
{
    std::string url = kUntouched;
    bool mmsh = true;
    const bool found = md::parseASX(text, url, mmsh);
    EXPECT_EQ(found, url != kUntouched) << text;
    std::string again;
    bool other = false; // its former value does not matter
    EXPECT_EQ(md::parseASX(text, again, other), found) << text;
    EXPECT_EQ(other, mmsh) << text;
    return (found && mmsh ? "+" : "") + url;
}

std::string unknownProtocol(const std::string& rest)
{
    return "parseM3U() Unknown protocol for redirect \"" + rest + "\"\n";
}

} // namespace

TEST(ParseM3U, firstItemIsFound)
{
    EXPECT_EQ(m3u("#EXTM3U\nhttp://host/a\nhttp://host/b\n"), "http://host/a");
    EXPECT_EQ(m3u("#EXTM3U\n#EXTINF:1,A - B\nhttp://host/a\n"), "http://host/a");
    EXPECT_EQ(m3u("#EXTINF:1,A - B\nhttp://host/a\n"), "http://host/a");
    EXPECT_EQ(m3u("http://host/a\n"), "http://host/a");
    EXPECT_EQ(m3u("http://host/a"), "http://host/a");
}

TEST(ParseM3U, listsWithReturnsAloneAreRead)
{
    EXPECT_EQ(m3u("#EXTM3U\r#EXTINF:1,A\rhttp://host/a\rhttp://host/b\r"), "http://host/a");
}

TEST(ParseM3U, everySchemeOfMediaIsTaken)
{
    for (const char* url : {"file:/x", "file:///x", "http://h/x", "rtsp://h/x", "rtp://h/x", "mms://h/x",
                            "https://h/x", "mmsh://h/x", "http://"}) {
        EXPECT_EQ(m3u(std::string("#EXTM3U\n") + url + "\n"), url);
    }
}

TEST(ParseM3U, otherTextIsNot)
{
    for (const char* text :
         {"", "\n", "song.mp3", "/x", "ftp://h/x", "udp://h", "file:x", "http:/h/x", "httpx://", "HTTP://h/x",
          "Mms://h/x", " http://h/x", "\nhttp://h/x", "# c\nhttp://h/x"}) {
        EXPECT_EQ(m3u(text), kUntouched) << text;
        EXPECT_EQ(m3u(std::string("#EXTM3U\n") + text), kUntouched) << text;
    }
}

TEST(ParseM3U, namesCompareWithRegardToCase)
{
    EXPECT_EQ(m3u("#extm3u\nhttp://h/x\n"), kUntouched);
    EXPECT_EQ(m3u("#EXTM3U\n#extinf:1,A\nhttp://h/x\n"), kUntouched);
}

TEST(ParseM3U, directivesAreKnownByTheirBeginning)
{
    EXPECT_EQ(m3u("#EXTM3U8 more\nhttp://h/x\n"), "http://h/x");
    EXPECT_EQ(m3u("#EXTINFO\nhttp://h/x\n"), "http://h/x");
}

TEST(ParseM3U, oneLineOfEachDirectiveIsPassed)
{
    EXPECT_EQ(m3u("#EXTM3U\n#EXTM3U\nhttp://h/x\n"), kUntouched);
    EXPECT_EQ(m3u("#EXTM3U\n#EXTINF:1,A\n#EXTINF:2,B\nhttp://h/x\n"), kUntouched);
    EXPECT_EQ(m3u("#EXTINF:1,A\n#EXTM3U\nhttp://h/x\n"), kUntouched);
    EXPECT_EQ(m3u("#EXTM3U\n\nhttp://h/x\n"), kUntouched);
}

TEST(ParseM3U, returnAndLineFeedLeaveTheLineFeedInFront)
{
    EXPECT_EQ(m3u("#EXTM3U\r\nhttp://h/x\r\n"), kUntouched);
    EXPECT_EQ(m3u("#EXTM3U\r\n#EXTINF:1,A\r\nhttp://h/x\r\n"), kUntouched);
    EXPECT_EQ(m3u("#EXTINF:1,A\r\nhttp://h/x\r\n"), kUntouched);
    EXPECT_EQ(m3u("http://h/x\r\nhttp://h/y\r\n"), "http://h/x");
}

TEST(ParseM3U, aReturnAnywhereGoesBeforeALineFeed)
{
    EXPECT_EQ(m3u("#EXTM3U\nhttp://h/x\nrest\rhttp://h/y\n"), "http://h/y");
    EXPECT_EQ(m3u("#EXTM3U\n#EXTINF:1,A\nhttp://h/x\r"), kUntouched) << "the return is the last byte";
    EXPECT_EQ(m3u("http://h/x\nhttp://h/y\rhttp://h/z"), "http://h/x\nhttp://h/y");
}

TEST(ParseM3U, directiveWithoutAnEndIsAll)
{
    const support::TraceCapture traces;
    EXPECT_EQ(m3u("#EXTM3U"), kUntouched);
    EXPECT_EQ(m3u("#EXTM3U http://h/x"), kUntouched);
    EXPECT_EQ(m3u("#EXTM3U\n#EXTINF:1,http://h/x"), kUntouched);
    EXPECT_TRUE(traces.lines().empty());
}

TEST(ParseM3U, unknownProtocolIsTracedWithTheRest)
{
    const support::TraceCapture traces;
    m3u("#EXTM3U\n#EXTINF:1,A\nftp://h/x\nmore\n");
    EXPECT_EQ(traces.texts(), std::vector<std::string>{unknownProtocol("ftp://h/x\nmore\n")});
    EXPECT_EQ(traces.severityOf(unknownProtocol("ftp://h/x\nmore\n")), 4000U);
    m3u("#EXTM3U\r\nhttp://h/x\r\n");
    EXPECT_TRUE(traces.has(unknownProtocol("\nhttp://h/x\r\n")));
    m3u("#EXTM3U\n");
    EXPECT_TRUE(traces.has(unknownProtocol("")));
}

TEST(ParseM3U, foundUrlIsNotTraced)
{
    const support::TraceCapture traces;
    m3u("#EXTM3U\nhttp://h/x\n");
    EXPECT_TRUE(traces.lines().empty());
}

TEST(ParseASX, entryIsTheMediumItself)
{
    EXPECT_EQ(asx("<ASX version=\"3\"><Entry><Ref href=\"http://host/a\"/></Entry></ASX>"), "+http://host/a");
    EXPECT_EQ(asx("<asx>\r\n <entry>\r\n  <ref href = \"mms://h/a\" />\r\n </entry>\r\n</asx>"),
              "+mms://h/a");
}

TEST(ParseASX, entryRefIsAFurtherList)
{
    EXPECT_EQ(asx("<ASX version=\"3\"><EntryRef href=\"http://host/list.asx\"/></ASX>"),
              "http://host/list.asx");
}

TEST(ParseASX, entryRefWinsWhereverItStands)
{
    EXPECT_EQ(asx("<asx><entry><ref href=\"http://h/a\"/></entry><entryref href=\"http://h/b\"/></asx>"),
              "http://h/b");
}

TEST(ParseASX, firstReferenceOfTheFirstEntryCounts)
{
    EXPECT_EQ(asx("<asx><ref href=\"http://h/0\"/><entry><ref href=\"http://h/1\"/><ref href=\"http://h/2\"/>"
                  "</entry><entry><ref href=\"http://h/3\"/></entry></asx>"),
              "+http://h/1");
    EXPECT_EQ(asx("<asx><entry><title>A</title></entry><entry><ref href=\"http://h/3\"/></entry></asx>"),
              "+http://h/3");
}

TEST(ParseASX, tagsCompareWithoutRegardToCase)
{
    EXPECT_EQ(asx("<aSx><eNTRY><rEF HREF=\"http://h/a\"/>"), "+http://h/a");
    EXPECT_EQ(asx("<AsX><ENTRYref HREF=\"http://h/a\"/>"), "http://h/a");
}

TEST(ParseASX, firstQuotedTextBehindTheTagIsTheUrl)
{
    EXPECT_EQ(asx("<asx><entry><ref id=\"7\" href=\"http://h/a\"/>"), "+7");
    EXPECT_EQ(asx("<asx><entry><ref/><param name=\"x\"/>"), "+x");
    EXPECT_EQ(asx("<asx><entry><ref href='http://h/a'/></entry></asx>\"b\""), "+b");
    EXPECT_EQ(asx("<asx><entry><ref href=\"\"/>"), "+");
    EXPECT_EQ(asx("<asx><entry><ref href=\"a\r\nb\"/>"), "+a\r\nb");
}

TEST(ParseASX, textInFrontDoesNotMatter)
{
    EXPECT_EQ(asx("\xef\xbb\xbf<?xml?>\n<asx><entry><ref href=\"http://h/a\"/>"), "+http://h/a");
    EXPECT_EQ(asx("<entry><ref href=\"http://h/0\"/><asx><entry><ref href=\"http://h/1\"/>"), "+http://h/1");
}

TEST(ParseASX, withoutAsxNothingOfItIsLookedAt)
{
    EXPECT_EQ(asx(""), kUntouched);
    EXPECT_EQ(asx("<entry><ref href=\"http://h/a\"/></entry>"), kUntouched);
    EXPECT_EQ(asx("<entryref href=\"http://h/a\"/>"), kUntouched);
    EXPECT_EQ(asx("<as x><entry><ref href=\"http://h/a\"/>"), kUntouched);
}

TEST(ParseASX, asxWithoutAUsableTagIsNothing)
{
    for (const char* text : {"<asx>", "<asx><ref href=\"http://h/a\"/></asx>", "<asx><entry></entry></asx>",
                             "<asx><entry><ref href=http://h/a/>", "<asx><entry><ref href=\"http://h/a/>",
                             "<asx><entryref href=\"http://h/a/>"}) {
        EXPECT_EQ(asx(text), kUntouched) << text;
    }
}

TEST(ParseASX, referenceSectionIsTheMediumItself)
{
    EXPECT_EQ(asx("[Reference]\r\nRef1=http://host/a\r\nRef2=http://host/b\r\n"), "+http://host/a");
    EXPECT_EQ(asx("[Reference]\nRef1=http://host/a\nRef2=http://host/b\n"), "+http://host/a");
    EXPECT_EQ(asx("[Reference]\nRef1=http://host/a"), "+http://host/a");
    EXPECT_EQ(asx("x [rEFERENCE] y = z"), "+ z");
}

TEST(ParseASX, referenceEndsAtTheFirstReturnEvenBehindALineFeed)
{
    EXPECT_EQ(asx("[Reference]\nRef1=http://h/a\nRef2=http://h/b\r\n"), "+http://h/a\nRef2=http://h/b");
}

TEST(ParseASX, referenceMayBeEmpty)
{
    EXPECT_EQ(asx("[Reference]\r\nRef1=\r\n"), "+");
}

TEST(ParseASX, referenceSectionNeedsAnEqualsSignBehindIt)
{
    EXPECT_EQ(asx("Ref1=http://h/a\n[Reference]\n"), kUntouched);
    EXPECT_EQ(asx("[Reference]"), kUntouched);
    EXPECT_EQ(asx("[Reference\nRef1=http://h/a"), kUntouched);
}

TEST(ParseASX, asxThatNamesNothingFallsBackToAReferenceSection)
{
    EXPECT_EQ(asx("<asx><entry></entry></asx>[Reference]\nRef1=http://h/a\n"), "+http://h/a");
    EXPECT_EQ(asx("[Reference]\nRef1=http://h/a\n<asx>"), "+http://h/a");
}

TEST(ParseASX, flagStaysAsAnEntryRefLeftIt)
{
    EXPECT_EQ(asx("<asx><entryref href=none>[Reference]\nRef1=http://h/a\n"), "http://h/a");
    std::string url;
    bool mmsh = true;
    EXPECT_FALSE(md::parseASX("<asx><entryref href=none>", url, mmsh));
    EXPECT_FALSE(mmsh);
    EXPECT_FALSE(md::parseASX("nothing", url, mmsh));
    EXPECT_TRUE(mmsh);
}

TEST(ParseASX, tracesNothing)
{
    const support::TraceCapture traces;
    asx("<asx><entry><ref href=\"http://h/a\"/>");
    asx("nothing");
    EXPECT_TRUE(traces.lines().empty());
}

TEST(ParseSIMPLE, firstLineIsTheUrl)
{
    EXPECT_EQ(simple("http://host/a\r\nhttp://host/b\r\n"), "http://host/a");
    EXPECT_EQ(simple("http://host/a\nhttp://host/b\r"), "http://host/a");
    EXPECT_EQ(simple("http://host/a\rhttp://host/b\n"), "http://host/a");
    EXPECT_EQ(simple("http://host/a"), "http://host/a");
    EXPECT_EQ(simple("http://host/a b \t\n"), "http://host/a b \t");
}

TEST(ParseSIMPLE, fourSchemesAreTakenInAnyCase)
{
    for (const char* url : {"http://h", "HTTP://h", "https://h", "Https://h", "mms://h", "MMS://h",
                            "mmsh://h", "mmSH://h", "http://"}) {
        EXPECT_EQ(simple(std::string(url) + "\n"), url);
    }
}

TEST(ParseSIMPLE, otherTextIsNot)
{
    for (const char* text : {"", "\n", " http://h", "\r\nhttp://h", "rtsp://h", "file:///x", "http:/h",
                             "http", "#EXTM3U\nhttp://h", "\xef\xbb\xbfhttp://h", "mms:h"}) {
        EXPECT_EQ(simple(text), kUntouched) << text;
    }
}

TEST(ParseSIMPLE, tracesNothing)
{
    const support::TraceCapture traces;
    simple("http://h");
    simple("nothing");
    EXPECT_TRUE(traces.lines().empty());
}

TEST(ParseAny, nulEndsTheText)
{
    const auto text = [](const std::string& front, const std::string& behind) {
        std::string whole = front;
        whole += '\0';
        return whole += behind;
    };
    EXPECT_EQ(m3u(text("http://h/a", "b\n")), "http://h/a");
    EXPECT_EQ(m3u(text("#EXTM3U", "\nhttp://h/a\n")), kUntouched);
    EXPECT_EQ(simple(text("http://h/a", "b\n")), "http://h/a");
    EXPECT_EQ(asx(text("<asx>", "<entry><ref href=\"http://h/a\"/>")), kUntouched);
    EXPECT_EQ(asx(text("[Reference]\nRef1=http://h/a", "b\n")), "+http://h/a");
}

TEST(ParseAny, longTextsAreRead)
{
    const std::string url = "http://h/" + std::string(1000000, 'x');
    EXPECT_EQ(m3u("#EXTM3U\n" + url + "\n"), url);
    EXPECT_EQ(simple(url), url);
    EXPECT_EQ(asx("<asx>" + std::string(1000000, '<') + "<entry><ref \"" + url + "\""), "+" + url);
}
