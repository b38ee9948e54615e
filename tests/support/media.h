// A resource of any size whose every byte is known without storing it: byte p follows from p and the seed
// alone, so that tests can check what arrives at any 64-bit position, and repeated or shifted data show up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace support {

class Media
{
public:
    explicit Media(std::uint64_t seed = 1) : seed_(seed) {}

    std::uint64_t seed() const { return seed_; }

    // The byte at position `pos`.
    unsigned char at(std::uint64_t pos) const;

    // Writes the `n` bytes from position `pos` on to `buffer`.
    void fill(std::uint64_t pos, void* buffer, std::size_t n) const;

    // The `n` bytes from position `pos` on.
    std::string bytes(std::uint64_t pos, std::size_t n) const;

    // Whether `data` holds exactly the `n` bytes from position `pos` on.
    bool matches(std::uint64_t pos, const void* data, std::size_t n) const;
    bool matches(std::uint64_t pos, std::string_view data) const
    {
        return matches(pos, data.data(), data.size());
    }

    // Index of the first byte of `data` that is not the byte at `pos` + index, or -1: for failure messages.
    std::int64_t firstDifference(std::uint64_t pos, const void* data, std::size_t n) const;

private:
    std::uint64_t word(std::uint64_t index) const;

    std::uint64_t seed_;
};

} // namespace support
