#include "command.h"
#include "failure.h"
#include "interrupt.h"
#include "open.h"
#include "output.h"
#include "watch_engine.h"
#include "watch_player.h"
#include "watch_record.h"

#include "mdc_hlp_http_access.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace mdch {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kBeat(20);
constexpr double kLineSeconds = 1;
constexpr double kLeastSampleSeconds = 0.1;
constexpr double kMostSamples = 3000;
constexpr double kShortestPause = 0.1;
constexpr double kSilence = 0.5;
constexpr double kRetrySeconds = 1;

struct WatchOptions : StreamOptions
{
    double duration = 60; // seconds
    double rate = 0;      // kbit/s; 0: not given
    std::string svg;      // empty: no picture
};

// One run of the command.
class Watch
{
public:
    Watch(WatchOptions& options, Interrupt& interrupt)
        : m_options(options), m_interrupt(interrupt), m_picture(options.svg)
    {
    }

    int run();

private:
    enum class Outcome
    {
        kFlows,
        kEnded, // the whole stream has been received
        kBroke
    };

    double now() const { return std::chrono::duration<double>(Clock::now() - m_start).count(); }
    double at(Clock::time_point time) const { return std::chrono::duration<double>(time - m_start).count(); }
    bool open(Failure& failure);
    void watch();
    Outcome step();
    Outcome miss();
    Outcome outcomeOf(std::size_t got);
    void reconnect();
    void noteEngine();
    void endPause(double time);
    void noteStall();
    const char* causeOfStall() const;
    void sample();
    void printLine();
    void say(double time, const std::string& text) { m_record.events.push_back({time, text}); }
    void finish();
    int deliver();

    WatchOptions& m_options;
    Interrupt& m_interrupt;
    Output m_picture;     // used when one is asked for
    WatchEngine m_engine; // listens before anything is opened
    Clock::time_point m_start = Clock::now();
    std::unique_ptr<Source> m_source;
    std::optional<WatchPlayer> m_player;
    std::vector<unsigned char> m_buffer = std::vector<unsigned char>(1U << 20U);
    WatchRecord m_record;
    std::int64_t m_taken = 0;   // bytes read, of all connections
    std::int64_t m_length = -1; // negative: not known
    std::size_t m_used = 0;     // bytes in the receive buffer
    std::size_t m_size = 0;
    std::optional<Failure> m_broken; // why there is no stream now
    double m_brokenSince = 0;
    double m_nextTry = 0;
    std::optional<double> m_pausedSince;
    std::optional<double> m_wentOnAt; // after a pause that was short, and may be part of a longer one
    double m_lastPauseAt = 0;
    std::optional<double> m_stalledSince;
    bool m_brokeInStall = false;
    bool m_silentAtStall = false;
    std::int64_t m_received = 0; // with what waits in the buffer
    double m_lastArrival = 0;
    bool m_started = false;
    WatchSample m_lineBefore;
    std::size_t m_eventsPrinted = 0;
};

bool Watch::open(Failure& failure)
{
    m_source = std::make_unique<Source>();
    if (!openSource(m_options, m_interrupt, *m_source, failure)) {
        m_source.reset();
        return false;
    }
    // Once: where it is not known, asking may make a new request.
    m_length = m_source->stream->size();
    if (m_source->http != nullptr) {
        if (m_taken > 0 && m_source->stream->isSeekable() != 0 &&
            m_source->stream->seek(m_taken, SEEK_SET) != 0) {
            failure =
                failureOf(*m_source, "cannot go on with " + m_options.url, m_source->stream->error(), errno);
            m_source.reset();
            return false;
        }
        m_source->http->fcntl(MDCH_FCNTL_NONBLOCKING);
        m_interrupt.setAction([stream = m_source->stream] { stream->close(); });
    }
    return true;
}

int Watch::run()
{
    Failure failure;
    if (!open(failure)) {
        return m_interrupt.requested() ? m_interrupt.report() : report(failure);
    }
    // Now: nobody wants to hear at the end that the picture has no place.
    if (!m_options.svg.empty() && !m_picture.open(localPath(m_options.url), failure)) {
        m_interrupt.setAction(nullptr);
        return report(failure);
    }
    constexpr double kBytesPerKilobit = 125;
    const std::string told = headerValue(headerLines(*m_source), "icy-br");
    const double kilobits = m_options.rate > 0 ? m_options.rate : std::strtod(told.c_str(), nullptr);
    m_record.url = m_options.url;
    m_record.rate = m_source->http != nullptr && kilobits > 0 ? kilobits * kBytesPerKilobit : 0;
    m_player.emplace(m_record.rate);
    m_record.samples.push_back({});
    std::cout << watchHeading(m_record) << std::flush;
    watch();
    m_interrupt.setAction(nullptr);
    return deliver();
}

// Until the time is over, the stream has ended, or the user has seen enough.
void Watch::watch()
{
    const double sampleSeconds = std::max(kLeastSampleSeconds, m_options.duration / kMostSamples);
    double nextSample = sampleSeconds;
    double nextLine = kLineSeconds;
    Outcome outcome = Outcome::kFlows;
    while (outcome != Outcome::kEnded && !m_interrupt.requested() && now() < m_options.duration &&
           std::cout) {
        outcome = m_source != nullptr ? step() : miss();
        if (m_interrupt.requested()) {
            break;
        }
        if (outcome == Outcome::kBroke) {
            m_interrupt.setAction(nullptr);
            m_source.reset();
            m_brokenSince = now();
            m_nextTry = m_brokenSince;
            m_brokeInStall = true;
            say(m_brokenSince, m_broken->reason);
            m_record.reconnects.push_back({m_brokenSince, m_broken->reason});
        }
        noteEngine();
        noteStall();
        if (outcome == Outcome::kEnded) {
            say(now(), "the stream ends");
        }
        if (now() >= nextSample) {
            sample();
            nextSample = now() + sampleSeconds;
        }
        if (now() >= nextLine) {
            printLine();
            nextLine += kLineSeconds;
        }
        if (m_source == nullptr && now() >= m_nextTry) {
            reconnect();
        }
        std::this_thread::sleep_for(kBeat);
    }
    finish();
}

// There is no stream to take from.
Watch::Outcome Watch::miss()
{
    m_used = 0;
    m_player->took(now(), m_player->wanted(now(), 0, m_size, false), 0);
    return Outcome::kFlows;
}

Watch::Outcome Watch::step()
{
    MdchUrlBase& stream = *m_source->stream;
    if (m_source->http != nullptr) {
        m_source->http->getBufferLevel(m_used, m_size);
    }
    const bool ended = m_source->http != nullptr && m_record.rate > 0 && stream.error() != 0;
    const bool isWhole = m_length >= 0 && m_taken + static_cast<std::int64_t>(m_used) >= m_length;
    const std::size_t asked = m_player->wanted(now(), m_used, m_size, ended || isWhole);
    if (asked == 0) {
        return outcomeOf(0);
    }
    errno = 0;
    const int result =
        stream.read(m_buffer.data(), static_cast<unsigned int>(std::min(asked, m_buffer.size())));
    const std::size_t got = result > 0 ? static_cast<std::size_t>(result) : 0;
    m_taken += static_cast<std::int64_t>(got);
    m_interrupt.setBytes(m_taken);
    if (m_source->http != nullptr) {
        m_source->http->getBufferLevel(m_used, m_size);
    }
    const Outcome outcome = outcomeOf(got);
    if (outcome != Outcome::kEnded) {
        m_player->took(now(), asked, got);
    }
    return outcome;
}

Watch::Outcome Watch::outcomeOf(std::size_t got)
{
    MdchUrlBase& stream = *m_source->stream;
    if (m_source->isDatagrams() || got > 0 || m_used > 0) {
        return Outcome::kFlows;
    }
    const int code = stream.error();
    const bool isError = code != 0 && code != EAGAIN;
    if (!isError && stream.eof() == 0) {
        return Outcome::kFlows;
    }
    const bool isLive = m_source->http != nullptr && m_length < 0;
    if (!isError && !isLive && (m_source->http == nullptr || m_taken >= m_length)) {
        return Outcome::kEnded;
    }
    const std::string what = "cannot read " + m_options.url + " after " + bytesOf(m_taken, m_length);
    m_broken = isError ? failureOf(*m_source, what, code, errno) : truncatedFailure(what);
    if (!isError) {
        m_broken->reason = "the server ended the stream";
    }
    return Outcome::kBroke;
}

// As a player does: at once, and then again after a while.
void Watch::reconnect()
{
    constexpr int kHeaderSeconds = 5; // the picture goes on meanwhile
    if (headerSeconds(m_options) == 0) {
        m_options.headerTimeout = kHeaderSeconds;
    }
    Failure failure;
    if (!open(failure)) {
        if (!m_interrupt.requested() && failure.reason != m_broken->reason) {
            say(now(), failure.reason);
        }
        m_broken = failure;
        m_nextTry = now() + kRetrySeconds;
        return;
    }
    m_broken.reset();
    ++m_record.reconnectCount;
    m_record.reconnects.push_back({now(), "reconnected"});
    say(now(), "reconnected");
}

void Watch::noteEngine()
{
    for (const EngineEvent& event : m_engine.take()) {
        const double time = at(event.time);
        switch (event.kind) {
        case EngineEvent::Kind::kPaused:
            if (m_wentOnAt && time - *m_wentOnAt >= kShortestPause) {
                endPause(*m_wentOnAt);
            }
            m_wentOnAt.reset();
            m_pausedSince = m_pausedSince.value_or(time);
            m_lastPauseAt = time;
            break;
        case EngineEvent::Kind::kGoesOn:
            m_wentOnAt = time;
            if (time - m_lastPauseAt >= kShortestPause) {
                endPause(time);
            }
            break;
        case EngineEvent::Kind::kReconnect:
            ++m_record.reconnectCount;
            m_record.reconnects.push_back({time, "a new request after a pause"});
            say(time, "a new request after a pause");
            break;
        }
    }
    if (m_wentOnAt && now() - *m_wentOnAt >= kShortestPause) {
        endPause(*m_wentOnAt);
    }
}

// A small buffer lets the transfer go on for a block at every read: the short pauses between are one.
void Watch::endPause(double time)
{
    if (m_pausedSince && time - *m_pausedSince >= kShortestPause) {
        m_record.pauses.push_back({*m_pausedSince, time, "the receive buffer was full"});
        say(time, "paused until now, the buffer was full");
    }
    m_pausedSince.reset();
    m_wentOnAt.reset();
}

const char* Watch::causeOfStall() const
{
    return m_brokeInStall ? "the connection broke" : m_silentAtStall ? "nothing came" : "too little came";
}

void Watch::noteStall()
{
    const std::int64_t received = m_taken + static_cast<std::int64_t>(m_used);
    if (received > m_received) {
        m_lastArrival = now();
    }
    m_received = received;
    if (!m_started && m_player->hasStarted()) {
        m_started = true;
        say(m_player->since(), "playback starts");
    }
    if (m_player->isStalled() && !m_stalledSince) {
        m_stalledSince = m_player->since();
        m_silentAtStall = m_record.rate <= 0 || now() - m_lastArrival >= kSilence;
        m_brokeInStall = m_source == nullptr;
        say(*m_stalledSince, "stalls");
    } else if (!m_player->isStalled() && m_stalledSince) {
        m_record.stalls.push_back({*m_stalledSince, now(), causeOfStall()});
        m_stalledSince.reset();
        say(now(), "goes on");
    }
}

void Watch::sample()
{
    const double level = m_size > 0 ? static_cast<double>(m_used) / static_cast<double>(m_size) : -1;
    m_record.samples.push_back({now(), m_taken + static_cast<std::int64_t>(m_used), level});
}

void Watch::printLine()
{
    sample();
    const WatchSample& last = m_record.samples.back();
    std::cout << watchLine(m_record, m_lineBefore, last, m_eventsPrinted) << std::flush;
    m_lineBefore = last;
    m_eventsPrinted = m_record.events.size();
}

// What is going on at the end counts, too.
void Watch::finish()
{
    noteEngine();
    m_record.end = now();
    endPause(m_wentOnAt.value_or(m_record.end));
    if (m_stalledSince) {
        m_record.stalls.push_back({*m_stalledSince, m_record.end, causeOfStall()});
    }
    printLine();
}

int Watch::deliver()
{
    std::cout << watchSummary(m_record);
    if (!(std::cout << std::flush)) {
        return report(localFailure("cannot write to standard output", errno));
    }
    if (!m_options.svg.empty()) {
        const std::string picture = watchPicture(m_record);
        Failure failure;
        const auto* bytes = reinterpret_cast<const unsigned char*>(picture.data());
        if (!m_picture.write(bytes, picture.size(), failure) || !m_picture.close(failure)) {
            return report(failure);
        }
    }
    return m_broken ? report(*m_broken) : kExitOk;
}

void addWatchOptions(CLI::App& watch, WatchOptions& options)
{
    constexpr double kLongest = 86400;
    constexpr double kHighestRate = 1000000;
    watch.add_option("--duration", options.duration, "how long; a minute if not given")
        ->option_text("SECONDS")
        ->check(CLI::Range(1.0, kLongest));
    watch
        .add_option("--rate", options.rate,
                    "play it at that rate; a radio's own if it tells one, else as fast as it comes")
        ->option_text("KBIT/S")
        ->check(CLI::Range(1.0, kHighestRate));
    watch.add_option("--svg", options.svg, "draw it into FILE as well")->option_text("FILE");
}

} // namespace

Command addWatch(CLI::App& line)
{
    const auto options = std::make_shared<WatchOptions>();
    CLI::App* watch = line.add_subcommand("watch", "draw what a stream does over time");
    addStreamOptions(*watch, *options);
    addWatchOptions(*watch, *options);
    watch->footer("Example:\n  mdch watch http://radio.example/live --rate 128 --svg live.svg\n");
    return {watch, [options](Interrupt& interrupt) {
                Watch watching(*options, interrupt);
                return watching.run();
            }};
}

} // namespace mdch
