/*
 * What the harnesses share.
 *
 * A harness is LLVMFuzzerTestOneInput and nothing else: it gets any bytes, and aborts when a promise of the
 * code under test does not hold. It starts each input anew, so that the input alone tells what happens.
 */
#ifndef FUZZ_HARNESS_H
#define FUZZ_HARNESS_H

#include "mdp_debug.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/* Defined by each harness. The data are of exactly that size, so that a sanitizer sees what reads on. Always 0. */
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/* Ends the program with a text unless the promise holds. */
inline void require(bool holds, const char* promise)
{
    if (!holds) {
        std::fprintf(stderr, "broken promise: %s\n", promise);
        std::abort();
    }
}

inline std::string textOf(const std::uint8_t* data, std::size_t size)
{
    return size > 0 ? std::string(reinterpret_cast<const char*>(data), size) : std::string();
}

/* While it lives, every trace line is formatted and dropped: formatting is code under test, too. */
class TracesFormatted
{
public:
    TracesFormatted()
    {
        mdpDebugSetSink([](void*, unsigned int, const char*) {}, nullptr);
        mdpDebugSetSeverity(5000);
    }
    ~TracesFormatted()
    {
        mdpDebugSetSeverity(1000);
        mdpDebugSetSink(nullptr, nullptr);
    }
    TracesFormatted(const TracesFormatted&) = delete;
    TracesFormatted& operator=(const TracesFormatted&) = delete;
};

} // namespace fuzz

#endif
