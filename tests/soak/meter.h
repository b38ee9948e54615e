// What a process holds, and whether that stays the same over time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// At one moment.
struct Holding
{
    std::uint64_t residentBytes = 0;
    std::uint64_t allocatedBytes = 0; // handed out by malloc, of all threads
    std::uint64_t descriptors = 0;
    std::uint64_t threads = 0;
};
Holding holdingNow();

// At one rest: nothing is under way.
struct Sample
{
    double seconds = 0;
    Holding resting;
    Holding most; // since the rest before
};

// How much more than at first may be held.
struct Limits
{
    // Growth over the time that is judged, by the slope.
    double residentGrowth = 0;
    double allocatedGrowth = 0;
    // What a single rest may lie above the median of the first third.
    double residentExcess = 0;
    double allocatedExcess = 0;
    double descriptorExcess = 0; // of its growth, too
    bool judgesResident = true;  // not with a sanitizer, which keeps what was freed
};

// One line of the verdict.
struct Finding
{
    std::string what;
    double first = 0;  // median of the first third
    double growth = 0; // by the slope, over the time that is judged
    double most = 0;
    bool holds = true;
    std::string limit;
};

// The first quarter of the samples is a warm-up, and not judged. The slope is the median of the slopes between all pairs
// of samples (Theil and Sen), which single outliers do not move. Fewer than 8 samples hold nothing.
std::vector<Finding> judge(const std::vector<Sample>& samples, const Limits& limits);
