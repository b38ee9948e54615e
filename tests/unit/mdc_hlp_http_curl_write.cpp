// The body callback, called directly: no server, no worker.

#include "mdc_hlp_http_curl.h"

#include "mdc_hlp_http_curl_engine.h"
#include "support/trace_capture.h"

#include <boost/make_shared.hpp>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <numeric>

namespace {

using md::MdchCurlDescriptor_struct;
using support::TraceCapture;

constexpr std::int32_t kNumber = 7001;

std::string countingBytes(std::size_t count, unsigned char first = 0)
{
    std::string bytes(count, '\0');
    std::iota(bytes.begin(), bytes.end(), static_cast<char>(first));
    return bytes;
}

class WriteCallback : public testing::Test
{
protected:
    explicit WriteCallback(std::size_t ringSize = 1000)
        : m_desc(boost::make_shared<MdchCurlDescriptor_struct>())
    {
        m_desc->fd = kNumber;
        m_desc->state = md::kStateRunning;
        m_desc->receiveBufferMemory = static_cast<unsigned char*>(std::malloc(ringSize));
        m_desc->ringBuffer.init(m_desc->receiveBufferMemory, ringSize);
        mdchHttpCurl_addDescriptor(m_desc);
    }
    ~WriteCallback() override { md::unregisterDescriptor(*m_desc); }

    size_t write(const std::string& bytes) const
    {
        return mdchHttpCurl_writeCallback(const_cast<char*>(bytes.data()), 1, bytes.size(),
                                          reinterpret_cast<void*>(static_cast<std::intptr_t>(kNumber)));
    }

    static std::string take(MdpRingBuffer& buffer)
    {
        std::string bytes(buffer.usedBytes(), '\0');
        buffer.dequeue(bytes.data(), bytes.size());
        return bytes;
    }

    md::MdchDescriptorPtr m_desc;
};

TEST_F(WriteCallback, storesABlockAndMovesTheWritePosition)
{
    m_desc->writePos = 500;
    m_desc->error = 11;
    const time_t before = time(nullptr);
    EXPECT_EQ(write("hello"), 5U);
    EXPECT_EQ(take(m_desc->ringBuffer), "hello");
    EXPECT_EQ(m_desc->writePos, 505);
    EXPECT_EQ(m_desc->error, 0) << "each stored block clears the error";
    EXPECT_GE(m_desc->lastDataTime, before);
    EXPECT_FALSE(m_desc->pausePending);
}

TEST_F(WriteCallback, keepsTheErrorWhenDataIsAcceptedAfterTheEnd)
{
    m_desc->acceptAfterDone = true;
    m_desc->error = 11;
    EXPECT_EQ(write("hello"), 5U);
    EXPECT_EQ(m_desc->error, 11);
}

TEST_F(WriteCallback, tracesEveryCall)
{
    TraceCapture trace;
    write("hello");
    EXPECT_EQ(trace.count(
                  "mdc_hlp_http_curl_write.cpp:#:mdchHttpCurl_writeCallback(): Called. fd: 7001; size: 5\n"),
              1U);
    EXPECT_EQ(trace.lines().front().level, 0x680000U | 5000U);
}

TEST_F(WriteCallback, abortsATransferThatIsNotRegistered)
{
    md::unregisterDescriptor(*m_desc);
    EXPECT_EQ(write("hello"), 0U);
}

TEST_F(WriteCallback, marksTheStreamConnectedWithTheFirstData)
{
    EXPECT_EQ(write("x"), 1U);
    EXPECT_EQ(m_desc->connected, 1);
    EXPECT_EQ(m_desc->headerComplete, 1);
}

TEST_F(WriteCallback, returnsNothingForAnEmptyBlock)
{
    EXPECT_EQ(write(""), 0U);
    EXPECT_EQ(m_desc->connected, 0);
}

TEST_F(WriteCallback, ignoresDataThatComesAfterTheEnd)
{
    m_desc->done = 1;
    TraceCapture trace;
    EXPECT_EQ(write("late"), 4U);
    EXPECT_EQ(m_desc->ringBuffer.usedBytes(), 0U);
    EXPECT_EQ(m_desc->connected, 0);
    EXPECT_TRUE(
        trace.has("mdchHttpCurl_writeCallback(): connection already done on fd 7001. ignore 4 bytes.\n"));
}

TEST_F(WriteCallback, storesDataAfterTheEndWhenAskedTo)
{
    m_desc->done = 1;
    m_desc->acceptAfterDone = true;
    EXPECT_EQ(write("late"), 4U);
    EXPECT_EQ(take(m_desc->ringBuffer), "late");
}

TEST_F(WriteCallback, pausesInsteadOfSplittingABlock)
{
    TraceCapture trace;
    EXPECT_EQ(write(std::string(1001, 'x')), CURL_WRITEFUNC_PAUSE);
    EXPECT_EQ(m_desc->ringBuffer.usedBytes(), 0U);
    EXPECT_EQ(m_desc->paused, 1);
    EXPECT_EQ(m_desc->state, md::kStatePaused);
    EXPECT_TRUE(trace.has("mdchHttpCurl_writeCallback(): pause connection on fd 7001\n"));
    EXPECT_EQ(m_desc->lastDataTime, 0) << "a refused call does not count";
    m_desc->paused = 0;
    EXPECT_EQ(write(std::string(1000, 'x')), 1000U) << "all bytes of the buffer are usable";
}

TEST_F(WriteCallback, failsWithoutAnyBufferMemory)
{
    m_desc->ringBuffer.release();
    TraceCapture trace;
    EXPECT_EQ(write("hello"), 0U);
    EXPECT_EQ(m_desc->error, 22);
    EXPECT_TRUE(
        trace.has("mdchHttpCurl_writeCallback(): cannot enqueue data into the ringbuffer on fd 7001: 22\n"));
    EXPECT_TRUE(trace.has(
        "mdchHttpCurl_writeCallback(): receive buffer is filled up for fd 7001. toCopy=5 copied=0\n"));
}

// The state of a closed stream is final: a pause would keep it in the engine for ever.
TEST_F(WriteCallback, neverPausesAClosedStream)
{
    m_desc->state = md::kStateFinalise;
    m_desc->done = 1;
    EXPECT_EQ(write(std::string(2000, 'x')), 2000U);
    EXPECT_EQ(m_desc->state, md::kStateFinalise);
    EXPECT_EQ(m_desc->paused, 0);
}

TEST_F(WriteCallback, skipsTheBytesThatASeekDoesNotWant)
{
    m_desc->skipBytes = 3;
    m_desc->writePos = 100;
    TraceCapture trace;
    EXPECT_EQ(write("abcdef"), 6U);
    EXPECT_EQ(take(m_desc->ringBuffer), "def");
    EXPECT_EQ(m_desc->writePos, 103);
    EXPECT_EQ(m_desc->skipBytes, 0);
    EXPECT_TRUE(trace.has("mdchHttpCurl_writeCallback(): skip bytes after seek. fd 7001. 3 bytes.\n"));
}

TEST_F(WriteCallback, skipsWholeBlocks)
{
    m_desc->skipBytes = 10;
    TraceCapture trace;
    EXPECT_EQ(write("abcdef"), 6U);
    EXPECT_EQ(m_desc->skipBytes, 4);
    EXPECT_TRUE(trace.has(
        "mdchHttpCurl_writeCallback(): more bytes to skip as received. fd 7001. 6 bytes, skip 10.\n"));
    EXPECT_EQ(write("ghij"), 4U);
    EXPECT_EQ(m_desc->skipBytes, 0) << "exactly the rest";
    EXPECT_EQ(m_desc->ringBuffer.usedBytes(), 0U);
    EXPECT_EQ(write("k"), 1U);
    EXPECT_EQ(take(m_desc->ringBuffer), "k");
}

TEST_F(WriteCallback, dropsWhatTheServerSentBeforeThePositionAskedFor)
{
    m_desc->leadingSkip = 8;
    m_desc->skipBytes = 2;
    EXPECT_EQ(write("012345"), 6U);
    EXPECT_EQ(m_desc->leadingSkip, 2);
    EXPECT_EQ(m_desc->skipBytes, 2) << "comes after the leading bytes";
    EXPECT_EQ(write("6789ab"), 6U);
    EXPECT_EQ(take(m_desc->ringBuffer), "ab");
}

TEST_F(WriteCallback, deliversNothingOfAMisplacedBody)
{
    m_desc->misplaced = true;
    m_desc->done = 1;
    m_desc->acceptAfterDone = true;
    EXPECT_EQ(write("wrong"), 0U);
    EXPECT_EQ(m_desc->ringBuffer.usedBytes(), 0U);
}

TEST_F(WriteCallback, acceptsOneBlockIntoTheRingWhilePausedAndPausesAtTheNext)
{
    m_desc->paused = 1;
    EXPECT_EQ(write("first"), 5U);
    EXPECT_TRUE(m_desc->pausePending);
    EXPECT_EQ(write("second"), CURL_WRITEFUNC_PAUSE);
    EXPECT_FALSE(m_desc->pausePending);
    EXPECT_EQ(m_desc->state, md::kStatePaused);
    EXPECT_EQ(take(m_desc->ringBuffer), "first");
}

TEST_F(WriteCallback, usesTheOverflowBufferWhilePausedWithPauseBuffering)
{
    m_desc->pauseBuffering = true;
    m_desc->paused = 1;
    TraceCapture trace;
    EXPECT_EQ(write("kept"), 4U);
    EXPECT_EQ(m_desc->ringBuffer.usedBytes(), 0U);
    EXPECT_EQ(take(m_desc->backBuffer), "kept");
    ASSERT_NE(m_desc->backBufferMemory, nullptr);
    EXPECT_EQ(m_desc->backBuffer.availableBytes(), 393216U);
    EXPECT_TRUE(m_desc->pausePending);
    EXPECT_EQ(trace.count(
                  "mdc_hlp_http_curl_write.cpp:#:mdchHttpCurl_writeCallback(): Called. Using backbuffer fd: "
                  "7001 size: 4\n"),
              1U);
}

// Bytes leave in the order in which they came, also after an explicit resume.
TEST_F(WriteCallback, putsNewBytesBehindTheOverflowBuffersOnesAfterAResume)
{
    m_desc->pauseBuffering = true;
    EXPECT_EQ(write(countingBytes(900)), 900U);
    m_desc->paused = 1;
    EXPECT_EQ(write(countingBytes(300, 900 % 256)), 300U);
    m_desc->paused = 0;
    m_desc->pausePending = false;
    EXPECT_EQ(write(countingBytes(200, 1200 % 256)), 200U);
    std::string all = take(m_desc->ringBuffer);
    mdchHttpCurl_refillFromBackBuffer(*m_desc);
    all += take(m_desc->ringBuffer);
    EXPECT_EQ(all, countingBytes(1400));
    EXPECT_EQ(m_desc->writePos, 1400);
}

TEST_F(WriteCallback, refillsInPiecesUntilOneBufferIsEmptyOrTheOtherFull)
{
    m_desc->pauseBuffering = true;
    m_desc->paused = 1;
    EXPECT_EQ(write(countingBytes(1500)), 1500U);
    EXPECT_EQ(mdchHttpCurl_refillFromBackBuffer(*m_desc), 1000U);
    EXPECT_EQ(m_desc->backBuffer.usedBytes(), 500U);
    EXPECT_EQ(take(m_desc->ringBuffer), countingBytes(1500).substr(0, 1000));
    EXPECT_EQ(mdchHttpCurl_refillFromBackBuffer(*m_desc), 500U);
    EXPECT_EQ(take(m_desc->ringBuffer), countingBytes(1500).substr(1000));
    EXPECT_EQ(mdchHttpCurl_refillFromBackBuffer(*m_desc), 0U);
}

TEST_F(WriteCallback, wakesSelectWaiters)
{
    constexpr std::int32_t kSelectable = 900;
    m_desc->fd = kSelectable;
    mdchHttpCurl_addDescriptor(m_desc);
    md::MdchHttpSelect_struct waiter;
    pthread_mutex_init(&waiter.mutex, nullptr);
    pthread_cond_init(&waiter.cond, nullptr);
    FD_ZERO(&waiter.readSet);
    m_desc->selectWaiters.push_back(&waiter);
    TraceCapture trace;
    std::string block = "x";
    EXPECT_EQ(mdchHttpCurl_writeCallback(block.data(), 1, 1,
                                         reinterpret_cast<void*>(static_cast<std::intptr_t>(kSelectable))),
              1U);
    EXPECT_TRUE(FD_ISSET(kSelectable, &waiter.readSet));
    EXPECT_TRUE(trace.has("mdchHttpCurl_writeCallback(): wakeup select...\n"));
    m_desc->selectWaiters.clear();
    pthread_cond_destroy(&waiter.cond);
    pthread_mutex_destroy(&waiter.mutex);
    md::unregisterDescriptor(*m_desc);
    m_desc->fd = kNumber;
}

// An fd_set ends at 1023; stream numbers do not.
TEST_F(WriteCallback, wakesWaitersOfLargeNumbersWithoutTouchingTheirSets)
{
    md::MdchHttpSelect_struct waiter;
    pthread_mutex_init(&waiter.mutex, nullptr);
    pthread_cond_init(&waiter.cond, nullptr);
    FD_ZERO(&waiter.readSet);
    m_desc->selectWaiters.push_back(&waiter);
    EXPECT_EQ(write("x"), 1U);
    for (int number = 0; number < FD_SETSIZE; ++number) {
        EXPECT_FALSE(FD_ISSET(number, &waiter.readSet));
    }
    m_desc->selectWaiters.clear();
    pthread_cond_destroy(&waiter.cond);
    pthread_mutex_destroy(&waiter.mutex);
}

} // namespace
