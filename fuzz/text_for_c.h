/* The C functions on texts: their result in a buffer that just holds it, and none in one that does not. */
#ifndef FUZZ_TEXT_FOR_C_H
#define FUZZ_TEXT_FOR_C_H

#include "harness.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

namespace fuzz {

inline void checkTextForC(int (*function)(const char*, char*, int), const std::string& input,
                          const std::string& result)
{
    constexpr char kMark = '\x5a';
    const std::string expected = result.c_str(); // up to its first NUL
    std::vector<char> buffer(expected.size() + 1, kMark);
    const auto size = static_cast<int>(buffer.size());
    require(function(input.c_str(), buffer.data(), size - 1) == -ENOMEM, "a byte too few is too few");
    require(std::all_of(buffer.begin(), buffer.end(), [](char byte) { return byte == kMark; }),
            "nothing is written then");
    require(function(input.c_str(), buffer.data(), size) == 0, "room for the text and its NUL is enough");
    require(expected == buffer.data(), "the C function gives the same text");
}

} // namespace fuzz

#endif
