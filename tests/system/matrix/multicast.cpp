// FFmpeg as a broadcaster: MPEG-TS in RTP to a multicast group, in networks of the test's own.
#include "matrix.h"

#include "../support_rtp.h"
#include "../support_servers.h"
#include "../support_station.h"

#include "mdc_hlp_url.h"
#include "support/descriptors.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>

namespace matrix {

namespace {

using support::RtpCount;
using support::Station;

constexpr const char* kGroup = "239.1.2.3";
constexpr std::uint16_t kPort = 5000;
constexpr const char* kUrl = "udp://@239.1.2.3:5000";
constexpr const char* kWay = "first";
constexpr std::size_t kBuffer = 65536;

class MulticastServer : public Server
{
public:
    MulticastServer()
    {
        if (!networks) {
            throw support::Unavailable(networks.problem());
        }
        networks.connect(kWay, 1);
        networks.routeMulticast(kWay);
    }

    // Plays for a second to those who listen.
    void play()
    {
        station.start(networks, kGroup, kPort, 1);
        EXPECT_EQ(station.end(std::chrono::seconds(60)), "");
    }

    support::TwoNetworks networks;
    Station station;
};

MulticastServer& caster(Server& server)
{
    return dynamic_cast<MulticastServer&>(server);
}

// A stream, and the thread that reads it until nothing comes any more behind the end.
class Listener
{
public:
    Listener()
    {
        const auto before = support::openDescriptors();
        m_handle = mdch_UrlOpen(kUrl, MDCH_MODE_READ);
        m_fd = support::descriptorOpenedSince(before);
        EXPECT_NE(m_handle, 0U);
        m_reading = std::async(std::launch::async, [this] {
            std::vector<unsigned char> buffer(kBuffer);
            for (;;) {
                const bool isLast = m_hasEnded;
                const int count = mdch_UrlRead(m_handle, buffer.data(), static_cast<unsigned int>(kBuffer));
                if (count > 0) {
                    m_count.take(buffer.data(), static_cast<std::size_t>(count));
                } else if (isLast) {
                    return;
                }
            }
        });
    }
    ~Listener()
    {
        end();
        EXPECT_EQ(mdch_UrlError(m_handle), 0);
        EXPECT_EQ(mdch_UrlClose(m_handle), 0);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    const RtpCount& end()
    {
        m_hasEnded = true;
        if (m_reading.valid()) {
            m_reading.get();
        }
        return m_count;
    }
    std::uint64_t dropped() const { return support::droppedAt(m_fd); }

private:
    unsigned int m_handle = 0;
    int m_fd = -1;
    RtpCount m_count{kBuffer};
    std::atomic<bool> m_hasEnded{false};
    std::future<void> m_reading;
};

// Whatever is missing, the kernel must have dropped.
void expectGapless(const MulticastServer& server, Listener& listener, std::uint64_t sentBefore)
{
    const RtpCount& count = listener.end();
    const std::uint64_t sent = server.networks.sentThere() - sentBefore;
    const std::uint64_t dropped = listener.dropped() + server.networks.droppedBetween(kWay);
    EXPECT_GT(count.datagrams(), 0U);
    EXPECT_EQ(count.damaged(), 0U);
    EXPECT_EQ(count.different(), count.datagrams()) << "none comes twice";
    EXPECT_LE(count.missingInside(), dropped);
    EXPECT_LE(sent - count.different(), dropped) << "of " << sent;
}

void checkGapless(Server& server)
{
    const std::uint64_t before = caster(server).networks.sentThere();
    Listener listener;
    caster(server).play();
    expectGapless(caster(server), listener, before);
}

void checkTwoAtOnce(Server& server)
{
    const std::uint64_t before = caster(server).networks.sentThere();
    Listener one;
    Listener two;
    caster(server).play();
    expectGapless(caster(server), one, before);
    expectGapless(caster(server), two, before);
}

// One who left hears nothing more; one who comes back hears all of what follows.
void checkReopen(Server& server)
{
    checkGapless(server);
    caster(server).play();
    checkGapless(server);
}

void checkNoSeek(Server& /*server*/)
{
    const unsigned int handle = mdch_UrlOpen(kUrl, MDCH_MODE_READ);
    ASSERT_NE(handle, 0U);
    EXPECT_LT(mdch_UrlSize(handle), 0);
    EXPECT_EQ(mdch_UrlIsSeekable(handle), 0);
    EXPECT_NE(mdch_UrlSeek(handle, 0, SEEK_SET), 0);
    EXPECT_NE(mdch_UrlSeekTime(handle, 1000), 0);
    EXPECT_EQ(mdch_UrlClose(handle), 0);
}

void checkErrors(Server& /*server*/)
{
    for (const char* url : {"udp://@239.1.2.3:", "udp://@239.1.2.300:5000", "udp://"}) {
        EXPECT_EQ(mdch_UrlOpen(url, MDCH_MODE_READ), 0U) << url;
    }
}

} // namespace

std::vector<Column> multicastColumns()
{
    return {{"Multicast",
             "FfmpegMulticast",
             "FFmpeg",
             {"ffmpeg", "-version"},
             [] { return std::make_unique<MulticastServer>(); },
             {{"Gapless", checkGapless, {}},
              {"NoSeek", checkNoSeek, {}},
              noCell("PauseAndResume", "nobody can hold a broadcast"),
              {"Reopen", checkReopen, {}},
              {"TwoAtOnce", checkTwoAtOnce, {}},
              noCell("Headers", "datagrams have none"),
              {"Errors", checkErrors, {}}}}};
}

} // namespace matrix
