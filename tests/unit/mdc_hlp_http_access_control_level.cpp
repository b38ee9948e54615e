// md::HttpAccess: how full the receive buffer is.

#include "mdc_hlp_http_access.h"

#include "mdc_hlp_http_curl.h"
#include "support/engine.h"
#include "support/http_server.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <vector>

namespace {

using md::HttpAccess;
using support::At;
using support::HttpServer;
using support::inspect;
using support::Media;
using support::Reply;
using support::waitForDescriptor;
using support::waitUntil;

class BufferLevel : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;
    std::size_t m_used = 7;
    std::size_t m_size = 7;

    std::size_t usedOf(const HttpAccess& stream)
    {
        EXPECT_EQ(stream.getBufferLevel(m_used, m_size), 0);
        return m_used;
    }
};

TEST_F(BufferLevel, isNothingOfNothingBeforeTheFirstOpen)
{
    const HttpAccess stream;
    EXPECT_EQ(stream.getBufferLevel(m_used, m_size), 0);
    EXPECT_EQ(m_used, 0U);
    EXPECT_EQ(m_size, 0U);
}

TEST_F(BufferLevel, countsWhatCameAndWasNotRead)
{
    m_server.on("/", Reply::resource(Media(3), 100000).stall(At::body(50000)));
    HttpAccess stream;
    ASSERT_GE(stream.open(m_server.url().c_str(), 0), 100);
    EXPECT_TRUE(waitUntil([&] { return usedOf(stream) == 50000; }));
    EXPECT_EQ(m_size, 196608U);
    std::vector<unsigned char> buffer(20000);
    EXPECT_EQ(stream.read(buffer.data(), 20000), 20000);
    EXPECT_EQ(usedOf(stream), 30000U);
    EXPECT_EQ(stream.tell(), 20000);
}

TEST_F(BufferLevel, hasTheSizeThatWasAskedFor)
{
    m_server.on("/", Reply::resource(Media(3), 5000));
    HttpAccess stream;
    EXPECT_EQ(stream.fcntl(MDCH_FCNTL_BUFFER_SIZE, 100000), 0);
    ASSERT_GE(stream.open(m_server.url().c_str(), 0), 100);
    EXPECT_TRUE(waitUntil([&] { return usedOf(stream) == 5000; }));
    EXPECT_EQ(m_size, 100000U);
}

TEST_F(BufferLevel, passesTheSizeWhenBytesComeDuringAPause)
{
    m_server.on("/", Reply::endless(Media(3)).header("Accept-Ranges: none"));
    HttpAccess stream;
    EXPECT_EQ(stream.fcntl(MDCH_FCNTL_BUFFER_SIZE, 98304), 0);
    EXPECT_EQ(stream.fcntl(MDCH_FCNTL_PAUSE_BUFFERING), 0);
    const int number = stream.open(m_server.url().c_str(), 0);
    ASSERT_GE(number, 100);
    ASSERT_TRUE(waitForDescriptor(number, [](auto& desc) { return desc.paused != 0; }));
    EXPECT_GT(usedOf(stream), 98304U - 16384U); // a block of libcurl's did not fit any more
    EXPECT_LE(m_used, m_size);
    inspect(number, [](auto& desc) { return desc.lastDataTime -= 400; }); // so long a pause
    mdchHttpCurl_wakeupWorkerThread();
    EXPECT_TRUE(waitUntil([&] { return usedOf(stream) > m_size; }));
    EXPECT_EQ(m_size, 98304U);
}

TEST_F(BufferLevel, ofAStreamThatIsGoneIsAnError)
{
    m_server.on("/", Reply::resource(Media(3), 5000));
    HttpAccess stream;
    ASSERT_GE(stream.open(m_server.url().c_str(), 0), 100);
    ASSERT_EQ(HttpAccess::shutdown(), 0);
    EXPECT_EQ(stream.getBufferLevel(m_used, m_size), -ENOSYS);
    EXPECT_EQ(stream.close(), -EINVAL);
    EXPECT_EQ(stream.getBufferLevel(m_used, m_size), -EINVAL);
    EXPECT_EQ(m_used, 7U);
    EXPECT_EQ(m_size, 7U);
}

} // namespace
