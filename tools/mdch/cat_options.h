// What of the stream is copied, and where to.
#pragma once

#include "stream_options.h"

#include <cstdint>
#include <string>

namespace mdch {

struct CatOptions : StreamOptions
{
    std::string output;       // empty: standard output
    std::int64_t offset = 0;  // first byte; negative: that many before the end
    std::int64_t timeMs = -1; // play time to start at; negative: not asked for
    bool resume = false;      // go on where the output file ends
    bool raw = false;         // leave a radio's titles where the server put them
    std::int64_t length = -1; // most bytes; negative: all
};

} // namespace mdch
