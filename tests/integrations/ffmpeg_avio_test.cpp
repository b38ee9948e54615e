// FFmpeg's context over a stream, without a demuxer: errors and the end, seeks by byte and by time, pauses.
#include "ffmpeg_bytes.h"
#include "ffmpeg_player.h"

#include "support/certificates.h"
#include "support/http_server.h"
#include "support/sockets.h"
#include "support/volume.h"

#include <cerrno>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

namespace {

using support::At;
using support::Avio;
using support::avioOptions;
using support::avText;
using support::expectBytes;
using support::Gate;
using support::goOnBehindAnError;
using support::HttpServer;
using support::kMedia;
using support::kSize;
using support::Media;
using support::openAvio;
using support::openError;
using support::readBytes;
using support::Reply;

TEST(FfmpegAvio, eachFailureOfAnOpenHasItsNumber)
{
    HttpServer server;
    for (const auto& [status, averror] : std::vector<std::pair<int, int>>{{400, AVERROR_HTTP_BAD_REQUEST},
                                                                          {401, AVERROR_HTTP_UNAUTHORIZED},
                                                                          {403, AVERROR_HTTP_FORBIDDEN},
                                                                          {404, AVERROR_HTTP_NOT_FOUND},
                                                                          {410, AVERROR_HTTP_OTHER_4XX},
                                                                          {500, AVERROR_HTTP_SERVER_ERROR},
                                                                          {503, AVERROR_HTTP_SERVER_ERROR}}) {
        server.on("/a", Reply::error(status));
        EXPECT_EQ(avText(openError(server.url("/a"))), avText(averror)) << status;
    }
    server.on("/a", Reply::redirect("ftp://127.0.0.1/a"));
    EXPECT_EQ(avText(openError(server.url("/a"))), avText(AVERROR_PROTOCOL_NOT_FOUND));
    EXPECT_EQ(avText(openError(support::closedPort().url("/"))), avText(AVERROR(EHOSTUNREACH)));
    mdchAvioOptions options = avioOptions();
    options.headerTimeout = 1;
    EXPECT_EQ(avText(openError(support::silentPort().url("/"), &options)), avText(AVERROR(ETIMEDOUT)));

    options = avioOptions();
    HttpServer secure{support::Tls()};
    secure.on("/a", Reply().body("a"));
    options.caCertPath = support::certificates().unrelatedDirectory.c_str();
    EXPECT_EQ(avText(openError(secure.url("/a"), &options)), avText(AVERROR(EACCES)));
    const HttpServer garbage{support::Tls().handshake(support::Tls::Handshake::Garbage)};
    EXPECT_EQ(avText(openError(garbage.url("/a"))), avText(AVERROR(EPROTO)));

    const support::Volume volume;
    EXPECT_EQ(avText(openError(volume.dir().file("none"))), avText(AVERROR(ENOENT)));
    EXPECT_EQ(avText(openError(volume.url("none"))), avText(AVERROR(ENOENT)));
    EXPECT_EQ(avText(openError("nvl2://0000-0000/none")), avText(AVERROR(ENODEV)));
    EXPECT_EQ(avText(openError("udp://nowhere")), avText(AVERROR(EINVAL)));
    const Avio folder = openAvio(volume.dir().path());
    EXPECT_EQ(avio_r8(folder.get()), 0);
    EXPECT_EQ(avText(folder->error), avText(AVERROR(EIO)));
}

TEST(FfmpegAvio, whatCannotBeMeantIsRefused)
{
    struct Later
    {
        mdchAvioOptions options;
        std::uint64_t more;
    } later = {};
    const support::TempDir folder;
    const std::string file = folder.write("a", "a");
    later.options.size = sizeof later;
    EXPECT_EQ(openError(file, &later.options), 0) << "a later version's record, with nothing new in it";
    later.more = 1;
    EXPECT_EQ(openError(file, &later.options), AVERROR(EINVAL));
    mdchAvioOptions options = {};
    EXPECT_EQ(openError(file, &options), AVERROR(EINVAL)) << "no size";
    options = avioOptions();
    options.dataTimeout = -1;
    EXPECT_EQ(openError(file, &options), AVERROR(EINVAL));
    AVIOContext* context = openAvio(file).release();
    mdchAvioClose(&context);
    EXPECT_EQ(context, nullptr);
    mdchAvioClose(&context);
    mdchAvioClose(nullptr);
    EXPECT_EQ(mdchAvioOpen(nullptr, file.c_str(), nullptr, nullptr, 0), AVERROR(EINVAL));
    EXPECT_EQ(mdchAvioOpen(&context, nullptr, nullptr, nullptr, 0), AVERROR(EINVAL));
}

TEST(FfmpegAvio, theServerIsAskedAsTheOptionsSay)
{
    HttpServer server;
    server.on("/a", Reply().body("a"));
    mdchAvioOptions options = avioOptions();
    options.userAgent = "player/2.0";
    options.cookie = "login=abc";
    options.headers = "X-One: 1\r\nX-Two: 2\r\n";
    const Avio context = openAvio(server.url("/a"), &options);
    const support::Request request = server.requests().at(0);
    EXPECT_EQ(request.header("User-Agent"), "player/2.0");
    EXPECT_EQ(request.header("Cookie"), "login=abc");
    EXPECT_EQ(request.header("X-One") + request.header("X-Two"), "12");
    EXPECT_FALSE(request.hasHeader("icy-metadata"));
}

// The end is told as the end, and nothing else is.
TEST(FfmpegAvio, endAndErrorAreNeverMixedUp)
{
    HttpServer server;
    const std::string body = kMedia.bytes(0, kSize);
    server.on("/whole", Reply::resource(kMedia, kSize));
    server.on("/chunked", Reply().body(kMedia, kSize).chunked());
    server.on("/untilItCloses", Reply().body(kMedia, kSize).closeDelimited());
    server.on("/empty", Reply().body(""));
    server.on("/cut", Reply::resource(kMedia, kSize).close(At::body(300000)));
    server.on("/cutInChunk", Reply().body(kMedia, kSize).chunked().close(At::body(300000)));
    server.on("/reset", Reply().body(kMedia, kSize).reset(At::body(300000)));
    mdchAvioOptions options = avioOptions();
    options.reconnects = -1;
    int result = 0;
    for (const char* path : {"/whole", "/chunked", "/untilItCloses"}) {
        const Avio context = openAvio(server.url(path), &options);
        EXPECT_TRUE(readBytes(*context, SIZE_MAX, result) == body) << path;
        EXPECT_EQ(avText(result), avText(AVERROR_EOF)) << path;
        EXPECT_EQ(context->error, 0) << path;
        EXPECT_NE(avio_feof(context.get()), 0) << path;
    }
    const Avio empty = openAvio(server.url("/empty"), &options);
    EXPECT_EQ(readBytes(*empty, 1, result), "");
    EXPECT_EQ(avText(result), avText(AVERROR_EOF));
    EXPECT_EQ(avio_size(empty.get()), 0);
    for (const char* path : {"/cut", "/cutInChunk", "/reset"}) {
        const Avio context = openAvio(server.url(path), &options);
        const std::string bytes = readBytes(*context, SIZE_MAX, result);
        EXPECT_LE(bytes.size(), 300000U) << path;
        EXPECT_TRUE(kMedia.matches(0, bytes)) << path;
        const int wanted = std::string(path) == "/reset" ? AVERROR(ECONNRESET) : AVERROR(EIO);
        EXPECT_EQ(avText(result), avText(wanted)) << path;
        EXPECT_EQ(avText(context->error), avText(wanted)) << path;
        goOnBehindAnError(*context);
        readBytes(*context, 1, result);
        EXPECT_EQ(avText(result), avText(wanted)) << path << ", and it stays so";
    }
}

TEST(FfmpegAvio, lateDataAreATimeOutAndReadingGoesOnBehindIt)
{
    HttpServer server;
    Gate gate;
    server.on("/a", Reply::resource(kMedia, kSize).wait(At::body(1000), gate));
    mdchAvioOptions options = avioOptions();
    options.dataTimeout = 1;
    const Avio context = openAvio(server.url("/a"), &options);
    int result = 0;
    const auto read = [&](std::size_t wanted) { // on a busy machine any data may be late
        std::string bytes;
        do {
            goOnBehindAnError(*context);
            bytes += readBytes(*context, wanted - bytes.size(), result);
        } while (bytes.size() < wanted && result == AVERROR(ETIMEDOUT));
        return bytes;
    };
    EXPECT_TRUE(kMedia.matches(0, read(1000)));
    EXPECT_EQ(readBytes(*context, 1, result), "");
    EXPECT_EQ(avText(result), avText(AVERROR(ETIMEDOUT)));
    EXPECT_EQ(avText(context->error), avText(AVERROR(ETIMEDOUT)));
    gate.open();
    EXPECT_TRUE(read(kSize - 1000) == kMedia.bytes(1000, kSize - 1000));
    EXPECT_EQ(read(1), "");
    EXPECT_EQ(avText(result), avText(AVERROR_EOF));
}

TEST(FfmpegAvio, aTransferThatBreaksOffIsTakenUpUnlessTheFileIsAnother)
{
    HttpServer server;
    const Reply good = Reply::resource(kMedia, kSize).header("ETag: \"1\"");
    server.onSequence("/same", {Reply(good).close(At::body(300000)), Reply::error(503), good});
    server.onSequence("/other", {Reply(good).close(At::body(300000)),
                                 Reply::resource(Media(4), kSize).header("ETag: \"2\"")});
    const Avio same = openAvio(server.url("/same"));
    expectBytes(*same, 0, kSize);
    EXPECT_EQ(avio_r8(same.get()), 0);
    EXPECT_EQ(same->error, 0);
    const Avio other = openAvio(server.url("/other"));
    int result = 0;
    EXPECT_TRUE(readBytes(*other, SIZE_MAX, result) == kMedia.bytes(0, 300000));
    EXPECT_EQ(avText(result), avText(AVERROR(EINVAL)));
}

TEST(FfmpegAvio, anOpenSucceedsWhoseBodyBreaksOffAtOnce)
{
    constexpr std::size_t kSmall = 1000;
    HttpServer server;
    const Reply good = Reply::resource(kMedia, kSmall);
    server.onSequence("/once", {Reply(good).close(At::body(500)), good});
    server.on("/always", Reply(good).close(At::body(500)));
    server.on("/nothing", Reply(good).close(At::body()));
    expectBytes(*openAvio(server.url("/once")), 0, kSmall);
    mdchAvioOptions options = avioOptions();
    options.reconnects = -1;
    for (const auto& [path, count] :
         std::vector<std::pair<std::string, std::size_t>>{{"/always", 500}, {"/nothing", 0}}) {
        const Avio context = openAvio(server.url(path), &options);
        int result = 0;
        EXPECT_EQ(readBytes(*context, SIZE_MAX, result).size(), count) << path;
        EXPECT_EQ(avText(result), avText(AVERROR(EIO))) << path;
    }
}

TEST(FfmpegAvio, aSeekBringsAStreamBackWhoseServerHadGone)
{
    HttpServer server;
    server.on("/a", Reply::resource(kMedia, kSize).close(At::body(300000)));
    mdchAvioOptions options = avioOptions();
    options.reconnects = 1;
    const Avio context = openAvio(server.url("/a"), &options);
    expectBytes(*context, 0, 1000);
    server.stopListening();
    int result = 0;
    EXPECT_LT(readBytes(*context, SIZE_MAX, result).size(), 300000U);
    EXPECT_EQ(avText(result), avText(AVERROR(EHOSTUNREACH)));
    server.listenAgain();
    server.on("/a", Reply::resource(kMedia, kSize));
    ASSERT_EQ(avio_seek(context.get(), 50, SEEK_SET), 50);
    expectBytes(*context, 50, kSize - 50);
}

TEST(FfmpegAvio, seeksGoWhereTheyShould)
{
    HttpServer server;
    server.on("/a", Reply::resource(kMedia, kSize));
    server.on("/none", Reply().body(kMedia, kSize).acceptRanges("none"));
    const Avio context = openAvio(server.url("/a"));
    const auto seek = [&context](std::int64_t offset, int whence) {
        return context->seek(context->opaque, offset, whence);
    };
    EXPECT_EQ(context->seekable, AVIO_SEEKABLE_NORMAL);
    EXPECT_EQ(seek(0, AVSEEK_SIZE), static_cast<std::int64_t>(kSize));
    EXPECT_EQ(seek(-10, SEEK_END), static_cast<std::int64_t>(kSize - 10));
    EXPECT_EQ(seek(-90, SEEK_CUR), static_cast<std::int64_t>(kSize - 100));
    EXPECT_EQ(seek(0, SEEK_CUR), static_cast<std::int64_t>(kSize - 100));
    EXPECT_EQ(seek(-1, SEEK_SET), AVERROR(EINVAL));
    EXPECT_EQ(seek(0, 77), AVERROR(EINVAL));
    for (const std::int64_t place : {390000, 5, 200000, 399990, 0, 100000}) {
        ASSERT_EQ(avio_seek(context.get(), place, SEEK_SET), place);
        expectBytes(*context, static_cast<std::uint64_t>(place),
                    std::min<std::size_t>(50000, kSize - static_cast<std::size_t>(place)));
    }
    const std::size_t requests = server.requests().size();
    EXPECT_EQ(avio_skip(context.get(), 100), 150100);
    EXPECT_EQ(server.requests().size(), requests) << "a short way forward asks for nothing";

    const Avio fixed = openAvio(server.url("/none"));
    EXPECT_EQ(fixed->seekable, 0);
    expectBytes(*fixed, 0, 1000);
    EXPECT_EQ(fixed->seek(fixed->opaque, 5, SEEK_SET), AVERROR(ESPIPE));
    expectBytes(*fixed, 1000, kSize - 1000);
}

TEST(FfmpegAvio, seeksByTimeWhereTheServerCan)
{
    HttpServer server;
    const std::string both = "DLNA.ORG_OP=11;DLNA.ORG_CI=0;DLNA.ORG_FLAGS=01700000000000000000000000000000";
    server.on("/film", Reply::timeSeekResource(kMedia, 120000, 2000).contentFeatures(both));
    server.on("/song", Reply::resource(kMedia, kSize));
    mdchAvioOptions options = avioOptions();
    options.flags = MDCH_URL_DLNA_STREAMING;
    const Avio context = openAvio(server.url("/film"), &options);
    EXPECT_EQ(context->seekable, AVIO_SEEKABLE_NORMAL | AVIO_SEEKABLE_TIME);
    const auto seekTime = [&context](int stream, std::int64_t microseconds, int flags = 0) {
        return avio_seek_time(context.get(), stream, microseconds, flags);
    };
    expectBytes(*context, 0, 5000);
    EXPECT_EQ(seekTime(-1, 5'500'000), 0);
    expectBytes(*context, 11000, 5000);
    EXPECT_EQ(seekTime(-1, 20'050'000), 0) << "to the tenth of a second that a server understands";
    expectBytes(*context, 40000, 80000);
    EXPECT_EQ(server.requests().back().header("TimeSeekRange.dlna.org"), "npt=20.0-");
    EXPECT_EQ(avio_r8(context.get()), 0) << "the end";
    EXPECT_EQ(seekTime(-1, 0), 0);
    expectBytes(*context, 0, 120000);
    EXPECT_EQ(avio_seek(context.get(), 7, SEEK_SET), 7);
    expectBytes(*context, 7, 100);
    EXPECT_EQ(seekTime(0, 1000), AVERROR(ENOTSUP));
    EXPECT_EQ(seekTime(-1, 1000, AVSEEK_FLAG_BYTE), AVERROR(ENOTSUP));
    EXPECT_EQ(seekTime(-1, -1000), AVERROR(EINVAL));
    const Avio song = openAvio(server.url("/song"), &options);
    EXPECT_EQ(avio_seek_time(song.get(), -1, 0, 0), AVERROR(ENOSYS));
}

TEST(FfmpegAvio, aPauseHoldsTheStream)
{
    HttpServer server;
    server.on("/a", Reply::resource(kMedia, 4000000));
    const Avio context = openAvio(server.url("/a"));
    expectBytes(*context, 0, 1000);
    EXPECT_EQ(avio_pause(context.get(), 1), 0);
    EXPECT_TRUE(server.waitForOpenConnections(0)) << "it can be sought: no server is kept waiting";
    EXPECT_EQ(avio_pause(context.get(), 0), 0);
    expectBytes(*context, 1000, 3999000);
}

} // namespace
