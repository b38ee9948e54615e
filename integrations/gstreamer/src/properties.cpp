#include "properties.h"

#include <memory>
#include <utility>
#include <vector>

namespace gstmdch {

namespace {

enum PropertyId : guint
{
    kLocation = kPropertyLocation,
    kIsLive = kPropertyIsLive,
    kUserAgent,
    kCookies,
    kExtraHeaders,
    kProxy,
    kProxyId,
    kProxyPassword,
    kTimeout,
    kRetries,
    kAutomaticRedirect,
    kIradioMode,
    kTransferMode,
    kBufferSize,
    kPauseBuffering,
    kSslStrict,
    kSslCaDirectory,
    kClientCertificate,
    kClientPassword
};

constexpr guint kLongestTimeout = 3600;
constexpr int kSmallestBuffer = 98304;
constexpr int kLargestBuffer = 3211264;

GType transferModeType()
{
    static const GType type = [] {
        static const GEnumValue kValues[] = {{0, "no word of DLNA", "none"},
                                             {1, "Streaming: sound and films", "streaming"},
                                             {2, "Interactive: pictures", "interactive"},
                                             {3, "Background: copying", "background"},
                                             {0, nullptr, nullptr}};
        return g_enum_register_static("MdchSrcTransferMode", kValues);
    }();
    return type;
}

std::string textOf(const GValue* value)
{
    const gchar* text = g_value_get_string(value);
    return text != nullptr ? text : "";
}

// Empty texts are null to applications.
void giveText(GValue* value, const std::string& text)
{
    g_value_set_string(value, text.empty() ? nullptr : text.c_str());
}

// As a header line's value: a text as it is, anything else as GLib writes it.
std::string headerText(const GValue* value)
{
    if (G_VALUE_HOLDS_STRING(value)) {
        return textOf(value);
    }
    GValue text = G_VALUE_INIT;
    g_value_init(&text, G_TYPE_STRING);
    std::string result = g_value_transform(value, &text) != FALSE ? textOf(&text) : "";
    g_value_unset(&text);
    return result;
}

using HeaderFields = std::vector<std::pair<std::string, std::string>>;

void addHeader(HeaderFields& fields, const std::string& name, const GValue* value)
{
    if (GST_VALUE_HOLDS_ARRAY(value)) {
        for (guint i = 0; i < gst_value_array_get_size(value); ++i) {
            addHeader(fields, name, gst_value_array_get_value(value, i));
        }
        return;
    }
    if (GST_VALUE_HOLDS_LIST(value)) {
        for (guint i = 0; i < gst_value_list_get_size(value); ++i) {
            addHeader(fields, name, gst_value_list_get_value(value, i));
        }
        return;
    }
    const std::string text = headerText(value);
    // A line end would make two lines of one.
    if (!text.empty() && (name + text).find_first_of("\r\n") == std::string::npos) {
        fields.emplace_back(name, text);
    }
}

HeaderFields headerFields(const GstStructure* structure)
{
    HeaderFields fields;
    for (int i = 0; structure != nullptr && i < gst_structure_n_fields(structure); ++i) {
        const gchar* name = gst_structure_nth_field_name(structure, static_cast<guint>(i));
        addHeader(fields, name, gst_structure_get_value(structure, name));
    }
    return fields;
}

} // namespace

Properties::Properties()
{
    stream.userAgent = kDefaultUserAgentPrefix + std::string(PACKAGE_VERSION);
    stream.wantsTitles = true;
}

Properties::~Properties()
{
    g_strfreev(cookies);
    if (extraHeaders != nullptr) {
        gst_structure_free(extraHeaders);
    }
}

player::StreamSettings Properties::settings() const
{
    player::StreamSettings all = stream;
    for (gchar** cookie = cookies; cookie != nullptr && *cookie != nullptr; ++cookie) {
        all.cookies.emplace_back(*cookie);
    }
    for (const auto& [name, text] : headerFields(extraHeaders)) {
        std::string line = name;
        line.append(": ").append(text);
        all.headerLines.push_back(std::move(line));
    }
    return all;
}

GstStructure* Properties::requestHeaders() const
{
    GstStructure* headers = gst_structure_new_empty("request-headers");
    if (!stream.userAgent.empty()) {
        gst_structure_set(headers, "User-Agent", G_TYPE_STRING, stream.userAgent.c_str(), nullptr);
    }
    if (stream.wantsTitles) {
        gst_structure_set(headers, "icy-metadata", G_TYPE_STRING, "1", nullptr);
    }
    for (const auto& [name, text] : headerFields(extraHeaders)) {
        gst_structure_set(headers, name.c_str(), G_TYPE_STRING, text.c_str(), nullptr);
    }
    return headers;
}

void installProperties(GObjectClass* objectClass)
{
    constexpr auto kFlags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    const auto text = [&](PropertyId id, const char* name, const char* nick, const char* blurb,
                          const char* standard = nullptr) {
        g_object_class_install_property(objectClass, id,
                                        g_param_spec_string(name, nick, blurb, standard, kFlags));
    };
    const auto flag = [&](PropertyId id, const char* name, const char* nick, const char* blurb,
                          bool standard) {
        g_object_class_install_property(
            objectClass, id, g_param_spec_boolean(name, nick, blurb, standard ? TRUE : FALSE, kFlags));
    };
    const auto boxed = [&](PropertyId id, const char* name, const char* nick, const char* blurb, GType type) {
        g_object_class_install_property(objectClass, id, g_param_spec_boxed(name, nick, blurb, type, kFlags));
    };
    static const std::string userAgent = kDefaultUserAgentPrefix + std::string(PACKAGE_VERSION);

    text(kLocation, "location", "Location", "What to read: http, https, udp, nvl2 and file URIs, or a path");
    flag(kIsLive, "is-live", "Is live",
         "Act like a live source: nothing flows while paused (always so for udp)", false);
    text(kUserAgent, "user-agent", "User-Agent", "Value of the User-Agent HTTP request header field",
         userAgent.c_str());
    boxed(kCookies, "cookies", "Cookies", "HTTP request cookies, name=value each", G_TYPE_STRV);
    boxed(kExtraHeaders, "extra-headers", "Extra headers", "Extra headers to append to the HTTP request",
          GST_TYPE_STRUCTURE);
    text(kProxy, "proxy", "Proxy",
         "HTTP proxy, HOST:PORT: for all streams of the process from the next open on");
    text(kProxyId, "proxy-id", "Proxy user", "User name at the HTTP proxy");
    text(kProxyPassword, "proxy-pw", "Proxy password", "Password at the HTTP proxy");
    g_object_class_install_property(
        objectClass, kTimeout,
        g_param_spec_uint(
            "timeout", "Timeout",
            "Seconds to wait for a response, and for data, before it is an error (0 = no timeout)", 0,
            kLongestTimeout, static_cast<guint>(player::StreamSettings().timeoutSeconds), kFlags));
    g_object_class_install_property(
        objectClass, kRetries,
        g_param_spec_int("retries", "Retries",
                         "How often to go on where a seekable transfer broke off, before it is an error "
                         "(-1 = without end)",
                         -1, G_MAXINT, player::StreamSettings().retries, kFlags));
    flag(kAutomaticRedirect, "automatic-redirect", "Automatic redirect", "Follow HTTP redirects", true);
    flag(kIradioMode, "iradio-mode", "Radio titles", "Ask radio servers for titles within the stream", true);
    g_object_class_install_property(objectClass, kTransferMode,
                                    g_param_spec_enum("transfer-mode", "Transfer mode",
                                                      "DLNA transfer mode; without one, no time seek",
                                                      transferModeType(), 0, kFlags));
    g_object_class_install_property(
        objectClass, kBufferSize,
        g_param_spec_int("buffer-size", "Buffer size",
                         "Receive buffer of an HTTP stream in bytes, 98304 to 3211264 (0 = 196608)", 0,
                         kLargestBuffer, 0, kFlags));
    flag(kPauseBuffering, "pause-buffering", "Buffering during a pause",
         "Go on receiving while a stream that cannot seek is paused", false);
    flag(kSslStrict, "ssl-strict", "Strict certificate checking", "Verify the server of an https stream",
         true);
    text(kSslCaDirectory, "ssl-ca-dir", "Trusted certificates",
         "Directory of PEM files, the only certificates to trust (null = those of the system)");
    text(kClientCertificate, "ssl-client-cert", "Client certificate",
         "Client certificate with its key: PEM file, or PKCS#12 (*.p12)");
    text(kClientPassword, "ssl-client-cert-pw", "Client key's pass phrase",
         "Pass phrase of the client's key");
}

bool setProperty(Properties& properties, guint id, const GValue* value)
{
    player::StreamSettings& stream = properties.stream;
    switch (id) {
    case kLocation:
        properties.location = textOf(value);
        return true;
    case kIsLive:
        properties.isLive = g_value_get_boolean(value) != FALSE;
        return true;
    case kUserAgent:
        stream.userAgent = textOf(value);
        return true;
    case kCookies:
        g_strfreev(properties.cookies);
        properties.cookies = static_cast<gchar**>(g_value_dup_boxed(value));
        return true;
    case kExtraHeaders:
        if (properties.extraHeaders != nullptr) {
            gst_structure_free(properties.extraHeaders);
        }
        properties.extraHeaders = static_cast<GstStructure*>(g_value_dup_boxed(value));
        return true;
    case kProxy:
        stream.proxy = textOf(value);
        return true;
    case kProxyId:
        stream.proxyUser = textOf(value);
        return true;
    case kProxyPassword:
        stream.proxyPassword = textOf(value);
        return true;
    case kTimeout:
        stream.timeoutSeconds = static_cast<int>(g_value_get_uint(value));
        return true;
    case kRetries:
        stream.retries = g_value_get_int(value);
        return true;
    case kAutomaticRedirect:
        stream.followsRedirects = g_value_get_boolean(value) != FALSE;
        return true;
    case kIradioMode:
        stream.wantsTitles = g_value_get_boolean(value) != FALSE;
        return true;
    case kTransferMode:
        stream.transferMode = g_value_get_enum(value);
        return true;
    case kBufferSize: {
        // What the library would ignore becomes the nearest that it takes.
        const int bytes = g_value_get_int(value);
        stream.bufferBytes = bytes == 0 ? 0 : std::max(bytes, kSmallestBuffer);
        return true;
    }
    case kPauseBuffering:
        stream.pauseBuffering = g_value_get_boolean(value) != FALSE;
        return true;
    case kSslStrict:
        stream.verifiesServer = g_value_get_boolean(value) != FALSE;
        return true;
    case kSslCaDirectory:
        stream.caDirectory = textOf(value);
        return true;
    case kClientCertificate:
        stream.clientCertificate = textOf(value);
        return true;
    case kClientPassword:
        stream.clientPassword = textOf(value);
        return true;
    default:
        return false;
    }
}

bool getProperty(const Properties& properties, guint id, GValue* value)
{
    const player::StreamSettings& stream = properties.stream;
    switch (id) {
    case kLocation:
        giveText(value, properties.location);
        return true;
    case kIsLive:
        g_value_set_boolean(value, properties.isLive ? TRUE : FALSE);
        return true;
    case kUserAgent:
        giveText(value, stream.userAgent);
        return true;
    case kCookies:
        g_value_set_boxed(value, properties.cookies);
        return true;
    case kExtraHeaders:
        gst_value_set_structure(value, properties.extraHeaders);
        return true;
    case kProxy:
        giveText(value, stream.proxy);
        return true;
    case kProxyId:
        giveText(value, stream.proxyUser);
        return true;
    case kProxyPassword:
        giveText(value, stream.proxyPassword);
        return true;
    case kTimeout:
        g_value_set_uint(value, static_cast<guint>(stream.timeoutSeconds));
        return true;
    case kRetries:
        g_value_set_int(value, stream.retries);
        return true;
    case kAutomaticRedirect:
        g_value_set_boolean(value, stream.followsRedirects ? TRUE : FALSE);
        return true;
    case kIradioMode:
        g_value_set_boolean(value, stream.wantsTitles ? TRUE : FALSE);
        return true;
    case kTransferMode:
        g_value_set_enum(value, stream.transferMode);
        return true;
    case kBufferSize:
        g_value_set_int(value, stream.bufferBytes);
        return true;
    case kPauseBuffering:
        g_value_set_boolean(value, stream.pauseBuffering ? TRUE : FALSE);
        return true;
    case kSslStrict:
        g_value_set_boolean(value, stream.verifiesServer ? TRUE : FALSE);
        return true;
    case kSslCaDirectory:
        giveText(value, stream.caDirectory);
        return true;
    case kClientCertificate:
        giveText(value, stream.clientCertificate);
        return true;
    case kClientPassword:
        giveText(value, stream.clientPassword);
        return true;
    default:
        return false;
    }
}

} // namespace gstmdch
