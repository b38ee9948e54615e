// What FFmpeg decodes through the library is what it decodes from the local file with its own file protocol: frame by
// frame, played through and after seeks, from every kind of server.
#include "ffmpeg_player.h"
#include "media_files.h"

#include "system/support_icecast.h"
#include "system/support_nginx.h"

#include "support/certificates.h"
#include "support/descriptors.h"
#include "support/http_server.h"
#include "support/network_namespace.h"
#include "support/udp_socket.h"
#include "support/volume.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iomanip>
#include <iostream>
#include <linux/sock_diag.h>
#include <map>
#include <string>
#include <sys/socket.h>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

namespace {

using support::Avio;
using support::avioOptions;
using support::FfmpegPlayer;
using support::HttpServer;
using support::MediaFile;
using support::Played;
using support::readFile;
using support::Reply;
using testing::HasSubstr;

constexpr int kSeeks = 20;

struct Expected
{
    std::vector<std::string> through;
    std::vector<std::string> sought;
};

// As FFmpeg plays the local file; once per file and process.
const Expected& expected(const MediaFile& file)
{
    static std::map<std::string, Expected> all;
    const auto known = all.find(file.name);
    if (known != all.end()) {
        return known->second;
    }
    FfmpegPlayer player("file:" + file.path);
    Expected result;
    result.through = player.play().frames;
    result.sought = player.seekAndPlay(kSeeks).frames;
    EXPECT_GT(result.through.size(), 90U) << file.name;
    return all.emplace(file.name, std::move(result)).first->second;
}

void expectSame(const std::vector<std::string>& frames, const std::vector<std::string>& wanted)
{
    EXPECT_EQ(frames.size(), wanted.size());
    for (std::size_t i = 0; i < frames.size() && i < wanted.size(); ++i) {
        ASSERT_EQ(frames[i], wanted[i]) << "frame " << i;
    }
}

void expectPlays(const MediaFile& file, const std::string& url, const mdchAvioOptions* options = nullptr)
{
    SCOPED_TRACE(url);
    const Avio context = support::openAvio(url, options);
    EXPECT_EQ(context->seekable & AVIO_SEEKABLE_NORMAL, AVIO_SEEKABLE_NORMAL);
    EXPECT_EQ(avio_size(context.get()), static_cast<std::int64_t>(std::filesystem::file_size(file.path)));
    FfmpegPlayer player(*context);
    const Played through = player.play();
    EXPECT_EQ(support::avText(through.error), support::avText(0));
    expectSame(through.frames, expected(file).through);
    const Played sought = player.seekAndPlay(kSeeks);
    EXPECT_EQ(support::avText(sought.error), support::avText(0));
    expectSame(sought.frames, expected(file).sought);
}

class FfmpegDecodeTest : public testing::TestWithParam<std::string>
{
protected:
    const MediaFile& m_file = support::mediaFile(GetParam());
};

TEST_P(FfmpegDecodeTest, localFileAndVolume)
{
    expectPlays(m_file, m_file.path);
    const support::Volume volume;
    std::filesystem::copy(m_file.path, volume.dir().file(m_file.name));
    expectPlays(m_file, volume.url(m_file.name));
}

TEST_P(FfmpegDecodeTest, webServer)
{
    const support::Nginx nginx;
    nginx.addFile(m_file.name, readFile(m_file.path));
    expectPlays(m_file, nginx.plain("/" + m_file.name));
    mdchAvioOptions options = avioOptions();
    options.caCertPath = support::certificates().caDirectory.c_str();
    expectPlays(m_file, nginx.secure("/" + m_file.name), &options);
}

TEST_P(FfmpegDecodeTest, serverThatDropsConnectionsAndIsSlow)
{
    constexpr std::uint64_t kDropAfter = 300000;
    constexpr std::uint64_t kBytesPerSecond = 6'000'000;
    HttpServer server;
    const std::string content = readFile(m_file.path);
    server.on("/drops",
              Reply::resource(content).header("ETag: \"one\"").close(support::At::body(kDropAfter)));
    server.on("/slow", Reply::resource(content).throttle(kBytesPerSecond));
    expectPlays(m_file, server.url("/drops"));
    expectPlays(m_file, server.url("/slow"));
    if (content.size() > kDropAfter) {
        EXPECT_GT(server.requests("/drops").size(), content.size() / kDropAfter);
    }
}

INSTANTIATE_TEST_SUITE_P(Of, FfmpegDecodeTest,
                         testing::Values("song.mp3", "song.ogg", "song.flac", "film.mp4", "film.mkv",
                                         "film.ts"),
                         [](const auto& instance) {
                             return instance.param.substr(instance.param.find('.') + 1);
                         });

TEST(FfmpegDecode, icecastServesEveryFile)
{
    const support::Icecast icecast(support::Icecast::Program::kNone);
    for (const MediaFile& file : support::mediaFiles()) {
        SCOPED_TRACE(file.name);
        icecast.addFile(file.name, readFile(file.path));
        const Avio context = support::openAvio(icecast.url("/" + file.name));
        const Played through = FfmpegPlayer(*context).play();
        EXPECT_EQ(support::avText(through.error), support::avText(0));
        expectSame(through.frames, expected(file).through);
    }
}

TEST(FfmpegDecode, radioStationPlaysAndTellsItsTitles)
{
    const support::Icecast icecast;
    std::vector<std::string> titles;
    mdchAvioOptions options = avioOptions();
    options.titleOpaque = &titles;
    options.title = [](void* opaque, const char* title, const char*) {
        static_cast<std::vector<std::string>*>(opaque)->emplace_back(title);
    };
    ASSERT_TRUE(icecast.announce("/live.mp3", "song=Caf%C3%A9%20-%20Night&charset=UTF-8"));
    const Avio context = support::openAvio(icecast.station(), &options);
    EXPECT_EQ(context->seekable, 0);
    EXPECT_EQ(avio_size(context.get()), AVERROR(ENOSYS));
    EXPECT_EQ(avio_seek(context.get(), 0, SEEK_SET), 0) << "where it is";
    FfmpegPlayer player(*context);
    std::size_t frames = 0;
    EXPECT_TRUE(support::waitUntil([&] {
        const Played some = player.play(10);
        frames += some.frames.size();
        EXPECT_EQ(support::avText(some.error), support::avText(0));
        return some.error != 0 || !titles.empty();
    }));
    EXPECT_GE(frames, 10U);
    EXPECT_THAT(titles, testing::Contains("Caf\xc3\xa9 - Night"));
}

// What waits in a socket's buffer, as the kernel counts it.
std::uint32_t waitingAt(int fd)
{
    std::array<std::uint32_t, SK_MEMINFO_VARS> memory{};
    socklen_t size = sizeof memory;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_MEMINFO, memory.data(), &size), 0);
    return memory[SK_MEMINFO_RMEM_ALLOC];
}

// Nothing tells the end of a multicast: it is over when all is sent, and what was received has been read for a while.
struct EndOfSending
{
    AVIOContext* context = nullptr;
    int fd = -1;
    std::atomic<bool> sent{false};
    std::int64_t bytesRead = 0;
    int asked = 0;

    bool isOver()
    {
        constexpr int kEnough = 25;
        if (!sent) {
            return false;
        }
        if (waitingAt(fd) > 0 || context->bytes_read != bytesRead) {
            bytesRead = context->bytes_read;
            asked = 0;
        }
        return ++asked > kEnough;
    }
    AVIOInterruptCB callback()
    {
        return {[](void* opaque) { return static_cast<EndOfSending*>(opaque)->isOver() ? 1 : 0; }, this};
    }
};

TEST(FfmpegDecode, multicastPlays)
{
    constexpr std::size_t kDatagram = std::size_t{7} * 188;
    constexpr std::uint32_t kRoom = 65536; // well below what the socket holds: nothing is lost
    const support::NetworkNamespace network;
    if (!network) {
        GTEST_SKIP() << network.problem();
    }
    const MediaFile& file = support::mediaFile("film.ts");
    const auto before = support::openDescriptors();
    EndOfSending end;
    const AVIOInterruptCB interrupt = end.callback();
    ASSERT_EQ(mdchAvioOpen(&end.context, "udp://239.1.2.3:5000", nullptr, &interrupt, 0), 0);
    const Avio context(end.context);
    const int fd = end.fd = support::descriptorOpenedSince(before);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(context->seekable, 0);
    const support::UdpSender sender("239.1.2.3", 5000, "127.0.0.1");
    const auto sending = std::async(std::launch::async, [&] {
        const std::string content = readFile(file.path);
        for (std::size_t at = 0; at < content.size(); at += kDatagram) {
            support::waitUntil([fd] { return waitingAt(fd) < kRoom; });
            sender.send(content.substr(at, kDatagram));
        }
        end.sent = true;
    });
    const Played played = FfmpegPlayer(*context).play();
    EXPECT_EQ(support::avText(played.error), support::avText(AVERROR_EXIT));
    sending.wait();
    // What the decoders hold back at an error: the file's last frames.
    const std::vector<std::string>& wanted = expected(file).through;
    ASSERT_GT(played.frames.size() + 10, wanted.size());
    std::map<std::string, int> left;
    for (const std::string& line : wanted) {
        ++left[line];
    }
    for (const std::string& line : played.frames) {
        EXPECT_GT(left[line]--, 0) << line;
    }
}

// Connections, requests and bytes beside those of FFmpeg's own protocol: the table of docs/players.md.
struct Traffic
{
    std::vector<std::string> frames;
    std::size_t connections = 0;
    std::size_t requests = 0;
    std::uint64_t bytes = 0;
};

enum class Way
{
    library,
    ffmpegsOwn
};

Traffic trafficOf(const MediaFile& file, int seeks, Way way)
{
    HttpServer server;
    server.on("/file", Reply::resource(readFile(file.path)).contentType(file.contentType).sendBuffer(65536));
    const auto use = [seeks](FfmpegPlayer& player) {
        return seeks > 0 ? player.seekAndPlay(seeks).frames : player.play().frames;
    };
    Traffic traffic;
    if (way == Way::library) {
        const Avio context = support::openAvio(server.url("/file"));
        FfmpegPlayer player(*context);
        traffic.frames = use(player);
    } else {
        FfmpegPlayer player(server.url("/file"));
        traffic.frames = use(player);
    }
    traffic.connections = server.connectionCount();
    traffic.requests = server.requests().size();
    traffic.bytes = server.bodyBytesSent("/file");
    return traffic;
}

std::string cellsOf(const Traffic& traffic)
{
    return std::to_string(traffic.connections) + " | " + std::to_string(traffic.requests) + " | " +
           std::to_string(traffic.bytes / 1000) + " KB |";
}

TEST(FfmpegDecode, connectionsAreNoMoreThanThoseOfFfmpegsOwnProtocol)
{
    std::cout
        << "| file | played | connections | requests | bytes | FFmpeg's: connections | requests | bytes |\n"
           "|---|---|---|---|---|---|---|---|\n";
    std::size_t ofLibrary = 0;
    std::size_t ofFfmpeg = 0;
    for (const MediaFile& file : support::mediaFiles()) {
        for (const int seeks : {0, kSeeks}) {
            const Traffic library = trafficOf(file, seeks, Way::library);
            const Traffic own = trafficOf(file, seeks, Way::ffmpegsOwn);
            std::cout << "| " << file.name << " | " << (seeks > 0 ? "20 seeks" : "through") << " | "
                      << cellsOf(library) << ' ' << cellsOf(own) << '\n';
            SCOPED_TRACE(file.name);
            expectSame(library.frames, own.frames);
            ofLibrary += library.connections;
            ofFfmpeg += own.connections;
        }
    }
    EXPECT_LE(ofLibrary, ofFfmpeg);
}

} // namespace
