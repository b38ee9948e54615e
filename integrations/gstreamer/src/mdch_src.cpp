#include "mdch_src.h"

#include "address.h"
#include "properties.h"
#include "source.h"

#include <gst/base/gstpushsrc.h>
#include <memory>
#include <mutex>

namespace {

using gstmdch::Properties;
using gstmdch::Source;

// What GObject keeps for us; behind GLib's part, which is C.
struct State
{
    Properties properties; // under the object's lock
    std::mutex mutex;      // guards the pointer: unlock comes on any thread, also while another one stops
    std::shared_ptr<Source> source;

    std::shared_ptr<Source> current()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return source;
    }
    void replace(std::shared_ptr<Source> other)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        source.swap(other);
    } // the former one goes with its last user
};

struct MdchSrc
{
    GstPushSrc parent;
    State* state; // from init to finalize
};

struct MdchSrcClass
{
    GstPushSrcClass parent;
};

gpointer g_parentClass = nullptr; // set once, by the class's initialisation

MdchSrc* self(gpointer object)
{
    return static_cast<MdchSrc*>(object);
}

State& stateOf(gpointer object)
{
    return *self(object)->state;
}

GstBaseSrcClass* parentClass()
{
    return GST_BASE_SRC_CLASS(g_parentClass);
}

std::string locationOf(gpointer object)
{
    GST_OBJECT_LOCK(object);
    std::string location = stateOf(object).properties.location;
    GST_OBJECT_UNLOCK(object);
    return location;
}

// Datagrams are live, have no positions, and are what arrives now.
void takeLiveness(gpointer object)
{
    GST_OBJECT_LOCK(object);
    const bool isUdp = gstmdch::isProtocol(stateOf(object).properties.location, "udp");
    const bool isLive = stateOf(object).properties.isLive || isUdp;
    GST_OBJECT_UNLOCK(object);
    gst_base_src_set_live(GST_BASE_SRC(object), isLive ? TRUE : FALSE);
    gst_base_src_set_format(GST_BASE_SRC(object), isUdp ? GST_FORMAT_TIME : GST_FORMAT_BYTES);
    if (isUdp) {
        gst_base_src_set_do_timestamp(GST_BASE_SRC(object), TRUE);
    }
}

// False: the element is at work, or nobody knows the protocol.
bool takeLocation(gpointer object, const char* location, GError** error)
{
    const std::string text = location != nullptr ? location : "";
    if (GST_STATE(object) > GST_STATE_READY) {
        g_set_error(error, GST_URI_ERROR, GST_URI_ERROR_BAD_STATE,
                    "The location cannot change while it plays");
        return false;
    }
    if (!text.empty() && !gstmdch::isSupported(text)) {
        g_set_error(error, GST_URI_ERROR, GST_URI_ERROR_UNSUPPORTED_PROTOCOL,
                    "Not an address of a stream: %s", location);
        return false;
    }
    GST_OBJECT_LOCK(object);
    stateOf(object).properties.location = text;
    GST_OBJECT_UNLOCK(object);
    takeLiveness(object);
    return true;
}

void setProperty(GObject* object, guint id, const GValue* value, GParamSpec* spec)
{
    if (id == gstmdch::kPropertyLocation) {
        GError* error = nullptr;
        if (!takeLocation(object, g_value_get_string(value), &error)) {
            g_warning("%s: %s", GST_OBJECT_NAME(object), error->message);
            g_error_free(error);
        }
        return;
    }
    GST_OBJECT_LOCK(object);
    const bool known = gstmdch::setProperty(stateOf(object).properties, id, value);
    GST_OBJECT_UNLOCK(object);
    if (!known) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    } else if (id == gstmdch::kPropertyIsLive) {
        takeLiveness(object);
    }
}

void getProperty(GObject* object, guint id, GValue* value, GParamSpec* spec)
{
    GST_OBJECT_LOCK(object);
    const bool known = gstmdch::getProperty(stateOf(object).properties, id, value);
    GST_OBJECT_UNLOCK(object);
    if (!known) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
}

void finalize(GObject* object)
{
    delete self(object)->state;
    G_OBJECT_CLASS(g_parentClass)->finalize(object);
}

gboolean start(GstBaseSrc* element)
{
    GST_OBJECT_LOCK(element);
    const Properties& properties = stateOf(element).properties;
    std::shared_ptr<Source> source;
    if (!properties.location.empty()) {
        source = std::make_shared<Source>(element, gstmdch::libraryAddress(properties.location), properties);
    }
    GST_OBJECT_UNLOCK(element);
    if (source == nullptr) {
        GST_ELEMENT_ERROR(element, RESOURCE, NOT_FOUND, ("No location set."), (nullptr));
        return FALSE;
    }
    stateOf(element).replace(source);
    return TRUE;
}

gboolean stop(GstBaseSrc* element)
{
    stateOf(element).replace(nullptr);
    return TRUE;
}

gboolean unlock(GstBaseSrc* element)
{
    if (const auto source = stateOf(element).current()) {
        source->unlock();
    }
    return TRUE;
}

gboolean unlockStop(GstBaseSrc* element)
{
    if (const auto source = stateOf(element).current()) {
        source->unlockStop();
    }
    return TRUE;
}

GstFlowReturn create(GstPushSrc* element, GstBuffer** buffer)
{
    const auto source = stateOf(element).current();
    return source != nullptr ? source->create(gst_base_src_get_blocksize(GST_BASE_SRC(element)), buffer)
                             : GST_FLOW_FLUSHING;
}

std::optional<player::StreamFacts> factsOf(gpointer element)
{
    const auto source = stateOf(element).current();
    return source != nullptr ? source->facts() : std::nullopt;
}

// Before the response nobody knows: a seek that is wanted that early is tried.
gboolean isSeekable(GstBaseSrc* element)
{
    const auto facts = factsOf(element);
    const bool can =
        facts ? facts->byteSeekable || facts->timeSeekable : !gstmdch::isProtocol(locationOf(element), "udp");
    return can ? TRUE : FALSE;
}

gboolean getSize(GstBaseSrc* element, guint64* size)
{
    const auto facts = factsOf(element);
    if (!facts || facts->size < 0) {
        return FALSE;
    }
    *size = static_cast<guint64>(facts->size);
    return TRUE;
}

// Seeks by bytes and by time, whichever the stream can. The base class seeks in the format of its segment alone, so that
// one takes the seek's. False: the stream has no such seek.
bool admitSeek(gpointer element, GstEvent* seek)
{
    gdouble rate = 0;
    GstFormat format = GST_FORMAT_UNDEFINED;
    gst_event_parse_seek(seek, &rate, &format, nullptr, nullptr, nullptr, nullptr, nullptr);
    const auto facts = factsOf(element);
    const bool can = format == GST_FORMAT_TIME
                         ? facts && facts->timeSeekable && rate > 0
                         : format == GST_FORMAT_BYTES && (!facts || facts->byteSeekable);
    if (!can) {
        return false;
    }
    auto* base = GST_BASE_SRC(element);
    GST_OBJECT_LOCK(base);
    if (facts && base->segment.format != format) {
        gst_segment_init(&base->segment, format);
    }
    GST_OBJECT_UNLOCK(base);
    return true;
}

// From downstream.
gboolean takeEvent(GstBaseSrc* element, GstEvent* event)
{
    if (GST_EVENT_TYPE(event) == GST_EVENT_SEEK && !admitSeek(element, event)) {
        return FALSE;
    }
    return parentClass()->event(element, event);
}

// From the application.
gboolean sendEvent(GstElement* element, GstEvent* event)
{
    if (GST_EVENT_TYPE(event) == GST_EVENT_SEEK && !admitSeek(element, event)) {
        gst_event_unref(event);
        return FALSE;
    }
    return GST_ELEMENT_CLASS(g_parentClass)->send_event(element, event);
}

gboolean doSeek(GstBaseSrc* element, GstSegment* segment)
{
    const auto source = stateOf(element).current();
    return source != nullptr && source->seek(*segment) ? TRUE : FALSE;
}

gboolean answerSeeking(GstBaseSrc* element, GstQuery* query)
{
    GstFormat format = GST_FORMAT_UNDEFINED;
    gst_query_parse_seeking(query, &format, nullptr, nullptr, nullptr);
    const auto facts = factsOf(element);
    if (format == GST_FORMAT_TIME && facts && facts->timeSeekable) {
        gst_query_set_seeking(query, format, TRUE, 0, -1);
        return TRUE;
    }
    if (format != GST_FORMAT_BYTES) {
        return parentClass()->query(element, query);
    }
    gst_query_set_seeking(query, format, facts && facts->byteSeekable ? TRUE : FALSE, 0,
                          facts ? facts->size : -1);
    return TRUE;
}

gboolean answer(GstBaseSrc* element, GstQuery* query)
{
    switch (GST_QUERY_TYPE(query)) {
    case GST_QUERY_URI:
        gst_query_set_uri(query, gstmdch::uriOf(locationOf(element)).c_str());
        return TRUE;
    case GST_QUERY_SEEKING:
        return answerSeeking(element, query);
    case GST_QUERY_SCHEDULING: {
        if (parentClass()->query(element, query) == FALSE) {
            return FALSE;
        }
        // Players put a buffer behind what comes through a network.
        const std::string location = locationOf(element);
        if (gstmdch::isProtocol(location, "http") || gstmdch::isProtocol(location, "https")) {
            GstSchedulingFlags flags = GST_SCHEDULING_FLAG_SEQUENTIAL;
            gint least = 0;
            gint most = 0;
            gint align = 0;
            gst_query_parse_scheduling(query, &flags, &least, &most, &align);
            flags = static_cast<GstSchedulingFlags>(flags | GST_SCHEDULING_FLAG_BANDWIDTH_LIMITED);
            gst_query_set_scheduling(query, flags, least, most, align);
        }
        return TRUE;
    }
    default:
        return parentClass()->query(element, query);
    }
}

GstStateChangeReturn changeState(GstElement* element, GstStateChange transition)
{
    const auto source = stateOf(element).current();
    if (source != nullptr && transition == GST_STATE_CHANGE_PAUSED_TO_PLAYING) {
        source->hold(false);
    }
    const GstStateChangeReturn result = GST_ELEMENT_CLASS(g_parentClass)->change_state(element, transition);
    if (source != nullptr && transition == GST_STATE_CHANGE_PLAYING_TO_PAUSED) {
        source->hold(true);
    }
    return result;
}

GstURIType uriType(GType /*type*/)
{
    return GST_URI_SRC;
}

const gchar* const* uriProtocols(GType /*type*/)
{
    return gstmdch::kProtocols;
}

gchar* getUri(GstURIHandler* handler)
{
    const std::string uri = gstmdch::uriOf(locationOf(handler));
    return uri.empty() ? nullptr : g_strdup(uri.c_str());
}

gboolean setUri(GstURIHandler* handler, const gchar* uri, GError** error)
{
    return takeLocation(handler, uri, error) ? TRUE : FALSE;
}

void initUriHandler(gpointer iface, gpointer /*data*/)
{
    auto* handler = static_cast<GstURIHandlerInterface*>(iface);
    handler->get_type = uriType;
    handler->get_protocols = uriProtocols;
    handler->get_uri = getUri;
    handler->set_uri = setUri;
}

void initClass(gpointer klass, gpointer /*data*/)
{
    g_parentClass = g_type_class_peek_parent(klass);
    static GstStaticPadTemplate source = {"src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY};
    auto* object = G_OBJECT_CLASS(klass);
    object->set_property = setProperty;
    object->get_property = getProperty;
    object->finalize = finalize;
    gstmdch::installProperties(object);

    auto* element = GST_ELEMENT_CLASS(klass);
    gst_element_class_set_static_metadata(
        element, "mdchelper source", "Source/Network",
        "Reads web servers, DLNA servers, radio stations, multicast, media volumes and files",
        "mdchelper maintainers");
    gst_element_class_add_static_pad_template(element, &source);
    element->change_state = changeState;
    element->send_event = sendEvent;

    auto* base = GST_BASE_SRC_CLASS(klass);
    base->start = start;
    base->stop = stop;
    base->unlock = unlock;
    base->unlock_stop = unlockStop;
    base->is_seekable = isSeekable;
    base->get_size = getSize;
    base->event = takeEvent;
    base->do_seek = doSeek;
    base->query = answer;
    GST_PUSH_SRC_CLASS(klass)->create = create;
}

void initElement(GTypeInstance* instance, gpointer /*klass*/)
{
    auto* element = GST_BASE_SRC(instance);
    self(element)->state = new State;
    gst_base_src_set_blocksize(element, gstmdch::kDefaultBlockSize);
    // The end is where the stream says it is: a length may be wrong, or change.
    gst_base_src_set_automatic_eos(element, FALSE);
}

// What GLib's macro for it makes, without its casts.
GType typeOfElement()
{
    static const GType type = [] {
        GTypeInfo info{};
        info.class_size = sizeof(MdchSrcClass);
        info.class_init = initClass;
        info.instance_size = sizeof(MdchSrc);
        info.instance_init = initElement;
        const GType made =
            g_type_register_static(GST_TYPE_PUSH_SRC, "MdchSrc", &info, static_cast<GTypeFlags>(0));
        const GInterfaceInfo handler = {initUriHandler, nullptr, nullptr};
        g_type_add_interface_static(made, GST_TYPE_URI_HANDLER, &handler);
        return made;
    }();
    return type;
}

} // namespace

bool gstmdch::registerElement(GstPlugin* plugin)
{
    return gst_element_register(plugin, "mdchsrc", GST_RANK_NONE, typeOfElement()) != FALSE;
}
