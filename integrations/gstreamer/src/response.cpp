#include "response.h"

#include <algorithm>
#include <cstdlib>
#include <strings.h>

namespace gstmdch {

namespace {

constexpr const char* kBlanks = " \t\r\n";

std::string trimmed(const std::string& text)
{
    const std::size_t first = text.find_first_not_of(kBlanks);
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Servers send what they like; GStreamer takes UTF-8 only.
std::string asUtf8(const std::string& text)
{
    if (g_utf8_validate(text.c_str(), -1, nullptr) != FALSE) {
        return text.c_str(); // up to a NUL byte
    }
    const std::unique_ptr<char, void (*)(gpointer)> converted(
        g_convert(text.c_str(), -1, "UTF-8", "ISO-8859-1", nullptr, nullptr, nullptr), g_free);
    return converted != nullptr ? converted.get() : "";
}

bool sameName(const std::string& one, const char* other)
{
    return strcasecmp(one.c_str(), other) == 0;
}

// The number behind "name=" among the parameters of a media type; 0: none.
int parameter(const std::string& type, const char* name)
{
    std::size_t begin = type.find(';');
    while (begin != std::string::npos) {
        const std::size_t end = type.find(';', begin + 1);
        const std::string item = trimmed(type.substr(begin + 1, end - begin - 1));
        const std::size_t equals = item.find('=');
        if (equals != std::string::npos && sameName(trimmed(item.substr(0, equals)), name)) {
            const std::string value = trimmed(item.substr(equals + 1));
            char* rest = nullptr;
            const long number = std::strtol(value.c_str(), &rest, 10);
            return *rest == '\0' && number > 0 && number <= G_MAXINT ? static_cast<int>(number) : 0;
        }
        begin = end;
    }
    return 0;
}

// RFC 2586: 16 bits, signed, big-endian; the rate has to be said, one channel has not.
CapsPtr rawAudioCaps(const std::string& type)
{
    constexpr int kMostChannels = 64;
    const int rate = parameter(type, "rate");
    const int said = parameter(type, "channels");
    const int channels = said > 0 ? said : 1;
    if (!sameName(trimmed(type.substr(0, type.find(';'))), "audio/L16") || rate == 0 ||
        channels > kMostChannels) {
        return nullptr;
    }
    CapsPtr caps(gst_caps_new_simple("audio/x-raw", "format", G_TYPE_STRING, "S16BE", "layout", G_TYPE_STRING,
                                     "interleaved", "rate", G_TYPE_INT, rate, "channels", G_TYPE_INT,
                                     channels, nullptr));
    if (channels > 2) { // nobody says which is where
        gst_caps_set_simple(caps.get(), "channel-mask", GST_TYPE_BITMASK, guint64{0}, nullptr);
    }
    return caps;
}

} // namespace

Response::Response(const std::deque<std::string>& lines)
{
    for (const std::string& line : lines) {
        const std::size_t colon = line.find(':');
        if (colon != std::string::npos && colon > 0 && line.compare(0, 5, "HTTP/") != 0) {
            m_fields.emplace_back(asUtf8(trimmed(line.substr(0, colon))),
                                  asUtf8(trimmed(line.substr(colon + 1))));
        }
    }
}

std::optional<std::string> Response::value(const char* name) const
{
    const auto found = std::find_if(m_fields.begin(), m_fields.end(),
                                    [name](const auto& field) { return sameName(field.first, name); });
    return found != m_fields.end() ? std::optional<std::string>(found->second) : std::nullopt;
}

GstStructure* Response::structure(const char* name) const
{
    GstStructure* all = gst_structure_new_empty(name);
    for (const auto& [field, text] : m_fields) {
        GValue value = G_VALUE_INIT;
        g_value_init(&value, G_TYPE_STRING);
        g_value_set_string(&value, text.c_str());
        const GValue* former = gst_structure_get_value(all, field.c_str());
        if (former == nullptr) {
            gst_structure_take_value(all, field.c_str(), &value);
            continue;
        }
        GValue array = G_VALUE_INIT;
        if (GST_VALUE_HOLDS_ARRAY(former)) {
            g_value_init(&array, GST_TYPE_ARRAY);
            g_value_copy(former, &array);
        } else {
            g_value_init(&array, GST_TYPE_ARRAY);
            gst_value_array_append_value(&array, former);
        }
        gst_value_array_append_and_take_value(&array, &value);
        gst_structure_take_value(all, field.c_str(), &array);
    }
    return all;
}

CapsPtr Response::caps() const
{
    const std::string type = value("Content-Type").value_or("");
    const std::optional<std::string> interval = value("icy-metaint");
    const long bytes = interval ? std::strtol(interval->c_str(), nullptr, 10) : 0;
    if (bytes <= 0 || bytes > G_MAXINT) {
        return rawAudioCaps(type);
    }
    CapsPtr caps(gst_caps_new_simple("application/x-icy", "metadata-interval", G_TYPE_INT,
                                     static_cast<int>(bytes), nullptr));
    if (!type.empty()) {
        gst_caps_set_simple(caps.get(), "content-type", G_TYPE_STRING, type.c_str(), nullptr);
    }
    return caps;
}

unsigned int Response::frameBytes(const GstCaps* caps)
{
    int channels = 0;
    const GstStructure* first = caps != nullptr ? gst_caps_get_structure(caps, 0) : nullptr;
    const bool isRaw = first != nullptr && gst_structure_has_name(first, "audio/x-raw") != FALSE &&
                       gst_structure_get_int(first, "channels", &channels) != FALSE;
    return isRaw ? 2 * static_cast<unsigned int>(channels) : 1;
}

GstTagList* Response::tags() const
{
    const std::pair<const char*, const char*> kKnown[] = {
        {"icy-name", GST_TAG_ORGANIZATION}, {"icy-genre", GST_TAG_GENRE}, {"icy-url", GST_TAG_LOCATION}};
    GstTagList* tags = nullptr;
    for (const auto& [field, tag] : kKnown) {
        const std::string text = value(field).value_or("");
        if (!text.empty()) {
            tags = tags != nullptr ? tags : gst_tag_list_new_empty();
            gst_tag_list_add(tags, GST_TAG_MERGE_REPLACE, tag, text.c_str(), nullptr);
        }
    }
    return tags;
}

} // namespace gstmdch
