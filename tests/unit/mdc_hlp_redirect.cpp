// Which URL a player opens in the end: the decision, from request to result.
#include "mdc_hlp_redirect.h"

#include "support/certificates.h"
#include "support/engine.h"
#include "support/http_server.h"
#include "support/sockets.h"
#include "support/trace_capture.h"

#include <deque>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <curl/curl.h>

namespace {

using support::HttpServer;
using support::Reply;
using support::TraceCapture;

using Texts = std::vector<std::string>;

const char* const kAsxTypes[] = {"audio/x-ms-wax", "audio/x-ms-asf", "video/x-ms-wvx", "video/x-ms-asf"};

std::string line(const std::string& text)
{
    return "streamNeedRedirect() " + text + "\n";
}

Texts story(const TraceCapture& traces)
{
    Texts story;
    for (const std::string& text : traces.texts()) {
        if (text.rfind("streamNeedRedirect() ", 0) == 0 || text.rfind("parseM3U() ", 0) == 0) {
            story.push_back(text);
        }
    }
    return story;
}

// The result, and behind it what was appended.
std::string resolve(const std::string& url)
{
    std::deque<std::string> out{"before"};
    std::string result = std::to_string(md::streamNeedRedirect(url, out));
    EXPECT_EQ(out.at(0), "before");
    for (std::size_t i = 1; i < out.size(); ++i) {
        result += " " + out[i];
    }
    return result;
}

class Redirect : public testing::Test
{
protected:
    std::string resolveBody(const std::string& type, const std::string& body)
    {
        m_server.on("/station", Reply().contentType(type).body(body));
        return resolve(m_server.url("/station"));
    }

    support::EngineStopped m_engineStopped;
    HttpServer m_server;
};

constexpr const char* kNone = "no redirect found. ";

} // namespace

TEST_F(Redirect, otherSchemesNeedNone)
{
    for (const char* url : {"ftp://host/x", "", "mms://host/x", "nvl2://v/x", "/media/x", "http:/host",
                            "http", " http://host/x", "httpx://host"}) {
        const TraceCapture traces;
        EXPECT_EQ(resolve(url), "0") << url;
        const std::string only = line("redirect only http/https. url=" + std::string(url));
        EXPECT_EQ(traces.texts(), Texts{only});
        EXPECT_EQ(traces.severityOf(only), 5000U);
    }
}

TEST_F(Redirect, schemeComparesWithoutRegardToCase)
{
    m_server.on("/a", Reply().contentType("text/plain").body("http://host/x"));
    const std::string url = m_server.url("/a");
    EXPECT_EQ(resolve("HTTP" + url.substr(4)), "1 http://host/x");
    HttpServer secure{support::Tls(support::certificates().leaf)};
    EXPECT_EQ(resolve("HTTPS" + secure.url("/a").substr(5)), "-7") << "nobody vouches for the certificate";
    EXPECT_EQ(secure.connectionCount(), 1U);
}

TEST_F(Redirect, soundNeedsNone)
{
    m_server.on("/a", Reply::endless().contentType("audio/mpeg"));
    const TraceCapture traces;
    EXPECT_EQ(resolve(m_server.url("/a")), "0");
    EXPECT_EQ(story(traces), (Texts{line("url=" + m_server.url("/a")), line(kNone)}));
    EXPECT_FALSE(traces.hasAnywhere("queryHeaderMDCH() read="));
    EXPECT_EQ(traces.severityOf(line("url=" + m_server.url("/a"))), 5000U);
    EXPECT_EQ(traces.severityOf(line(kNone)), 4000U);
    EXPECT_TRUE(m_server.waitForOpenConnections(0));
}

TEST_F(Redirect, repairedUrlIsAskedForAndHandedBack)
{
    m_server.on("/a%20b%7C", Reply().contentType("audio/mpeg").body("sound"));
    const std::string given = m_server.url("/a b|");
    const std::string repaired = m_server.url("/a%20b%7C");
    const TraceCapture traces;
    EXPECT_EQ(resolve(given), "1 " + repaired);
    EXPECT_EQ(story(traces), (Texts{line("url=" + given), line("encode url to " + repaired), line(kNone),
                                    line("use encode url as redirect.")}));
    EXPECT_EQ(traces.severityOf(line("encode url to " + repaired)), 4000U);
    EXPECT_EQ(traces.severityOf(line("use encode url as redirect.")), 4000U);
    EXPECT_EQ(m_server.requests().at(0).path, "/a%20b%7C");
}

TEST_F(Redirect, foundUrlGoesBeforeTheRepairedOne)
{
    m_server.on("/a%20b", Reply().contentType("text/plain").body("http://host/x"));
    EXPECT_EQ(resolve(m_server.url("/a b")), "1 http://host/x");
}

TEST_F(Redirect, foundUrlIsRepaired)
{
    EXPECT_EQ(resolveBody("text/plain", "http://host/a b|\xe9\n"), "1 http://host/a%20b%7C%C3%A9");
    EXPECT_EQ(resolveBody("audio/x-mpegurl", "http://host/a%20b\n"), "1 http://host/a%20b");
    EXPECT_EQ(resolveBody("video/x-ms-asf", "<asx><entry><ref href=\"http://host/a b\"/>"),
              "1 mmsh://host/a%20b");
}

TEST_F(Redirect, textIsReadAsM3uFirst)
{
    const TraceCapture traces;
    EXPECT_EQ(resolveBody("text/plain", "#EXTM3U\nhttp://host/a\n"), "1 http://host/a");
    EXPECT_EQ(story(traces).back(), line("m3u redirect to http://host/a"));
    EXPECT_EQ(traces.severityOf(line("m3u redirect to http://host/a")), 4000U);
    EXPECT_EQ(resolveBody("TEXT/PLAIN; charset=x", "http://host/b<asx><entryref \"c\""),
              "1 http://host/b<asx><entryref%20%22c%22");
    EXPECT_EQ(story(traces).back(), line("m3u redirect to http://host/b<asx><entryref \"c\""));
}

TEST_F(Redirect, mediaOfPlainTextStayAsTheyAre)
{
    EXPECT_EQ(resolveBody("text/plain", "rtsp://host/a\n"), "1 rtsp://host/a");
    EXPECT_EQ(resolveBody("text/plain", "file:///a\n"), "1 file:///a");
    EXPECT_EQ(resolveBody("text/plain", "http://host/a\n"), "1 http://host/a");
}

TEST_F(Redirect, textThatIsNoM3uIsReadAsAsxNext)
{
    const TraceCapture traces;
    EXPECT_EQ(resolveBody("text/plain", "<asx><entry><ref href=\"http://host/a\"/>"), "1 mmsh://host/a");
    EXPECT_EQ(
        story(traces),
        (Texts{line("url=" + m_server.url("/station")),
               "parseM3U() Unknown protocol for redirect \"<asx><entry><ref href=\"http://host/a\"/>\"\n",
               line("ASX redirect to http://host/a")}));
    EXPECT_EQ(traces.severityOf(line("ASX redirect to http://host/a")), 4000U);
}

TEST_F(Redirect, textThatIsNeitherIsReadAsASimpleList)
{
    const TraceCapture traces;
    EXPECT_EQ(resolveBody("text/plain", "HTTP://host/a\r\nhttp://host/b\r\n"), "1 HTTP://host/a");
    EXPECT_EQ(story(traces).back(), line("SIMPLE redirect to HTTP://host/a"));
    EXPECT_EQ(traces.severityOf(line("SIMPLE redirect to HTTP://host/a")), 4000U);
}

TEST_F(Redirect, m3uTypesAreReadAsASimpleListFirst)
{
    for (const char* type : {"audio/mpegurl", "audio/x-mpegurl"}) {
        const TraceCapture traces;
        EXPECT_EQ(resolveBody(type, "http://host/a\r\nhttp://host/b\r\n"), "1 http://host/a");
        EXPECT_EQ(story(traces).back(), line("SIMPLE redirect to http://host/a"));
    }
}

TEST_F(Redirect, m3uTypesAreReadAsM3uLast)
{
    const TraceCapture traces;
    EXPECT_EQ(resolveBody("audio/x-mpegurl", "#EXTM3U\n#EXTINF:1,A\nhttp://host/a\n"), "1 http://host/a");
    EXPECT_EQ(story(traces),
              (Texts{line("url=" + m_server.url("/station")), line("m3u redirect (2) to http://host/a")}));
    EXPECT_EQ(traces.severityOf(line("m3u redirect (2) to http://host/a")), 4000U);
    EXPECT_EQ(resolveBody("audio/mpegurl", "rtsp://host/a\n"), "1 rtsp://host/a");
}

TEST_F(Redirect, m3uWithReturnAndLineFeedNamesNothing)
{
    const std::string body = "#EXTM3U\r\nhttp://host/a\r\n";
    const std::string unknown = "parseM3U() Unknown protocol for redirect \"\nhttp://host/a\r\n\"\n";
    const std::string unparsed = line("can not parse content:\n" + body);
    {
        const TraceCapture traces;
        EXPECT_EQ(resolveBody("audio/x-mpegurl", body), "0");
        EXPECT_EQ(story(traces),
                  (Texts{line("url=" + m_server.url("/station")), unknown, unparsed, line(kNone)}));
        EXPECT_EQ(traces.severityOf(unparsed), 4000U);
    }
    const TraceCapture traces;
    EXPECT_EQ(resolveBody("text/plain", body), "0");
    EXPECT_EQ(story(traces),
              (Texts{line("url=" + m_server.url("/station")), unknown, unknown, unparsed, line(kNone)}));
}

TEST_F(Redirect, unparsedBodyOfARepairedUrlGivesThatUrl)
{
    m_server.on("/a%20b", Reply().contentType("text/plain").body("nothing of use"));
    const TraceCapture traces;
    EXPECT_EQ(resolve(m_server.url("/a b")), "1 " + m_server.url("/a%20b"));
    EXPECT_TRUE(traces.has(line("can not parse content:\nnothing of use")));
    EXPECT_EQ(story(traces).back(), line("use encode url as redirect."));
}

TEST_F(Redirect, emptyBodyIsNotParsed)
{
    const TraceCapture traces;
    EXPECT_EQ(resolveBody("text/plain", ""), "0");
    EXPECT_EQ(story(traces), (Texts{line("url=" + m_server.url("/station")), line(kNone)}));
}

TEST_F(Redirect, mediaOfAnAsxAreAskedForTheMmsWay)
{
    for (const char* type : kAsxTypes) {
        EXPECT_EQ(resolveBody(type, "<ASX version=\"3\"><Entry><Ref href=\"http://host/a\"/></Entry></ASX>"),
                  "1 mmsh://host/a")
            << type;
    }
}

TEST_F(Redirect, listsOfAnAsxAreNot)
{
    for (const char* type : {"video/x-ms-asf", "text/plain", "audio/x-mpegurl"}) {
        EXPECT_EQ(resolveBody(type, "<ASX><EntryRef href=\"http://host/list.asx\"/></ASX>"),
                  "1 http://host/list.asx");
    }
}

TEST_F(Redirect, referenceFilesAreAskedForTheMmsWay)
{
    for (const char* type : {"video/x-ms-asf", "text/plain", "audio/mpegurl"}) {
        EXPECT_EQ(resolveBody(type, "[Reference]\r\nRef1=http://host/a\r\n"), "1 mmsh://host/a") << type;
    }
}

TEST_F(Redirect, simpleListsOfAsxTypesAreAskedForTheMmsWay)
{
    for (const char* type : kAsxTypes) {
        const TraceCapture traces;
        EXPECT_EQ(resolveBody(type, "http://host/a\n"), "1 mmsh://host/a") << type;
        EXPECT_EQ(story(traces).back(), line("SIMPLE redirect to http://host/a"));
    }
    EXPECT_EQ(resolveBody("VIDEO/X-MS-ASF; x", "http://host/a\n"), "1 mmsh://host/a");
}

TEST_F(Redirect, firstHttpInLowerCaseIsTheOneThatIsReplaced)
{
    EXPECT_EQ(resolveBody("video/x-ms-asf", "HTTP://host/a\n"), "1 HTTP://host/a");
    EXPECT_EQ(resolveBody("video/x-ms-asf", "mms://host/a\n"), "1 mms://host/a");
    EXPECT_EQ(resolveBody("video/x-ms-asf", "https://host/a?http://b&http://c\n"),
              "1 https://host/a?mmsh://b&http://c");
    EXPECT_EQ(resolveBody("video/x-ms-asf", "<asx><entry><ref href=\"x?http://b\"/>"), "1 x?mmsh://b");
}

TEST_F(Redirect, m3uReadingOfAnAsxTypeStaysAsItIs)
{
    EXPECT_EQ(resolveBody("video/x-ms-asf", "#EXTM3U\nhttp://host/a\n"), "1 http://host/a");
}

TEST_F(Redirect, redirectionToAForeignSchemeIsHandedOut)
{
    m_server.on("/a", Reply::raw("HTTP/1.1 302 Found\r\nLocation: mms://host/x y\r\n\r\n"));
    m_server.on("/b", Reply::redirect(m_server.url("/a")));
    const TraceCapture traces;
    EXPECT_EQ(resolve(m_server.url("/a")), "1 mms://host/x%20y");
    EXPECT_EQ(story(traces), Texts{line("url=" + m_server.url("/a"))});
    EXPECT_EQ(resolve(m_server.url("/b")), "1 mms://host/x%20y");
}

TEST_F(Redirect, foreignProtocolWithoutALocationIsAFailure)
{
    m_server.on("/a", Reply::raw("hello, world\r\n\r\n"));
    const TraceCapture traces;
    EXPECT_EQ(resolve(m_server.url("/a")), "-1");
    const std::string error = line(std::string("error=1 ") + curl_easy_strerror(CURLE_UNSUPPORTED_PROTOCOL));
    EXPECT_EQ(story(traces), (Texts{line("url=" + m_server.url("/a")), error}));
    EXPECT_EQ(traces.severityOf(error), 3000U);
}

TEST_F(Redirect, failuresAppendNothing)
{
    const support::LoopbackPort refusing = support::closedPort();
    m_server.on("/broken", Reply::error(500));
    m_server.on("/circle", Reply::redirect(m_server.url("/circle")));
    const std::string error = line(std::string("error=7 ") + curl_easy_strerror(CURLE_COULDNT_CONNECT));
    for (const std::string& url :
         {m_server.url("/none"), m_server.url("/broken"), m_server.url("/circle"), refusing.url("/")}) {
        const TraceCapture traces;
        EXPECT_EQ(resolve(url), "-7") << url;
        EXPECT_EQ(story(traces), (Texts{line("url=" + url), error}));
        EXPECT_EQ(traces.severityOf(error), 3000U);
    }
}

TEST_F(Redirect, failureOfARepairedUrlAppendsNothingEither)
{
    EXPECT_EQ(resolve(m_server.url("/a b")), "-7");
}

TEST_F(Redirect, onlyTheFirstTenKilobytesAreLookedAt)
{
    EXPECT_EQ(resolveBody("video/x-ms-asf", std::string(9000, ' ') + "[Reference]\nRef1=http://host/a\n"),
              "1 mmsh://host/a");
    EXPECT_EQ(resolveBody("video/x-ms-asf", std::string(12500, ' ') + "[Reference]\nRef1=http://host/a\n"),
              "0");
}

TEST_F(Redirect, hostileBodiesNameNothing)
{
    for (const std::string& body :
         {std::string(20000, '\0'), std::string(20000, '<'), std::string("\xff\xfb\x90\x64\0\0", 6),
          std::string("#EXTM3U"), std::string("[Reference]"), std::string("%s%n%s%n\n")}) {
        EXPECT_EQ(resolveBody("text/plain", body), "0");
    }
}

TEST_F(Redirect, callsFromManyThreadsDoNotMix)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 25;
    for (int i = 0; i < kThreads; ++i) {
        m_server.on("/" + std::to_string(i),
                    Reply().contentType("text/plain").body("http://host/" + std::to_string(i) + "\n"));
    }
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([this, i] {
            const std::string name = std::to_string(i);
            for (int round = 0; round < kRounds; ++round) {
                EXPECT_EQ(resolve(m_server.url("/" + name)), "1 http://host/" + name);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(support::waitForEmptyRegistry());
}
