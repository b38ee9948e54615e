// Multicast between two networks: FFmpeg sends MPEG-TS at 20 Mbit/s, a reader behind the handle interface
// receives, and nothing may be missing but what the kernel says it threw away.
//
// The long run, with its numbers on standard output:
//
//   MDCH_MULTICAST_SECONDS=60 build/release/tests/system/system_multicast_test --gtest_filter='*20Mbit*'
//
// Root, or a user who may make user namespaces, runs these tests; nothing leaves the machine.
#include "support_rtp.h"
#include "support_station.h"

#include "mdc_hlp_url.h"
#include "support/descriptors.h"
#include "support/udp_socket.h"
#include "support/wait.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <future>
#include <gtest/gtest.h>
#include <iostream>
#include <string>
#include <vector>

namespace {

using support::RtpCount;
using support::Station;
using support::UdpPort;
using support::UdpReceiver;
using support::UdpSender;

constexpr const char* kGroup = "239.1.2.3";
constexpr std::uint16_t kPort = 5000;
constexpr const char* kUrl = "udp://@239.1.2.3:5000";
constexpr std::size_t kLargeBuffer = 65536;
constexpr const char* kWay = "first";

// The stream under test, and who reads it.
class Listener
{
public:
    explicit Listener(std::size_t bufferBytes = kLargeBuffer) : m_buffer(bufferBytes), m_count(bufferBytes)
    {
        const auto before = support::openDescriptors();
        m_handle = mdch_UrlOpen(kUrl, MDCH_MODE_READ);
        m_fd = support::descriptorOpenedSince(before);
        EXPECT_NE(m_handle, 0U);
        EXPECT_GE(m_fd, 0);
    }
    ~Listener()
    {
        m_stationHasEnded = true;
        if (m_reading.valid()) {
            m_reading.wait();
        }
        EXPECT_EQ(mdch_UrlError(m_handle), 0);
        EXPECT_EQ(mdch_UrlClose(m_handle), 0);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    std::uint64_t dropped() const { return support::droppedAt(m_fd); }

    // Reads on a thread of its own, until the station has ended and half a second passed without a datagram.
    void listen()
    {
        m_reading = std::async(std::launch::async, [this] {
            while (readOnce() || !m_stationHasEnded) {
            }
            timespec used{};
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
            m_cpuSeconds = static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
        });
    }

    const RtpCount& whenTheStationHasEnded()
    {
        m_stationHasEnded = true;
        m_reading.get();
        return m_count;
    }
    double cpuSeconds() const { return m_cpuSeconds; }

    // One read, as text; empty when nothing came.
    std::string text()
    {
        const int count = mdch_UrlRead(m_handle, m_buffer.data(), static_cast<unsigned int>(m_buffer.size()));
        return std::string(m_buffer.begin(), m_buffer.begin() + count);
    }

private:
    bool readOnce()
    {
        const int count = mdch_UrlRead(m_handle, m_buffer.data(), static_cast<unsigned int>(m_buffer.size()));
        if (count <= 0) {
            return false;
        }
        m_count.take(m_buffer.data(), static_cast<std::size_t>(count));
        return true;
    }

    unsigned int m_handle = 0;
    int m_fd = -1;
    std::vector<unsigned char> m_buffer;
    RtpCount m_count;
    std::atomic<bool> m_stationHasEnded{false};
    double m_cpuSeconds = 0;
    std::future<void> m_reading;
};

class MulticastTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!m_networks) {
            GTEST_SKIP() << m_networks.problem();
        }
        m_networks.connect(kWay, 1);
        m_networks.routeMulticast(kWay);
    }

    void waitForTheEnd(Station& station, int seconds) const
    {
        EXPECT_EQ(station.end(std::chrono::seconds(seconds) + std::chrono::seconds(60)), "");
    }

    // Whatever is missing, the kernel must have dropped.
    void expectNothingLostBut(std::uint64_t dropped, const RtpCount& count) const
    {
        const std::uint64_t sent = m_networks.sentThere();
        EXPECT_GT(sent, 0U);
        EXPECT_EQ(count.damaged(), 0U);
        EXPECT_EQ(count.different(), count.datagrams()) << "none comes twice";
        EXPECT_LE(count.different(), sent);
        EXPECT_LE(count.missingInside(), dropped);
        EXPECT_LE(sent - count.different(), dropped) << "of " << sent;
    }

    support::TwoNetworks m_networks;
};

int secondsToListen()
{
    constexpr int kOrdinary = 4;
    const char* asked = std::getenv("MDCH_MULTICAST_SECONDS");
    return asked != nullptr ? std::stoi(asked) : kOrdinary;
}

TEST_F(MulticastTest, nothingOf20MbitPerSecondIsLost)
{
    const int seconds = secondsToListen();
    Station station;
    Listener listener;
    listener.listen();
    const auto begin = std::chrono::steady_clock::now();
    station.start(m_networks, kGroup, kPort, seconds);
    waitForTheEnd(station, seconds);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
    const RtpCount& count = listener.whenTheStationHasEnded();
    const std::uint64_t dropped = listener.dropped();
    const std::uint64_t between = m_networks.droppedBetween(kWay);
    const std::uint64_t sent = m_networks.sentThere();

    std::cout << seconds << " s at " << Station::kBitsPerSecond / 1'000'000 << " Mbit/s: " << sent
              << " datagrams sent, " << count.datagrams() << " received (" << count.bytes() << " bytes), "
              << sent - count.different() << " lost; the kernel dropped " << dropped << " at the socket, "
              << between << " before it; " << count.outOfOrder() << " out of order, "
              << count.continuityErrors() << " breaks in continuity; reader " << listener.cpuSeconds()
              << " s of CPU in " << elapsed.count() << " s\n";
    expectNothingLostBut(dropped + between, count);
    if (count.different() == sent && count.outOfOrder() == 0) {
        EXPECT_EQ(count.continuityErrors(), 0U) << "the stream is whole inside, too";
    }
    // It was as much as the name of this test says.
    constexpr std::uint64_t kBits = (Station::kDatagramBytes - Station::kHeaderBytes) * 8;
    const double bits = static_cast<double>(sent * kBits) / seconds;
    EXPECT_NEAR(bits, Station::kBitsPerSecond, Station::kBitsPerSecond / 10.0);
}

TEST_F(MulticastTest, aLateReaderLosesWhatTheBufferDidNotHoldAndGoesOn)
{
    constexpr int kSeconds = 2;
    constexpr std::uint64_t kEnough = 100;
    Station station;
    Listener listener;
    station.start(m_networks, kGroup, kPort, kSeconds);
    ASSERT_TRUE(support::waitUntil([&] { return listener.dropped() >= kEnough; }));
    const std::uint64_t before = listener.dropped();
    listener.listen();
    waitForTheEnd(station, kSeconds);
    const RtpCount& count = listener.whenTheStationHasEnded();

    expectNothingLostBut(listener.dropped() + m_networks.droppedBetween(kWay), count);
    EXPECT_GE(m_networks.sentThere() - count.different(), kEnough) << "they are lost, and counted";
    EXPECT_GE(count.missingInside(), kEnough) << "the stream goes on behind the gap";
    EXPECT_GE(listener.dropped(), before);
}

TEST_F(MulticastTest, aSmallBufferCutsEachDatagramAndNoMore)
{
    constexpr int kSeconds = 1;
    Station station;
    Listener listener(600);
    listener.listen();
    station.start(m_networks, kGroup, kPort, kSeconds);
    waitForTheEnd(station, kSeconds);
    const RtpCount& count = listener.whenTheStationHasEnded();
    EXPECT_EQ(count.bytes(), count.datagrams() * 600);
    expectNothingLostBut(listener.dropped() + m_networks.droppedBetween(kWay), count);
}

TEST_F(MulticastTest, twoReceiversOfAGroupGetTheWholeStreamEach)
{
    constexpr int kSeconds = 2;
    Station station;
    Listener one;
    Listener two;
    one.listen();
    two.listen();
    station.start(m_networks, kGroup, kPort, kSeconds);
    waitForTheEnd(station, kSeconds);
    for (Listener* listener : {&one, &two}) {
        const RtpCount& count = listener->whenTheStationHasEnded();
        expectNothingLostBut(listener->dropped() + m_networks.droppedBetween(kWay), count);
    }
}

TEST_F(MulticastTest, whatComesOnAnotherWayDoesNotCount)
{
    m_networks.connect("second", 2);
    Listener listener; // on the first way, as the routes say
    const UdpReceiver other(kGroup, kPort, UdpPort::shared, "10.2.0.1");
    const auto senderOn = [&](const std::string& address) {
        const support::NetworkNamespace::Visit visit(m_networks.there());
        return UdpSender(kGroup, kPort, address);
    };
    const UdpSender right = senderOn("10.1.0.2");
    const UdpSender wrong = senderOn("10.2.0.2");
    for (int i = 0; i < 10; ++i) {
        wrong.send("wrong way " + std::to_string(i));
        EXPECT_EQ(other.receive(), "wrong way " + std::to_string(i)) << "it does arrive here";
    }
    right.send("right way");
    std::string text;
    support::waitUntil([&] { return !(text = listener.text()).empty(); });
    EXPECT_EQ(text, "right way");
    EXPECT_EQ(listener.text(), "");
}

} // namespace
