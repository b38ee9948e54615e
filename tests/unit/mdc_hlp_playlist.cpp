// Reading a playlist through the handle interface: from files and servers, and how much of it.
#include "mdc_hlp_playlist.h"

#include "mdc_hlp_playlist_read.h"
#include "mdc_hlp_url.h"
#include "support/descriptors.h"
#include "support/engine.h"
#include "support/gate.h"
#include "support/http_server.h"
#include "support/sockets.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <list>
#include <string>
#include <thread>
#include <vector>

namespace {

using support::At;
using support::Gate;
using support::HttpServer;
using support::Reply;
using support::TempDir;
using support::TraceCapture;

using Texts = std::vector<std::string>;

constexpr const char* kUntouched = "untouched";
constexpr const char* kScan = "mdc_hlp_playlist.cpp:#:scanPlaylist(): ";
constexpr const char* kParsing = "mdc_hlp_playlist_lines.cpp:#:parseM3uBufferToPlaylist(): Length of line "
                                 "after \r stripping is 5 bytes.\n";
constexpr const char* kClose = "mdc_hlp_url.cpp:#:mdch_UrlClose(): Called.\n";

std::string scanTrace(const std::string& text)
{
    return kScan + text + "\n";
}

std::string quoted(const std::string& text)
{
    return '"' + text + '"';
}

struct Scanned
{
    int result = -77;
    std::string text = kUntouched;
    std::list<md::PlaylistEntry> entries;

    Texts locators() const
    {
        Texts result_;
        for (const md::PlaylistEntry& entry : entries) {
            result_.push_back(entry.locator);
        }
        return result_;
    }
};

Scanned scan(const std::string& locator, md::Conversion_t conversion = md::kConversionNone)
{
    Scanned scanned;
    scanned.result = md::scanPlaylist(locator, scanned.entries, scanned.text, conversion);
    return scanned;
}

// Lines "i", each of 10 bytes with its end.
std::string tenByteLines(std::size_t count)
{
    std::string content;
    for (std::size_t i = 0; i < count; ++i) {
        content += std::to_string(1000000000 + i).substr(1) + "\n";
    }
    return content;
}

// Of the traces those of scanPlaylist, and of the handle interface the opening and closing.
Texts story(const TraceCapture& traces)
{
    Texts story;
    for (const std::string& text : traces.texts()) {
        const std::string line = TraceCapture::withoutLineNumber(text);
        if (line.rfind(kScan, 0) == 0 || line == kClose ||
            line == "mdc_hlp_url.cpp:#:mdch_UrlOpen(): Called.\n" || line == kParsing) {
            story.push_back(line);
        }
    }
    return story;
}

class ScanPlaylist : public testing::Test
{
protected:
    TempDir m_folder;
    support::EngineStopped m_engineStopped;
};

} // namespace

TEST_F(ScanPlaylist, fileBecomesEntries)
{
    const std::string file = m_folder.write(
        "a.m3u", "#EXTM3U\n#PLAYLIST:Mine\n#EXTINF:215,Name One - Name Two\none.mp3\ntwo.mp3\n");
    for (const std::string& locator : {file, "file://" + file}) {
        const Scanned scanned = scan(locator);
        EXPECT_EQ(scanned.result, 0);
        EXPECT_EQ(scanned.text, "Mine");
        ASSERT_EQ(scanned.locators(), (Texts{"one.mp3", "two.mp3"}));
        EXPECT_EQ(scanned.entries.front().artist, "Name One");
        EXPECT_EQ(scanned.entries.front().title, "Name Two");
        EXPECT_EQ(scanned.entries.front().playtime, "215s");
    }
}

TEST_F(ScanPlaylist, entriesAreAppended)
{
    Scanned scanned = scan(m_folder.write("a.m3u", "one.mp3\n"));
    EXPECT_EQ(md::scanPlaylist(m_folder.write("b.m3u", "two.mp3\n"), scanned.entries, scanned.text,
                               md::kConversionNone),
              0);
    EXPECT_EQ(scanned.locators(), (Texts{"one.mp3", "two.mp3"}));
}

TEST_F(ScanPlaylist, conversionIsPassedOn)
{
    const std::string file = m_folder.write("a.m3u", "#EXTINF:1,\xc4 - \xd6\na.mp3\n");
    EXPECT_EQ(scan(file, md::kConversionLatin1ToUtf8).entries.front().artist, "\xc3\x84");
    EXPECT_EQ(scan(file).entries.front().artist, "\xc4");
}

TEST_F(ScanPlaylist, httpBodyBecomesEntries)
{
    HttpServer server;
    server.on("/a.m3u", Reply().contentType("audio/x-mpegurl").body("#EXTM3U\r\nhttp://host/x\r\ny.mp3\r\n"));
    const Scanned scanned = scan(server.url("/a.m3u"));
    EXPECT_EQ(scanned.result, 0);
    EXPECT_EQ(scanned.locators(), (Texts{"http://host/x", "y.mp3"}));
    EXPECT_TRUE(support::waitForEmptyRegistry()) << "the stream is closed";
}

TEST_F(ScanPlaylist, bodyOfUnknownLengthIsReadToItsEnd)
{
    HttpServer server;
    server.on("/close", Reply().body("a\nb\n").closeDelimited());
    server.on("/chunks", Reply().body("a\nb\n").chunked({1}));
    for (const char* path : {"/close", "/chunks"}) {
        EXPECT_EQ(scan(server.url(path)).locators(), (Texts{"a", "b"})) << path;
    }
}

TEST_F(ScanPlaylist, bodyThatComesInPiecesIsReadToItsEnd)
{
    HttpServer server;
    const std::string content = tenByteLines(4000);
    server.on("/a.m3u", Reply().body(content).pieces(997).closeDelimited());
    EXPECT_EQ(scan(server.url("/a.m3u")).entries.size(), 4000U);
}

TEST_F(ScanPlaylist, bodyThatBreaksOffGivesWhatCame)
{
    HttpServer server;
    Gate opened; // a break that the opening notices already is a failed opening
    server.on("/a.m3u", Reply().body("one\ntwo\nthree\n").wait(At::body(9), opened).close(At::body(9)));
    const TraceCapture traces;
    Scanned scanned;
    std::thread scanning([&] { scanned = scan(server.url("/a.m3u")); });
    EXPECT_TRUE(traces.waitFor("mdc_hlp_url.cpp:#:mdch_UrlSize(): Called.\n"));
    opened.open();
    scanning.join();
    EXPECT_EQ(scanned.result, 0);
    EXPECT_EQ(scanned.locators(), (Texts{"one", "two", "t"}));
}

TEST_F(ScanPlaylist, noMoreThanFiftyThousandBytesAreRead)
{
    for (const std::size_t lines : {8000U, 5001U, 5000U, 4999U}) {
        const std::string content = tenByteLines(lines);
        const Scanned scanned = scan(m_folder.write("a.m3u", content));
        EXPECT_EQ(scanned.result, 0);
        ASSERT_EQ(scanned.entries.size(), std::min<std::size_t>(lines, 5000));
        EXPECT_EQ(scanned.entries.back().locator,
                  std::to_string(1000000000 + std::min<std::size_t>(lines, 5000) - 1).substr(1));
    }
}

TEST_F(ScanPlaylist, itemAtTheLimitIsCut)
{
    const Scanned scanned = scan(m_folder.write("a.m3u", "x\n" + tenByteLines(8000)));
    ASSERT_EQ(scanned.entries.size(), 5001U);
    EXPECT_EQ(scanned.entries.back().locator, "00000499");
}

TEST_F(ScanPlaylist, limitHoldsForServersToo)
{
    HttpServer server;
    const std::string content = tenByteLines(8000);
    server.on("/known", Reply().body(content));
    server.on("/unknown", Reply().body(content).closeDelimited());
    server.on("/endless", Reply::endless());
    EXPECT_EQ(scan(server.url("/known")).entries.size(), 5000U);
    EXPECT_EQ(scan(server.url("/unknown")).entries.size(), 5000U);
    EXPECT_EQ(scan(server.url("/endless")).result, 0);
}

TEST_F(ScanPlaylist, locatorThatCannotBeOpenedIsTheOneFailure)
{
    HttpServer server;
    const support::LoopbackPort refusing = support::closedPort();
    for (const std::string& locator :
         {m_folder.file("none.m3u"), std::string(), server.url("/none.m3u"), refusing.url("/a.m3u")}) {
        const Scanned scanned = scan(locator);
        EXPECT_EQ(scanned.result, -ENOENT) << locator;
        EXPECT_EQ(scanned.result, -2);
        EXPECT_TRUE(scanned.entries.empty());
        EXPECT_EQ(scanned.text, kUntouched);
    }
}

TEST_F(ScanPlaylist, failedOpenIsTraced)
{
    const std::string file = m_folder.file("none.m3u");
    const TraceCapture traces;
    scan(file);
    const std::string unable = scanTrace("Unable to open " + quoted(file) + ".");
    EXPECT_EQ(story(traces),
              (Texts{scanTrace("Called."), "mdc_hlp_url.cpp:#:mdch_UrlOpen(): Called.\n", unable}));
    EXPECT_EQ(traces.severityOf(unable), 3000U);
    EXPECT_EQ(traces.severityOf(scanTrace("Called.")), 5000U);
}

TEST_F(ScanPlaylist, emptyPlaylistIsTracedAndNoFailure)
{
    const std::string file = m_folder.write("a.m3u", "");
    const TraceCapture traces;
    const Scanned scanned = scan(file);
    EXPECT_EQ(scanned.result, 0);
    EXPECT_TRUE(scanned.entries.empty());
    EXPECT_EQ(scanned.text, kUntouched);
    const std::string empty = scanTrace("Found an empty playlist " + quoted(file) + ".");
    EXPECT_EQ(story(traces),
              (Texts{scanTrace("Called."), "mdc_hlp_url.cpp:#:mdch_UrlOpen(): Called.\n", empty, kClose}));
    EXPECT_EQ(traces.severityOf(empty), 4000U);
}

TEST_F(ScanPlaylist, emptyBodyAndFolderAreEmptyPlaylists)
{
    HttpServer server;
    server.on("/a.m3u", Reply().body("").closeDelimited());
    const std::string url = server.url("/a.m3u");
    const TraceCapture traces;
    EXPECT_EQ(scan(url).result, 0);
    EXPECT_EQ(scan(m_folder.path()).result, 0);
    EXPECT_TRUE(traces.has(scanTrace("Found an empty playlist " + quoted(url) + ".")));
    EXPECT_TRUE(traces.has(scanTrace("Found an empty playlist " + quoted(m_folder.path()) + ".")));
}

TEST_F(ScanPlaylist, streamIsClosedBeforeItIsParsed)
{
    const std::string file = m_folder.write("a.m3u", "a.mp3");
    const TraceCapture traces;
    scan(file);
    const std::string finished = scanTrace("Finished parsing playlist " + quoted(file) + ".");
    EXPECT_EQ(story(traces), (Texts{scanTrace("Called."), "mdc_hlp_url.cpp:#:mdch_UrlOpen(): Called.\n",
                                    kClose, kParsing, finished}));
    EXPECT_EQ(traces.severityOf(finished), 4000U);
}

TEST_F(ScanPlaylist, parseFailureIsTracedAndNoFailure)
{
    const std::string file = m_folder.write("a.m3u", std::string("#EXTM3U\0a.mp3", 13));
    const TraceCapture traces;
    const Scanned scanned = scan(file);
    EXPECT_EQ(scanned.result, 0);
    EXPECT_TRUE(scanned.entries.empty());
    const std::string error = scanTrace("Error parsing playlist " + quoted(file) + ": -22.");
    EXPECT_EQ(story(traces),
              (Texts{scanTrace("Called."), "mdc_hlp_url.cpp:#:mdch_UrlOpen(): Called.\n", kClose, error,
                     scanTrace("Finished parsing playlist " + quoted(file) + ".")}));
    EXPECT_EQ(traces.severityOf(error), 3000U);
}

TEST_F(ScanPlaylist, noDescriptorIsLeftOpen)
{
    const std::string full = m_folder.write("full.m3u", tenByteLines(8000));
    const std::string empty = m_folder.write("empty.m3u", "");
    const std::string binary = m_folder.write("binary.m3u", std::string(100, '\0'));
    const auto before = support::openDescriptors();
    for (const std::string& file : {full, empty, binary, m_folder.file("none.m3u")}) {
        scan(file);
    }
    EXPECT_EQ(support::openDescriptors(), before);
}

// A server that gives some bytes per time-out would hold the caller for days.
TEST_F(ScanPlaylist, readingEndsWhenPatienceIsOver)
{
    HttpServer server;
    server.on("/a.m3u", Reply::endless().throttle(20));
    const unsigned int handle = mdch_UrlOpen(server.url("/a.m3u").c_str(), MDCH_MODE_READ);
    ASSERT_NE(handle, 0U);
    ASSERT_TRUE(support::waitForDescriptor(100, [](const auto& desc) { return desc.writePos > 0; }));
    {
        const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(100);
        const MdpLock lock = md::lockDescriptor(*desc);
        desc->dataTimeout = 1; // a read gives what there is after a second
    }
    const TraceCapture traces;
    const std::vector<unsigned char> data = md::readPlaylist(handle, std::chrono::seconds(0));
    EXPECT_FALSE(data.empty());
    EXPECT_EQ(mdch_UrlTell(handle), static_cast<long long>(data.size()));
    const Texts texts = traces.texts();
    const auto isShortRead = [](const std::string& text) {
        return text.find("read(): cannot fill up the requested buffer on fd 100") == 0;
    };
    EXPECT_EQ(std::count_if(texts.begin(), texts.end(), isShortRead), 1) << "the first read was the last";
    mdch_UrlClose(handle);
}
