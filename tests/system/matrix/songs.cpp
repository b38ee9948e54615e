#include "songs.h"

#include "mdc_hlp_url.h"
#include "support/media.h"

#include <algorithm>
#include <deque>
#include <future>
#include <gtest/gtest.h>
#include <random>
#include <stdexcept>
#include <strings.h>
#include <thread>
#include <utility>

namespace matrix {

namespace {

constexpr unsigned int kPiece = 10000; // no divisor of any buffer size
constexpr std::size_t kSongSize = 12'000'037;

long long sizeOf(const SongServer& server)
{
    return static_cast<long long>(server.content.size());
}

std::string littleEndian(std::size_t value, int bytes)
{
    std::string text;
    for (int i = 0; i < bytes; ++i) {
        text += static_cast<char>(value >> static_cast<unsigned int>(8 * i) & 0xffU);
    }
    return text;
}

void checkOpen(SongServer& server)
{
    const Opened opened = open(server);
    ASSERT_EQ(opened.result, 0);
    EXPECT_EQ(opened.ext.error, 0);
    EXPECT_EQ(opened.http().getResponseCode(), 200);
    EXPECT_EQ(opened.stream->tell(), 0);
    EXPECT_EQ(opened.stream->getc(), static_cast<unsigned char>(server.content[0]));
    EXPECT_EQ(opened.stream->close(), 0);

    mdch_UrlExtended_struct ext{};
    ext.caCertPath = server.caFolder.empty() ? nullptr : server.caFolder.c_str();
    ext.clientCert = server.clientCertificate.empty() ? nullptr : server.clientCertificate.c_str();
    const unsigned int handle = mdch_UrlOpenExt(server.url.c_str(), MDCH_MODE_READ, &ext);
    ASSERT_NE(handle, 0U);
    EXPECT_EQ(mdch_UrlGetc(handle), static_cast<unsigned char>(server.content[0]));
    EXPECT_EQ(mdch_UrlClose(handle), 0);
}

void checkLength(SongServer& server)
{
    const Opened opened = open(server);
    ASSERT_EQ(opened.result, 0);
    EXPECT_EQ(opened.stream->size(), sizeOf(server));
    EXPECT_EQ(read(*opened.stream, 1000).size(), 1000U);
    EXPECT_EQ(opened.stream->size(), sizeOf(server));
    ASSERT_EQ(opened.stream->seek(sizeOf(server) / 2, SEEK_SET), 0);
    EXPECT_EQ(opened.stream->size(), sizeOf(server));
    ASSERT_EQ(opened.stream->seek(-3, SEEK_END), 0);
    EXPECT_EQ(opened.stream->size(), sizeOf(server));
}

void checkWhole(SongServer& server)
{
    const Opened opened = open(server);
    ASSERT_EQ(opened.result, 0);
    expectSame(read(*opened.stream), server.content);
    EXPECT_NE(opened.stream->eof(), 0);
    EXPECT_EQ(opened.stream->error(), 0);
    EXPECT_EQ(opened.stream->tell(), sizeOf(server));
}

void checkHundredSeeks(SongServer& server)
{
    constexpr int kSeeks = 100;
    const Opened opened = open(server);
    ASSERT_EQ(opened.result, 0);
    std::mt19937 random(5);
    MdchUrlBase& stream = *opened.stream;
    for (int round = 0; round < kSeeks; ++round) {
        const std::size_t position = random() % server.content.size();
        const std::size_t count = 1 + random() % 30000;
        SCOPED_TRACE(std::to_string(count) + " bytes from " + std::to_string(position));
        const auto offset = static_cast<long long>(position);
        switch (round % 3) {
        case 0:
            ASSERT_EQ(stream.seek(offset, SEEK_SET), 0);
            break;
        case 1:
            ASSERT_EQ(stream.seek(offset - stream.tell(), SEEK_CUR), 0);
            break;
        default:
            ASSERT_EQ(stream.seek(offset - sizeOf(server), SEEK_END), 0);
            break;
        }
        ASSERT_EQ(stream.tell(), offset);
        expectSame(read(stream, count), server.content.substr(position, count));
        ASSERT_EQ(stream.size(), sizeOf(server));
    }
    EXPECT_EQ(stream.error(), 0);
}

void checkSeekToTheEnd(SongServer& server)
{
    const Opened opened = open(server);
    ASSERT_EQ(opened.result, 0);
    MdchUrlBase& stream = *opened.stream;
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(stream.seek(0, SEEK_END), 0);
        EXPECT_EQ(stream.tell(), sizeOf(server));
        EXPECT_EQ(read(stream), "");
        EXPECT_NE(stream.eof(), 0);
        EXPECT_EQ(stream.error(), 0);
        EXPECT_EQ(stream.size(), sizeOf(server));
        // Around the place where requests for the last bytes begin.
        for (const long long back : {5000LL, 11LL, 10LL, 9LL, 1LL}) {
            ASSERT_EQ(stream.seek(-back, SEEK_END), 0);
            expectSame(read(stream), server.content.substr(static_cast<std::size_t>(sizeOf(server) - back)));
        }
    }
    ASSERT_EQ(stream.seek(0, SEEK_SET), 0);
    expectSame(read(stream), server.content);
}

void checkPause(SongServer& server)
{
    const Opened opened = open(server);
    ASSERT_EQ(opened.result, 0);
    MdchUrlBase& stream = *opened.stream;
    std::string got = read(stream, 300000);
    ASSERT_EQ(stream.pause(), 0);
    // The length of the pause is what is tried here.
    std::this_thread::sleep_for(pauseLength());
    ASSERT_EQ(stream.resume(), 0);
    EXPECT_EQ(stream.tell(), 300000);
    got += read(stream);
    expectSame(got, server.content);
    EXPECT_NE(stream.eof(), 0);
    EXPECT_EQ(stream.error(), 0);
}

void checkReopen(SongServer& server)
{
    constexpr int kRounds = 20;
    for (int round = 0; round < kRounds; ++round) {
        const Opened opened = open(server);
        ASSERT_EQ(opened.result, 0);
        expectSame(read(*opened.stream, 70000), server.content.substr(0, 70000));
        EXPECT_EQ(opened.stream->close(), 0); // in the middle of the transfer
    }
    const Opened opened = open(server);
    ASSERT_EQ(opened.result, 0);
    expectSame(read(*opened.stream), server.content);
}

void checkTwoAtOnce(SongServer& server)
{
    const auto readWhole = [&server] {
        const Opened opened = open(server);
        return opened.result == 0 ? read(*opened.stream) : std::string();
    };
    std::future<std::string> other = std::async(std::launch::async, readWhole);
    expectSame(readWhole(), server.content);
    expectSame(other.get(), server.content);
}

void checkHeaders(SongServer& server)
{
    const Opened opened = open(server);
    ASSERT_EQ(opened.result, 0);
    std::deque<std::string> lines;
    ASSERT_EQ(opened.http().getHeaderList(lines), 0);
    std::string all;
    for (const std::string& line : lines) {
        all += line;
    }
    for (const std::string& wanted : server.headers) {
        EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                                [&](const std::string& line) {
                                    return strcasecmp(line.c_str(), (wanted + "\r\n").c_str()) == 0;
                                }))
            << wanted << " is not among\n"
            << all;
    }
    EXPECT_EQ(opened.stream->capability(), server.capability) << all;
    EXPECT_EQ(opened.stream->isSeekable(), (server.capability & MDCH_CAPABILITY_BYTE_SEEK) != 0 ? 1 : 0);
}

void checkRedirect(SongServer& server)
{
    const Opened opened = open(server, server.moved);
    ASSERT_EQ(opened.result, 0);
    EXPECT_EQ(opened.http().getResponseCode(), 200);
    EXPECT_EQ(opened.stream->size(), sizeOf(server));
    ASSERT_EQ(opened.stream->seek(1000000, SEEK_SET), 0);
    expectSame(read(*opened.stream), server.content.substr(1000000));
}

void checkErrors(SongServer& server)
{
    ASSERT_FALSE(server.failures.empty());
    for (const Failure& failure : server.failures) {
        SCOPED_TRACE(failure.url);
        const Opened opened = open(server, failure.url);
        EXPECT_EQ(opened.result, failure.error);
        EXPECT_EQ(opened.ext.error, failure.error);
        if (failure.status != 0) {
            EXPECT_EQ(opened.http().getResponseCode(), failure.status);
        }
    }
    const Opened opened = open(server); // nothing of it stays
    ASSERT_EQ(opened.result, 0);
    expectSame(read(*opened.stream, 1000), server.content.substr(0, 1000));
}

void checkCrash(SongServer& server)
{
    const Opened opened = open(server);
    ASSERT_EQ(opened.result, 0);
    const std::string start = read(*opened.stream, 100000);
    server.process.reset();
    const std::string rest = read(*opened.stream);
    expectSame(start + rest, server.content.substr(0, start.size() + rest.size()));
    EXPECT_LT(start.size() + rest.size(), server.content.size());
    EXPECT_TRUE(opened.stream->error() == MDCH_HTTP_ENETWORK || opened.stream->error() == MDCH_HTTP_ETRANSFER)
        << opened.stream->error();
    EXPECT_EQ(open(server).result, MDCH_HTTP_ENETWORK); // nobody is there any more
}

} // namespace

std::string songBytes()
{
    return support::Media(3).bytes(0, kSongSize);
}

std::string songAsWave()
{
    // 16 bits, two channels, 44.1 kHz
    constexpr std::size_t kSamples = kSongSize / 4 * 4;
    return "RIFF" + littleEndian(36 + kSamples, 4) + "WAVEfmt " + littleEndian(16, 4) + littleEndian(1, 2) +
           littleEndian(2, 2) + littleEndian(44100, 4) + littleEndian(std::size_t{44100} * 4, 4) +
           littleEndian(4, 2) + littleEndian(16, 2) + "data" + littleEndian(kSamples, 4) +
           support::Media(3).bytes(0, kSamples);
}

Opened open(const SongServer& server, const std::string& url, std::int32_t flags)
{
    Opened opened;
    opened.ext.flags = flags;
    opened.ext.caCertPath = server.caFolder.empty() ? nullptr : server.caFolder.c_str();
    opened.ext.clientCert = server.clientCertificate.empty() ? nullptr : server.clientCertificate.c_str();
    opened.result = mdch_OpenUrl(url.c_str(), MDCH_MODE_READ, &opened.ext, opened.stream);
    return opened;
}

std::string read(MdchUrlBase& stream, std::size_t count)
{
    std::string bytes;
    std::vector<unsigned char> piece(kPiece);
    while (bytes.size() < count) {
        const std::size_t wanted = std::min<std::size_t>(kPiece, count - bytes.size());
        const int got = stream.read(piece.data(), static_cast<unsigned int>(wanted));
        if (got <= 0) {
            break;
        }
        bytes.append(piece.begin(), piece.begin() + got);
    }
    return bytes;
}

void expectSame(const std::string& got, const std::string& wanted)
{
    EXPECT_EQ(got.size(), wanted.size());
    EXPECT_TRUE(got == wanted) << "the bytes differ";
}

std::string headerOf(const Opened& opened, const std::string& name)
{
    std::deque<std::string> lines;
    EXPECT_EQ(opened.http().getHeaderList(lines), 0);
    for (const std::string& line : lines) {
        if (strncasecmp(line.c_str(), (name + ":").c_str(), name.size() + 1) == 0) {
            const std::size_t start = line.find_first_not_of(' ', name.size() + 1);
            return line.substr(start, line.find_last_not_of("\r\n") + 1 - start);
        }
    }
    return {};
}

Cell songCell(const std::string& row)
{
    static const std::pair<const char*, void (*)(SongServer&)> checks[] = {
        {"Open", checkOpen},
        {"Length", checkLength},
        {"Whole", checkWhole},
        {"HundredSeeks", checkHundredSeeks},
        {"SeekToTheEnd", checkSeekToTheEnd},
        {"PauseAndResume", checkPause},
        {"Reopen", checkReopen},
        {"TwoAtOnce", checkTwoAtOnce},
        {"Headers", checkHeaders},
        {"Redirect", checkRedirect},
        {"Errors", checkErrors},
        {"Crash", checkCrash},
    };
    for (const auto& [name, check] : checks) {
        if (name == row) {
            return {row, [check = check](Server& server) { check(dynamic_cast<SongServer&>(server)); }, {}};
        }
    }
    throw std::logic_error("no row " + row);
}

std::vector<Cell> songCells(const std::string& whyNoRedirect)
{
    std::vector<Cell> cells;
    for (const char* row : {"Open", "Length", "Whole", "HundredSeeks", "SeekToTheEnd", "PauseAndResume",
                            "Reopen", "TwoAtOnce", "Headers", "Redirect", "Errors", "Crash"}) {
        const bool isMissing = !whyNoRedirect.empty() && std::string("Redirect") == row;
        cells.push_back(isMissing ? noCell(row, whyNoRedirect) : songCell(row));
    }
    return cells;
}

} // namespace matrix
