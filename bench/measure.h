/*
 * What a load cost: time, CPU of this process and of the servers, context switches, memory, threads.
 *
 * Measured by the process itself, around the part of a load that counts: what comes before (opening the streams that
 * then rest, say) is not in the figures.
 */
#ifndef BENCH_MEASURE_H
#define BENCH_MEASURE_H

#include <chrono>
#include <sys/types.h>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/* The counters at one moment. CPU and wall in seconds. */
struct Counters
{
    double wall = 0;
    double user = 0;
    double system = 0;
    double servers = 0;
    double voluntary = 0; // context switches of all threads
    double involuntary = 0;
};

Counters countersNow(const std::vector<pid_t>& servers);
Counters difference(const Counters& later, const Counters& earlier);

/* A figure of /proc/self/status, "VmHWM" (KiB) or "Threads"; -1 without it. */
long statusFigure(const char* name);

} // namespace bench

#endif
