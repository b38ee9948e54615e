// What the element does with its stream: opens it when data is first wanted, fills buffers, tells what it learnt.
//
// Everything that may wait happens in create, on the streaming thread, where unlock reaches it: state changes and seeks
// of an application only say what is wanted.
#pragma once

#include "failure.h"
#include "interruptible_stream.h"
#include "properties.h"

#include <gst/base/gstbasesrc.h>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace gstmdch {

class Source
{
public:
    // url: as the library takes it. The properties are those of this moment.
    Source(GstBaseSrc* element, std::string url, const Properties& properties);
    ~Source();
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    // The next buffer. GST_FLOW_FLUSHING when it was called away; an error has been posted.
    GstFlowReturn create(unsigned int blockSize, GstBuffer** buffer);

    // Where the next create goes on; not while one runs. False: there is no such place.
    bool seek(GstSegment& segment);

    // Any thread:
    void unlock() { m_stream.interrupt(); }
    void unlockStop() { m_stream.proceed(); }
    void hold(bool on) { m_stream.hold(on); }
    std::optional<player::StreamFacts> facts() const; // nothing before the first response

private:
    struct Target
    {
        GstFormat format;
        long long bytes;
        unsigned int milliseconds;
    };

    GstFlowReturn open();
    GstFlowReturn moveTo(const Target& target);
    GstFlowReturn flowOf(player::Outcome outcome, Stage stage);
    void announce();
    void announceLength();
    GstBuffer* takeWholeFrames(std::size_t count);

    GstBaseSrc* m_element;
    const std::string m_url;
    const bool m_isDatagrams;
    std::unique_ptr<GstStructure, void (*)(GstStructure*)> m_requestHeaders;
    player::InterruptibleStream m_stream;
    std::vector<unsigned char> m_scratch;
    std::vector<unsigned char> m_rest; // less than a frame, for the next buffer
    unsigned int m_frameBytes = 1;
    bool m_isAnnounced = false;
    bool m_isDiscontinuous = false;
    bool m_isAtTime = false; // behind a time seek, where positions may count from anywhere
    GstClockTime m_timestamp = GST_CLOCK_TIME_NONE; // of the next buffer
    std::optional<Target> m_target;

    mutable std::mutex m_mutex;                 // guards:
    std::optional<player::StreamFacts> m_facts; // for other threads
};

} // namespace gstmdch
