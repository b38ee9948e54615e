#include "gstreamer_player.h"

#include "support/wait.h"

#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <stdexcept>

#ifdef MDC_SANITIZED_ADDRESS
// What AddressSanitizer asks a program for. Suppressed by the name of who took it, which only the slow way of unwinding
// shows: a leak of ours through GLib's g_malloc stays one.
extern "C" const char* __asan_default_options()
{
    return "fast_unwind_on_malloc=0";
}

extern "C" const char* __lsan_default_options()
{
    return "print_suppressions=0";
}

// Other projects' libraries, which take something once per process and never give it back: the plugin loader for
// Python with its interpreter, a plugin for subtitles with its fonts, one for depth cameras with its drivers, all
// loaded for the list of plugins; the demuxer of radio titles with the name of a type; and GLib's texts that are there
// for good, some of them before main. GLib keeps memory for each of its idle threads, too, which ends up with nobody
// when one ends just as the program does; what takes that in a call that frees is nothing else.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libpython3\nleak:libfontconfig\nleak:libOpenNI2\nleak:libPSLink\nleak:libPS1080\nleak:"
           "libgsticydemux\n"
           "leak:g_intern_string\nleak:g_intern_static_string\nleak:g_quark_from_string\n"
           "leak:g_quark_from_static_string\nleak:_dl_init\nleak:g_slice_free1\n";
}
#endif

namespace support {

namespace {

// A decoder has all its time.
constexpr GstClockTime kDeadline = std::chrono::nanoseconds(defaultDeadline).count();

std::string stringOf(GChecksum* sum)
{
    const std::unique_ptr<GChecksum, void (*)(GChecksum*)> copy(g_checksum_copy(sum), g_checksum_free);
    return g_checksum_get_string(copy.get());
}

void addBuffer(GChecksum* sum, GstBuffer* buffer)
{
    GstMapInfo map;
    if (gst_buffer_map(buffer, &map, GST_MAP_READ) != FALSE) {
        g_checksum_update(sum, map.data, static_cast<gssize>(map.size));
        gst_buffer_unmap(buffer, &map);
    }
}

} // namespace

void startGstreamer()
{
    static const bool started = [] {
        // Not the user's file, and no plugin of another version of this project. The tests of a build share it, since
        // each plugin of the machine is loaded for it once; GStreamer writes it whole.
        setenv("GST_REGISTRY", REGISTRY_FILE, 1);
        setenv("GST_REGISTRY_FORK", "no", 1);
        setenv("GST_PLUGIN_PATH", PLUGIN_FOLDER, 1);
        unsetenv("GST_PLUGIN_FEATURE_RANK");
        gst_init(nullptr, nullptr);
        return true;
    }();
    static_cast<void>(started);
}

std::string viaMdch(const std::string& address, const std::string& properties)
{
    return "mdchsrc name=src location=\"" + address + "\" " + properties;
}

std::string viaFile(const MediaFile& file)
{
    return "filesrc name=src location=\"" + file.path + "\"";
}

struct Player::Sink
{
    std::string kind;
    GstElement* element = nullptr; // the pipeline's
    std::mutex mutex;              // guards:
    GChecksum* all = g_checksum_new(G_CHECKSUM_SHA1);
    std::string first;

    Sink() = default;
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;
    ~Sink() { g_checksum_free(all); }

    static void onBuffer(GstElement* /*element*/, GstBuffer* buffer, GstPad* /*pad*/, gpointer data)
    {
        auto* sink = static_cast<Sink*>(data);
        const std::lock_guard<std::mutex> lock(sink->mutex);
        addBuffer(sink->all, buffer);
    }
    // What a demuxer had pushed when it sought, as some do once to find the duration, is not for anybody's ears.
    static GstPadProbeReturn onFlush(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer data)
    {
        if (GST_EVENT_TYPE(gst_pad_probe_info_get_event(info)) == GST_EVENT_FLUSH_STOP) {
            auto* sink = static_cast<Sink*>(data);
            const std::lock_guard<std::mutex> lock(sink->mutex);
            g_checksum_reset(sink->all);
        }
        return GST_PAD_PROBE_OK;
    }
    static void onPreroll(GstElement* /*element*/, GstBuffer* buffer, GstPad* /*pad*/, gpointer data)
    {
        auto* sink = static_cast<Sink*>(data);
        const std::unique_ptr<GChecksum, void (*)(GChecksum*)> sum(g_checksum_new(G_CHECKSUM_SHA1),
                                                                   g_checksum_free);
        addBuffer(sum.get(), buffer);
        const std::lock_guard<std::mutex> lock(sink->mutex);
        sink->first = std::to_string(GST_BUFFER_PTS(buffer)) + " " + stringOf(sum.get());
    }
};

Player::Player(const std::string& source, bool decode)
{
    startGstreamer();
    GError* error = nullptr;
    m_pipeline = gst_parse_launch((source + (decode ? " ! decodebin name=decoder" : "")).c_str(), &error);
    if (error != nullptr) {
        const std::string what = error->message;
        g_error_free(error);
        throw std::runtime_error("no pipeline: " + what);
    }
    m_source = gst_bin_get_by_name(GST_BIN(m_pipeline), "src");
    if (decode) {
        GstElement* decoder = gst_bin_get_by_name(GST_BIN(m_pipeline), "decoder");
        const auto onPad = +[](GstElement* /*decoder*/, GstPad* pad, gpointer self) {
            static_cast<Player*>(self)->addSink(pad);
        };
        g_signal_connect(decoder, "pad-added", G_CALLBACK(onPad), this);
        gst_object_unref(decoder);
    }
}

Player::~Player()
{
    gst_element_set_state(m_pipeline, GST_STATE_NULL);
    if (m_source != nullptr) {
        gst_object_unref(m_source);
    }
    gst_object_unref(m_pipeline);
}

void Player::addSink(GstPad* pad)
{
    auto sink = std::make_unique<Sink>();
    GstCaps* caps = gst_pad_get_current_caps(pad);
    if (caps == nullptr) { // a seek has flushed them
        caps = gst_pad_query_caps(pad, nullptr);
    }
    sink->kind = gst_structure_get_name(gst_caps_get_structure(caps, 0));
    gst_caps_unref(caps);
    sink->element = gst_element_factory_make("fakesink", nullptr);
    g_object_set(sink->element, "sync", FALSE, "signal-handoffs", TRUE, "enable-last-sample", FALSE, nullptr);
    // A demuxer that seeks for the duration flushes its sink. One that prerolls goes back to a pause for that, and
    // stays there for good when the pipeline is just then on its way to playing.
    g_object_set(sink->element, "async", m_prerolls ? TRUE : FALSE, nullptr);
    g_signal_connect(sink->element, "handoff", G_CALLBACK(&Sink::onBuffer), sink.get());
    g_signal_connect(sink->element, "preroll-handoff", G_CALLBACK(&Sink::onPreroll), sink.get());
    gst_bin_add(GST_BIN(m_pipeline), sink->element);
    GstPad* end = gst_element_get_static_pad(sink->element, "sink");
    gst_pad_add_probe(end, GST_PAD_PROBE_TYPE_EVENT_FLUSH, &Sink::onFlush, sink.get(), nullptr);
    gst_pad_link(pad, end);
    gst_object_unref(end);
    gst_element_sync_state_with_parent(sink->element);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_sinks.push_back(std::move(sink));
}

void Player::note(GstMessage* message)
{
    switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_ERROR: {
        GError* error = nullptr;
        gchar* debug = nullptr;
        gst_message_parse_error(message, &error, &debug);
        m_error = {g_quark_to_string(error->domain), error->code, error->message,
                   debug != nullptr ? debug : ""};
        g_error_free(error);
        g_free(debug);
        break;
    }
    case GST_MESSAGE_TAG: {
        GstTagList* tags = nullptr;
        gst_message_parse_tag(message, &tags);
        for (int i = 0; i < gst_tag_list_n_tags(tags); ++i) {
            const gchar* name = gst_tag_list_nth_tag_name(tags, static_cast<guint>(i));
            gchar* text = nullptr;
            if (gst_tag_get_type(name) == G_TYPE_STRING &&
                gst_tag_list_get_string(tags, name, &text) != FALSE) {
                m_tags[name].emplace_back(text);
                g_free(text);
            }
        }
        gst_tag_list_unref(tags);
        break;
    }
    case GST_MESSAGE_ELEMENT: {
        const GstStructure* structure = gst_message_get_structure(message);
        m_messages[gst_structure_get_name(structure)].reset(gst_structure_copy(structure));
        break;
    }
    default:
        break;
    }
}

GstStateChangeReturn Player::set(GstState state)
{
    m_prerolls = m_prerolls || state == GST_STATE_PAUSED;
    return gst_element_set_state(m_pipeline, state);
}

MessagePtr Player::wait(int kinds)
{
    constexpr int kNoted = GST_MESSAGE_ERROR | GST_MESSAGE_TAG | GST_MESSAGE_ELEMENT;
    const std::unique_ptr<GstBus, void (*)(gpointer)> bus(gst_element_get_bus(m_pipeline), gst_object_unref);
    for (;;) {
        MessagePtr message(
            gst_bus_timed_pop_filtered(bus.get(), kDeadline, static_cast<GstMessageType>(kinds | kNoted)));
        if (message == nullptr) {
            return nullptr;
        }
        note(message.get());
        const int kind = GST_MESSAGE_TYPE(message.get());
        if ((kind & (kinds | GST_MESSAGE_ERROR)) != 0) {
            return message;
        }
    }
}

bool Player::pause()
{
    set(GST_STATE_PAUSED);
    const MessagePtr done = wait(GST_MESSAGE_ASYNC_DONE);
    return done != nullptr && GST_MESSAGE_TYPE(done.get()) == GST_MESSAGE_ASYNC_DONE;
}

bool Player::seek(GstClockTime position, int flags)
{
    if (gst_element_seek_simple(m_pipeline, GST_FORMAT_TIME,
                                static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | flags),
                                static_cast<gint64>(position)) == FALSE) {
        return false;
    }
    const MessagePtr done = wait(GST_MESSAGE_ASYNC_DONE);
    return done != nullptr && GST_MESSAGE_TYPE(done.get()) == GST_MESSAGE_ASYNC_DONE;
}

bool Player::playToEnd()
{
    set(GST_STATE_PLAYING);
    const MessagePtr end = wait(GST_MESSAGE_EOS);
    return end != nullptr && GST_MESSAGE_TYPE(end.get()) == GST_MESSAGE_EOS;
}

Checksums Player::checksums() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Checksums all;
    for (const auto& sink : m_sinks) {
        const std::lock_guard<std::mutex> sinkLock(sink->mutex);
        all[sink->kind] = stringOf(sink->all);
    }
    return all;
}

Checksums Player::first() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Checksums all;
    for (const auto& sink : m_sinks) {
        const std::lock_guard<std::mutex> sinkLock(sink->mutex);
        all[sink->kind] = sink->first;
    }
    return all;
}

void Player::forget()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& sink : m_sinks) {
        const std::lock_guard<std::mutex> sinkLock(sink->mutex);
        g_checksum_reset(sink->all);
    }
}

const GstStructure* Player::message(const std::string& name) const
{
    const auto found = m_messages.find(name);
    return found != m_messages.end() ? found->second.get() : nullptr;
}

std::string Player::story() const
{
    std::string text = m_error.text + " " + m_error.debug;
    for (const std::string& line : m_traces.texts()) {
        text += "\n" + line;
    }
    return text;
}

Checksums playThrough(const std::string& source)
{
    Player player(source);
    EXPECT_TRUE(player.playToEnd()) << source << ": " << player.story();
    return player.checksums();
}

} // namespace support
