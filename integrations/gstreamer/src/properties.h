// The element's properties: named as other HTTP sources name theirs, each one a public setting of the library.
#pragma once

#include "stream_settings.h"

#include <glib-object.h>
#include <gst/gst.h>
#include <string>

namespace gstmdch {

// What was set. A value; whoever shares it locks.
struct Properties
{
    Properties();
    ~Properties();
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;

    std::string location; // as given; empty: none
    bool isLive = false;
    player::StreamSettings stream; // but for cookies and header lines, which stand below as GLib has them
    gchar** cookies = nullptr;
    GstStructure* extraHeaders = nullptr;

    // All of it, as the library takes it.
    player::StreamSettings settings() const;

    // What goes out because of these properties, cookies left out; for the message with the headers.
    GstStructure* requestHeaders() const;
};

constexpr const char* kDefaultUserAgentPrefix = "GStreamer mdchsrc ";
constexpr guint kDefaultBlockSize = 32768;

void installProperties(GObjectClass* objectClass);

// False: no property of this element. "location" is stored, and means nothing here.
bool setProperty(Properties& properties, guint id, const GValue* value);
bool getProperty(const Properties& properties, guint id, GValue* value);

constexpr guint kPropertyLocation = 1;
constexpr guint kPropertyIsLive = 2;

} // namespace gstmdch
