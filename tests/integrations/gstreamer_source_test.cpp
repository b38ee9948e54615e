// The element by itself: what it says of a stream, how it fails, and how fast it lets go.
#include "gstreamer_player.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_httpproxy.h"
#include "support/certificates.h"
#include "support/http_proxy.h"
#include "support/http_server.h"
#include "support/media.h"
#include "support/sockets.h"
#include "support/temp_dir.h"
#include "support/wait.h"
#include "system/support_process.h"

#include <chrono>
#include <gmock/gmock.h>
#include <gst/base/gstbasesrc.h>
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>
#include <string>

namespace {

using support::At;
using support::Gate;
using support::HttpServer;
using support::Media;
using support::Player;
using support::PlayerError;
using support::Reply;
using testing::HasSubstr;

constexpr std::uint64_t kSize = 1'000'000;

// What a state change may take while a server stalls, on a machine that does nothing else; here it may be loaded, and
// without the unlock it would take for ever.
constexpr std::chrono::seconds kPromptly{30};

std::string source(const std::string& address, const std::string& properties = "")
{
    return "mdchsrc name=src timeout=0 location=\"" + address + "\" " + properties +
           " ! fakesink name=sink sync=false";
}

PlayerError failureOf(const std::string& address, const std::string& properties = "")
{
    Player player(source(address, properties), false);
    EXPECT_FALSE(player.playToEnd());
    return player.error();
}

GstElement* sinkOf(const Player& player)
{
    GstElement* sink = gst_bin_get_by_name(GST_BIN(player.pipeline()), "sink");
    gst_object_unref(sink); // the pipeline keeps it
    return sink;
}

std::string capsOf(const Player& player)
{
    GstPad* pad = gst_element_get_static_pad(player.source(), "src");
    GstCaps* caps = gst_pad_get_current_caps(pad);
    gst_object_unref(pad);
    if (caps == nullptr) {
        return "";
    }
    gchar* text = gst_caps_to_string(caps);
    gst_caps_unref(caps);
    std::string result = text;
    g_free(text);
    return result;
}

class GstreamerSourceTest : public testing::Test
{
protected:
    GstreamerSourceTest() { support::startGstreamer(); }
    ~GstreamerSourceTest() override { md::HttpAccess::shutdown(); }

    // Ends a pipeline while its server stalls.
    static void expectPromptEnd(Player& player)
    {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(player.set(GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
        const auto took = std::chrono::steady_clock::now() - begin;
        RecordProperty("milliseconds", static_cast<int>(took / std::chrono::milliseconds(1)));
        EXPECT_LT(took, kPromptly);
    }

    HttpServer m_server;
    const Media m_media{3};
};

TEST_F(GstreamerSourceTest, EveryErrorHasItsDomainCodeAndReason)
{
    m_server.on("/none", Reply::error(404));
    m_server.on("/gone", Reply::error(410));
    m_server.on("/members", Reply::unauthorized());
    m_server.on("/forbidden", Reply::error(403));
    m_server.on("/broken", Reply::error(503));
    m_server.on("/teapot", Reply::error(418));
    m_server.on("/ftp", Reply::redirect("ftp://127.0.0.1/song.mp3"));
    m_server.on("/moved", Reply::redirect("/short"));
    m_server.on("/short", Reply::resource(m_media, kSize).ignoreRanges().close(At::body(5000)));
    const support::TempDir folder;
    const auto closed = support::closedPort();
    struct Case
    {
        std::string address;
        GstResourceError code;
        std::string reason;
        std::string properties;
    };
    HttpServer secure{support::Tls(support::certificates().leaf)};
    secure.on("/a", Reply().body("x"));
    const Case kCases[] = {
        {m_server.url("/none"), GST_RESOURCE_ERROR_NOT_FOUND, "HTTP status 404", ""},
        {m_server.url("/gone"), GST_RESOURCE_ERROR_NOT_FOUND, "HTTP status 410", ""},
        {m_server.url("/members"), GST_RESOURCE_ERROR_NOT_AUTHORIZED, "HTTP status 401", ""},
        {m_server.url("/forbidden"), GST_RESOURCE_ERROR_NOT_AUTHORIZED, "HTTP status 403", ""},
        {m_server.url("/broken"), GST_RESOURCE_ERROR_OPEN_READ, "HTTP status 503", ""},
        {m_server.url("/teapot"), GST_RESOURCE_ERROR_OPEN_READ, "HTTP status 418", ""},
        {m_server.url("/ftp"), GST_RESOURCE_ERROR_OPEN_READ, "not HTTP", ""},
        {m_server.url("/moved"), GST_RESOURCE_ERROR_OPEN_READ, "redirects are not followed",
         "automatic-redirect=false"},
        {m_server.url("/short"), GST_RESOURCE_ERROR_READ, "the transfer ended early", ""},
        {closed.url("/a"), GST_RESOURCE_ERROR_OPEN_READ, "no connection", ""},
        {secure.url("/a"), GST_RESOURCE_ERROR_OPEN_READ, "certificate is not trusted", ""},
        {folder.file("none"), GST_RESOURCE_ERROR_NOT_FOUND, "No such file", ""},
        {"file://" + folder.file("none"), GST_RESOURCE_ERROR_NOT_FOUND, "No such file", ""},
        {"nvl2://no-such-stick/film", GST_RESOURCE_ERROR_NOT_FOUND, "No such device", ""},
        {"udp://nobody:1", GST_RESOURCE_ERROR_OPEN_READ, "Invalid argument", ""},
        {m_server.url("/a"), GST_RESOURCE_ERROR_OPEN_READ, "Invalid argument", "proxy=host:port"},
    };
    for (const Case& one : kCases) {
        const PlayerError error = failureOf(one.address, one.properties);
        EXPECT_EQ(error.domain, "gst-resource-error-quark") << one.address;
        EXPECT_EQ(error.code, one.code) << one.address << ": " << error.text;
        EXPECT_THAT(error.text, HasSubstr(one.reason)) << one.address;
        EXPECT_THAT(error.debug, HasSubstr(one.reason)) << one.address;
    }
}

TEST_F(GstreamerSourceTest, SeekThatFailsIsAnErrorOfItsOwn)
{
    m_server.onSequence("/a", {Reply::resource(m_media, kSize), Reply::error(404)});
    Player player(source(m_server.url("/a")), false);
    ASSERT_TRUE(player.pause());
    EXPECT_TRUE(gst_element_seek_simple(player.pipeline(), GST_FORMAT_BYTES, GST_SEEK_FLAG_FLUSH, kSize / 2));
    EXPECT_FALSE(player.playToEnd());
    EXPECT_EQ(player.error().domain, "gst-resource-error-quark");
    EXPECT_EQ(player.error().code, GST_RESOURCE_ERROR_SEEK);
}

TEST_F(GstreamerSourceTest, NoLocationIsAnErrorAtOnce)
{
    Player player("mdchsrc name=src ! fakesink", false);
    EXPECT_EQ(player.set(GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
    player.wait(GST_MESSAGE_ERROR);
    EXPECT_EQ(player.error().code, GST_RESOURCE_ERROR_NOT_FOUND);
}

TEST_F(GstreamerSourceTest, StateChangesEndAStallAtOnce)
{
    Gate never;
    m_server.on("/header", Reply::resource(m_media, kSize).wait(At::start(), never));
    m_server.on("/body", Reply::resource(m_media, kSize).wait(At::body(5000), never));
    int arrivals = 0;
    for (const char* path : {"/header", "/body"}) {
        Player player(source(m_server.url(path)), false);
        player.set(GST_STATE_PLAYING);
        ASSERT_TRUE(never.waitForArrivals(++arrivals));
        expectPromptEnd(player);
        // And it plays once more.
        player.set(GST_STATE_PLAYING);
        ASSERT_TRUE(never.waitForArrivals(++arrivals));
        player.set(GST_STATE_PAUSED);
        expectPromptEnd(player);
    }
    const support::LoopbackPort mute = support::silentPort();
    Player silent(source(mute.url("/")), false);
    silent.set(GST_STATE_PLAYING);
    expectPromptEnd(silent);
}

TEST_F(GstreamerSourceTest, SeekAwayFromAStallAndAnEndDuringTheSeek)
{
    Gate never;
    m_server.onSequence("/a", {Reply::resource(m_media, kSize).wait(At::body(5000), never),
                               Reply::resource(m_media, kSize).wait(At::body(5000), never),
                               Reply::resource(m_media, kSize).wait(At::start(), never)});
    Player player(source(m_server.url("/a")), false);
    ASSERT_TRUE(player.pause());
    for (std::size_t i = 0; i < 2; ++i) { // the second one meets a server that does not answer
        EXPECT_TRUE(gst_element_seek_simple(player.pipeline(), GST_FORMAT_BYTES, GST_SEEK_FLAG_FLUSH,
                                            static_cast<gint64>(kSize / 2 - i)));
        player.set(GST_STATE_PLAYING);
        ASSERT_TRUE(never.waitForArrivals(2 + static_cast<int>(i)));
    }
    EXPECT_EQ(m_server.requests().size(), 3U);
    EXPECT_EQ(m_server.requests().at(1).header("Range"), "bytes=500000-");
    expectPromptEnd(player);
}

TEST_F(GstreamerSourceTest, PausedPipelineHoldsTheStream)
{
    m_server.on("/a", Reply::resource(m_media, 20 * kSize).throttle(2'000'000));
    Player player("mdchsrc name=src location=\"" + m_server.url("/a") +
                      "\" ! identity sleep-time=1000 ! fakesink name=sink sync=false",
                  false);
    player.set(GST_STATE_PLAYING);
    ASSERT_TRUE(m_server.waitForBodyBytes("/a", 500'000));
    player.set(GST_STATE_PAUSED);
    EXPECT_TRUE(m_server.waitForOpenConnections(0)); // it may last for hours
    player.set(GST_STATE_PLAYING);
    EXPECT_TRUE(m_server.waitForOpenConnections(1));
    player.set(GST_STATE_NULL);
}

TEST_F(GstreamerSourceTest, PropertiesReachTheServer)
{
    m_server.on("/a", Reply().body("x"));
    Player player(source(m_server.url("/a"), "user-agent=kitchen/1 iradio-mode=false "
                                             "transfer-mode=interactive "
                                             "extra-headers=\"h,X-Room=kitchen,X-Floor=(int)2\""),
                  false);
    const gchar* cookies[] = {"a=1", "b=2", nullptr};
    g_object_set(player.source(), "cookies", cookies, nullptr);
    ASSERT_TRUE(player.playToEnd()) << player.error().debug;
    const support::Request request = m_server.requests().at(0);
    EXPECT_EQ(request.header("User-Agent"), "kitchen/1");
    EXPECT_EQ(request.header("Cookie"), "a=1;b=2");
    EXPECT_EQ(request.header("X-Room"), "kitchen");
    EXPECT_EQ(request.header("X-Floor"), "2");
    EXPECT_EQ(request.header("transferMode.dlna.org"), "Interactive");
    EXPECT_FALSE(request.hasHeader("icy-metadata"));
    gchar** stored = nullptr;
    g_object_get(player.source(), "cookies", &stored, nullptr);
    ASSERT_NE(stored, nullptr);
    EXPECT_STREQ(stored[1], "b=2");
    g_strfreev(stored);
}

TEST_F(GstreamerSourceTest, GoesThroughAProxyAndShowsAClientCertificate)
{
    support::HttpProxy proxy;
    proxy.requireBasic("user", "secret");
    m_server.on("/a", Reply().body("x"));
    Player player(source(m_server.url("/a"), "proxy=\"http://127.0.0.1:" + std::to_string(proxy.port()) +
                                                 "\" proxy-id=user proxy-pw=secret"),
                  false);
    EXPECT_TRUE(player.playToEnd()) << player.error().debug;
    EXPECT_EQ(proxy.requests().size(), 1U);
    md::setHttpProxyInfo({}, false, false); // it is the process's

    const support::Certificates& all = support::certificates();
    HttpServer members{support::Tls(all.leaf).requireClientSignedBy(all.ca.certificate)};
    members.on("/a", Reply().body("x"));
    Player member(source(members.url("/a"), "ssl-ca-dir=\"" + all.caDirectory + "\" ssl-client-cert=\"" +
                                                all.clientFiles.encryptedPem + "\" ssl-client-cert-pw=\"" +
                                                all.clientFiles.password + "\""),
                  false);
    EXPECT_TRUE(member.playToEnd()) << member.error().debug;
    EXPECT_THAT(members.connections().at(0).clientSubject, HasSubstr("test client"));
}

TEST_F(GstreamerSourceTest, ResponseHeadersArePostedAndSizeIsKnown)
{
    m_server.on("/a", Reply::resource(m_media, kSize).contentType("video/mp4").cookie("a=1").cookie("b=2"));
    Player player(source(m_server.url("/a")), false);
    ASSERT_TRUE(player.pause());
    const GstStructure* headers = player.message("http-headers");
    ASSERT_NE(headers, nullptr);
    EXPECT_STREQ(gst_structure_get_string(headers, "uri"), m_server.url("/a").c_str());
    guint status = 0;
    EXPECT_TRUE(gst_structure_get_uint(headers, "http-status-code", &status));
    EXPECT_EQ(status, 200U);
    const GstStructure* response =
        gst_value_get_structure(gst_structure_get_value(headers, "response-headers"));
    EXPECT_STREQ(gst_structure_get_string(response, "Content-Type"), "video/mp4");
    const GValue* cookies = gst_structure_get_value(response, "Set-Cookie");
    ASSERT_TRUE(cookies != nullptr && GST_VALUE_HOLDS_ARRAY(cookies));
    EXPECT_EQ(gst_value_array_get_size(cookies), 2U);
    const GstStructure* request =
        gst_value_get_structure(gst_structure_get_value(headers, "request-headers"));
    EXPECT_THAT(gst_structure_get_string(request, "User-Agent"), HasSubstr("mdchsrc"));

    gint64 size = 0;
    EXPECT_TRUE(gst_element_query_duration(player.source(), GST_FORMAT_BYTES, &size));
    EXPECT_EQ(size, static_cast<gint64>(kSize));
    GstQuery* query = gst_query_new_seeking(GST_FORMAT_BYTES);
    EXPECT_TRUE(gst_element_query(player.source(), query));
    gboolean seekable = FALSE;
    gst_query_parse_seeking(query, nullptr, &seekable, nullptr, nullptr);
    EXPECT_TRUE(seekable);
    gst_query_unref(query);
    EXPECT_EQ(capsOf(player), ""); // typefinding's business
}

TEST_F(GstreamerSourceTest, RadioHasTheCapsOfTitles)
{
    m_server.on("/live", Reply::icy("Kitchen Radio", 16000)
                             .header("Content-Type: audio/mpeg")
                             .header("icy-genre: Talk")
                             .body(m_media, 200'000));
    Player player(source(m_server.url("/live")), false);
    ASSERT_TRUE(player.playToEnd()) << player.error().debug;
    EXPECT_EQ(m_server.requests().at(0).header("icy-metadata"), "1");
    EXPECT_EQ(capsOf(player),
              "application/x-icy, metadata-interval=(int)16000, content-type=(string)audio/mpeg");
    EXPECT_THAT(player.tags("organization"), testing::ElementsAre("Kitchen Radio"));
    EXPECT_THAT(player.tags("genre"), testing::ElementsAre("Talk"));
    gint64 size = 0;
    EXPECT_FALSE(gst_element_query_duration(player.source(), GST_FORMAT_BYTES, &size) && size >= 0);
}

// In whole frames, however the bytes come.
TEST_F(GstreamerSourceTest, RawAudioHasItsExactCaps)
{
    m_server.on(
        "/pcm",
        Reply().contentType("audio/L16; rate=44100; channels=2").body(m_media.bytes(0, 40'000)).pieces(333));
    GstHarness* harness = gst_harness_new("mdchsrc");
    g_object_set(harness->element, "location", m_server.url("/pcm").c_str(), nullptr);
    gst_harness_play(harness);
    std::string all;
    while (all.size() < 40'000) {
        GstBuffer* buffer = gst_harness_pull(harness);
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(gst_buffer_get_size(buffer) % 4, 0U);
        EXPECT_EQ(GST_BUFFER_OFFSET(buffer), all.size());
        std::string bytes(gst_buffer_get_size(buffer), '\0');
        gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
        all += bytes;
        gst_buffer_unref(buffer);
    }
    EXPECT_TRUE(m_media.matches(0, all));
    GstCaps* caps = gst_pad_get_current_caps(harness->sinkpad);
    ASSERT_NE(caps, nullptr);
    GstCaps* wanted =
        gst_caps_from_string("audio/x-raw,format=S16BE,layout=interleaved,rate=44100,channels=2");
    EXPECT_TRUE(gst_caps_is_equal(caps, wanted));
    gst_caps_unref(wanted);
    gst_caps_unref(caps);
    gst_harness_teardown(harness);
}

TEST_F(GstreamerSourceTest, TimeSeeksGoToAServerThatSeeksByTime)
{
    m_server.on("/film", Reply::timeSeekResource(m_media, 120'000, 2000).contentFeatures("DLNA.ORG_OP=11"));
    Player player(source(m_server.url("/film"), "transfer-mode=streaming"), false);
    g_object_set(sinkOf(player), "enable-last-sample", TRUE, nullptr);
    ASSERT_TRUE(player.pause());
    GstQuery* query = gst_query_new_seeking(GST_FORMAT_TIME);
    EXPECT_TRUE(gst_element_query(player.source(), query));
    gboolean seekable = FALSE;
    gst_query_parse_seeking(query, nullptr, &seekable, nullptr, nullptr);
    EXPECT_TRUE(seekable);
    gst_query_unref(query);
    for (const auto& [wanted, time, npt, position] :
         {std::tuple(GstClockTime{5500}, GstClockTime{5500}, "npt=5.500-", std::uint64_t{11'000}),
          std::tuple(GstClockTime{7050}, GstClockTime{7000}, "npt=7.0-", std::uint64_t{14'000})}) {
        ASSERT_TRUE(player.seek(wanted * GST_MSECOND, 0)) << player.error().debug;
        EXPECT_EQ(m_server.requests().back().header("TimeSeekRange.dlna.org"), npt);
        GstSample* sample = nullptr;
        g_object_get(sinkOf(player), "last-sample", &sample, nullptr);
        ASSERT_NE(sample, nullptr);
        GstBuffer* buffer = gst_sample_get_buffer(sample);
        EXPECT_EQ(gst_sample_get_segment(sample)->format, GST_FORMAT_TIME);
        EXPECT_EQ(GST_BUFFER_PTS(buffer), time * GST_MSECOND);
        std::string bytes(gst_buffer_get_size(buffer), '\0');
        gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
        EXPECT_TRUE(m_media.matches(position, bytes));
        gst_sample_unref(sample);
    }
    // And by bytes again.
    ASSERT_TRUE(gst_element_seek_simple(player.source(), GST_FORMAT_BYTES, GST_SEEK_FLAG_FLUSH, 100'000));
    EXPECT_TRUE(player.playToEnd()) << player.error().debug;
}

TEST_F(GstreamerSourceTest, NoTimeSeekWhereTheServerHasNone)
{
    m_server.on("/a", Reply::resource(m_media, kSize));
    Player player(source(m_server.url("/a")), false);
    ASSERT_TRUE(player.pause());
    EXPECT_FALSE(
        gst_element_seek_simple(player.pipeline(), GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, GST_SECOND));
    EXPECT_TRUE(player.playToEnd());
}

TEST_F(GstreamerSourceTest, IsAHandlerOfUrisAndLiveWhereTheStreamIs)
{
    GError* error = nullptr;
    Player player("mdchsrc name=src ! fakesink", false);
    auto* handler = GST_URI_HANDLER(player.source());
    EXPECT_TRUE(gst_uri_handler_set_uri(handler, "nvl2://1234-ABCD/a film.ts", &error));
    EXPECT_FALSE(gst_base_src_is_live(GST_BASE_SRC(player.source())));
    EXPECT_TRUE(gst_uri_handler_set_uri(handler, "udp://239.0.0.1:1234", &error));
    EXPECT_TRUE(gst_base_src_is_live(GST_BASE_SRC(player.source())));
    EXPECT_TRUE(gst_uri_handler_set_uri(handler, "http://127.0.0.1/live", &error));
    EXPECT_FALSE(gst_base_src_is_live(GST_BASE_SRC(player.source())));
    g_object_set(player.source(), "is-live", TRUE, nullptr);
    EXPECT_TRUE(gst_base_src_is_live(GST_BASE_SRC(player.source())));
    EXPECT_FALSE(gst_uri_handler_set_uri(handler, "ftp://127.0.0.1/a", &error));
    ASSERT_NE(error, nullptr);
    EXPECT_TRUE(g_error_matches(error, GST_URI_ERROR, GST_URI_ERROR_UNSUPPORTED_PROTOCOL));
    g_error_free(error);
    gchar* uri = gst_uri_handler_get_uri(handler);
    EXPECT_STREQ(uri, "http://127.0.0.1/live");
    g_free(uri);
}

// A file URI has escapes, which a path has not.
TEST_F(GstreamerSourceTest, FileUrisAreDecoded)
{
    const support::TempDir folder;
    folder.write("a song #1.txt", "0123456789");
    for (const std::string& address :
         {"file://" + folder.file("a%20song%20%231.txt"), folder.file("a song #1.txt")}) {
        Player player(source(address), false);
        EXPECT_TRUE(player.playToEnd()) << player.error().debug;
        gint64 size = 0;
        EXPECT_TRUE(gst_element_query_duration(player.source(), GST_FORMAT_BYTES, &size));
        EXPECT_EQ(size, 10);
    }
}

#ifdef INSPECT // an instrumented plugin is for instrumented programs
TEST_F(GstreamerSourceTest, InspectToolDescribesTheElement)
{
    const support::TempDir registry;
    support::ProcessOptions options;
    options.setting = {"GST_REGISTRY=" + registry.file("registry"), "GST_PLUGIN_PATH=" PLUGIN_FOLDER};
    const support::Result said = support::runToEnd({"gst-inspect-1.0", "mdchsrc"}, options);
    EXPECT_EQ(said.status, 0) << said.err;
    for (const char* text :
         {"none (0)", "mdchelper source", "Source/Network", "GstPushSrc", "GstURIHandler", "nvl2",
          "transfer-mode", "buffer-size", "ssl-ca-dir", "ssl-client-cert", "extra-headers"}) {
        EXPECT_THAT(said.out, HasSubstr(text));
    }
    EXPECT_EQ(said.err, "");
}
#endif

} // namespace
