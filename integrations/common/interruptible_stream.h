// A stream for players' frameworks: every wait can be broken off from another thread, and the stream goes on
// afterwards. Knows no framework, so that its threads can be watched by tools that do not know one either.
//
//     player::InterruptibleStream stream(url, settings);
//     while (stream.read(buffer, sizeof buffer, count) == player::Outcome::kDone) { ... }
//
// Calls of one caller at a time, but for interrupt, proceed and hold: any thread, at any time.
#pragma once

#include "stream_session.h"
#include "stream_settings.h"

#include <memory>
#include <mutex>
#include <string>

namespace player {

class InterruptibleStream
{
public:
    // Does nothing yet.
    InterruptibleStream(std::string url, StreamSettings settings);

    // Closes, and comes back at once, whatever the stream is waiting for.
    ~InterruptibleStream();
    InterruptibleStream(const InterruptibleStream&) = delete;
    InterruptibleStream& operator=(const InterruptibleStream&) = delete;

    // Waits for the response header. Every other call does it, too, when it was not done or was interrupted.
    Outcome open();

    // Stores what is there, at least one byte; of datagrams one, cut to size. A transfer that broke off is gone on with
    // where it was, as often as the settings say, before kFailed; not when the server has another version by now, which
    // its length or its ETag shows: that is MDCH_HTTP_ETRANSFER.
    Outcome read(unsigned char* buffer, unsigned int size, unsigned int& count);

    // kFailed: the place is gone; another seek may find one.
    Outcome seek(long long position);
    // DLNA time seek; only where facts() say that it can be.
    Outcome seekTime(unsigned int milliseconds);

    // Of the next byte that a read gives. 0 where the stream has no positions.
    long long position() const { return m_position; }

    // Of the last open that came to its end. Empty before.
    const StreamFacts& facts() const { return m_facts; }
    // For the last kFailed: an mdch_HttpError or errno value, or a negated one.
    int error() const { return m_error; }

    // Whatever waits returns kInterrupted, and so does every call until proceed. A read loses nothing by it; an open or
    // a seek is broken off, and done again by the next call.
    void interrupt();
    void proceed();

    // The user pauses: an HTTP stream is paused when nobody has wanted its data for a second, as decoders' queues are
    // full then. A read or a seek lets it go on for as long as there are some, and so does hold(false).
    void hold(bool on);

private:
    Outcome openAt(long long position);
    std::shared_ptr<StreamSession> replaceSession(std::shared_ptr<StreamSession> session);
    bool isOpen() const;
    Outcome result(Outcome outcome);

    const std::string m_url;
    const StreamSettings m_settings;
    StreamFacts m_facts;
    int m_error = 0;
    long long m_position = 0;
    bool m_opened = false; // once
    Version m_version;     // of what is being read

    mutable std::mutex m_mutex;
    // Guarded by the mutex; changed by the caller alone, who may look at the first without it.
    std::shared_ptr<StreamSession> m_session;
    bool m_interrupted = false;
};

} // namespace player
