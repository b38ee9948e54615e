/*
 * The frame of all contestants: their command line, their loads, and the line of JSON that tells what it cost.
 *
 *   contestant_NAME --load NAME --url URL [--block BYTES] ...
 *
 * A contestant is a table of loads. Those that offer a read take their loads from pullLoads (loads.h) and are
 * compared doing exactly the same; others bring their own.
 */
#ifndef BENCH_CONTESTANT_H
#define BENCH_CONTESTANT_H

#include "measure.h"

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace bench {

/* The command line. Byte counts unless something else stands there. */
struct Options
{
    std::string load;
    std::string url;
    std::size_t block = 32768;  // of one read
    int repeat = 1;             // how often a whole body is read
    int count = 100;            // opens, seeks, skips, calls
    int streams = 1;            // at a time
    int paused = 0;             // streams that rest beside the busy one
    double rate = 0;            // per second and stream; 0: as fast as it comes
    long long length = 0;       // read from each stream; 0: to its end
    long long size = 0;         // of the resource: where seeks may go
    std::string trusted;        // folder with cert.pem, the only certificate to trust
    std::string sender;         // program that sends datagrams, and how
    int packets = 0;            // to be sent
    int packetRate = 0;         // per second
    std::vector<pid_t> servers; // whose CPU counts
};

/* What a load tells. */
class Report
{
public:
    explicit Report(const Options& options);

    /* The memory that is there before the streams. */
    void markMemory();
    /* What came before does not count. The meter runs from the constructor on. */
    void restart();
    /* What comes behind does not count. */
    void stop();

    void addBytes(std::size_t count) { m_bytes += static_cast<double>(count); }
    void set(const std::string& name, double value) { m_values[name] = value; }
    /* One call's duration in microseconds, for the median and the maximum. */
    void addLatency(const std::string& name, double microseconds);

    /* One line of JSON. Stops the meter. */
    std::string json(const std::string& contestant);

private:
    const Options& m_options;
    bool m_running = true;
    long m_memory = 0; // KiB, before
    Counters m_start;
    Counters m_cost;
    double m_bytes = 0;
    std::map<std::string, double> m_values;
    std::map<std::string, std::vector<double>> m_latencies;
};

/* Throws std::runtime_error when it cannot be done as asked. */
using Load = std::function<void(const Options&, Report&)>;
using Loads = std::map<std::string, Load>;

/* Runs the load of the command line: the whole of a contestant's main. 0; 1 failed, 2 wrong command line. */
int runContestant(const std::string& name, const Loads& loads, int argc, char** argv);

/* The offsets of random seeks, the same for every contestant: room bytes can be read behind each. */
std::vector<long long> seekOffsets(const Options& options, std::size_t room);

} // namespace bench

#endif
