// GStreamer's HTTP source in front of a sink that throws all away.
#include "contestant.h"

#include <atomic>
#include <gio/gio.h>
#include <gst/gst.h>
#include <memory>
#include <stdexcept>

namespace {

using bench::Options;
using bench::Report;

struct Unref
{
    void operator()(GstElement* element) const
    {
        gst_element_set_state(element, GST_STATE_NULL);
        gst_object_unref(element);
    }
    void operator()(GstBus* bus) const { gst_object_unref(bus); }
    void operator()(GstPad* pad) const { gst_object_unref(pad); }
    void operator()(GstMessage* message) const { gst_message_unref(message); }
};

GstPadProbeReturn countBytes(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer bytes)
{
    *static_cast<std::atomic<std::size_t>*>(bytes) +=
        gst_buffer_get_size(gst_pad_probe_info_get_buffer(info));
    return GST_PAD_PROBE_OK;
}

void trust(GstElement* source, const std::string& certificate)
{
    GTlsDatabase* database = g_tls_file_database_new(certificate.c_str(), nullptr);
    if (database == nullptr) {
        throw std::runtime_error("cannot trust " + certificate);
    }
    g_object_set(source, "tls-database", database, nullptr);
    g_object_unref(database);
}

void readBody(const Options& options, Report& report)
{
    std::atomic<std::size_t> bytes{0};
    const std::string description =
        "souphttpsrc name=source retries=0 ! fakesink name=sink sync=false enable-last-sample=false";
    const std::unique_ptr<GstElement, Unref> pipeline(gst_parse_launch(description.c_str(), nullptr));
    if (pipeline == nullptr) {
        throw std::runtime_error("no souphttpsrc");
    }
    GstElement* source = gst_bin_get_by_name(GST_BIN(pipeline.get()), "source");
    g_object_set(source, "location", options.url.c_str(), "blocksize", static_cast<guint>(options.block),
                 nullptr);
    if (!options.trusted.empty()) {
        trust(source, options.trusted + "/cert.pem");
    }
    const std::unique_ptr<GstPad, Unref> pad(gst_element_get_static_pad(source, "src"));
    gst_object_unref(source);
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, countBytes, &bytes, nullptr);
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    const std::unique_ptr<GstBus, Unref> bus(gst_element_get_bus(pipeline.get()));
    const std::unique_ptr<GstMessage, Unref> message(gst_bus_timed_pop_filtered(
        bus.get(), GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS)));
    if (GST_MESSAGE_TYPE(message.get()) != GST_MESSAGE_EOS) {
        throw std::runtime_error("GStreamer reports an error");
    }
    report.addBytes(bytes);
}

void readBodies(const Options& options, Report& report)
{
    for (int i = 0; i < options.repeat; ++i) {
        readBody(options, report);
    }
}

} // namespace

int main(int argc, char** argv)
{
    gst_init(nullptr, nullptr);
    return bench::runContestant("gst", {{"body", readBodies}}, argc, argv);
}
