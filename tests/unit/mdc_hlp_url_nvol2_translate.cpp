// URLs of media volumes: their parts, and their translation into native paths or media IDs and names.
#include "mdc_hlp_url_nvol2.h"

#include "support/random.h"
#include "support/trace_capture.h"
#include "support/volume.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using support::TraceCapture;
using support::Volume;
using Texts = std::vector<std::string>;

struct Parts
{
    std::string protocol = "untouched";
    std::string volumeId = "untouched";
    std::string path = "untouched";

    bool operator==(const Parts& other) const
    {
        return protocol == other.protocol && volumeId == other.volumeId && path == other.path;
    }
};

std::ostream& operator<<(std::ostream& out, const Parts& parts)
{
    return out << "\"" << parts.protocol << "\" \"" << parts.volumeId << "\" \"" << parts.path << "\"";
}

Parts parse(const std::string& url)
{
    Parts parts;
    EXPECT_TRUE(md::parseNvol2Url(url, parts.protocol, parts.volumeId, parts.path)) << url;
    return parts;
}

// The same by other means, letter by letter.
Parts partsLetterByLetter(const std::string& url)
{
    std::string rest;
    Parts parts;
    for (const char letter : url) {
        rest += letter;
        const bool endsProtocol = rest.size() >= 3 && rest.compare(rest.size() - 3, 3, "://") == 0;
        if (endsProtocol && parts.protocol == "untouched") {
            parts.protocol = rest.substr(0, rest.size() - 3);
            rest.clear();
        }
    }
    parts.volumeId.clear();
    parts.path.clear();
    bool isInPath = false;
    for (const char letter : rest) {
        if (isInPath) {
            parts.path += letter;
        } else if (letter == '/') {
            isInPath = true;
        } else {
            parts.volumeId += letter;
        }
    }
    return parts;
}

// The lines of the parser, in order.
Texts parseTraces(const std::string& url, const Texts& rest)
{
    Texts all{"parseNvol2Url() uri=" + url + "\n"};
    for (const std::string& text : rest) {
        all.push_back("MdchUrlNvol2::parseNvol2Url() " + text + "\n");
    }
    return all;
}

void expectLevel(const TraceCapture& traces, unsigned int severity)
{
    for (const auto& line : traces.lines()) {
        EXPECT_EQ(line.level, 0x00680000U | severity) << line.text;
    }
}

TEST(ParseVolumeUrl, givesProtocolVolumeAndPath)
{
    EXPECT_EQ(parse("nvl2://1234-ABCD/music/a.mp3"), (Parts{"nvl2", "1234-ABCD", "music/a.mp3"}));
    EXPECT_EQ(parse("nvl2://1234-ABCD"), (Parts{"nvl2", "1234-ABCD", ""}));
    EXPECT_EQ(parse("nvl2://1234-ABCD/"), (Parts{"nvl2", "1234-ABCD", ""}));
    EXPECT_EQ(parse("nvl2://1234-ABCD//x"), (Parts{"nvl2", "1234-ABCD", "/x"}));
    EXPECT_EQ(parse("nvl2://1234-ABCD/a b%20?c#d\\e"), (Parts{"nvl2", "1234-ABCD", "a b%20?c#d\\e"}));
}

TEST(ParseVolumeUrl, leavesTheProtocolAloneWhereThereIsNone)
{
    EXPECT_EQ(parse("1234-ABCD/a"), (Parts{"untouched", "1234-ABCD", "a"}));
    EXPECT_EQ(parse("1234-ABCD"), (Parts{"untouched", "1234-ABCD", ""}));
    EXPECT_EQ(parse("/a/b"), (Parts{"untouched", "", "a/b"}));
    EXPECT_EQ(parse("nvl2:/1234/a"), (Parts{"untouched", "nvl2:", "1234/a"}));
    EXPECT_EQ(parse("nvl2:a/b"), (Parts{"untouched", "nvl2:a", "b"}));
    EXPECT_EQ(parse("nvl2:"), (Parts{"untouched", "nvl2:", ""}));
    EXPECT_EQ(parse("//a/b"), (Parts{"untouched", "", "/a/b"}));
    EXPECT_EQ(parse(""), (Parts{"untouched", "", ""}));
}

TEST(ParseVolumeUrl, takesTheFirstSeparatorWhereverItStands)
{
    EXPECT_EQ(parse("://"), (Parts{"", "", ""}));
    EXPECT_EQ(parse(":///"), (Parts{"", "", ""}));
    EXPECT_EQ(parse("://v/p"), (Parts{"", "v", "p"}));
    EXPECT_EQ(parse("a://b://c/d"), (Parts{"a", "b:", "/c/d"}));
    EXPECT_EQ(parse("a/b://c/d"), (Parts{"a/b", "c", "d"}));
    EXPECT_EQ(parse("a:://b"), (Parts{"a:", "b", ""}));
    EXPECT_EQ(parse("nvl2:///path"), (Parts{"nvl2", "", "path"}));
    EXPECT_EQ(parse("nvl2:////path"), (Parts{"nvl2", "", "/path"}));
    EXPECT_EQ(parse("nvl2://"), (Parts{"nvl2", "", ""}));
    EXPECT_EQ(parse(" nvl2 ://v"), (Parts{" nvl2 ", "v", ""}));
}

TEST(ParseVolumeUrl, keepsCaseAndEveryByte)
{
    EXPECT_EQ(parse("NvL2://aBc/DeF"), (Parts{"NvL2", "aBc", "DeF"}));
    const std::string odd("n\0v://\xff\0\n/\x01\0/", 13);
    EXPECT_EQ(parse(odd),
              (Parts{std::string("n\0v", 3), std::string("\xff\0\n", 3), std::string("\x01\0/", 3)}));
    const std::string large(1000000, 'x');
    EXPECT_EQ(parse(large + "://" + large + "/" + large), (Parts{large, large, large}));
}

TEST(ParseVolumeUrl, splitsThousandsOfOddLocators)
{
    int count = 0;
    for (const std::string scheme : {"nvl2", "NVL2", "", "http", "n", ":", "/", "a/b", "nvl2:", " "}) {
        for (const std::string separator :
             {"://", ":/", ":", "//", "/", "", ":///", "::///", ":////", "\\\\"}) {
            for (const std::string volume : {"1234-ABCD", "", ":", "a:b", "..", "%2F", "a b", "\xff"}) {
                for (const std::string rest :
                     {"", "/", "//", "/a", "//a", "/a/b", "/a://b", "/../x", "://", "?a/b"}) {
                    std::string url = scheme;
                    url.append(separator).append(volume).append(rest);
                    EXPECT_EQ(parse(url), partsLetterByLetter(url)) << url;
                    ++count;
                }
            }
        }
    }
    EXPECT_EQ(count, 8000);
}

TEST(ParseVolumeUrl, splitsRandomLocators)
{
    support::Random random;
    for (int round = 0; round < support::randomRounds(20000); ++round) {
        std::string url;
        for (std::size_t length = random.below(20); length > 0; --length) {
            url += random.oneOf("nvl2::////ab. \xff");
        }
        ASSERT_EQ(parse(url), partsLetterByLetter(url)) << url << ", seed " << support::randomSeed();
    }
}

TEST(ParseVolumeUrl, tracesEachPartAtTheCallLevel)
{
    const TraceCapture traces;
    parse("nvl2://1234-ABCD/music/a.mp3");
    EXPECT_EQ(traces.texts(),
              parseTraces("nvl2://1234-ABCD/music/a.mp3",
                          {"protocol=nvl2 posProtocolSeparator=4 readPos=7",
                           "volumeID=1234-ABCD posSlash=16 readPos=7", "fullpath=music/a.mp3"}));
    expectLevel(traces, 5000);
}

TEST(ParseVolumeUrl, tracesTheEndInPlaceOfAMissingSlash)
{
    const TraceCapture traces;
    parse("nvl2://1234-ABCD");
    EXPECT_EQ(traces.texts(),
              parseTraces("nvl2://1234-ABCD", {"protocol=nvl2 posProtocolSeparator=4 readPos=7",
                                               "volumeID=1234-ABCD posSlash=16 readPos=7", "fullpath="}));
}

TEST(ParseVolumeUrl, tracesNoProtocolWhereThereIsNone)
{
    const TraceCapture traces;
    parse("%s%n/a");
    parse("");
    Texts expected = parseTraces("%s%n/a", {"volumeID=%s%n posSlash=4 readPos=0", "fullpath=a"});
    for (const std::string& text : parseTraces("", {"volumeID= posSlash=0 readPos=0", "fullpath="})) {
        expected.push_back(text);
    }
    EXPECT_EQ(traces.texts(), expected);
}

// The outputs may not be the input; a caller who does so finds the read position behind the end.
TEST(ParseVolumeUrl, exceptionsAreFailures)
{
    const TraceCapture traces;
    std::string url = "nvl2://1234-ABCD/a";
    std::string volumeId;
    std::string path;
    EXPECT_FALSE(md::parseNvol2Url(url, url, volumeId, path));
    ASSERT_EQ(traces.lines().size(), 3U);
    const auto last = traces.lines().back();
    const std::string prefix = "MdchUrlNvol2::parseNvol2Url() exception: ";
    EXPECT_EQ(last.text.substr(0, prefix.size()), prefix);
    EXPECT_GT(last.text.size(), prefix.size() + 1) << "without the exception's text";
    EXPECT_EQ(last.text.back(), '\n');
    EXPECT_EQ(last.level, 0x00680bb8U);
}

class TranslateVolumeUrl : public testing::Test
{
protected:
    TranslateVolumeUrl() : idText(std::to_string(volume.id())) {}

    // In front of the traces of a translation.
    static Texts begun(const std::string& function, const Texts& rest)
    {
        Texts all{"MdchUrlNvol2::" + function + "()\n"};
        all.insert(all.end(), rest.begin(), rest.end());
        return all;
    }

    void expectForeign(const std::string& url)
    {
        EXPECT_FALSE(md::nvol2UrlToNative(url, native)) << url;
        EXPECT_FALSE(md::nvol2UrlToMediaIdAndName(url, mediaId, name)) << url;
        EXPECT_EQ(native, "untouched");
        EXPECT_EQ(mediaId, -77);
        EXPECT_EQ(name, "untouched");
    }

    Volume volume{"1234-ABCD"};
    std::string idText;
    std::string native = "untouched";
    int mediaId = -77;
    std::string name = "untouched";
};

TEST_F(TranslateVolumeUrl, toTheNativePathBelowTheAccessPath)
{
    for (const std::string path : {"music/a.mp3", "", "a b%20", "../x", "a//b", "\xc3\xa4"}) {
        EXPECT_TRUE(md::nvol2UrlToNative("nvl2://1234-ABCD/" + path, native));
        EXPECT_EQ(native, volume.accessPath() + path);
    }
    EXPECT_TRUE(md::nvol2UrlToNative("nvl2://1234-ABCD//x", native));
    EXPECT_EQ(native, volume.accessPath() + "x") << "one slash less";
    EXPECT_TRUE(md::nvol2UrlToNative("nvl2://1234-ABCD///x", native));
    EXPECT_EQ(native, volume.accessPath() + "/x");
    EXPECT_TRUE(md::nvol2UrlToNative("nvl2://1234-ABCD", native));
    EXPECT_EQ(native, volume.accessPath());
}

TEST_F(TranslateVolumeUrl, theFileNeedNotBeThere)
{
    EXPECT_TRUE(md::nvol2UrlToNative("nvl2://1234-ABCD/missing", native));
    EXPECT_TRUE(md::nvol2UrlToMediaIdAndName("nvl2://1234-ABCD/missing", mediaId, name));
}

TEST_F(TranslateVolumeUrl, toMediaIdAndPath)
{
    for (const std::string path : {"music/a.mp3", "", "/x", "//x", "a b"}) {
        EXPECT_TRUE(md::nvol2UrlToMediaIdAndName("nvl2://1234-ABCD/" + path, mediaId, name));
        EXPECT_EQ(mediaId, volume.id());
        EXPECT_EQ(name, path);
    }
    EXPECT_TRUE(md::nvol2UrlToMediaIdAndName("nvl2://1234-ABCD", mediaId, name));
    EXPECT_EQ(name, "");
}

TEST_F(TranslateVolumeUrl, protocolAndVolumeCompareWithoutRegardToCase)
{
    for (const std::string start :
         {"nvl2://1234-abcd", "NVL2://1234-ABCD", "Nvl2://1234-AbCd", "nVL2://1234-aBcD"}) {
        EXPECT_TRUE(md::nvol2UrlToNative(start + "/X", native)) << start;
        EXPECT_EQ(native, volume.accessPath() + "X");
        EXPECT_TRUE(md::nvol2UrlToMediaIdAndName(start + "/X", mediaId, name)) << start;
        EXPECT_EQ(mediaId, volume.id());
    }
}

TEST_F(TranslateVolumeUrl, isRefusedForAnyOtherProtocol)
{
    for (const std::string url :
         {"file:///x", "http://1234-ABCD/x", "nvl://1234-ABCD/x", "nvl22://1234-ABCD/x",
          " nvl2://1234-ABCD/x", "nvl2 ://1234-ABCD/x", "://1234-ABCD/x", "1234-ABCD/x", "nvl2:/1234-ABCD/x",
          "nvl2:1234-ABCD/x", "nvl2//1234-ABCD/x", "xnvl2://1234-ABCD/x", "/nvl2://1234-ABCD/x", "", "/",
          "x"}) {
        expectForeign(url);
    }
    expectForeign(std::string("nvl2\0://1234-ABCD/x", 19));
    expectForeign(std::string("nvl2\0x://1234-ABCD/x", 20));
    expectForeign(std::string("\0nvl2://1234-ABCD/x", 19));
}

TEST_F(TranslateVolumeUrl, isRefusedForAnUnknownVolume)
{
    for (const std::string url : {"nvl2://", "nvl2:///x", "nvl2://1234-ABC/x", "nvl2://1234-ABCDE/x",
                                  "nvl2:// 1234-ABCD/x", "nvl2://user@1234-ABCD/x", "nvl2://1234-ABCD:80/x",
                                  "nvl2://1234%2DABCD/x", "nvl2://%s%n/x", "nvl2://1234-ABCD\\x"}) {
        expectForeign(url);
    }
    expectForeign("nvl2://" + std::string(1000000, 'v') + "/x");
    ASSERT_EQ(volume.remove(), 0);
    expectForeign("nvl2://1234-ABCD/x");
}

TEST_F(TranslateVolumeUrl, oneUrlAfterTheOther)
{
    const Volume other("other");
    EXPECT_TRUE(md::nvol2UrlToNative("nvl2://1234-ABCD/a", native));
    EXPECT_TRUE(md::nvol2UrlToNative("nvl2://OTHER/b", native));
    EXPECT_EQ(native, other.accessPath() + "b");
    EXPECT_TRUE(md::nvol2UrlToMediaIdAndName("nvl2://OTHER/b", mediaId, name));
    EXPECT_EQ(mediaId, other.id());
}

TEST_F(TranslateVolumeUrl, tracesTheWayToTheNativePath)
{
    nvol2Media_struct record{};
    ASSERT_EQ(nvol2MediaGet(volume.id(), &record), 0);
    const TraceCapture traces;
    EXPECT_TRUE(md::nvol2UrlToNative("NVL2://1234-abcd//x", native));
    Texts expected =
        begun("nvol2UrlToNative", parseTraces("NVL2://1234-abcd//x",
                                              {"protocol=NVL2 posProtocolSeparator=4 readPos=7",
                                               "volumeID=1234-abcd posSlash=16 readPos=7", "fullpath=/x"}));
    const std::string functions = record.functions == 1 ? "0x0001" : "0x0003";
    expected.push_back(
        "MdchUrlNvol2::nvol2UrlToNative() media record: mediaType=0, connectType0, functions=" + functions +
        ", accessPath=" + volume.accessPath() + ", devName=\n");
    EXPECT_EQ(traces.lines().back().text,
              "MdchUrlNvol2::nvol2UrlToNative() translate to file protocol: " + volume.accessPath() + "x\n");
    EXPECT_EQ(traces.lines().back().level, 0x00680fa0U) << "a notice";
    expected.push_back(traces.lines().back().text);
    EXPECT_EQ(traces.texts(), expected);
    for (std::size_t index = 0; index + 1 < expected.size(); ++index) {
        EXPECT_EQ(traces.lines()[index].level, 0x00681388U) << expected[index];
    }
}

TEST_F(TranslateVolumeUrl, tracesTheWayToMediaIdAndName)
{
    const TraceCapture traces;
    EXPECT_TRUE(md::nvol2UrlToMediaIdAndName("nvl2://1234-ABCD/a b", mediaId, name));
    Texts expected = begun(
        "nvol2UrlToMediaIdAndName",
        parseTraces("nvl2://1234-ABCD/a b", {"protocol=nvl2 posProtocolSeparator=4 readPos=7",
                                             "volumeID=1234-ABCD posSlash=16 readPos=7", "fullpath=a b"}));
    expected.push_back("MdchUrlNvol2::nvol2UrlToMediaIdAndName() translate into mediaId=" + idText +
                       ", filename='a b'\n");
    EXPECT_EQ(traces.texts(), expected);
    expectLevel(traces, 5000);
}

TEST_F(TranslateVolumeUrl, tracesAForeignProtocolAsAFailure)
{
    const TraceCapture traces;
    EXPECT_FALSE(md::nvol2UrlToNative("file:///x", native));
    const Texts parsed = parseTraces("file:///x", {"protocol=file posProtocolSeparator=4 readPos=7",
                                                   "volumeID= posSlash=7 readPos=7", "fullpath=x"});
    Texts expected = begun("nvol2UrlToNative", parsed);
    expected.emplace_back("MdchUrlNvol2::nvol2UrlToNative() No nvol2 protocol\n");
    EXPECT_FALSE(md::nvol2UrlToMediaIdAndName("file:///x", mediaId, name));
    for (const std::string& text : begun("nvol2UrlToMediaIdAndName", parsed)) {
        expected.push_back(text);
    }
    expected.emplace_back("MdchUrlNvol2::nvol2UrlToMediaIdAndName() No nvol2 protocol\n");
    EXPECT_EQ(traces.texts(), expected);
    EXPECT_EQ(traces.severityOf("MdchUrlNvol2::nvol2UrlToNative() No nvol2 protocol\n"), 3000U);
    EXPECT_EQ(traces.severityOf("MdchUrlNvol2::nvol2UrlToMediaIdAndName() No nvol2 protocol\n"), 3000U);
}

TEST_F(TranslateVolumeUrl, tracesAnUnknownVolumeAsANotice)
{
    const TraceCapture traces(4000);
    EXPECT_FALSE(md::nvol2UrlToNative("nvl2://5678/x", native));
    EXPECT_FALSE(md::nvol2UrlToMediaIdAndName("nvl2://5678/x", mediaId, name));
    EXPECT_EQ(traces.texts(),
              (Texts{"MdchUrlNvol2::nvol2UrlToNative() Could not get mediaID for volumeID=5678\n",
                     "MdchUrlNvol2::nvol2UrlToMediaIdAndName() Could not get mediaID for volumeID=5678\n"}));
    expectLevel(traces, 4000);
}

} // namespace
