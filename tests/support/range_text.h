// The texts of ranges, in bytes and in time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace support {

struct ByteRange
{
    std::uint64_t first;
    std::uint64_t last; // inclusive
};

// "bytes=5-", "bytes=5-9" or "bytes=-5" against a resource of `size` bytes. None when the text is not a single
// range of bytes. `first` lies at or behind `size` when the range cannot be satisfied.
std::optional<ByteRange> parseByteRange(std::string_view text, std::uint64_t size);

// Start of "npt=83.500-" or "npt=0:01:23.500-..." in milliseconds.
std::optional<std::uint64_t> parseNptStart(std::string_view text);

// "83.500"
std::string nptText(std::uint64_t milliseconds);

} // namespace support
