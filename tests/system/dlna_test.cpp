// Streams from a real media server in the delivery modes: bytes, capabilities, seeks, and what it refuses.
#include "support_media_servers.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_url.h"
#include "mdc_hlp_url_base.h"
#include "support/wait.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <gtest/gtest.h>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr unsigned int kPiece = 10000; // no divisor of any buffer size

constexpr std::int32_t kPlain = 0;
constexpr std::int32_t kStreaming = MDCH_URL_DLNA_STREAMING;
constexpr std::int32_t kInteractive = MDCH_URL_DLNA_INTERACTIVE;
constexpr std::int32_t kBackground = MDCH_URL_DLNA_STREAMING | MDCH_URL_DLNA_INTERACTIVE;

void makeMedia(const std::string& file, const std::vector<std::string>& options)
{
    std::vector<std::string> command = {"ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i"};
    command.insert(command.end(), options.begin(), options.end());
    command.push_back(file);
    const support::Result made = support::runToEnd(command);
    if (made.status != 0) {
        throw std::runtime_error("ffmpeg makes no " + file + ": " + made.err);
    }
}

// A film, a song and a picture.
void putMedia(const std::string& folder)
{
    // Larger than the receive buffer, so that seeks ask the server.
    makeMedia(folder + "/film.mp4", {"testsrc2=size=352x288:rate=25:duration=8", "-f", "lavfi", "-i",
                                     "sine=frequency=440:duration=8", "-c:v", "libx264", "-preset",
                                     "ultrafast", "-pix_fmt", "yuv420p", "-b:v", "2M", "-c:a", "aac"});
    makeMedia(folder + "/song.mp3", {"sine=frequency=440:duration=20:sample_rate=44100", "-b:a", "320k"});
    makeMedia(folder + "/picture.jpg", {"testsrc2=size=640x480", "-frames:v", "1"});
}

class MiniDlnaTest : public testing::Test
{
protected:
    int open(const std::string& extension, std::int32_t mode)
    {
        m_ext = {};
        m_ext.flags = mode;
        return mdch_OpenUrl(m_server.item(extension).c_str(), MDCH_MODE_READ, &m_ext, m_stream);
    }

    md::HttpAccess& http() const { return dynamic_cast<md::HttpAccess&>(*m_stream); }

    std::string contentOf(const std::string& name) const { return support::readFile(m_server.file(name)); }

    // Up to that many bytes; all to the end without a number.
    std::string read(std::size_t count = std::string::npos) const
    {
        std::string bytes;
        std::vector<unsigned char> piece(kPiece);
        while (bytes.size() < count) {
            const std::size_t wanted = std::min<std::size_t>(kPiece, count - bytes.size());
            const int got = m_stream->read(piece.data(), static_cast<unsigned int>(wanted));
            if (got <= 0) {
                break;
            }
            bytes.append(piece.begin(), piece.begin() + got);
        }
        return bytes;
    }

    // The value of a header line; empty without it.
    std::string header(const std::string& name) const
    {
        std::deque<std::string> lines;
        EXPECT_EQ(http().getHeaderList(lines), 0);
        for (const std::string& line : lines) {
            if (line.compare(0, name.size() + 2, name + ": ") == 0) {
                return line.substr(name.size() + 2, line.find("\r\n") - name.size() - 2);
            }
        }
        return {};
    }

    // Large contents are compared without printing them.
    static void expectSame(const std::string& got, const std::string& wanted)
    {
        EXPECT_EQ(got.size(), wanted.size());
        EXPECT_TRUE(got == wanted) << "the bytes differ";
    }

    void expectWhole(const std::string& content) const
    {
        EXPECT_EQ(m_stream->size(), static_cast<long long>(content.size()));
        expectSame(read(), content);
        EXPECT_NE(m_stream->eof(), 0);
        EXPECT_EQ(m_stream->error(), 0);
        EXPECT_EQ(m_stream->tell(), static_cast<long long>(content.size()));
    }

    support::MiniDlna m_server{putMedia};
    mdch_UrlExtended_struct m_ext{};
    boost::shared_ptr<MdchUrlBase> m_stream;
};

TEST_F(MiniDlnaTest, FilmAndSongArriveWholeInEveryModeThatTheServerOffers)
{
    const std::pair<std::int32_t, const char*> modes[] = {
        {kPlain, "Streaming"}, {kStreaming, "Streaming"}, {kBackground, "Background"}};
    for (const auto& [mode, name] : modes) {
        for (const auto& [extension, file] : {std::pair("mp4", "film.mp4"), std::pair("mp3", "song.mp3")}) {
            SCOPED_TRACE(std::string(file) + " in mode " + std::to_string(mode));
            ASSERT_EQ(open(extension, mode), 0);
            EXPECT_EQ(http().getResponseCode(), 200);
            EXPECT_EQ(header("transferMode.dlna.org"), name);
            expectWhole(contentOf(file));
        }
    }
}

TEST_F(MiniDlnaTest, CapabilitiesAreThoseOfTheContentFeatures)
{
    for (const std::int32_t mode : {kPlain, kStreaming, kBackground}) {
        for (const char* extension : {"mp4", "mp3"}) {
            ASSERT_EQ(open(extension, mode), 0);
            const std::string features = header("contentFeatures.dlna.org");
            ASSERT_NE(features.find("DLNA.ORG_OP=01;"), std::string::npos) << features;
            ASSERT_NE(features.find("DLNA.ORG_FLAGS=01700000"), std::string::npos) << features;
            EXPECT_EQ(m_stream->capability(),
                      static_cast<unsigned int>(MDCH_CAPABILITY_BYTE_SEEK) | MDCH_CAPABILITY_STALLING);
            EXPECT_EQ(m_stream->isSeekable(), 1);
        }
    }
}

TEST_F(MiniDlnaTest, PicturesAreForInteractiveAndFilmsAreNot)
{
    ASSERT_EQ(open("jpg", kInteractive), 0);
    EXPECT_EQ(header("transferMode.dlna.org"), "Interactive");
    const std::string features = header("contentFeatures.dlna.org");
    EXPECT_NE(features.find("DLNA.ORG_PN=JPEG_"), std::string::npos) << features;
    expectWhole(contentOf("picture.jpg"));
    ASSERT_EQ(open("jpg", kBackground), 0);
    expectWhole(contentOf("picture.jpg"));

    const std::pair<const char*, std::int32_t> refused[] = {
        {"mp4", kInteractive}, {"mp3", kInteractive}, {"jpg", kStreaming}};
    for (const auto& [extension, mode] : refused) {
        EXPECT_EQ(open(extension, mode), 2) << extension;
        EXPECT_EQ(m_ext.error, 2) << extension;
        EXPECT_EQ(http().getResponseCode(), 406) << extension;
        EXPECT_EQ(mdch_UrlOpenExt(m_server.item(extension).c_str(), MDCH_MODE_READ, &m_ext), 0U) << extension;
    }
}

TEST_F(MiniDlnaTest, SeeksToRandomPositionsGiveTheirBytes)
{
    const std::string film = contentOf("film.mp4");
    ASSERT_GT(film.size(), 1000000U);
    ASSERT_EQ(open("mp4", kStreaming), 0);
    std::mt19937 random(5);
    constexpr int kSeeks = 40;
    for (int round = 0; round < kSeeks; ++round) {
        const std::size_t position = random() % film.size();
        const std::size_t count = 1 + random() % 50000;
        SCOPED_TRACE(std::to_string(count) + " bytes from " + std::to_string(position));
        const long long offset = static_cast<long long>(position);
        switch (round % 3) {
        case 0:
            ASSERT_EQ(m_stream->seek(offset, SEEK_SET), 0);
            break;
        case 1:
            ASSERT_EQ(m_stream->seek(offset - m_stream->tell(), SEEK_CUR), 0);
            break;
        default:
            ASSERT_EQ(m_stream->seek(offset - static_cast<long long>(film.size()), SEEK_END), 0);
            break;
        }
        ASSERT_EQ(m_stream->tell(), offset);
        expectSame(read(count), film.substr(position, count));
        EXPECT_EQ(m_stream->size(), static_cast<long long>(film.size()));
        EXPECT_EQ(m_stream->capability(),
                  static_cast<unsigned int>(MDCH_CAPABILITY_BYTE_SEEK) | MDCH_CAPABILITY_STALLING);
    }
    EXPECT_EQ(m_stream->error(), 0);
}

TEST_F(MiniDlnaTest, LastBytesAndTheStartAgain)
{
    const std::string film = contentOf("film.mp4");
    const auto size = static_cast<long long>(film.size());
    ASSERT_EQ(open("mp4", kBackground), 0);
    ASSERT_EQ(m_stream->seek(-1, SEEK_END), 0);
    EXPECT_EQ(m_stream->tell(), size - 1);
    EXPECT_EQ(m_stream->getc(), static_cast<unsigned char>(film.back()));
    EXPECT_EQ(m_stream->getc(), -1);
    EXPECT_NE(m_stream->eof(), 0);
    EXPECT_EQ(m_stream->error(), 0);
    EXPECT_EQ(m_stream->size(), size);
    ASSERT_EQ(m_stream->seek(0, SEEK_SET), 0);
    expectWhole(film);
}

TEST_F(MiniDlnaTest, PauseKeepsEveryByte)
{
    const std::string film = contentOf("film.mp4");
    ASSERT_EQ(open("mp4", kStreaming), 0);
    const std::string start = read(300000);
    ASSERT_EQ(m_stream->pause(), 0);
    ASSERT_EQ(m_stream->resume(), 0);
    expectSame(start + read(), film);
    EXPECT_EQ(m_stream->size(), static_cast<long long>(film.size()));
}

TEST_F(MiniDlnaTest, ATimeSeekIsRefusedAndDisturbsNothing)
{
    const std::string film = contentOf("film.mp4");
    ASSERT_EQ(open("mp4", kStreaming), 0);
    const std::string start = read(100000);
    EXPECT_EQ(m_stream->seekTime(2000), -ESPIPE);
    // Data that comes in between clears the error; none does once the buffer is full.
    EXPECT_TRUE(support::waitUntil(
        [this] { return m_stream->seekTime(2000) == -ESPIPE && m_stream->error() == ESPIPE; }));
    EXPECT_EQ(m_stream->tell(), 100000);
    m_stream->clearerr();
    EXPECT_EQ(m_stream->error(), 0);
    expectSame(start + read(), film);

    // Nothing comes behind the end.
    EXPECT_NE(m_stream->eof(), 0);
    EXPECT_EQ(m_stream->seekTime(0), -ESPIPE);
    EXPECT_EQ(m_stream->error(), ESPIPE);

    m_ext.flags = kStreaming;
    const unsigned int handle = mdch_UrlOpenExt(m_server.item("mp3").c_str(), MDCH_MODE_READ, &m_ext);
    ASSERT_NE(handle, 0U);
    EXPECT_TRUE(support::waitUntil(
        [handle] { return mdch_UrlSeekTime(handle, 2000) == -1 && mdch_UrlError(handle) == ESPIPE; }));
    EXPECT_EQ(mdch_UrlClose(handle), 0);
}

// The server answers a range behind the end with 400, which must not count as a failure of the stream.
TEST_F(MiniDlnaTest, TheEndIsAPlaceToSeekTo)
{
    const std::string film = contentOf("film.mp4");
    const auto size = static_cast<long long>(film.size());
    ASSERT_EQ(open("mp4", kStreaming), 0);
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(m_stream->seek(0, SEEK_END), 0);
        EXPECT_EQ(m_stream->tell(), size);
        EXPECT_EQ(m_stream->size(), size);
        EXPECT_EQ(read(), "");
        EXPECT_NE(m_stream->eof(), 0);
        EXPECT_EQ(m_stream->error(), 0);
        ASSERT_EQ(m_stream->seek(-5000, SEEK_CUR), 0);
        expectSame(read(), film.substr(film.size() - 5000));
    }
    ASSERT_EQ(m_stream->seek(0, SEEK_SET), 0);
    expectWhole(film);
}

} // namespace
