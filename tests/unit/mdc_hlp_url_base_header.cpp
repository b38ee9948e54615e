// What the opening sequence reads from an HTTP response, and how it fails.
#include "mdc_hlp_url_base.h"

#include "mdc_hlp_http_access.h"
#include "support/engine.h"
#include "support/http_server.h"
#include "support/sockets.h"
#include "support/trace_capture.h"

#include <boost/shared_ptr.hpp>
#include <cerrno>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

using support::HttpServer;
using support::Reply;
using Texts = std::vector<std::string>;

constexpr const char* kPrefix = "mdc_hlp_url_base.cpp:#:mdch_OpenUrl(): ";
constexpr int kUntouched = -77;

class OpenedHeader : public testing::Test
{
protected:
    int open(const std::string& url)
    {
        stream.reset();
        ext.error = kUntouched;
        ext.icyMetaInt = kUntouched;
        return mdch_OpenUrl(url.c_str(), 0, &ext, stream);
    }
    // The interval found in a response with these header lines.
    int intervalOf(const std::vector<std::string>& lines)
    {
        server.on("/radio", Reply().headers(lines).body("x"));
        EXPECT_EQ(open(server.url("/radio")), 0);
        EXPECT_EQ(ext.error, kUntouched);
        return ext.icyMetaInt;
    }
    void expectFailure(const std::string& url, int expected)
    {
        const support::TraceCapture traces;
        EXPECT_EQ(open(url), expected);
        EXPECT_EQ(ext.error, expected);
        EXPECT_EQ(ext.icyMetaInt, kUntouched);
        EXPECT_NE(dynamic_cast<md::HttpAccess*>(stream.get()), nullptr);
        const std::string trace = kPrefix + ("error after open: " + std::to_string(expected)) + "\n";
        EXPECT_EQ(traces.count(trace), 1U);
        EXPECT_EQ(traces.severityOf(trace), 3000U);
        EXPECT_FALSE(traces.hasAnywhere("parse header lines"));

        boost::shared_ptr<MdchUrlBase> plain;
        EXPECT_EQ(mdch_OpenUrl(url.c_str(), 0, nullptr, plain), expected) << "without a record";
        EXPECT_NE(plain, nullptr);
    }

    HttpServer server;
    support::EngineStopped engineStopped;
    mdch_UrlExtended_struct ext{};
    boost::shared_ptr<MdchUrlBase> stream;
};

} // namespace

TEST_F(OpenedHeader, radioIntervalIsFoundWhateverTheCaseOfItsName)
{
    EXPECT_EQ(intervalOf({"icy-metaint:16000"}), 16000);
    EXPECT_EQ(intervalOf({"ICY-MetaInt: 16000"}), 16000);
    EXPECT_EQ(intervalOf({"Icy-Metaint:8192"}), 8192);
}

TEST_F(OpenedHeader, withoutTheLineTheIntervalIsUntouched)
{
    EXPECT_EQ(intervalOf({}), kUntouched);
    EXPECT_EQ(intervalOf({"icy-name: Radio", "icy-meta-int: 5", "icy-br:128"}), kUntouched);
}

TEST_F(OpenedHeader, blanksInFrontAreSkippedAndTrailingTextIsIgnored)
{
    EXPECT_EQ(intervalOf({"icy-metaint: \t  4096"}), 4096);
    EXPECT_EQ(intervalOf({"icy-metaint: 4096 bytes"}), 4096);
    EXPECT_EQ(intervalOf({"icy-metaint: 16000;x=1"}), 16000);
    EXPECT_EQ(intervalOf({"icy-metaint: 0x10"}), 0);
    EXPECT_EQ(intervalOf({"icy-metaint: +7"}), 7);
    EXPECT_EQ(intervalOf({"icy-metaint: -5"}), -5);
}

TEST_F(OpenedHeader, aLineWithoutANumberSetsZero)
{
    EXPECT_EQ(intervalOf({"icy-metaint:"}), 0);
    EXPECT_EQ(intervalOf({"icy-metaint: many"}), 0);
}

TEST_F(OpenedHeader, aLaterLineOverwritesAnEarlierOne)
{
    EXPECT_EQ(intervalOf({"icy-metaint: 1", "X-Between: 5", "ICY-METAINT: 2"}), 2);
    EXPECT_EQ(intervalOf({"icy-metaint: 16000", "icy-metaint: none"}), 0);
}

TEST_F(OpenedHeader, theWordCountsAnywhereInTheLine)
{
    EXPECT_EQ(intervalOf({"X-Our-icy-metaint-Value: 77"}), 77);
    EXPECT_EQ(intervalOf({"X-Note: 12 is no icy-metaint"}), 12);
}

TEST_F(OpenedHeader, theNumberFollowsTheFirstColonOfTheLine)
{
    EXPECT_EQ(intervalOf({"X-Note: 3 icy-metaint: 99"}), 3);
    EXPECT_EQ(intervalOf({"icy-metaint: 5:6"}), 5);
}

TEST_F(OpenedHeader, aLineWithTheWordAndWithoutAColonChangesNothing)
{
    server.on("/radio", Reply().statusLine("HTTP/1.1 200 icy-metaint 5").body("x"));
    const support::TraceCapture traces;
    EXPECT_EQ(open(server.url("/radio")), 0);
    EXPECT_EQ(ext.icyMetaInt, kUntouched);
    EXPECT_TRUE(traces.has(std::string(kPrefix) + "header line = HTTP/1.1 200 icy-metaint 5\r\n.\n"));
    EXPECT_FALSE(traces.hasAnywhere("found icy-metaint"));
}

TEST_F(OpenedHeader, numbersBeyondTheFieldCountAsItsLimits)
{
    EXPECT_EQ(intervalOf({"icy-metaint: 2147483647"}), INT32_MAX);
    EXPECT_EQ(intervalOf({"icy-metaint: 2147483648"}), INT32_MAX);
    EXPECT_EQ(intervalOf({"icy-metaint: 4294967312"}), INT32_MAX);
    EXPECT_EQ(intervalOf({"icy-metaint: 99999999999999999999999"}), INT32_MAX);
    EXPECT_EQ(intervalOf({"icy-metaint: -99999999999999999999999"}), INT32_MIN);
}

TEST_F(OpenedHeader, anIcyStatusLineIsAResponseLikeAnyOther)
{
    server.on("/radio", Reply::icy("Radio", 16000).body("music"));
    EXPECT_EQ(open(server.url("/radio")), 0);
    EXPECT_EQ(ext.icyMetaInt, 16000);
    EXPECT_EQ(support::readSome(*stream, 5), "music");
}

TEST_F(OpenedHeader, onlyTheLastResponseOfARedirectCounts)
{
    server.on("/from", Reply::redirect(server.url("/to")).header("icy-metaint: 5"));
    server.on("/to", Reply().header("X-Last: yes").body("x"));
    const support::TraceCapture traces;
    EXPECT_EQ(open(server.url("/from")), 0);
    EXPECT_EQ(ext.icyMetaInt, kUntouched);
    EXPECT_TRUE(traces.has(std::string(kPrefix) + "header line = X-Last: yes\r\n.\n"));
    EXPECT_FALSE(traces.hasAnywhere("header line = icy-metaint"));
}

TEST_F(OpenedHeader, tracesTheScanLineByLine)
{
    server.on("/radio", Reply()
                            .noAutomaticHeaders()
                            .headers({"X-First: 1", "icy-metaint:16000", "Content-Length: 1"})
                            .body("x"));
    const support::TraceCapture traces;
    EXPECT_EQ(open(server.url("/radio")), 0);
    Texts scan;
    for (const std::string& text : traces.texts()) {
        const std::string line = support::TraceCapture::withoutLineNumber(text);
        if (line.compare(0, std::string(kPrefix).size(), kPrefix) == 0) {
            scan.push_back(line.substr(std::string(kPrefix).size()));
        }
    }
    const Texts expected{"parse header lines\n",
                         "header line = HTTP/1.1 200 OK\r\n.\n",
                         "header line = X-First: 1\r\n.\n",
                         "header line = icy-metaint:16000\r\n.\n",
                         "found icy-metaint = 16000.\n",
                         "header line = Content-Length: 1\r\n.\n",
                         "header lines done\n"};
    EXPECT_EQ(scan, expected);
    EXPECT_EQ(traces.severityOf(std::string(kPrefix) + "parse header lines\n"), 5000U);
    EXPECT_EQ(traces.severityOf(std::string(kPrefix) + "header line = X-First: 1\r\n.\n"), 5000U);
    EXPECT_EQ(traces.severityOf(std::string(kPrefix) + "found icy-metaint = 16000.\n"), 4000U);
    EXPECT_EQ(traces.severityOf(std::string(kPrefix) + "header lines done\n"), 5000U);
}

TEST_F(OpenedHeader, errorStatusesFailTheOpen)
{
    server.on("/missing", Reply::error(404));
    server.on("/broken", Reply::error(500));
    server.on("/busy", Reply::error(503));
    expectFailure(server.url("/missing"), 2);
    expectFailure(server.url("/broken"), 22);
    expectFailure(server.url("/busy"), 22);
}

TEST_F(OpenedHeader, aServerThatDoesNotListenFailsTheOpen)
{
    const support::LoopbackPort nobody;
    expectFailure("http://127.0.0.1:" + std::to_string(nobody.port()) + "/", 152);
}

TEST_F(OpenedHeader, aServerThatHangsUpFailsTheOpen)
{
    server.on("/gone", Reply::hangUp());
    expectFailure(server.url("/gone"), 156);
}

TEST_F(OpenedHeader, droppingTheFailedStreamLeavesNothingBehind)
{
    server.on("/missing", Reply::error(404));
    EXPECT_EQ(open(server.url("/missing")), 2);
    EXPECT_EQ(support::registeredCount(), 1U);
    stream.reset();
    EXPECT_TRUE(support::waitForEmptyRegistry());
}

TEST_F(OpenedHeader, aHeaderListThatCannotBeHadFailsTheOpen)
{
    const support::Gate gate;
    server.on("/slow", Reply().body("x").wait(support::At::start(), gate));
    const support::TraceCapture traces;
    int result = 0;
    std::thread opener([this, &result] { result = open(server.url("/slow")); });
    // Closed by another thread while the open waits for the header: the stream has no error, and no header.
    EXPECT_TRUE(traces.waitFor("waitForHeader(): wait for header on fd 100\n"));
    EXPECT_EQ(stream->close(), 0);
    opener.join();
    EXPECT_EQ(result, -EINVAL);
    EXPECT_EQ(ext.error, -EINVAL);
    EXPECT_NE(stream, nullptr);
    const std::string expected = std::string(kPrefix) + "parse header lines error -22\n";
    EXPECT_EQ(traces.count(expected), 1U);
    EXPECT_EQ(traces.severityOf(expected), 3000U);
}
