// A GStreamer pipeline under test, and what its decoders make of a stream.
#pragma once

#include "media_files.h"
#include "support/trace_capture.h"

#include <atomic>
#include <gst/gst.h>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace support {

// Once per process: GStreamer with the plugin of this build, with a registry of its own.
void startGstreamer();

struct UnrefMessage
{
    void operator()(GstMessage* message) const { gst_message_unref(message); }
};
using MessagePtr = std::unique_ptr<GstMessage, UnrefMessage>;

struct PlayerError
{
    std::string domain;
    int code = -1;
    std::string text;
    std::string debug;
};

// Checksum of what a decoder gave, by the kind of media: "audio/x-raw", "video/x-raw".
using Checksums = std::map<std::string, std::string>;

// Sources as gst-launch takes them.
std::string viaMdch(const std::string& address, const std::string& properties = "");
std::string viaFile(const MediaFile& file);

// Behind viaFile: pushed, as a network source pushes. A demuxer that may pull seeks in another way.
constexpr const char* kPushed = " ! queue";

// source ! decodebin ! fakesinks, as fast as it goes.
class Player
{
public:
    // source: as gst-launch takes it; one element in it is named "src". Or a whole pipeline, with decode false.
    explicit Player(const std::string& source, bool decode = true);
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    GstElement* pipeline() const { return m_pipeline; }
    GstElement* source() const { return m_source; }

    GstStateChangeReturn set(GstState state);

    // Waits for one of these kinds of messages, and keeps notice of those that come before it. Null at the deadline.
    // An error always ends the wait.
    MessagePtr wait(int kinds);

    bool pause();                                // until every sink has its first buffer
    bool seek(GstClockTime position, int flags); // until every sink has the first buffer from there
    bool playToEnd();
    Checksums checksums() const; // since the start, or the last forget
    Checksums first() const;     // of the first buffers behind the last pause or seek, times included
    void forget();

    const PlayerError& error() const { return m_error; }
    // Why it went wrong, for the message of a failed test: the error, and the library's traces of faults.
    std::string story() const;
    // Values of a tag in the order in which they came.
    const std::vector<std::string>& tags(const std::string& name) { return m_tags[name]; }
    // The last element message of that name; null: none came.
    const GstStructure* message(const std::string& name) const;

private:
    static constexpr unsigned int kFaults = 3000; // severity
    struct Sink;
    struct UnrefStructure
    {
        void operator()(GstStructure* structure) const { gst_structure_free(structure); }
    };

    void addSink(GstPad* pad);
    void note(GstMessage* message);

    TraceCapture m_traces{kFaults};
    GstElement* m_pipeline = nullptr;
    GstElement* m_source = nullptr;
    std::atomic<bool> m_prerolls{false}; // it has been paused: sinks that come wait for that
    mutable std::mutex m_mutex;          // guards the sinks: decodebin adds them on its own threads
    std::vector<std::unique_ptr<Sink>> m_sinks;
    PlayerError m_error;
    std::map<std::string, std::vector<std::string>> m_tags;
    std::map<std::string, std::unique_ptr<GstStructure, UnrefStructure>> m_messages;
};

// What decoders make of all of it; a failure of the test when it breaks off.
Checksums playThrough(const std::string& source);

} // namespace support
