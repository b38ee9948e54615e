#include "support/media.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace support {

namespace {

constexpr std::uint64_t wordSize = 8;

unsigned char byteOf(std::uint64_t word, std::uint64_t index)
{
    return static_cast<unsigned char>(word >> (8 * index));
}

} // namespace

// splitmix64: neighbouring indexes give unrelated words.
std::uint64_t Media::word(std::uint64_t index) const
{
    std::uint64_t z = (index + 1) * 0x9e3779b97f4a7c15ULL + seed_ * 0xd1342543de82ef95ULL;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

unsigned char Media::at(std::uint64_t pos) const
{
    return byteOf(word(pos / wordSize), pos % wordSize);
}

void Media::fill(std::uint64_t pos, void* buffer, std::size_t n) const
{
    auto* out = static_cast<unsigned char*>(buffer);
    while (n > 0) {
        const std::uint64_t value = word(pos / wordSize);
        const std::uint64_t skip = pos % wordSize;
        const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(n, wordSize - skip));
        for (std::size_t i = 0; i < count; ++i) {
            out[i] = byteOf(value, skip + i);
        }
        out += count;
        pos += count;
        n -= count;
    }
}

std::string Media::bytes(std::uint64_t pos, std::size_t n) const
{
    std::string result(n, '\0');
    fill(pos, result.data(), n);
    return result;
}

bool Media::matches(std::uint64_t pos, const void* data, std::size_t n) const
{
    return firstDifference(pos, data, n) < 0;
}

std::int64_t Media::firstDifference(std::uint64_t pos, const void* data, std::size_t n) const
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::array<unsigned char, 4096> expected{};
    for (std::size_t done = 0; done < n;) {
        const std::size_t count = std::min(n - done, expected.size());
        fill(pos + done, expected.data(), count);
        if (std::memcmp(bytes + done, expected.data(), count) != 0) {
            const auto* end = bytes + done + count;
            return std::mismatch(bytes + done, end, expected.data()).first - bytes;
        }
        done += count;
    }
    return -1;
}

} // namespace support
