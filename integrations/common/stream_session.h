// One opened stream whose waiting can be broken off without losing it.
//
// The library ends a wait by closing the stream, and in no other way. A player's framework wants more: to interrupt a
// read, for a state change or a seek, and to go on with the same stream afterwards. So a thread of the session's own
// does the waiting for data; who reads waits for that thread, can be called away from it, and finds what has come
// meanwhile at its next read. Bytes that are in the receive buffer of an HTTP stream already are taken without it.
//
// Opening and seeking an HTTP stream wait on the caller's thread; an interrupt closes the stream then, and whoever
// wants to go on makes a new session.
//
// open, read, seek and seekTime: one caller at a time. interrupt, proceed and hold: any thread, at any time.
#pragma once

#include "response_header.h"
#include "stream_settings.h"

#include "mdc_hlp_url_base.h"

#include <boost/shared_ptr.hpp>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace player {

enum class Outcome
{
    kDone,
    kEnd,         // nothing follows
    kInterrupted, // somebody wants the caller's thread
    kFailed
};

// What the response said, or what a file is.
struct StreamFacts
{
    bool isHttp = false;
    long long size = -1; // negative: unknown
    bool byteSeekable = false;
    bool timeSeekable = false;
    int httpStatus = 0;                  // 0: no response
    std::deque<std::string> headerLines; // with their line ends
};

class StreamSession : public std::enable_shared_from_this<StreamSession>
{
public:
    // Always held by a shared pointer: the thread holds it, too.
    StreamSession(std::string url, StreamSettings settings);

    // Opens at a position, which is above 0 only for HTTP streams known to be seekable.
    Outcome open(long long position);

    // At least one byte, and as many as are there; of datagrams one, cut to size.
    Outcome read(unsigned char* buffer, unsigned int size, unsigned int& count);

    Outcome seek(long long position);

    // Fails with EBUSY while a read is under way that was interrupted: what it brings cannot be told from what stands
    // at the new place.
    Outcome seekTime(unsigned int milliseconds);

    // Where the stream says it is, behind an open or a seek.
    long long position() const { return m_stream->tell(); }

    // Lets go of the stream and the thread. Whatever waits returns.
    void end();

    void interrupt();
    void proceed();

    // Pauses an HTTP stream (true) as soon as nobody has wanted its data for a second, and lets it go on.
    void hold(bool on);

    // No more to be used but for end: an interrupt has closed the stream.
    bool isBroken() const;

    // The stream's number for the last kFailed: mdch_HttpError, an errno value or a negated one.
    int error() const { return m_error; }
    const StreamFacts& facts() const { return m_facts; }
    // Of what was opened.
    const Version& version() const { return m_version; }

private:
    using Lock = std::unique_lock<std::mutex>;

    // What the thread brought.
    struct Catch
    {
        std::vector<unsigned char> bytes;
        Outcome outcome = Outcome::kDone;
        int error = 0;
        unsigned int moves = 0; // at the time of asking
    };

    int startTransfer(long long position, Lock& lock);
    int finishStart(long long position);
    unsigned int takeBuffered(unsigned char* buffer, unsigned int size);
    void noteUse(Lock& lock);
    Outcome deliver(Catch& caught, unsigned char* buffer, unsigned int size, unsigned int& count);
    bool isVoid(const Catch& caught) const;
    bool startThread(Lock& lock);
    Outcome beginMove(Lock& lock);
    Outcome endMove(Lock& lock, int error);
    int reasonOfFailure() const;
    void learnFacts();
    bool isWorthAnotherTry(int error, int tries) const;

    // The thread's side, in stream_session_thread.cpp.
    static void run(const std::shared_ptr<StreamSession>& self);
    void serve(Lock& lock);
    bool isHoldDue() const;
    void changeHold(Lock& lock);
    Catch fetch(unsigned int size, unsigned int moves);
    Catch fetchHttp(unsigned int moves);
    Catch fetchDatagram(unsigned int size);
    Catch fetchFile(unsigned int size);
    bool goOnAfter(int error, int tries, unsigned int moves);

    const std::string m_url;
    const StreamSettings m_settings;
    boost::shared_ptr<MdchUrlBase> m_stream; // never null behind open
    md::HttpAccess* m_http = nullptr;        // the same, when it is one
    bool m_isDatagrams = false;
    StreamFacts m_facts;
    Version m_version;
    int m_error = 0;
    bool m_isOther = false; // the server has another version by now; the thread's, handed over with its catch
    long long m_soughtTo = -1; // where the last seek led

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::thread m_thread;
    // Guarded by the mutex:
    bool m_interrupted = false;
    bool m_ending = false;
    bool m_broken = false; // closed by an interrupt
    bool m_opened = false;
    bool m_moving = false;     // the caller is inside open or a seek
    bool m_restarting = false; // the thread is asking for the rest of a transfer that broke off
    unsigned int m_moves = 0;
    unsigned int m_wanted = 0; // bytes to read; 0: no read is asked for
    bool m_fetching = false;   // the thread is inside a read
    std::optional<Catch> m_caught;
    bool m_holdWanted = false;
    bool m_isHeld = false;      // paused, and nobody has read since
    bool m_mayBePaused = false; // paused; a read may have let it go on
    std::chrono::steady_clock::time_point m_lastUse;
};

} // namespace player
