// The handle interface on an HTTP resource of 6 GiB: every position counts with 64 bits, where a long has 32 bits, too.
#include "mdc_hlp_url.h"

#include "support/engine.h"
#include "support/http_server.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>

namespace {

using support::HttpServer;
using support::Media;
using support::Reply;

constexpr long long kGiB = 1LL << 30;
constexpr long long kSize = 6 * kGiB + 5;
const Media kMedia(61);

class LargeResource : public testing::Test
{
protected:
    LargeResource()
    {
        m_server.on("/film", Reply::resource(kMedia, static_cast<std::uint64_t>(kSize)));
        m_handle = mdch_UrlOpen(m_server.url("/film").c_str(), MDCH_MODE_READ);
    }
    ~LargeResource() override { EXPECT_EQ(mdch_UrlClose(m_handle), 0); }

    void SetUp() override { ASSERT_NE(m_handle, 0U); }

    // Up to the count, less at the end only.
    std::string read(std::size_t count) const
    {
        std::string text(count, '\0');
        std::size_t filled = 0;
        while (filled < count) {
            const int more = mdch_UrlRead(m_handle, reinterpret_cast<unsigned char*>(text.data()) + filled,
                                          static_cast<unsigned int>(count - filled));
            if (more <= 0) {
                break;
            }
            filled += static_cast<std::size_t>(more);
        }
        text.resize(filled);
        return text;
    }

    void expectAt(long long position) const
    {
        constexpr std::size_t kCount = 100;
        EXPECT_EQ(mdch_UrlTell(m_handle), position);
        EXPECT_TRUE(read(kCount) == kMedia.bytes(static_cast<std::uint64_t>(position), kCount)) << position;
        EXPECT_EQ(mdch_UrlTell(m_handle), position + static_cast<long long>(kCount));
        EXPECT_EQ(mdch_UrlSize(m_handle), kSize);
        EXPECT_EQ(mdch_UrlError(m_handle), 0);
    }

    std::string lastRange() const { return m_server.requests().back().header("Range"); }

    support::EngineStopped m_stopped;
    HttpServer m_server;
    unsigned int m_handle = 0;
};

TEST_F(LargeResource, hasTheSizeThatTheServerAnnounces)
{
    EXPECT_EQ(mdch_UrlSize(m_handle), kSize);
    EXPECT_NE(mdch_UrlIsSeekable(m_handle), 0);
    expectAt(0);
}

// Their low 32 bits are the largest, have the sign, are all zero ...
TEST_F(LargeResource, isReadAtEveryPositionFromTheStart)
{
    for (const long long position : {2 * kGiB - 1, 2 * kGiB, 4 * kGiB - 1, 4 * kGiB, 4 * kGiB + 1,
                                     5 * kGiB + 12345, 6 * kGiB - 1000, 3 * kGiB, 7LL}) {
        EXPECT_EQ(mdch_UrlSeek(m_handle, position, SEEK_SET), 0);
        EXPECT_EQ(lastRange(), "bytes=" + std::to_string(position) + "-");
        expectAt(position);
    }
}

TEST_F(LargeResource, isReadFromTheCurrentPositionByMoreThan4GiBEitherWay)
{
    EXPECT_EQ(mdch_UrlSeek(m_handle, 4 * kGiB + 10, SEEK_CUR), 0);
    expectAt(4 * kGiB + 10);
    EXPECT_EQ(mdch_UrlSeek(m_handle, kGiB, SEEK_CUR), 0);
    expectAt(5 * kGiB + 110);
    EXPECT_EQ(mdch_UrlSeek(m_handle, -(5 * kGiB), SEEK_CUR), 0);
    expectAt(210);
}

TEST_F(LargeResource, isReadFromTheEnd)
{
    EXPECT_EQ(mdch_UrlSeek(m_handle, -(5 * kGiB), SEEK_END), 0);
    expectAt(kGiB + 5);
    EXPECT_EQ(mdch_UrlSeek(m_handle, -1000, SEEK_END), 0);
    expectAt(kSize - 1000);
    EXPECT_EQ(mdch_UrlSeek(m_handle, -10, SEEK_END), 0);
    EXPECT_TRUE(read(100) == kMedia.bytes(static_cast<std::uint64_t>(kSize) - 10, 10));
    EXPECT_NE(mdch_UrlEof(m_handle), 0);
    EXPECT_EQ(mdch_UrlTell(m_handle), kSize);
}

TEST_F(LargeResource, isReadAcross2And4GiB)
{
    constexpr std::size_t kHalf = 200'000; // more than the buffer holds
    for (const long long border : {2 * kGiB, 4 * kGiB}) {
        const long long start = border - static_cast<long long>(kHalf);
        EXPECT_EQ(mdch_UrlSeek(m_handle, start, SEEK_SET), 0);
        EXPECT_TRUE(read(2 * kHalf) == kMedia.bytes(static_cast<std::uint64_t>(start), 2 * kHalf)) << border;
        EXPECT_EQ(mdch_UrlTell(m_handle), border + static_cast<long long>(kHalf));
    }
}

// Short ways forward are taken inside the buffer, over the border, too.
TEST_F(LargeResource, aSeekInsideTheBufferCrosses4GiB)
{
    EXPECT_EQ(mdch_UrlSeek(m_handle, 4 * kGiB - 50, SEEK_SET), 0);
    EXPECT_TRUE(read(10) == kMedia.bytes(static_cast<std::uint64_t>(4 * kGiB - 50), 10));
    EXPECT_EQ(mdch_UrlSeek(m_handle, 100, SEEK_CUR), 0);
    expectAt(4 * kGiB + 60);
}

TEST_F(LargeResource, goesOnBehind4GiBAfterAPause)
{
    EXPECT_EQ(mdch_UrlSeek(m_handle, 5 * kGiB, SEEK_SET), 0);
    expectAt(5 * kGiB);
    EXPECT_EQ(mdch_UrlPause(m_handle), 0);
    EXPECT_EQ(mdch_UrlResume(m_handle), 0);
    expectAt(5 * kGiB + 100);
}

TEST_F(LargeResource, aPositionBeforeItsStartIsRefused)
{
    EXPECT_EQ(mdch_UrlSeek(m_handle, 5 * kGiB, SEEK_SET), 0);
    EXPECT_NE(mdch_UrlSeek(m_handle, -(5 * kGiB + 1), SEEK_CUR), 0);
    mdch_UrlClearerr(m_handle);
    expectAt(5 * kGiB);
}

} // namespace
