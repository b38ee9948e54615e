// Where in the stream the copying starts, and how much of it is wanted.
#pragma once

#include "cat_options.h"
#include "failure.h"
#include "open.h"

#include <cstdint>

namespace mdch {

// Moves the stream as --offset or --time say. True, or false with the failure.
bool moveToStart(const CatOptions& options, const Source& source, Failure& failure);

// Bytes that are to come from the stream's position on; negative when nobody knows.
std::int64_t expectedBytes(const CatOptions& options, const Source& source);

} // namespace mdch
