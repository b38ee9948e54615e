#include "loads.h"

#include <algorithm>
#include <stdexcept>
#include <thread>

namespace bench {

namespace {

double microsecondsSince(Clock::time_point start)
{
    return secondsSince(start) * 1e6;
}

void readBodies(const StreamMaker& make, const Options& options, Report& report)
{
    std::vector<unsigned char> block(options.block);
    for (int i = 0; i < options.repeat; ++i) {
        const std::unique_ptr<Stream> stream = make(options);
        stream->open(options.url);
        std::size_t count = 0;
        do {
            count = stream->read(block.data(), block.size());
            report.addBytes(count);
        } while (count == block.size());
        stream->close();
    }
}

void seekAround(const StreamMaker& make, const Options& options, Report& report)
{
    std::vector<unsigned char> block(options.block);
    const std::unique_ptr<Stream> stream = make(options);
    stream->open(options.url);
    report.restart();
    for (const long long offset : seekOffsets(options, block.size())) {
        const Clock::time_point start = Clock::now();
        stream->seek(offset, block.size());
        if (stream->read(block.data(), block.size()) != block.size()) {
            throw std::runtime_error("a short read behind a seek");
        }
        report.addLatency("seek", microsecondsSince(start));
        report.addBytes(block.size());
    }
    report.stop();
    stream->close();
}

void skipForward(const StreamMaker& make, const Options& options, Report& report)
{
    std::vector<unsigned char> block(options.block);
    const std::unique_ptr<Stream> stream = make(options);
    stream->open(options.url);
    const long long stride = 3 * static_cast<long long>(block.size());
    for (long long at = 0; at + stride <= options.size; at += stride) {
        if (stream->read(block.data(), block.size()) != block.size()) {
            throw std::runtime_error("a short read behind a skip");
        }
        report.addBytes(block.size());
        stream->skip(2 * block.size());
    }
    report.stop();
    stream->close();
}

void openOften(const StreamMaker& make, const Options& options, Report& report)
{
    std::vector<unsigned char> block(options.block);
    const std::unique_ptr<Stream> stream = make(options);
    for (int i = 0; i < options.count; ++i) {
        const Clock::time_point start = Clock::now();
        stream->open(options.url);
        report.addBytes(stream->read(block.data(), block.size()));
        stream->close();
        report.addLatency("open", microsecondsSince(start));
    }
}

// One thread that gives every stream a block when it is due, as a mixer of many sources does.
void readPaced(const StreamMaker& make, const Options& options, Report& report)
{
    const auto count = static_cast<std::size_t>(options.streams);
    warmUp(make, options, report);
    std::vector<std::unique_ptr<Stream>> streams;
    for (std::size_t i = 0; i < count; ++i) {
        streams.push_back(make(options));
        streams.back()->open(options.url);
    }
    std::vector<unsigned char> block(options.block);
    const std::chrono::duration<double> beat(static_cast<double>(block.size()) / options.rate);
    const long long rounds = options.length / static_cast<long long>(block.size());
    report.restart();
    const Clock::time_point start = Clock::now();
    double late = 0;
    for (long long round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < count; ++i) {
            const auto due = start + std::chrono::duration_cast<Clock::duration>(
                                         beat * (static_cast<double>(round) +
                                                 static_cast<double>(i) / static_cast<double>(count)));
            std::this_thread::sleep_until(due);
            if (streams[i]->read(block.data(), block.size()) != block.size()) {
                throw std::runtime_error("a paced stream ended early");
            }
            report.addBytes(block.size());
            late = std::max(late, secondsSince(due));
        }
    }
    report.set("threads", static_cast<double>(statusFigure("Threads")));
    report.set("most_late", late);
    report.stop();
    for (const std::unique_ptr<Stream>& stream : streams) {
        stream->close();
    }
}

} // namespace

void warmUp(const StreamMaker& make, const Options& options, Report& report)
{
    std::vector<unsigned char> block(options.block);
    const std::unique_ptr<Stream> stream = make(options);
    stream->open(options.url);
    stream->read(block.data(), block.size());
    stream->close();
    report.markMemory();
    report.restart();
}

Loads pullLoads(const StreamMaker& make)
{
    const auto with = [&make](void (*load)(const StreamMaker&, const Options&, Report&)) -> Load {
        return [make, load](const Options& options, Report& report) { load(make, options, report); };
    };
    return {{"body", with(readBodies)},
            {"seek", with(seekAround)},
            {"skip", with(skipForward)},
            {"open", with(openOften)},
            {"paced", with(readPaced)}};
}

} // namespace bench
