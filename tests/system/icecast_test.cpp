// Streams against a real radio station.
#include "support_icecast.h"
#include "support_mpeg.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_url.h"
#include "mdc_hlp_url_base.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr std::size_t kSample = 65536;

class IcecastTest : public testing::Test
{
protected:
    int open(const std::string& url, std::int32_t flags = 0)
    {
        m_ext = {};
        m_ext.flags = flags;
        m_ext.icyMetaInt = kUntouched;
        return mdch_OpenUrl(url.c_str(), MDCH_MODE_READ, &m_ext, m_stream);
    }

    md::HttpAccess& http() const { return dynamic_cast<md::HttpAccess&>(*m_stream); }

    std::string read(std::size_t count)
    {
        std::string bytes(count, '\0');
        const int got =
            m_stream->read(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<unsigned int>(count));
        bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return bytes;
    }

    static constexpr std::int32_t kUntouched = -7;
    support::Icecast m_station;
    mdch_UrlExtended_struct m_ext{};
    boost::shared_ptr<MdchUrlBase> m_stream;
};

TEST_F(IcecastTest, AStationIsAnEndlessStreamOfFrames)
{
    ASSERT_EQ(open(m_station.station()), 0);
    EXPECT_EQ(m_ext.icyMetaInt, kUntouched);
    EXPECT_EQ(http().getResponseCode(), 200);
    EXPECT_LT(m_stream->size(), 0);
    EXPECT_EQ(m_stream->isSeekable(), 0);

    std::deque<std::string> lines;
    ASSERT_EQ(http().getHeaderList(lines), 0);
    EXPECT_NE(std::find(lines.begin(), lines.end(), "Content-Type: audio/mpeg\r\n"), lines.end());

    const std::string bytes = read(kSample);
    ASSERT_EQ(bytes.size(), kSample);
    EXPECT_GE(support::framesIn(bytes), 50U);
    EXPECT_EQ(m_stream->eof(), 0);
    EXPECT_EQ(m_stream->error(), 0);
    EXPECT_EQ(m_stream->tell(), static_cast<long long>(kSample));
    EXPECT_NE(m_stream->seek(0, SEEK_SET), 0);
}

TEST_F(IcecastTest, TitlesStandWhereTheIntervalSays)
{
    constexpr std::size_t kInterval = 16000;
    constexpr unsigned int kTitleUnit = 16;
    ASSERT_EQ(open(m_station.station(), MDCH_URL_ICY_METADATA), 0);
    ASSERT_EQ(m_ext.icyMetaInt, static_cast<std::int32_t>(kInterval));

    // Without the titles between them the pieces are one unbroken chain of frames.
    std::string sound;
    for (int piece = 0; piece < 4; ++piece) {
        const std::string part = read(kInterval);
        ASSERT_EQ(part.size(), kInterval);
        sound += part;
        const int units = m_stream->getc();
        ASSERT_GE(units, 0);
        const std::size_t length = static_cast<unsigned int>(units) * kTitleUnit;
        const std::string title = read(length);
        ASSERT_EQ(title.size(), length);
        EXPECT_TRUE(title.empty() || title.rfind("StreamTitle=", 0) == 0) << title;
    }
    EXPECT_GE(support::framesIn(sound), 50U);
}

TEST_F(IcecastTest, AnUnknownStationIsNotFound)
{
    EXPECT_EQ(open(m_station.url("/none.mp3")), 2);
    EXPECT_EQ(m_ext.error, 2);
    EXPECT_EQ(http().getResponseCode(), 404);
}

TEST_F(IcecastTest, CallersInCHearTheStationToo)
{
    mdch_UrlExtended_struct ext{};
    ext.flags = MDCH_URL_ICY_METADATA;
    const unsigned int handle = mdch_UrlOpenExt(m_station.station().c_str(), MDCH_MODE_READ, &ext);
    ASSERT_NE(handle, 0U);
    EXPECT_EQ(ext.icyMetaInt, 16000);
    std::array<unsigned char, 20000> buffer{};
    EXPECT_EQ(mdch_UrlRead(handle, buffer.data(), static_cast<unsigned int>(buffer.size())),
              static_cast<int>(buffer.size()));
    EXPECT_LT(mdch_UrlSize(handle), 0);
    EXPECT_EQ(mdch_UrlClose(handle), 0);
}

} // namespace
