// What a response header is to GStreamer: a message, caps, tags.
#pragma once

#include <deque>
#include <gst/gst.h>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace gstmdch {

struct UnrefCaps
{
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
using CapsPtr = std::unique_ptr<GstCaps, UnrefCaps>;

// The lines of one response.
class Response
{
public:
    explicit Response(const std::deque<std::string>& lines);

    // Of the first line of that name, whatever its case, without blanks around it.
    std::optional<std::string> value(const char* name) const;

    // All of them, named as the server names them; what comes twice is an array.
    GstStructure* structure(const char* name) const;

    // Application/x-icy for a stream with titles, raw audio for audio/L16, else null: then the bytes are to be looked at.
    CapsPtr caps() const;

    // Bytes of one sample of all channels, when the caps are those of raw audio; else 1.
    static unsigned int frameBytes(const GstCaps* caps);

    // What a radio station says of itself; null when it says nothing.
    GstTagList* tags() const;

private:
    std::vector<std::pair<std::string, std::string>> m_fields; // both UTF-8
};

} // namespace gstmdch
