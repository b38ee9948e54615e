// The handle interface on HTTP streams: what it sets, and calls that meet on one handle.
#include "mdc_hlp_url.h"

#include "support/engine.h"
#include "support/http_server.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

using support::At;
using support::Gate;
using support::HttpServer;
using support::Reply;

constexpr int kFirstNumber = 100;
using Desc = const md::MdchCurlDescriptor_struct&;

class HttpHandles : public testing::Test
{
protected:
    HttpHandles() { userAgent = nullptr; }
    ~HttpHandles() override
    {
        std::free(userAgent);
        userAgent = nullptr;
    }

    static void initAgent(const char* text)
    {
        const mdch_UrlInit_struct record{text};
        ASSERT_EQ(mdch_UrlInit(&record), 0);
    }
    static std::string readText(unsigned int handle, unsigned int size)
    {
        std::string text(size, '\0');
        const int count = mdch_UrlRead(handle, reinterpret_cast<unsigned char*>(text.data()), size);
        text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return text;
    }
    static void expectTimeouts(int header, int data)
    {
        EXPECT_EQ(support::inspect(kFirstNumber, [](Desc desc) { return desc.headerTimeout; }), header);
        EXPECT_EQ(support::inspect(kFirstNumber, [](Desc desc) { return desc.dataTimeout; }), data);
    }

    HttpServer server;
    support::EngineStopped engineStopped; // so that the stream's number is the first
    mdch_UrlExtended_struct ext{};
};

} // namespace

TEST_F(HttpHandles, openSendsTheStoredUserAgentAndSetsTheTimeouts)
{
    server.on("/a", Reply::resource("hello"));
    initAgent("Player/1");
    const unsigned int handle = mdch_UrlOpen(server.url("/a").c_str(), 0);
    ASSERT_NE(handle, 0U);
    EXPECT_EQ(server.requests().at(0).header("User-Agent"), "Player/1");
    EXPECT_EQ(server.requests().at(0).countHeader("icy-metadata"), 0U);
    EXPECT_EQ(server.requests().at(0).countHeader("Range"), 0U);
    expectTimeouts(40, 30);
    EXPECT_EQ(readText(handle, 10), "hello");
    EXPECT_EQ(mdch_UrlClose(handle), 0);
}

TEST_F(HttpHandles, openWithoutAStoredUserAgentSendsNone)
{
    server.on("/a", Reply::resource("hello"));
    const unsigned int handle = mdch_UrlOpen(server.url("/a").c_str(), 0);
    ASSERT_NE(handle, 0U);
    EXPECT_FALSE(server.requests().at(0).hasHeader("User-Agent"));
    mdch_UrlClose(handle);
}

TEST_F(HttpHandles, openScansTheHeaderToo)
{
    server.on("/radio", Reply().header("icy-metaint:16000").body("x"));
    const support::TraceCapture traces;
    const unsigned int handle = mdch_UrlOpen(server.url("/radio").c_str(), 0);
    EXPECT_EQ(traces.count("mdc_hlp_url_base.cpp:#:mdch_OpenUrl(): found icy-metaint = 16000.\n"), 1U);
    mdch_UrlClose(handle);
}

TEST_F(HttpHandles, extendedOpenTakesTheUserAgentFromItsRecordAlone)
{
    server.on("/a", Reply::resource("hello"));
    initAgent("Player/1");
    mdch_UrlClose(mdch_UrlOpenExt(server.url("/a").c_str(), 0, &ext));
    mdch_UrlClose(mdch_UrlOpenExt(server.url("/a").c_str(), 0, nullptr));
    ext.userAgent = "Other/2";
    mdch_UrlClose(mdch_UrlOpenExt(server.url("/a").c_str(), 0, &ext));
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 3U);
    EXPECT_FALSE(requests[0].hasHeader("User-Agent"));
    EXPECT_FALSE(requests[1].hasHeader("User-Agent"));
    EXPECT_EQ(requests[2].header("User-Agent"), "Other/2");
}

TEST_F(HttpHandles, extendedOpenWithoutARecordKeepsTheStreamsTimeouts)
{
    server.on("/a", Reply::resource("hello"));
    const unsigned int handle = mdch_UrlOpenExt(server.url("/a").c_str(), 0, nullptr);
    ASSERT_NE(handle, 0U);
    expectTimeouts(7, 330);
    mdch_UrlClose(handle);
}

TEST_F(HttpHandles, extendedOpenHandsTheRadioIntervalOut)
{
    server.on("/radio", Reply::icy("Radio", 8192).body("x"));
    ext.flags = MDCH_URL_ICY_METADATA;
    const unsigned int handle = mdch_UrlOpenExt(server.url("/radio").c_str(), 0, &ext);
    EXPECT_EQ(ext.icyMetaInt, 8192);
    EXPECT_EQ(server.requests().at(0).header("icy-metadata"), "1");
    mdch_UrlClose(handle);
}

TEST_F(HttpHandles, operationsReachTheStream)
{
    server.on("/a", Reply::resource("0123456789"));
    const unsigned int handle = mdch_UrlOpen(server.url("/a").c_str(), 0);
    ASSERT_NE(handle, 0U);
    EXPECT_EQ(mdch_UrlSize(handle), 10);
    EXPECT_EQ(mdch_UrlIsSeekable(handle), 1);
    EXPECT_NE(mdch_UrlCapability(handle) & 1U, 0U);
    EXPECT_EQ(mdch_UrlGetc(handle), '0');
    EXPECT_EQ(mdch_UrlSeek(handle, 5, 0), 0);
    EXPECT_EQ(mdch_UrlTell(handle), 5);
    EXPECT_EQ(mdch_UrlPause(handle), 0);
    EXPECT_EQ(mdch_UrlResume(handle), 0);
    EXPECT_EQ(readText(handle, 10), "56789");
    EXPECT_EQ(mdch_UrlGetc(handle), -1);
    EXPECT_EQ(mdch_UrlEof(handle), 1);
    EXPECT_EQ(mdch_UrlError(handle), 0);
    unsigned char byte = 0;
    EXPECT_EQ(mdch_UrlWrite(handle, &byte, 1), 0);
    EXPECT_EQ(mdch_UrlClose(handle), 0);
    EXPECT_TRUE(support::waitForEmptyRegistry());
}

TEST_F(HttpHandles, refusedSeeksAreMinusOneWithTheirResultInTheTrace)
{
    server.on("/live", Reply::endless());
    const unsigned int handle = mdch_UrlOpen(server.url("/live").c_str(), 0);
    ASSERT_NE(handle, 0U);
    const support::TraceCapture traces;
    EXPECT_EQ(mdch_UrlSeek(handle, 5, 0), -1);
    EXPECT_EQ(traces.count("mdc_hlp_url.cpp:#:mdch_UrlSeek(): return -1 instead of -29.\n"), 1U);
    EXPECT_EQ(mdch_UrlError(handle), 29);
    mdch_UrlClearerr(handle);
    EXPECT_EQ(mdch_UrlError(handle), 0);
    EXPECT_EQ(mdch_UrlSeekTime(handle, 1000), -1);
    EXPECT_EQ(traces.count("mdc_hlp_url.cpp:#:mdch_UrlSeekTime(): return -1 instead of -29.\n"), 1U);
    EXPECT_EQ(mdch_UrlClose(handle), 0);
}

TEST_F(HttpHandles, aFailedOpenLeavesItsReasonInTheRecordAndNoStream)
{
    server.on("/missing", Reply::error(404));
    server.on("/a", Reply::resource("hello"));
    const unsigned int before = mdch_UrlOpen(server.url("/a").c_str(), 0);
    EXPECT_EQ(mdch_UrlOpenExt(server.url("/missing").c_str(), 0, &ext), 0U);
    EXPECT_EQ(ext.error, 2);
    EXPECT_EQ(mdch_UrlOpen(server.url("/missing").c_str(), 0), 0U);
    const unsigned int after = mdch_UrlOpen(server.url("/a").c_str(), 0);
    EXPECT_EQ(after, before + 1) << "failed opens take no number";
    mdch_UrlClose(before);
    mdch_UrlClose(after);
    EXPECT_TRUE(support::waitForEmptyRegistry());
}

TEST_F(HttpHandles, aReadThatWaitsDoesNotHoldOtherHandlesUp)
{
    Gate gate;
    server.on("/slow", Reply().body("0123456789").wait(At::body(4), gate));
    server.on("/quick", Reply::resource("hello"));
    const unsigned int slow = mdch_UrlOpen(server.url("/slow").c_str(), 0);
    ASSERT_NE(slow, 0U);
    std::string slowText;
    const support::TraceCapture traces;
    std::thread reader([&] { slowText = readText(slow, 10); });
    EXPECT_TRUE(support::waitUntil([&] { return traces.hasAnywhere("read(): wait for data on fd 100"); }));

    const support::TempDir dir;
    const unsigned int file = mdch_UrlOpen(dir.write("a", "file").c_str(), 0);
    EXPECT_EQ(readText(file, 10), "file");
    EXPECT_EQ(mdch_UrlClose(file), 0);
    const unsigned int quick = mdch_UrlOpen(server.url("/quick").c_str(), 0);
    EXPECT_EQ(readText(quick, 5), "hello");
    EXPECT_EQ(mdch_UrlClose(quick), 0);
    EXPECT_EQ(mdch_UrlEof(0), 1);

    gate.open();
    reader.join();
    EXPECT_EQ(slowText, "0123456789");
    EXPECT_EQ(mdch_UrlClose(slow), 0);
}

TEST_F(HttpHandles, closeReleasesAReadThatWaits)
{
    const Gate never;
    server.on("/stalled", Reply().body("0123456789").wait(At::body(4), never));
    const unsigned int handle = mdch_UrlOpen(server.url("/stalled").c_str(), 0);
    ASSERT_NE(handle, 0U);
    std::string text = "not read";
    const support::TraceCapture traces;
    std::thread reader([&] { text = readText(handle, 10); });
    EXPECT_TRUE(support::waitUntil([&] { return traces.hasAnywhere("(bufSize = 0; missing = 6"); }));
    EXPECT_EQ(mdch_UrlClose(handle), 0);
    reader.join();
    EXPECT_EQ(text, "0123");
    errno = 0;
    EXPECT_EQ(mdch_UrlClose(handle), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(support::waitForEmptyRegistry());
}

TEST_F(HttpHandles, closesThatRaceWithReadsAreSafe)
{
    server.on("/live", Reply::endless());
    for (int round = 0; round < 30; ++round) {
        const unsigned int handle = mdch_UrlOpen(server.url("/live").c_str(), 0);
        ASSERT_NE(handle, 0U);
        std::atomic<int> reading{0};
        std::vector<std::thread> readers;
        for (int i = 0; i < 2; ++i) {
            readers.emplace_back([&] {
                std::vector<unsigned char> buffer(8192);
                ++reading;
                while (mdch_UrlRead(handle, buffer.data(), 8192) > 0) {
                }
            });
        }
        EXPECT_TRUE(support::waitUntil([&reading] { return reading == 2; }));
        EXPECT_EQ(mdch_UrlClose(handle), 0);
        for (std::thread& reader : readers) {
            reader.join();
        }
        EXPECT_EQ(mdch_UrlEof(handle), 1) << "the handle is given up";
    }
    EXPECT_TRUE(support::waitForEmptyRegistry());
}

TEST_F(HttpHandles, closesOfOneHandleByManyThreadsAreSafe)
{
    server.on("/live", Reply::endless());
    for (int round = 0; round < 10; ++round) {
        const unsigned int handle = mdch_UrlOpen(server.url("/live").c_str(), 0);
        ASSERT_NE(handle, 0U);
        std::vector<int> results(4);
        std::vector<std::thread> threads;
        for (int& result : results) {
            threads.emplace_back([&result, handle] { result = mdch_UrlClose(handle); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        int succeeded = 0;
        for (const int result : results) {
            // A late one finds the stream closed (-EINVAL), or no handle any more (-1).
            EXPECT_TRUE(result == 0 || result == -1 || result == -EINVAL) << result;
            succeeded += result == 0 ? 1 : 0;
        }
        EXPECT_GE(succeeded, 1);
    }
    EXPECT_TRUE(support::waitForEmptyRegistry());
}
