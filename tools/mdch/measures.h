// Amounts, times and shares as a person reads them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace mdch {

// "1.5 MB".
std::string amount(double bytes);

// "[=====     ]  50%  "; nothing when the total is not known (0 or negative).
std::string bar(std::int64_t count, std::int64_t total);

// "0:59", "61:02"; "long" from 100 hours on.
std::string duration(double seconds);

// As much of the text (UTF-8) as fits into so many columns of a terminal.
std::string clipped(const std::string& text, std::size_t columns);

} // namespace mdch
