// The header callback's dealings with the descriptor.
#include "mdc_hlp_http_curl_engine.h"
#include "support/http_client.h"
#include "support/trace_capture.h"

#include <boost/make_shared.hpp>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

using support::TraceCapture;
using support::TransferFacts;

namespace {

using Lines = std::vector<std::string>;

constexpr int kNumber = 7;

// A registered descriptor with a libcurl handle that never ran, so that lines can be given to the callback
// without a server.
class HttpHeaderCallback : public ::testing::Test
{
protected:
    HttpHeaderCallback() : desc(boost::make_shared<md::MdchCurlDescriptor_struct>())
    {
        desc->fd = kNumber;
        desc->easy = curl_easy_init();
        mdchHttpCurl_addDescriptor(desc);
    }
    ~HttpHeaderCallback() override { md::unregisterDescriptor(*desc); }

    static std::size_t give(std::string text, int number = kNumber)
    {
        return mdchHttpCurl_headerCallback(text.data(), 1, text.size(),
                                           reinterpret_cast<void*>(static_cast<std::intptr_t>(number)));
    }

    TransferFacts facts() const
    {
        const MdpLock lock = md::lockDescriptor(*desc);
        return support::factsOf(*desc);
    }

    TraceCapture traces;
    md::MdchDescriptorPtr desc;
};

} // namespace

// --- The callback ---

TEST_F(HttpHeaderCallback, UnknownNumberIsReportedAndTheLineCounted)
{
    EXPECT_EQ(give("X-A: 1\r\n", 4711), 8U);
    const std::string text = "mdchHttpCurl_headerCallback(): received header callback for unknown fd 4711\n";
    EXPECT_EQ(traces.count(text), 1U);
    EXPECT_EQ(traces.severityOf(text), 3000U);
    EXPECT_EQ(traces.count("mdc_hlp_http_curl_header.cpp:#:mdchHttpCurl_headerCallback(): Called.\n"), 1U);
    EXPECT_TRUE(facts().responseHeaders.empty());
}

TEST_F(HttpHeaderCallback, EveryCallIsTraced)
{
    give("HTTP/1.1 200 OK\r\n");
    give("X-A: 1\r\n");
    give("\r\n");
    const std::string text = "mdc_hlp_http_curl_header.cpp:#:mdchHttpCurl_headerCallback(): Called.\n";
    EXPECT_EQ(traces.count(text), 3U);
    EXPECT_EQ(traces.severityOf(text), 5000U);
}

TEST_F(HttpHeaderCallback, CountIsSizeTimesMembers)
{
    std::string line = "X-A: 1\r\n";
    EXPECT_EQ(mdchHttpCurl_headerCallback(line.data(), 2, 4, reinterpret_cast<void*>(std::intptr_t{kNumber})),
              8U);
    EXPECT_EQ(facts().responseHeaders, Lines{"X-A: 1\r\n"});
}

TEST_F(HttpHeaderCallback, LinesAreKeptAsTheyCameInOrder)
{
    const Lines lines{"HTTP/1.1 200 OK\r\n", "b: 2\r\n", " folded\r\n", "A:1\n", "no end", "nul\r\n"};
    for (const std::string& line : lines) {
        EXPECT_EQ(give(line), line.size());
    }
    EXPECT_EQ(facts().responseHeaders, lines);
}

TEST_F(HttpHeaderCallback, NothingHappensOnceTheTransferIsDone)
{
    desc->done = 1;
    desc->capabilities = 4;
    EXPECT_EQ(give("Content-Range: bytes 0-4/5\r\n"), 28U);
    EXPECT_EQ(give("\r\n"), 2U);
    const TransferFacts after = facts();
    EXPECT_TRUE(after.responseHeaders.empty());
    EXPECT_EQ(after.capabilities, 4U);
    EXPECT_EQ(after.headerBlockEnded, 0);
    EXPECT_EQ(after.length, -11);
}

TEST_F(HttpHeaderCallback, OnlyAnEmptyLineEndsTheBlock)
{
    for (const char* line : {"X\n", "ab", "\r\r", "\n\r", " \n", "a"}) {
        give(line);
        EXPECT_EQ(facts().headerBlockEnded, 0) << testing::PrintToString(line);
    }
    give("\r\n");
    EXPECT_EQ(facts().headerBlockEnded, 1);
}

TEST_F(HttpHeaderCallback, BareLineFeedEndsTheBlock)
{
    give("HTTP/1.1 200 OK\n");
    give("X: 1\n");
    give("\n");
    EXPECT_EQ(facts().headerBlockEnded, 1);
    EXPECT_EQ(facts().responseHeaders, (Lines{"HTTP/1.1 200 OK\n", "X: 1\n"}));
}

TEST_F(HttpHeaderCallback, NextStatusLineStartsANewBlock)
{
    give("HTTP/1.1 302 Found\r\n");
    give("Content-Range: bytes 0-4/999\r\n");
    give("\r\n");
    EXPECT_EQ(facts().instanceLength, 999);
    EXPECT_EQ(facts().headerBlockEnded, 1);
    give("HTTP/1.1 200 OK\r\n");
    EXPECT_EQ(facts().headerBlockEnded, 0);
    EXPECT_EQ(facts().instanceLength, -1);
    EXPECT_EQ(facts().responseHeaders, Lines{"HTTP/1.1 200 OK\r\n"});
}

TEST_F(HttpHeaderCallback, WholeLengthServesAsLengthWhenThereIsNoOther)
{
    give("Content-Range: bytes 0-4/777\r\n");
    give("\r\n");
    EXPECT_EQ(facts().length, 777);
    const std::string text = "mdchHttpCurl_headerCallback(): using instanceLength 777 for length on fd 7\n";
    EXPECT_EQ(traces.count(text), 1U);
    EXPECT_EQ(traces.severityOf(text), 5000U);
}

TEST_F(HttpHeaderCallback, NegativeWholeLengthIsNoLength)
{
    give("Content-Range: bytes 0-4/-5\r\n");
    give("\r\n");
    EXPECT_EQ(facts().length, -1);
    EXPECT_FALSE(traces.hasAnywhere("using instanceLength"));
}

TEST_F(HttpHeaderCallback, WholeLengthOfZeroServesAsLength)
{
    give("Content-Range: bytes */0\r\n");
    give("\r\n");
    EXPECT_EQ(facts().length, 0);
}

TEST_F(HttpHeaderCallback, EndOfABlockWakesEveryWaiter)
{
    int waiting = 0;
    int woken = 0;
    const auto waiter = [&] {
        MdpLock lock = md::lockDescriptor(*desc);
        ++waiting;
        timespec deadline{};
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 30;
        int result = 0;
        while (desc->headerBlockEnded == 0 && result != ETIMEDOUT) {
            result = lock.wait(desc->cond, &deadline);
        }
        woken += result == 0 ? 1 : 0;
    };
    std::thread first(waiter);
    std::thread second(waiter);
    // Both are in the wait once they have counted and the mutex is free again.
    EXPECT_TRUE(support::waitUntil([&] {
        const MdpLock lock = md::lockDescriptor(*desc);
        return waiting == 2;
    }));
    give("\r\n");
    first.join();
    second.join();
    EXPECT_EQ(woken, 2);
}
