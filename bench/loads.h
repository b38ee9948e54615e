/*
 * The loads of contestants that offer a read: a file, a socket, the library, FFmpeg.
 */
#ifndef BENCH_LOADS_H
#define BENCH_LOADS_H

#include "contestant.h"

#include <memory>

namespace bench {

/* One stream of a contestant. Throws std::runtime_error where something fails. */
class Stream
{
public:
    Stream() = default;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    virtual ~Stream() = default;

    virtual void open(const std::string& url) = 0;
    /* Waits for size bytes; fewer at the end only. */
    virtual std::size_t read(unsigned char* block, std::size_t size) = 0;
    /* Moves to offset, from where at most room bytes are going to be read. */
    virtual void seek(long long offset, std::size_t room) = 0;
    /* Moves forward. */
    virtual void skip(std::size_t count) = 0;
    virtual void close() = 0;
};

using StreamMaker = std::function<std::unique_ptr<Stream>(const Options&)>;

/*
 * body: the whole, repeat times. seek: count random seeks with one block read behind each. skip: a block, then a skip
 * of two blocks, to the end. open: open, one block, close, count times. paced: streams at rate each, read by one
 * thread until length.
 */
Loads pullLoads(const StreamMaker& make);

/* One stream before those that are measured: what the first of a process costs is not a stream's own. */
void warmUp(const StreamMaker& make, const Options& options, Report& report);

} // namespace bench

#endif
