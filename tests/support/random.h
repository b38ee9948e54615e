// Random tests: where their numbers come from.
#pragma once

#include "support/rounds.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>

namespace support {

// The seed of this run, the same in all of the program: MDC_TEST_SEED from the environment, else a new one. It is
// printed, and belongs into the text of a failure.
inline std::uint32_t randomSeed()
{
    static const std::uint32_t seed = [] {
        const char* given = std::getenv("MDC_TEST_SEED");
        const std::uint32_t value = given != nullptr
                                        ? static_cast<std::uint32_t>(std::strtoul(given, nullptr, 10))
                                        : std::random_device()();
        std::cout << "MDC_TEST_SEED=" << value << std::endl;
        return value;
    }();
    return seed;
}

// Shorthands over the standard generator.
class Random
{
public:
    Random() : m_generator(randomSeed()) {}

    std::size_t below(std::size_t count)
    {
        return std::uniform_int_distribution<std::size_t>(0, count - 1)(m_generator);
    }
    char byte() { return static_cast<char>(below(256)); }
    char oneOf(const std::string& letters) { return letters[below(letters.size())]; }

private:
    std::mt19937 m_generator;
};

} // namespace support
