// Streams from a server that is far away: every byte takes its time, both ways.
#include "support_shaped.h"

#include "support/long_way.h"

namespace {

using std::chrono::milliseconds;
using support::HttpServer;
using support::kFilm;
using support::LongWay;
using support::Reply;
using support::ShapedStream;
using support::TraceCapture;
using support::waitUntil;

constexpr double kShare = 0.9; // of a time that must have passed: clocks differ a little

class FarServer : public testing::Test
{
protected:
    void TearDown() override { md::HttpAccess::shutdown(); }

    HttpServer m_server;
    TraceCapture m_failures{3000};
};

} // namespace

TEST_F(FarServer, aLateHeaderIsATimeOutNotEarlierAndTheStreamGoesOn)
{
    constexpr std::uint64_t kSize = 100'000;
    m_server.on("/film", Reply::resource(kFilm, kSize));
    const LongWay way(m_server.port(), milliseconds(1500));
    const auto begin = ShapedStream::Clock::now();
    ShapedStream stream(way.url("/film"));
    stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 1);
    EXPECT_EQ(stream.error(), 14) << "the header takes 3 s";
    EXPECT_GE(ShapedStream::secondsSince(begin), kShare);
    EXPECT_LT(ShapedStream::secondsSince(begin), 60);
    stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, ShapedStream::kPatience);
    EXPECT_EQ(stream.size(), static_cast<long long>(kSize));
    EXPECT_GE(ShapedStream::secondsSince(begin), 3 * kShare);
    stream.expectFilm(0, kSize);
    stream.expectEnd();
    EXPECT_EQ(m_server.requests().size(), 1U) << "one request was enough";
    EXPECT_EQ(m_failures.lines().size(), 1U) << "that of the time-out";
}

TEST_F(FarServer, seeksTakeTheWayThereAndBackAndLeadToTheirPlaces)
{
    constexpr std::uint64_t kSize = 3'000'000;
    m_server.on("/film", Reply::resource(kFilm, kSize));
    const LongWay way(m_server.port(), milliseconds(200));
    ShapedStream stream(way.url("/film"));
    stream.expectFilm(0, 1000);
    for (const std::uint64_t place : {2'000'000U, 100U, 2'999'900U}) {
        const auto begin = ShapedStream::Clock::now();
        ASSERT_EQ(stream.seek(static_cast<long long>(place), SEEK_SET), 0) << "to " << place;
        EXPECT_GE(ShapedStream::secondsSince(begin), 0.4 * kShare) << "a header was waited for";
        stream.expectFilm(place, 100);
    }
    EXPECT_EQ(stream.error(), 0);
    EXPECT_EQ(m_failures.texts(), std::vector<std::string>());
}

TEST_F(FarServer, aSeekWithinTheBufferTakesNoWay)
{
    constexpr std::uint64_t kSize = 100'000; // all of it fits
    m_server.on("/film", Reply::resource(kFilm, kSize));
    const LongWay way(m_server.port(), milliseconds(200));
    ShapedStream stream(way.url("/film"));
    ASSERT_TRUE(waitUntil([&] { return stream.level() == kSize; }, support::kLongest));
    ASSERT_EQ(stream.seek(70'000, SEEK_SET), 0);
    stream.expectFilm(70'000, 30'000);
    EXPECT_EQ(m_server.requests().size(), 1U);
}

// Bytes that are under way while the stream pauses come once, in their order.
TEST_F(FarServer, pausesLoseAndRepeatNothingThatIsUnderWay)
{
    constexpr std::uint64_t kSize = 600'000;
    for (const bool seekable : {true, false}) {
        SCOPED_TRACE(seekable ? "seekable" : "not seekable");
        Reply film = Reply::resource(kFilm, kSize);
        m_server.on("/film", seekable ? film : film.ignoreRanges());
        const LongWay way(m_server.port(), milliseconds(50), 1'000'000);
        ShapedStream stream(way.url("/film"));
        ASSERT_EQ(stream.isSeekable(), seekable ? 1 : 0);
        for (std::uint64_t position = 0; position < kSize; position += 100'000) {
            stream.expectFilm(position, 100'000);
            ASSERT_EQ(stream.pause(), 0);
            ASSERT_EQ(stream.resume(), 0);
        }
        stream.expectEnd();
    }
    EXPECT_EQ(m_failures.texts(), std::vector<std::string>());
}

TEST_F(FarServer, aLongAndSlowWayFillsTheBufferAndStopsAtItsSize)
{
    constexpr std::uint64_t kSize = 1'000'000;
    constexpr std::size_t kBuffer = 98'304;
    constexpr std::size_t kLargestBlock = 16'384;
    m_server.on("/film", Reply::resource(kFilm, kSize));
    const LongWay way(m_server.port(), milliseconds(50), 400'000);
    ShapedStream stream(way.url("/film"));
    ASSERT_EQ(stream.error(), 0);
    std::size_t last = 0;
    ASSERT_TRUE(waitUntil(
        [&] {
            const std::size_t level = stream.level();
            EXPECT_GE(level, last) << "nobody reads";
            last = level;
            return level + kLargestBlock > 2 * kBuffer;
        },
        support::kLongest));
    EXPECT_LE(last, 2 * kBuffer) << "the buffer's default size";
    stream.expectFilm(0, kSize);
    stream.expectEnd();
    EXPECT_EQ(m_failures.texts(), std::vector<std::string>());
}
