// Radio stations: endless streams of MP3 with titles, and of Ogg.
#include "songs.h"

#include "../support_icecast.h"
#include "../support_mpeg.h"

#include "mdc_hlp_icy.h"
#include "mdc_hlp_url.h"
#include "support/sockets.h"

#include <cstdint>
#include <future>
#include <gtest/gtest.h>
#include <thread>

namespace matrix {

namespace {

using support::byteAt;
using support::Icecast;

constexpr std::size_t kSample = 65536; // what a station sends at once
constexpr std::int32_t kUntouched = -7;

// Ogg pages that follow each other to the end of the bytes, with consecutive numbers but for one jump behind the
// pages of the header; 0 when the chain breaks.
std::size_t oggPagesIn(const std::string& bytes)
{
    constexpr std::size_t kHeader = 27;
    constexpr std::size_t kHeaderPages = 3;
    std::size_t count = 0;
    std::uint32_t last = 0;
    for (std::size_t at = 0; at + kHeader <= bytes.size(); ++count) {
        if (bytes.compare(at, 4, "OggS") != 0) {
            return 0;
        }
        const std::uint32_t number = byteAt(bytes, at + 18) | byteAt(bytes, at + 19) << 8U |
                                     byteAt(bytes, at + 20) << 16U | byteAt(bytes, at + 21) << 24U;
        if (count > kHeaderPages && number != last + 1) {
            return 0;
        }
        last = number;
        const std::size_t segments = byteAt(bytes, at + 26);
        at += kHeader;
        std::size_t body = 0;
        for (std::size_t i = 0; i < segments && at + i < bytes.size(); ++i) {
            body += byteAt(bytes, at + i);
        }
        at += segments + body;
    }
    return count;
}

class RadioServer : public SongServer
{
public:
    std::size_t (*unbroken)(const std::string&) = nullptr; // frames or pages in a chain, 0: it breaks
    std::size_t least = 0;                                 // as many are in a sample
    std::shared_ptr<Icecast> station;
};

RadioServer& radio(Server& server)
{
    return dynamic_cast<RadioServer&>(server);
}

std::unique_ptr<Server> mp3Station()
{
    auto server = std::make_unique<RadioServer>();
    server->station = std::make_shared<Icecast>(Icecast::Program::kMp3);
    server->url = server->station->station();
    server->headers = {"HTTP/1.0 200 OK", "Content-Type: audio/mpeg"};
    server->unbroken = support::framesIn;
    server->least = 50;
    return server;
}

std::unique_ptr<Server> oggStation()
{
    auto server = std::make_unique<RadioServer>();
    server->station = std::make_shared<Icecast>(Icecast::Program::kOgg);
    server->url = server->station->station();
    server->headers = {"HTTP/1.0 200 OK", "Content-Type: application/ogg"};
    server->unbroken = oggPagesIn;
    server->least = 10;
    return server;
}

void checkOpen(Server& server)
{
    const Opened opened = open(radio(server));
    ASSERT_EQ(opened.result, 0);
    EXPECT_EQ(opened.http().getResponseCode(), 200);
    EXPECT_GE(opened.stream->getc(), 0);
    const unsigned int handle = mdch_UrlOpen(radio(server).url.c_str(), MDCH_MODE_READ);
    ASSERT_NE(handle, 0U);
    EXPECT_GE(mdch_UrlGetc(handle), 0);
    EXPECT_EQ(mdch_UrlClose(handle), 0);
}

void checkNoLength(Server& server)
{
    const Opened opened = open(radio(server));
    ASSERT_EQ(opened.result, 0);
    EXPECT_LT(opened.stream->size(), 0);
    EXPECT_EQ(read(*opened.stream, 1000).size(), 1000U);
    EXPECT_LT(opened.stream->size(), 0);
}

void expectSound(const RadioServer& server, const std::string& bytes)
{
    EXPECT_GE(bytes.size(), kSample);
    EXPECT_GE(server.unbroken(bytes), server.least);
}

void checkGapless(Server& server)
{
    const Opened opened = open(radio(server));
    ASSERT_EQ(opened.result, 0);
    expectSound(radio(server), read(*opened.stream, kSample + 40000)); // live, too
    EXPECT_EQ(opened.stream->eof(), 0);
    EXPECT_EQ(opened.stream->error(), 0);
}

void checkNoSeek(Server& server)
{
    const Opened opened = open(radio(server));
    ASSERT_EQ(opened.result, 0);
    EXPECT_EQ(opened.stream->isSeekable(), 0);
    std::string bytes = read(*opened.stream, 30000);
    EXPECT_NE(opened.stream->seek(0, SEEK_SET), 0);
    EXPECT_NE(opened.stream->seek(0, SEEK_END), 0);
    EXPECT_NE(opened.stream->seekTime(1000), 0);
    EXPECT_EQ(opened.stream->tell(), 30000);
    opened.stream->clearerr();
    bytes += read(*opened.stream, kSample - 30000);
    expectSound(radio(server), bytes);
}

void checkPause(Server& server)
{
    const Opened opened = open(radio(server));
    ASSERT_EQ(opened.result, 0);
    std::string bytes = read(*opened.stream, kSample);
    ASSERT_EQ(opened.stream->pause(), 0);
    // The length of the pause is what is tried here.
    std::this_thread::sleep_for(pauseLength());
    ASSERT_EQ(opened.stream->resume(), 0);
    const std::string more = read(*opened.stream, kSample);
    EXPECT_EQ(more.size(), kSample);
    expectSound(radio(server), bytes + more);
    EXPECT_EQ(opened.stream->error(), 0);
}

void checkReopen(Server& server)
{
    constexpr int kRounds = 20;
    for (int round = 0; round < kRounds; ++round) {
        const Opened opened = open(radio(server));
        ASSERT_EQ(opened.result, 0);
        EXPECT_EQ(read(*opened.stream, 10000).size(), 10000U);
        EXPECT_EQ(opened.stream->close(), 0);
    }
}

void checkTwoAtOnce(Server& server)
{
    const auto listen = [&server] {
        const Opened opened = open(radio(server));
        return opened.result == 0 ? read(*opened.stream, kSample + 20000) : std::string();
    };
    std::future<std::string> other = std::async(std::launch::async, listen);
    expectSound(radio(server), listen());
    expectSound(radio(server), other.get());
}

void checkErrors(Server& server)
{
    static const support::LoopbackPort nobody = support::closedPort();
    const Icecast& station = *radio(server).station;
    EXPECT_EQ(open(radio(server), station.url("/silence.mp3")).result, 2);
    EXPECT_EQ(open(radio(server), nobody.url("/live.mp3")).result, MDCH_HTTP_ENETWORK);
    EXPECT_EQ(open(radio(server)).result, 0);
}

void checkHeaders(Server& server)
{
    Opened opened = open(radio(server));
    for (const std::string& wanted : radio(server).headers) {
        const std::string name = wanted.substr(0, wanted.find(':'));
        if (name != wanted) {
            EXPECT_EQ(name + ": " + headerOf(opened, name), wanted);
        }
    }
    EXPECT_EQ(opened.stream->capability(), static_cast<unsigned int>(MDCH_CAPABILITY_STALLING));
}

// Titles only go with MP3; Ogg has its own, inside.
void checkTitles(Server& server)
{
    constexpr int kMostReads = 300; // 3 MB: more than lies between the source and the listener
    const Icecast& station = *radio(server).station;
    Opened opened = open(radio(server), radio(server).url, MDCH_URL_ICY_METADATA);
    ASSERT_EQ(opened.result, 0);
    ASSERT_EQ(opened.ext.icyMetaInt, 16000);
    md::IcyReader reader(opened.stream, opened.ext.icyMetaInt);
    for (const std::string title : {"Artist - One", "Artist - Two"}) {
        ASSERT_TRUE(station.announce("/live.mp3", "song=Artist%20-%20" + title.substr(9)));
        std::vector<unsigned char> piece(10007);
        for (int i = 0; i < kMostReads && reader.title() != title; ++i) {
            ASSERT_EQ(reader.read(piece.data(), static_cast<unsigned int>(piece.size())), 10007);
        }
        EXPECT_EQ(reader.title(), title);
    }
}

void checkNoTitles(Server& server)
{
    Opened opened;
    opened.ext.flags = MDCH_URL_ICY_METADATA;
    opened.ext.icyMetaInt = kUntouched;
    ASSERT_EQ(mdch_OpenUrl(radio(server).url.c_str(), MDCH_MODE_READ, &opened.ext, opened.stream), 0);
    EXPECT_EQ(opened.ext.icyMetaInt, kUntouched);
    expectSound(radio(server), read(*opened.stream, kSample + 20000));
}

void checkCrash(Server& server)
{
    const Opened opened = open(radio(server));
    ASSERT_EQ(opened.result, 0);
    std::string bytes = read(*opened.stream, kSample);
    radio(server).station.reset();
    bytes += read(*opened.stream);
    expectSound(radio(server), bytes);
    EXPECT_TRUE(opened.stream->eof() != 0 || opened.stream->error() != 0);
    EXPECT_EQ(open(radio(server)).result, MDCH_HTTP_ENETWORK);
}

std::vector<Cell> radioCells(void (*titles)(Server&))
{
    return {
        {"Open", checkOpen, {}},           {"NoLength", checkNoLength, {}},    {"Gapless", checkGapless, {}},
        {"NoSeek", checkNoSeek, {}},       {"PauseAndResume", checkPause, {}}, {"Reopen", checkReopen, {}},
        {"TwoAtOnce", checkTwoAtOnce, {}}, {"Headers", checkHeaders, {}},      {"Titles", titles, {}},
        {"Errors", checkErrors, {}},       {"Crash", checkCrash, {}}};
}

} // namespace

std::vector<Column> radioColumns()
{
    return {
        {"Radio", "IcecastMp3", "Icecast, MP3", {"icecast2", "-v"}, mp3Station, radioCells(checkTitles)},
        {"Radio", "IcecastOgg", "Icecast, Ogg", {"icecast2", "-v"}, oggStation, radioCells(checkNoTitles)}};
}

} // namespace matrix
