// When readers are woken for what a pass of the worker brings. The test takes the worker's part.

#include "mdc_hlp_http_curl_news.h"

#include "support/engine.h"
#include "support/media.h"
#include "support/own_allocator.h"
#include "support/trace_capture.h"

#include <cerrno>
#include <cstdlib>
#include <future>
#include <gtest/gtest.h>

namespace {

using md::HttpAccess;
using support::inspect;
using support::Media;
using support::TraceCapture;

constexpr int kNumber = 100;
constexpr std::size_t kRingSize = 10000;
const Media kMedia(9);

// A stream that is connected to nothing: what the test hands over is what it receives.
class News : public testing::Test
{
protected:
    News()
    {
        inspect(kNumber, [](md::MdchCurlDescriptor_struct& desc) {
            desc.url = "http://127.0.0.1/";
            desc.dataTimeout = 1000;
            desc.connected = 1;
            desc.headerComplete = 1;
            desc.receiveBufferMemory = static_cast<unsigned char*>(std::malloc(kRingSize));
            return desc.ringBuffer.init(desc.receiveBufferMemory, kRingSize);
        });
    }
    ~News() override { m_stream.close(); } // lets a reader go that still waits

    // A reader on another thread, which has come to wait; some of its bytes are there already.
    std::future<std::string> startReader(unsigned int count, unsigned int there = 0)
    {
        auto reading =
            std::async(std::launch::async, [this, count] { return support::readSome(m_stream, count); });
        EXPECT_TRUE(waitsFor(count - there));
        return reading;
    }

    // The trace comes under the descriptor's lock: whoever gets that lock behind it finds the reader waiting.
    bool waitsFor(std::size_t missing) const
    {
        return m_trace.waitFor(
            "read(): wait for data on fd 100 (bufSize = 0; missing = " + std::to_string(missing) + "\n");
    }

    // What libcurl does with a block of the body.
    std::size_t receive(std::size_t count)
    {
        std::string block = kMedia.bytes(m_received, count);
        const std::size_t taken =
            mdchHttpCurl_writeCallback(block.data(), 1, count, md::numberAsPointer(kNumber));
        m_received += taken == count ? count : 0;
        return taken;
    }

    support::EngineStopped m_stopped;
    TraceCapture m_trace;
    HttpAccess m_stream;
    std::uint64_t m_received = 0;
    md::PassNews m_pass;
};

// --- Who is told: what a waiting reader has asked for is there as long as it has not been told ---

TEST_F(News, areToldOnceAtTheEndOfThePass)
{
    const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(kNumber);
    md::wantBytes(*desc, 3000);
    m_pass.begin();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(receive(1000), 1000U);
        EXPECT_EQ(desc->wantedBytes, 3000U);
    }
    m_pass.tell();
    EXPECT_EQ(desc->wantedBytes, 0U);
    md::wantBytes(*desc, 3000);
    m_pass.begin();
    m_pass.tell();
    EXPECT_EQ(desc->wantedBytes, 3000U) << "a pass that brings nothing tells nothing";
}

TEST_F(News, areNotToldToReadersThatMissMore)
{
    const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(kNumber);
    for (const std::size_t wanted : {3000U, 1U, 2000U, 5U}) {
        md::wantBytes(*desc, wanted);
        desc->ringBuffer.dequeue(nullptr, kRingSize);
        for (std::size_t there = 0; there < wanted; there += wanted / 2 + 1) {
            EXPECT_EQ(desc->wantedBytes, wanted);
            m_pass.begin();
            EXPECT_EQ(receive(wanted / 2 + 1), wanted / 2 + 1);
            m_pass.tell();
        }
        EXPECT_EQ(desc->wantedBytes, 0U);
    }
}

TEST_F(News, areToldToTheReaderThatMissesLeast)
{
    const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(kNumber);
    for (const auto& [one, other] : {std::pair(300U, 100U), std::pair(100U, 300U)}) {
        md::wantBytes(*desc, one);
        md::wantBytes(*desc, other);
        EXPECT_EQ(receive(99), 99U);
        EXPECT_EQ(desc->wantedBytes, 100U);
        EXPECT_EQ(receive(1), 1U);
        EXPECT_EQ(desc->wantedBytes, 0U);
        desc->ringBuffer.dequeue(nullptr, kRingSize);
    }
}

TEST_F(News, ofHalfABufferAreToldWhateverAReaderMisses)
{
    const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(kNumber);
    md::wantBytes(*desc, 2 * kRingSize);
    EXPECT_EQ(receive(kRingSize / 2 - 1), kRingSize / 2 - 1);
    EXPECT_EQ(desc->wantedBytes, kRingSize / 2);
    EXPECT_EQ(receive(1), 1U);
    EXPECT_EQ(desc->wantedBytes, 0U);
}

TEST_F(News, ofAPauseOfAHeaderAndOfTheFirstByteAreToldAtTheEndOfThePass)
{
    const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(kNumber);
    const auto expectToldAfter = [&](auto happens) {
        md::wantBytes(*desc, kRingSize);
        m_pass.begin();
        happens();
        EXPECT_NE(desc->wantedBytes, 0U);
        m_pass.tell();
        EXPECT_EQ(desc->wantedBytes, 0U);
    };
    desc->connected = 0;
    expectToldAfter([this] { EXPECT_EQ(receive(1), 1U); });
    expectToldAfter([this] { EXPECT_EQ(receive(kRingSize), CURL_WRITEFUNC_PAUSE); });
    expectToldAfter([] {
        std::string line = "\r\n";
        EXPECT_EQ(mdchHttpCurl_headerCallback(line.data(), 1, line.size(), md::numberAsPointer(kNumber)), 2U);
    });
}

TEST_F(News, areToldAtOnceWhenThereIsNoMemoryToNoteThem)
{
    const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(kNumber);
    md::wantBytes(*desc, 5);
    EXPECT_EQ(desc->ringBuffer.enqueue("bytes", 5), 5);
    m_pass.begin();
    {
        const support::ScarceMemory none;
        md::tellOfData(desc);
    }
    EXPECT_EQ(desc->wantedBytes, 0U);
    m_pass.tell();
}

// --- What readers make of it ---

TEST_F(News, wakeAReaderThatHasAllItsBytes)
{
    auto reading = startReader(3000);
    m_pass.begin();
    EXPECT_EQ(receive(1000), 1000U);
    EXPECT_EQ(receive(2000), 2000U);
    m_pass.tell();
    EXPECT_EQ(reading.get(), kMedia.bytes(0, 3000));
}

TEST_F(News, wakeAReaderOfMoreThanTheBufferHolds)
{
    auto reading = startReader(2 * kRingSize);
    for (std::size_t left = 2 * kRingSize; left > 0; left -= kRingSize / 2) {
        EXPECT_TRUE(waitsFor(left));
        m_pass.begin();
        EXPECT_EQ(receive(kRingSize / 2), kRingSize / 2);
        m_pass.tell();
    }
    EXPECT_EQ(reading.get(), kMedia.bytes(0, 2 * kRingSize));
}

// It is not told of it, but somebody may want to see how far it is.
TEST_F(News, ofAPieceAreTakenByAReaderThatHasWaitedForAWhile)
{
    auto reading = startReader(3000);
    std::size_t left = 3000;
    for (const std::size_t piece : {1U, 1000U, 1900U}) {
        EXPECT_EQ(receive(piece), piece);
        left -= piece;
        EXPECT_TRUE(waitsFor(left));
        EXPECT_EQ(m_stream.tell(), static_cast<long long>(3000 - left));
    }
    EXPECT_EQ(receive(left), left);
    EXPECT_EQ(reading.get(), kMedia.bytes(0, 3000));
}

TEST_F(News, ofAFullBufferWakeAReaderThatMissesMore)
{
    auto reading = startReader(4000);
    m_pass.begin();
    EXPECT_EQ(receive(3000), 3000U);
    EXPECT_EQ(receive(kRingSize), CURL_WRITEFUNC_PAUSE);
    m_pass.tell();
    EXPECT_TRUE(m_trace.waitFor("read(): unpause fd 100\n")) << "it takes what is there, and asks for more";
    EXPECT_TRUE(waitsFor(1000));
    EXPECT_EQ(receive(1000), 1000U);
    EXPECT_EQ(reading.get(), kMedia.bytes(0, 4000));
}

TEST_F(News, ofTheEndAndOfAFailureWakeAReaderThatMissesMore)
{
    for (const std::int32_t error : {0, static_cast<int>(MDCH_HTTP_ETRANSFER)}) {
        inspect(kNumber, [](auto& desc) { return desc.done = 0; });
        const std::uint64_t from = m_received;
        auto reading = startReader(5000);
        m_pass.begin();
        EXPECT_EQ(receive(10), 10U);
        {
            const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(kNumber);
            const MdpLock lock = md::lockDescriptor(*desc);
            desc->done = 1;
            desc->error = error;
            md::tellAll(desc);
        }
        m_pass.tell();
        EXPECT_EQ(reading.get(), kMedia.bytes(from, 10));
        EXPECT_EQ(m_stream.error(), error);
        m_trace.clear();
    }
}

TEST_F(News, areToldAtOnceOutsideAPass)
{
    auto reading = startReader(3000);
    EXPECT_EQ(receive(3000), 3000U);
    EXPECT_EQ(reading.get(), kMedia.bytes(0, 3000));
}

TEST_F(News, reachTwoReaders)
{
    auto much = startReader(300);
    auto little = startReader(100);
    for (int i = 0; i < 4; ++i) {
        m_pass.begin();
        EXPECT_EQ(receive(100), 100U);
        m_pass.tell();
    }
    EXPECT_EQ(much.get().size() + little.get().size(), 400U);
    EXPECT_EQ(m_stream.tell(), 400);
}

TEST_F(News, ofLessThanAReaderWantedAreThereWhenItsTimeIsOver)
{
    inspect(kNumber, [](auto& desc) { return desc.dataTimeout = 1; });
    auto reading = startReader(3000);
    m_pass.begin();
    EXPECT_EQ(receive(1000), 1000U);
    m_pass.tell();
    EXPECT_EQ(reading.get(), kMedia.bytes(0, 1000));
    EXPECT_EQ(m_stream.error(), EAGAIN);
    EXPECT_TRUE(
        m_trace.has("read(): cannot fill up the requested buffer on fd 100 (1000<3000), timeout: 1\n"));
}

// A server that cannot seek goes on into the overflow buffer while the stream is held.
TEST_F(News, ofTheOverflowBufferCountAndLeaveInOrder)
{
    inspect(kNumber, [](auto& desc) { return desc.dataTimeout = 1; });
    EXPECT_EQ(receive(100), 100U);
    auto reading = startReader(3000, 100);
    inspect(kNumber, [](md::MdchCurlDescriptor_struct& desc) {
        desc.pauseBuffering = true;
        return desc.paused = 1;
    });
    m_pass.begin();
    EXPECT_EQ(receive(2000), 2000U);
    m_pass.tell();
    EXPECT_EQ(inspect(kNumber, [](auto& desc) { return desc.backBuffer.usedBytes(); }), 2000U);
    EXPECT_EQ(reading.get(), kMedia.bytes(0, 2100)) << "what there was when its time was over";
}

} // namespace
