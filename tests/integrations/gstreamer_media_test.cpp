// Decoders as judges: what they make of a film that comes through mdchsrc is what they make of the local file, played
// from start to end, and after twenty seeks.
#include "gstreamer_player.h"
#include "media_files.h"

#include "mdc_hlp_http_access.h"
#include "support/certificates.h"
#include "support/http_server.h"
#include "support/volume.h"
#include "system/support_icecast.h"
#include "system/support_nginx.h"
#include "system/support_process.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <iostream>
#include <string>
#include <vector>

namespace {

using support::At;
using support::Checksums;
using support::HttpServer;
using support::kPushed;
using support::MediaFile;
using support::mediaFile;
using support::Player;
using support::playThrough;
using support::readFile;
using support::Reply;
using support::viaFile;
using support::viaMdch;

// What players put behind a network source that can seek, so that demuxers may pull.
constexpr const char* kBuffered = " ! queue2 ring-buffer-max-size=4000000";

// The demuxers of the others lose their place, or refuse a seek now and then, when what is pushed is sought in, also in
// local files.
bool keepsItsPlace(const MediaFile& file)
{
    return file.name != "song.ogg" && file.name != "film.ts" && file.name != "film.mkv";
}

// What came first behind each of twenty seeks, and all that came behind the last.
std::vector<Checksums> playWithSeeks(const std::string& source)
{
    std::vector<Checksums> all;
    Player player(source);
    EXPECT_TRUE(player.pause()) << player.story();
    // All over the film, forwards and backwards, near and far.
    for (const int tenths : {50, 12, 88, 3, 95, 47, 49, 51, 20, 70, 71, 40, 0, 66, 33, 99, 1, 58, 90, 25}) {
        EXPECT_TRUE(
            player.seek(static_cast<GstClockTime>(tenths) * 100 * GST_MSECOND, GST_SEEK_FLAG_ACCURATE))
            << source << " at " << tenths << ": " << player.story();
        all.push_back(player.first());
    }
    player.forget();
    EXPECT_TRUE(player.playToEnd()) << player.story();
    all.push_back(player.checksums());
    return all;
}

class GstreamerMediaTest : public testing::TestWithParam<const char*>
{
protected:
    ~GstreamerMediaTest() override { md::HttpAccess::shutdown(); }

    const MediaFile& file() const { return mediaFile(GetParam()); }
};

std::string nameOf(const testing::TestParamInfo<const char*>& info)
{
    std::string name = info.param;
    return name.replace(name.find('.'), 1, "_");
}

INSTANTIATE_TEST_SUITE_P(All, GstreamerMediaTest,
                         testing::Values("song.mp3", "song.ogg", "song.flac", "film.mp4", "film.mkv",
                                         "film.ts"),
                         nameOf);

TEST_P(GstreamerMediaTest, PlaysFromAWebServerAsFromAFile)
{
    const support::Nginx nginx;
    nginx.addFile(file().name, readFile(file().path));
    const Checksums local = playThrough(viaFile(file()) + kPushed);
    EXPECT_EQ(local.size(), file().hasPicture ? 2U : 1U);
    EXPECT_EQ(playThrough(viaMdch(nginx.plain("/" + file().name))), local);
}

TEST_P(GstreamerMediaTest, SeeksOnAWebServerAsInAFile)
{
    const support::Nginx nginx;
    nginx.addFile(file().name, readFile(file().path));
    const std::string remote = viaMdch(nginx.plain("/" + file().name));
    EXPECT_EQ(playWithSeeks(remote + kBuffered), playWithSeeks(viaFile(file())));
    if (keepsItsPlace(file())) {
        EXPECT_EQ(playWithSeeks(remote), playWithSeeks(viaFile(file()) + kPushed));
    }
}

// Slow, in small pieces, and every connection breaks off before the file ends.
TEST_P(GstreamerMediaTest, PlaysAndSeeksOnAServerThatBreaksOff)
{
    HttpServer server;
    server.on("/film", [content = readFile(file().path)](const support::Request& /*request*/) {
        return Reply::resource(content).pieces(1400).close(At::body(150'000));
    });
    EXPECT_EQ(playThrough(viaMdch(server.url("/film"))), playThrough(viaFile(file()) + kPushed));
    EXPECT_GT(server.requests().size(), 2U);
    EXPECT_EQ(playWithSeeks(viaMdch(server.url("/film")) + kBuffered), playWithSeeks(viaFile(file())));
}

TEST_P(GstreamerMediaTest, PlaysAndSeeksOnAMediaVolume)
{
    const support::Volume volume("BEEF-CAFE");
    volume.dir().write("films of 2026/" + file().name, readFile(file().path));
    const std::string source = viaMdch(volume.url("films of 2026/" + file().name));
    EXPECT_EQ(playThrough(source), playThrough(viaFile(file()) + kPushed));
    EXPECT_EQ(playWithSeeks(source + kBuffered), playWithSeeks(viaFile(file())));
}

// What a server has to do for one film.
struct Traffic
{
    std::size_t connections = 0;
    std::size_t requests = 0;
    std::uint64_t bytes = 0;
};

Traffic trafficOf(const std::string& element, const MediaFile& file, bool withSeeks)
{
    HttpServer server;
    server.on("/film", Reply::resource(readFile(file.path)).sendBuffer(65536));
    const std::string source = element + " name=src location=\"" + server.url("/film") + "\"";
    if (withSeeks) {
        playWithSeeks(keepsItsPlace(file) ? source : source + kBuffered);
    } else {
        playThrough(source);
    }
    return {server.connectionCount(), server.requests().size(), server.bodyBytesSent("/film")};
}

// With MDC_PLAYER_TABLE set it prints the rows of docs/players.md, beside those of the standard source.
TEST_P(GstreamerMediaTest, PlayingThroughIsOneConnection)
{
    const Traffic through = trafficOf("mdchsrc", file(), false);
    if (file().name == "song.ogg") { // its demuxer looks at the end first, and comes back
        EXPECT_LE(through.connections, 2U);
        EXPECT_LE(through.requests, 3U);
    } else {
        EXPECT_EQ(through.connections, 1U);
        EXPECT_EQ(through.requests, 1U);
        EXPECT_EQ(through.bytes, std::filesystem::file_size(file().path));
    }
    if (std::getenv("MDC_PLAYER_TABLE") != nullptr) {
        const auto cell = [](const Traffic& traffic) {
            return std::to_string(traffic.connections) + " / " + std::to_string(traffic.requests) + " / " +
                   std::to_string(traffic.bytes / 1000);
        };
        std::cout << "| " << file().name << " | " << cell(through) << " | "
                  << cell(trafficOf("souphttpsrc", file(), false)) << " | "
                  << cell(trafficOf("mdchsrc", file(), true)) << " | "
                  << cell(trafficOf("souphttpsrc", file(), true)) << " |" << std::endl;
    }
}

class GstreamerServersTest : public testing::Test
{
protected:
    ~GstreamerServersTest() override { md::HttpAccess::shutdown(); }
};

TEST_F(GstreamerServersTest, PlaysOverHttpsWithADirectoryOfCertificates)
{
    const MediaFile& film = mediaFile("film.mp4");
    const support::Nginx nginx;
    nginx.addFile(film.name, readFile(film.path));
    const std::string trusting = "ssl-ca-dir=\"" + support::certificates().caDirectory + "\"";
    EXPECT_EQ(playThrough(viaMdch(nginx.secure("/film.mp4"), trusting)),
              playThrough(viaFile(film) + kPushed));
    EXPECT_EQ(playWithSeeks(viaMdch(nginx.secure("/film.mp4"), trusting) + kBuffered),
              playWithSeeks(viaFile(film)));
}

TEST_F(GstreamerServersTest, PlaysAndSeeksInAFileOfARadioServer)
{
    const MediaFile& song = mediaFile("song.ogg");
    const support::Icecast icecast(support::Icecast::Program::kNone);
    icecast.addFile(song.name, readFile(song.path));
    const std::string source = viaMdch(icecast.url("/" + song.name));
    EXPECT_EQ(playThrough(source), playThrough(viaFile(song) + kPushed));
    EXPECT_EQ(playWithSeeks(source + kBuffered), playWithSeeks(viaFile(song)));
}

TEST_F(GstreamerServersTest, TitlesOfARadioStreamArriveAsTags)
{
    const support::Icecast icecast;
    Player player(viaMdch(icecast.station()));
    ASSERT_TRUE(icecast.announce("/live.mp3", "song=Sine%20-%20Rising%20Tone"));
    player.set(GST_STATE_PLAYING);
    const auto isThere = [&player](const std::string& name, const std::string& text) {
        const auto& all = player.tags(name);
        return std::find(all.begin(), all.end(), text) != all.end();
    };
    while (!isThere("title", "Sine - Rising Tone")) {
        ASSERT_NE(player.wait(GST_MESSAGE_TAG), nullptr);
        ASSERT_EQ(player.error().code, -1) << player.story();
    }
    ASSERT_TRUE(icecast.announce("/live.mp3", "song=Sine%20-%20Falling%20Tone"));
    while (!isThere("title", "Sine - Falling Tone")) {
        ASSERT_NE(player.wait(GST_MESSAGE_TAG), nullptr);
        ASSERT_EQ(player.error().code, -1) << player.story();
    }
    EXPECT_EQ(player.checksums().count("audio/x-raw"), 1U);
}

// Chosen by its rank, as an integrator does it.
TEST_F(GstreamerServersTest, PlaybinPlaysThroughTheElement)
{
    const MediaFile& film = mediaFile("film.mkv");
    const support::Nginx nginx;
    nginx.addFile(film.name, readFile(film.path));
    support::startGstreamer();
    GstPluginFeature* feature = gst_registry_lookup_feature(gst_registry_get(), "mdchsrc");
    ASSERT_NE(feature, nullptr);
    EXPECT_EQ(gst_plugin_feature_get_rank(feature), GST_RANK_NONE);
    gst_plugin_feature_set_rank(feature, G_MAXINT); // what GST_PLUGIN_FEATURE_RANK=mdchsrc:MAX does
    gst_object_unref(feature);
    Player player("playbin name=player uri=" + nginx.plain("/film.mkv") +
                      " audio-sink=\"fakesink sync=false\" video-sink=\"fakesink sync=false\"",
                  false);
    EXPECT_TRUE(player.playToEnd()) << player.story();
    const GstStructure* headers = player.message("http-headers");
    ASSERT_NE(headers, nullptr);
    GstElement* source = nullptr;
    g_object_get(player.pipeline(), "source", &source, nullptr);
    ASSERT_NE(source, nullptr);
    EXPECT_STREQ(G_OBJECT_TYPE_NAME(source), "MdchSrc");
    gst_object_unref(source);
    gint64 duration = 0;
    EXPECT_TRUE(gst_element_query_duration(player.pipeline(), GST_FORMAT_TIME, &duration));
    EXPECT_GE(duration, static_cast<gint64>(9 * GST_SECOND));
}

} // namespace
