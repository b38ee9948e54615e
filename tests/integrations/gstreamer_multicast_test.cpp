// A film that comes by multicast, decoded as the local file is.
#include "gstreamer_player.h"
#include "media_files.h"

#include "support/network_namespace.h"
#include "support/udp_socket.h"
#include "support/wait.h"
#include "system/support_process.h"

#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace {

using support::kPushed;
using support::MediaFile;
using support::mediaFile;
using support::Player;
using support::playThrough;
using support::readFile;
using support::viaFile;
using support::viaMdch;

// As many datagrams as the film has, so that it has an end. A program of its own: GStreamer keeps its threads, and
// those that another test left would be outside of the network, as those that this one leaves stay inside.
TEST(GstreamerMulticastTest, PlaysAsAFile)
{
    const support::NetworkNamespace network;
    if (!network) {
        GTEST_SKIP() << network.problem();
    }
    const MediaFile& film = mediaFile("film.ts");
    const std::string content = readFile(film.path);
    constexpr std::size_t kDatagram = std::size_t{7} * 188;
    const std::size_t count = (content.size() + kDatagram - 1) / kDatagram;
    Player player(viaMdch("udp://239.1.2.3:5000", "num-buffers=" + std::to_string(count)));
    std::atomic<std::size_t> arrived{0};
    GstPad* pad = gst_element_get_static_pad(player.source(), "src");
    const auto onBuffer = +[](GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer counter) {
        ++*static_cast<std::atomic<std::size_t>*>(counter);
        return GST_PAD_PROBE_OK;
    };
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, onBuffer, &arrived, nullptr);
    gst_object_unref(pad);
    EXPECT_EQ(player.set(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL); // live
    player.set(GST_STATE_PLAYING);
    ASSERT_TRUE(support::waitUntil(
        [] { return readFile("/proc/thread-self/net/igmp").find("030201EF") != std::string::npos; }));
    const support::UdpSender sender("239.1.2.3", 5000);
    constexpr std::size_t kAhead = 50; // of what the receive buffer holds
    for (std::size_t i = 0; i < count; ++i) {
        ASSERT_TRUE(support::waitUntil([&] { return arrived + kAhead > i; }));
        sender.send(std::string_view(content).substr(i * kDatagram, kDatagram));
    }
    EXPECT_TRUE(player.playToEnd()) << player.error().debug;
    EXPECT_EQ(player.checksums(), playThrough(viaFile(film) + kPushed));
}

} // namespace
