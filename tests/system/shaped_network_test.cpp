// Streams over networks that are slow, lose packets, and fail for a while. The kernel shapes the loopback interface of
// a network of the test's own; nothing leaves the machine.
//
// No test asks how fast anything is: a time-out may be late on a busy machine, but must never be early.
#include "support_shaped.h"

#include "mdc_hlp_icy.h"
#include "mdc_hlp_upload.h"
#include "mdc_hlp_url_base.h"
#include "support/ftp_server.h"
#include "support/poor_network.h"
#include "support/slow_icy.h"
#include "support/temp_dir.h"
#include "support/udp_socket.h"

#include <algorithm>
#include <optional>
#include <random>

namespace {

using support::At;
using support::HttpServer;
using support::kFilm;
using support::Reply;
using support::ShapedStream;
using support::TraceCapture;
using support::waitUntil;

constexpr int kLossPercent = 5;

class ShapedNetwork : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!m_network) {
            GTEST_SKIP() << m_network.problem();
        }
        m_server.emplace();
    }
    void TearDown() override { md::HttpAccess::shutdown(); }

    void serveFilm(std::uint64_t size)
    {
        m_server->on("/film", Reply::resource(kFilm, size).sendBuffer(65536));
    }

    support::PoorNetwork m_network;
    std::optional<HttpServer> m_server;
    TraceCapture m_failures{3000};
};

} // namespace

// --- A slow link ---

TEST_F(ShapedNetwork, aSlowLinkDeliversEveryByteWithoutATimeOut)
{
    constexpr std::uint64_t kSize = 400'000;
    constexpr std::uint64_t kRate = 400'000;
    m_network.limit(kRate);
    serveFilm(kSize);
    const auto begin = ShapedStream::Clock::now();
    ShapedStream stream(m_server->url("/film"));
    stream.expectFilm(0, kSize);
    stream.expectEnd();
    EXPECT_GE(ShapedStream::secondsSince(begin), 0.5) << "the link is slow";
    EXPECT_EQ(m_failures.texts(), std::vector<std::string>());
}

TEST_F(ShapedNetwork, aReadOnASlowLinkWaitsItsTimeAndNoByteIsLostByATimeOut)
{
    constexpr std::uint64_t kSize = 400'000;
    constexpr unsigned int kPiece = 300'000; // at this rate more than 2 s
    m_network.limit(120'000);
    serveFilm(kSize);
    ShapedStream stream(m_server->url("/film"));
    ASSERT_EQ(stream.error(), 0);
    stream.fcntl(MDCH_FCNTL_DATA_TIMEOUT, 1);
    std::uint64_t position = 0;
    std::size_t timeOuts = 0;
    while (stream.eof() == 0) {
        const ShapedStream::Timed read = stream.timedRead(kPiece);
        ASSERT_TRUE(kFilm.matches(position, read.bytes)) << "at " << position;
        position += read.bytes.size();
        if (read.bytes.size() < kPiece && position < kSize) {
            ++timeOuts;
            ASSERT_GE(read.seconds, 0.9) << "too early";
            EXPECT_LT(read.seconds, 60);
        }
    }
    EXPECT_EQ(position, kSize);
    EXPECT_EQ(stream.error(), 0) << "the bytes that came put the time-out away";
    EXPECT_GE(timeOuts, 1U);
    EXPECT_EQ(support::countAll(m_failures, "wait for data TIMEDOUT"), timeOuts);
    EXPECT_EQ(support::countAll(m_failures, "cannot fill up the requested buffer"), timeOuts);
    EXPECT_EQ(m_failures.lines().size(), 2 * timeOuts);
}

TEST_F(ShapedNetwork, seeksOnASlowLinkLeadToTheirPlaces)
{
    constexpr std::uint64_t kSize = 5'000'000;
    m_network.limit(500'000);
    serveFilm(kSize);
    ShapedStream stream(m_server->url("/film"));
    for (const std::uint64_t place : {4'000'000U, 1'000U, 2'500'000U, 4'999'995U, 2'500'001U}) {
        ASSERT_EQ(stream.seek(static_cast<long long>(place), SEEK_SET), 0) << "to " << place;
        stream.expectFilm(place, std::min<std::uint64_t>(5'000, kSize - place));
    }
    EXPECT_EQ(m_failures.texts(), std::vector<std::string>());
}

TEST_F(ShapedNetwork, theBufferFillsWithTheLinkAndKeepsItsLevelDuringAPause)
{
    constexpr std::uint64_t kSize = 1'000'000;
    constexpr std::size_t kSome = 50'000;
    m_network.limit(250'000);
    serveFilm(kSize);
    ShapedStream stream(m_server->url("/film"));
    std::size_t last = 0;
    ASSERT_TRUE(waitUntil(
        [&] {
            const std::size_t level = stream.level();
            EXPECT_GE(level, last) << "nobody reads";
            last = level;
            return level >= kSome;
        },
        support::kLongest));
    ASSERT_EQ(stream.pause(), 0);
    const std::size_t paused = stream.level();
    ASSERT_TRUE(m_server->waitForOpenConnections(0, support::kLongest)) << "a pause gives the link back";
    EXPECT_EQ(stream.level(), paused);
    m_network.noLimit();
    ASSERT_EQ(stream.resume(), 0);
    stream.expectFilm(0, kSize);
    stream.expectEnd();
    EXPECT_EQ(m_server->requests().at(1).header("Range"), "bytes=" + std::to_string(paused) + "-");
    EXPECT_EQ(m_failures.texts(), std::vector<std::string>());
}

// --- Loss ---

TEST_F(ShapedNetwork, lossCostsNoByteOfAFilm)
{
    constexpr std::uint64_t kSize = 500'000;
    serveFilm(kSize);
    m_network.lose(kLossPercent);
    ShapedStream stream(m_server->url("/film"));
    stream.expectFilm(0, kSize);
    stream.expectEnd();
    EXPECT_GT(m_network.lost(), 0U);
    EXPECT_EQ(m_failures.texts(), std::vector<std::string>());
}

TEST_F(ShapedNetwork, seeksAndPausesUnderLossLeadToTheirPlaces)
{
    constexpr std::uint64_t kSize = 3'000'000;
    serveFilm(kSize);
    m_network.lose(kLossPercent);
    ShapedStream stream(m_server->url("/film"));
    for (const std::uint64_t place : {2'000'000U, 10U, 2'900'000U, 1'500'000U}) {
        ASSERT_EQ(stream.seek(static_cast<long long>(place), SEEK_SET), 0) << "to " << place;
        stream.expectFilm(place, 20'000);
        ASSERT_EQ(stream.pause(), 0);
        ASSERT_EQ(stream.resume(), 0);
        stream.expectFilm(place + 20'000, 20'000);
    }
    EXPECT_EQ(m_failures.texts(), std::vector<std::string>());
}

TEST_F(ShapedNetwork, titlesOfARadioStationKeepTheirPlacesUnderLoss)
{
    constexpr int kInterval = 8000;
    constexpr int kTitles = 30;
    std::string body;
    for (int i = 0; i < kTitles; ++i) {
        body += kFilm.bytes(static_cast<std::uint64_t>(i) * kInterval, kInterval) +
                support::icyTitleBlock("Title " + std::to_string(i));
    }
    m_server->on("/live", Reply::icy("Radio", kInterval).body(body));
    m_network.lose(kLossPercent);
    mdch_UrlExtended_struct options{};
    options.flags = MDCH_URL_ICY_METADATA;
    boost::shared_ptr<MdchUrlBase> stream;
    ASSERT_EQ(mdch_OpenUrl(m_server->url("/live").c_str(), MDCH_MODE_READ, &options, stream), 0);
    md::IcyReader radio(stream, options.icyMetaInt);
    std::vector<unsigned char> buffer(16384);
    std::uint64_t position = 0;
    for (int titles = 0; titles < kTitles;) {
        const int count = radio.read(buffer.data(), 16384);
        ASSERT_TRUE(count > 0 || stream->eof() != 0) << "error " << stream->error();
        ASSERT_TRUE(kFilm.matches(position, buffer.data(), static_cast<std::size_t>(count)));
        position += static_cast<std::uint64_t>(count);
        for (const md::IcyTitle& change : radio.takeChanges()) {
            EXPECT_EQ(change.position, (titles + 1) * kInterval);
            EXPECT_EQ(change.title, "Title " + std::to_string(titles));
            ++titles;
        }
        ASSERT_TRUE(count > 0 || titles == kTitles);
    }
    EXPECT_GT(m_network.lost(), 0U);
    EXPECT_EQ(m_failures.texts(), std::vector<std::string>());
}

TEST_F(ShapedNetwork, anUploadUnderLossIsWhole)
{
    const std::string content = kFilm.bytes(0, 400'000);
    const support::TempDir folder("shaped");
    support::FtpServer ftp;
    m_network.lose(kLossPercent);
    md::FtpAccess access;
    access.setServerUrl(ftp.host());
    access.setSourceFile(folder.write("film", content));
    access.setUploadedFile("film");
    EXPECT_EQ(access.upload(), 0);
    ASSERT_EQ(ftp.uploads().size(), 1U);
    EXPECT_EQ(ftp.uploads().front().sha256, support::sha256Of(content));
    EXPECT_GT(m_network.lost(), 0U);
}

// --- Outages ---

TEST_F(ShapedNetwork, aStreamOutlivesAnOutageOfItsTimeOut)
{
    constexpr std::uint64_t kSize = 9'000'000;
    constexpr unsigned int kMore = 8'000'000; // than all buffers on the way hold
    serveFilm(kSize);
    ShapedStream stream(m_server->url("/film"));
    stream.expectFilm(0, 100'000);
    m_network.lose(100);
    stream.fcntl(MDCH_FCNTL_DATA_TIMEOUT, 1);
    const ShapedStream::Timed read = stream.timedRead(kMore);
    ASSERT_TRUE(kFilm.matches(100'000, read.bytes));
    ASSERT_LT(read.bytes.size(), kMore) << "what was there when the link failed";
    EXPECT_EQ(stream.error(), 11);
    EXPECT_EQ(stream.eof(), 0);
    EXPECT_GE(read.seconds, 0.9) << "too early";
    EXPECT_LT(read.seconds, 60);
    m_network.lose(0);
    stream.fcntl(MDCH_FCNTL_DATA_TIMEOUT, ShapedStream::kPatience);
    const std::uint64_t position = 100'000 + read.bytes.size();
    stream.expectFilm(position, kSize - position);
    stream.expectEnd();
    EXPECT_EQ(m_server->connectionCount(), 1U) << "the connection went on";
    EXPECT_EQ(m_failures.lines().size(), 2U) << "those of the time-out";
}

TEST_F(ShapedNetwork, anOutageAtTheBeginningIsAHeaderTimeOutAndNoMore)
{
    constexpr std::uint64_t kSize = 100'000;
    serveFilm(kSize);
    m_network.lose(100);
    const auto begin = ShapedStream::Clock::now();
    ShapedStream stream(m_server->url("/film"));
    stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 1);
    EXPECT_EQ(stream.error(), 14);
    EXPECT_GE(ShapedStream::secondsSince(begin), 0.9) << "too early";
    EXPECT_LT(ShapedStream::secondsSince(begin), 60);
    EXPECT_EQ(m_server->connectionCount(), 0U);
    m_network.lose(0);
    stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, ShapedStream::kPatience);
    EXPECT_EQ(stream.size(), static_cast<long long>(kSize));
    stream.expectFilm(0, kSize);
    stream.expectEnd();
    EXPECT_EQ(m_failures.lines().size(), 1U) << "that of the time-out";
}

// --- Datagrams ---

namespace {

// Datagrams of 1000 bytes, each with its number in front.
std::string datagram(int number)
{
    std::string text = std::to_string(number) + " ";
    return text + kFilm.bytes(static_cast<std::uint64_t>(number) * 1000, 1000 - text.size());
}

boost::shared_ptr<MdchUrlBase> listenTo(const std::string& url)
{
    boost::shared_ptr<MdchUrlBase> stream;
    EXPECT_EQ(mdch_OpenUrl(url.c_str(), MDCH_MODE_READ, nullptr, stream), 0);
    return stream;
}

// One read; whether it was the datagram of that number or a later one, whole. The number goes on behind it.
testing::AssertionResult readWhole(MdchUrlBase& stream, int& number)
{
    std::vector<unsigned char> buffer(65536);
    int count = 0;
    waitUntil([&] { return (count = stream.read(buffer.data(), 65536)) != 0; }, support::kLongest);
    const std::string bytes(buffer.begin(), buffer.begin() + std::max(count, 0));
    const int came = count > 0 ? std::stoi(bytes) : -1;
    if (came < number || bytes != datagram(came)) {
        return testing::AssertionFailure() << count << " bytes, datagram " << came << " at " << number;
    }
    number = came + 1;
    return testing::AssertionSuccess();
}

} // namespace

TEST_F(ShapedNetwork, exactlyTheDatagramsThatTheNetworkLosesAreMissing)
{
    constexpr int kBatch = 40; // fits into the stream's socket
    constexpr int kBatches = 15;
    const auto stream = listenTo("udp://239.1.2.3:5000");
    const support::UdpSender sender("239.1.2.3", 5000);
    m_network.lose(10);
    int next = 0;
    int sent = 0;
    std::uint64_t received = 0;
    for (int batch = 0; batch < kBatches; ++batch) {
        for (int i = 0; i < kBatch; ++i) {
            sender.send(datagram(sent++));
        }
        const std::uint64_t arrived = static_cast<std::uint64_t>(sent) - m_network.lost();
        for (; received < arrived; ++received) {
            ASSERT_TRUE(readWhole(*stream, next)) << "after " << received;
        }
    }
    EXPECT_GT(m_network.lost(), 0U);
    unsigned char more[2048];
    EXPECT_EQ(stream->read(more, sizeof more), 0) << "none comes twice";
    EXPECT_EQ(stream->error(), 0);
    EXPECT_EQ(stream->close(), 0);
    EXPECT_EQ(m_failures.texts(), std::vector<std::string>());
}

TEST_F(ShapedNetwork, ofASenderThatIsTooFastArrivesWhatTheLinkTakes)
{
    constexpr int kSent = 300;
    const auto stream = listenTo("udp://239.1.2.3:5000");
    const support::UdpSender sender("239.1.2.3", 5000);
    m_network.limit(200'000, 40'000);
    for (int i = 0; i < kSent; ++i) {
        sender.send(datagram(i));
    }
    const std::uint64_t arriving = kSent - m_network.thrownAway();
    EXPECT_GT(arriving, 0U);
    EXPECT_LT(arriving, static_cast<std::uint64_t>(kSent));
    int next = 0;
    for (std::uint64_t i = 0; i < arriving; ++i) {
        ASSERT_TRUE(readWhole(*stream, next)) << "after " << i;
    }
    unsigned char more[2048];
    EXPECT_EQ(stream->read(more, sizeof more), 0);
    EXPECT_EQ(stream->close(), 0);
    EXPECT_EQ(m_failures.texts(), std::vector<std::string>());
}
