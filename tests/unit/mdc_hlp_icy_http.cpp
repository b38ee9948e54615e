// Radio over HTTP: the opening sequence tells the interval, the reader takes the stream apart.
#include "mdc_hlp_icy.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_url_base.h"
#include "support/engine.h"
#include "support/http_server.h"
#include "support/media.h"
#include "support/slow_icy.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using support::At;
using support::Gate;
using support::HttpServer;
using support::icyBlock;
using support::icyTitleBlock;
using support::Media;
using support::Reply;

const Media kSound(44);

// Audio of that many bytes, each interval with the block of a title behind it.
std::string radioOf(std::size_t interval, const std::vector<std::string>& titles)
{
    std::string bytes;
    for (std::size_t i = 0; i < titles.size(); ++i) {
        bytes += kSound.bytes(i * interval, interval) + icyTitleBlock(titles[i]);
    }
    return bytes + kSound.bytes(titles.size() * interval, interval);
}

class HttpRadio : public testing::Test
{
protected:
    void tune(int flags = MDCH_URL_ICY_METADATA)
    {
        mdch_UrlExtended_struct options{};
        options.flags = flags;
        boost::shared_ptr<MdchUrlBase> stream;
        ASSERT_EQ(mdch_OpenUrl(m_server.url("/live").c_str(), MDCH_MODE_READ, &options, stream), 0);
        m_interval = options.icyMetaInt;
        m_stream = stream;
        m_radio = std::make_unique<md::IcyReader>(stream, options.icyMetaInt);
    }

    std::string read(unsigned int size)
    {
        std::string bytes(size, '?');
        m_result = m_radio->read(reinterpret_cast<unsigned char*>(bytes.data()), size);
        bytes.resize(static_cast<std::size_t>(std::max(m_result, 0)));
        return bytes;
    }

    std::string readAll(unsigned int size)
    {
        std::string all;
        for (std::string part = read(size); !part.empty(); part = read(size)) {
            all += part;
        }
        return all;
    }

    HttpServer m_server;
    support::EngineStopped m_stopped;
    boost::shared_ptr<MdchUrlBase> m_stream;
    std::unique_ptr<md::IcyReader> m_radio;
    int m_interval = 0;
    int m_result = 0;
};

TEST_F(HttpRadio, titlesComeWhereTheServerPutThem)
{
    const std::vector<std::string> titles{"One", "", "Don't; stop", "Bj\xf6rk"};
    m_server.on("/live", Reply::icy("Radio", 16000).body(radioOf(16000, titles)));
    tune();
    EXPECT_EQ(m_interval, 16000);
    EXPECT_EQ(m_server.requests().at(0).header("icy-metadata"), "1");
    const std::string sound = readAll(65536);
    ASSERT_EQ(sound.size(), 80000U);
    EXPECT_TRUE(kSound.matches(0, sound));
    const std::vector<md::IcyTitle> changes = m_radio->takeChanges();
    ASSERT_EQ(changes.size(), 4U);
    for (std::size_t i = 0; i < changes.size(); ++i) {
        EXPECT_EQ(changes[i].position, static_cast<long long>(16000 * (i + 1)));
        EXPECT_EQ(changes[i].title, support::slowIcyText(titles[i]));
    }
}

TEST_F(HttpRadio, aFullReadComesBackFullThoughTheServerSendsCrumbs)
{
    m_server.on("/live", Reply::icy("Radio", 100).body(radioOf(100, {"One", "Two", "Three"})).pieces(7));
    tune();
    EXPECT_TRUE(kSound.matches(0, read(150)));
    EXPECT_EQ(m_result, 150);
    EXPECT_EQ(m_radio->title(), "One");
    EXPECT_TRUE(kSound.matches(150, read(200)));
    EXPECT_EQ(m_result, 200);
    EXPECT_EQ(m_radio->title(), "Three");
}

TEST_F(HttpRadio, aServerWithoutTitlesSendsAudioOnly)
{
    m_server.on("/live", Reply::icy("Radio").body(kSound.bytes(0, 50000)));
    tune();
    EXPECT_EQ(m_interval, 0);
    const std::string sound = readAll(4096);
    EXPECT_EQ(sound.size(), 50000U);
    EXPECT_TRUE(kSound.matches(0, sound));
}

TEST_F(HttpRadio, aConnectionThatEndsInsideABlockIsAnEnd)
{
    const std::string bytes = radioOf(1000, {"One", "Two"});
    const std::size_t second = 1000 + icyTitleBlock("One").size() + 1000;
    for (const std::size_t end : {second, second + 1, second + 10, second + 32}) {
        m_server.on("/live", Reply::icy("Radio", 1000).body(bytes).close(At::body(end)));
        tune();
        const std::string sound = readAll(300);
        EXPECT_EQ(sound.size(), 2000U);
        EXPECT_TRUE(kSound.matches(0, sound));
        EXPECT_EQ(m_radio->title(), "One");
        EXPECT_EQ(m_stream->eof(), 1);
        EXPECT_EQ(m_result, 0);
    }
}

TEST_F(HttpRadio, aReadThatMustNotWaitKeepsItsPartOfABlock)
{
    const std::string bytes = radioOf(1000, {"One"});
    Gate insideTheBlock;
    m_server.on("/live", Reply::icy("Radio", 1000).body(bytes).wait(At::body(1010), insideTheBlock));
    tune();
    ASSERT_TRUE(insideTheBlock.waitForArrivals());
    m_stream->fcntl(MDCH_FCNTL_NONBLOCKING);
    std::string sound;
    EXPECT_TRUE(support::waitUntil([&] {
        sound += read(5000);
        return m_stream->tell() == 1010; // what stands before the gate is taken
    }));
    EXPECT_EQ(sound.size(), 1000U);
    EXPECT_EQ(read(5000), "");
    EXPECT_EQ(m_result, 0);
    EXPECT_EQ(m_stream->eof(), 0);
    EXPECT_EQ(m_stream->error(), 0);
    EXPECT_EQ(m_radio->title(), "");
    insideTheBlock.open();
    EXPECT_TRUE(support::waitUntil([&] {
        sound += read(5000);
        return sound.size() == 2000;
    }));
    EXPECT_TRUE(kSound.matches(0, sound));
    EXPECT_EQ(m_radio->title(), "One");
}

TEST_F(HttpRadio, aCloseFromAnotherThreadEndsTheReadInsideABlock)
{
    Gate never;
    m_server.on("/live", Reply::icy("Radio", 1000).body(radioOf(1000, {"One"})).wait(At::body(1010), never));
    tune();
    std::thread closer([&] {
        EXPECT_TRUE(never.waitForArrivals());
        m_stream->close();
    });
    const std::string sound = readAll(1000);
    closer.join();
    EXPECT_TRUE(kSound.matches(0, sound));
    EXPECT_LE(sound.size(), 1000U);
    EXPECT_LE(m_result, 0);
    EXPECT_EQ(read(10), "");
    EXPECT_EQ(m_result, -EINVAL) << "as a closed stream's read";
    never.open();
}

TEST_F(HttpRadio, aPauseLosesNoPlace)
{
    const std::vector<std::string> titles(40, "One");
    m_server.on("/live", Reply::icy("Radio", 16000).body(radioOf(16000, titles)));
    tune();
    std::string sound = read(20001);
    ASSERT_EQ(m_stream->pause(), 0);
    ASSERT_EQ(m_stream->resume(), 0);
    sound += readAll(65536);
    EXPECT_EQ(sound.size(), 656000U);
    EXPECT_TRUE(kSound.matches(0, sound));
}

} // namespace
