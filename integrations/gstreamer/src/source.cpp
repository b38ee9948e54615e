#include "source.h"

#include "response.h"

#include <algorithm>
#include <cerrno>
#include <strings.h>
#include <utility>

namespace gstmdch {

namespace {

constexpr unsigned int kLargestDatagram = 65507;

bool isUdp(const std::string& url)
{
    return strncasecmp(url.c_str(), "udp://", 6) == 0;
}

// Milliseconds go out as a plain number behind a point, so that 5050 would arrive as 5.50 seconds: such times are
// rounded down to what arrives as it is meant.
unsigned int sendable(GstClockTime time)
{
    const auto milliseconds =
        static_cast<unsigned int>(std::min<GstClockTime>(time / GST_MSECOND, G_MAXUINT));
    const unsigned int fraction = milliseconds % 1000;
    return fraction < 100 ? milliseconds - fraction : milliseconds;
}

} // namespace

Source::Source(GstBaseSrc* element, std::string url, const Properties& properties)
    : m_element(element), m_url(std::move(url)), m_isDatagrams(isUdp(m_url)),
      m_requestHeaders(properties.requestHeaders(), gst_structure_free),
      m_stream(m_url, properties.settings())
{
}

Source::~Source() = default;

std::optional<player::StreamFacts> Source::facts() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_facts;
}

GstFlowReturn Source::flowOf(player::Outcome outcome, Stage stage)
{
    switch (outcome) {
    case player::Outcome::kDone:
        return GST_FLOW_OK;
    case player::Outcome::kEnd:
        return GST_FLOW_EOS;
    case player::Outcome::kInterrupted:
        return GST_FLOW_FLUSHING;
    default:
        postFailure(GST_ELEMENT(m_element), stage, m_stream.error(), m_stream.facts().httpStatus, m_url);
        return GST_FLOW_ERROR;
    }
}

GstFlowReturn Source::open()
{
    const GstFlowReturn flow = flowOf(m_stream.open(), Stage::kOpen);
    if (flow == GST_FLOW_OK && !m_isAnnounced) {
        m_isAnnounced = true;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_facts = m_stream.facts();
        }
        announceLength();
        announce();
    }
    return flow;
}

void Source::announceLength()
{
    const long long size = m_stream.facts().size;
    bool isNews = false;
    GST_OBJECT_LOCK(m_element);
    if (size >= 0 && m_element->segment.format == GST_FORMAT_BYTES) {
        isNews = m_element->segment.duration != static_cast<guint64>(size);
        m_element->segment.duration = static_cast<guint64>(size);
    }
    GST_OBJECT_UNLOCK(m_element);
    if (isNews) {
        gst_element_post_message(GST_ELEMENT(m_element),
                                 gst_message_new_duration_changed(GST_OBJECT(m_element)));
    }
}

// Message, caps and tags of the response.
void Source::announce()
{
    const player::StreamFacts& facts = m_stream.facts();
    if (!facts.isHttp) {
        return;
    }
    const Response response(facts.headerLines);
    GstStructure* responseHeaders = response.structure("response-headers");
    GstStructure* headers = gst_structure_new(
        "http-headers", "uri", G_TYPE_STRING, m_url.c_str(), "http-status-code", G_TYPE_UINT,
        static_cast<guint>(facts.httpStatus), "request-headers", GST_TYPE_STRUCTURE, m_requestHeaders.get(),
        "response-headers", GST_TYPE_STRUCTURE, responseHeaders, nullptr);
    gst_structure_free(responseHeaders);
    gst_element_post_message(GST_ELEMENT(m_element), gst_message_new_element(GST_OBJECT(m_element), headers));

    const CapsPtr caps = response.caps();
    m_frameBytes = Response::frameBytes(caps.get());
    if (caps != nullptr) {
        gst_base_src_set_caps(m_element, caps.get());
    }
    GstTagList* tags = response.tags();
    if (tags != nullptr) {
        // In its turn, behind the segment.
        gst_element_send_event(GST_ELEMENT(m_element), gst_event_new_tag(tags));
    }
}

bool Source::seek(GstSegment& segment)
{
    if (segment.format == GST_FORMAT_TIME && !m_isDatagrams) {
        const unsigned int milliseconds = sendable(segment.position);
        m_target = Target{GST_FORMAT_TIME, 0, milliseconds};
        return true;
    }
    const auto position = static_cast<long long>(segment.position);
    const bool isThere =
        !m_target && !m_isAtTime && position == m_stream.position() - static_cast<long long>(m_rest.size());
    if (!isThere && !m_isDatagrams) {
        m_target = Target{GST_FORMAT_BYTES, position, 0};
    }
    return true;
}

GstFlowReturn Source::moveTo(const Target& target)
{
    const bool isTime = target.format == GST_FORMAT_TIME;
    const player::Outcome outcome =
        isTime ? m_stream.seekTime(target.milliseconds) : m_stream.seek(target.bytes);
    const GstFlowReturn flow = flowOf(outcome, Stage::kSeek);
    if (flow == GST_FLOW_OK) {
        m_rest.clear();
        m_isDiscontinuous = true;
        m_isAtTime = isTime;
        m_timestamp = isTime ? target.milliseconds * GST_MSECOND : GST_CLOCK_TIME_NONE;
    }
    return flow;
}

// What was read, with what was left, as far as it makes whole frames; null: not even one.
GstBuffer* Source::takeWholeFrames(std::size_t count)
{
    m_rest.insert(m_rest.end(), m_scratch.begin(), m_scratch.begin() + static_cast<std::ptrdiff_t>(count));
    const std::size_t whole = m_rest.size() - m_rest.size() % m_frameBytes;
    if (whole == 0) {
        return nullptr;
    }
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, whole, nullptr);
    gst_buffer_fill(buffer, 0, m_rest.data(), whole);
    m_rest.erase(m_rest.begin(), m_rest.begin() + static_cast<std::ptrdiff_t>(whole));
    return buffer;
}

GstFlowReturn Source::create(unsigned int blockSize, GstBuffer** buffer)
{
    // A seek opens by itself, where it leads, what an interrupt has closed.
    GstFlowReturn flow = m_isAnnounced && m_target ? GST_FLOW_OK : open();
    if (flow == GST_FLOW_OK && m_target) {
        flow = moveTo(*m_target);
        if (flow != GST_FLOW_FLUSHING) { // interrupted: wanted still
            m_target.reset();
        }
    }
    m_scratch.resize(m_isDatagrams ? std::max(blockSize, kLargestDatagram) : blockSize);
    GstBuffer* filled = nullptr;
    while (flow == GST_FLOW_OK && filled == nullptr) {
        unsigned int count = 0;
        flow = flowOf(m_stream.read(m_scratch.data(), static_cast<unsigned int>(m_scratch.size()), count),
                      Stage::kRead);
        if (flow == GST_FLOW_OK) {
            filled = takeWholeFrames(count);
        }
    }
    if (flow != GST_FLOW_OK) {
        return flow;
    }
    if (!m_isDatagrams) {
        GST_BUFFER_OFFSET_END(filled) = static_cast<guint64>(m_stream.position()) - m_rest.size();
        GST_BUFFER_OFFSET(filled) = GST_BUFFER_OFFSET_END(filled) - gst_buffer_get_size(filled);
        GST_BUFFER_PTS(filled) = std::exchange(m_timestamp, GST_CLOCK_TIME_NONE);
    }
    if (std::exchange(m_isDiscontinuous, false)) {
        GST_BUFFER_FLAG_SET(filled, GST_BUFFER_FLAG_DISCONT);
    }
    *buffer = filled;
    return GST_FLOW_OK;
}

} // namespace gstmdch
