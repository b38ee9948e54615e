// Going on where a partial file ends.
#pragma once

#include "cat_options.h"
#include "failure.h"
#include "open.h"

#include <cstdint>

namespace mdch {

// Moves the stream behind the bytes that the output file holds already; have: how many. Before that it makes sure
// that the file is the stream's beginning: not longer than the stream, and its last bytes are the stream's. True, or
// false with the failure.
bool moveBehindFile(const CatOptions& options, const Source& source, std::int64_t& have, Failure& failure);

} // namespace mdch
