// What happened to a watched stream, as time goes by.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mdch {

struct WatchSample
{
    double time = 0;           // seconds since the start
    std::int64_t received = 0; // bytes so far
    double level = -1;         // of the receive buffer, 0 to 1; negative: not known
};

struct WatchSpan
{
    double from = 0;
    double to = 0;
    std::string text; // why; may be empty
};

struct WatchEvent
{
    double time = 0;
    std::string text;
};

struct WatchRecord
{
    std::string url;
    double rate = 0; // bytes per second that the playback takes; 0: as fast as they come
    double end = 0;  // how long it was watched
    std::vector<WatchSample> samples;
    std::vector<WatchSpan> pauses;      // the transfer rested on a full buffer
    std::vector<WatchSpan> stalls;      // the playback missed bytes
    std::vector<WatchEvent> reconnects; // ... and breaks
    std::vector<WatchEvent> events;     // all of it in words, in order
    std::size_t reconnectCount = 0;
};

// A line for the time between two samples, with the words of what happened meanwhile, from the event `first` on.
std::string watchLine(const WatchRecord& record, const WatchSample& before, const WatchSample& now,
                      std::size_t first);

// The line above them.
std::string watchHeading(const WatchRecord& record);

// The whole in a few lines: counts, times, and what made the playback stutter.
std::string watchSummary(const WatchRecord& record);

// The whole as a picture: an SVG document.
std::string watchPicture(const WatchRecord& record);

} // namespace mdch
