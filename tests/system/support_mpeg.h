// Frames of MPEG 1 layer III in the bytes of a radio stream.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>

namespace support {

inline unsigned int byteAt(const std::string& bytes, std::size_t position)
{
    return static_cast<unsigned char>(bytes[position]);
}

// Length of the frame at that place; 0 when there is none.
inline std::size_t frameLength(const std::string& bytes, std::size_t position)
{
    static constexpr std::array<std::size_t, 16> kBitRates = {0,   32,  40,  48,  56,  64,  80,  96,
                                                              112, 128, 160, 192, 224, 256, 320, 0};
    static constexpr std::array<std::size_t, 4> kSampleRates = {44100, 48000, 32000, 0};
    if (position + 4 > bytes.size() || byteAt(bytes, position) != 0xff ||
        (byteAt(bytes, position + 1) & 0xfeU) != 0xfaU) {
        return 0;
    }
    const std::size_t bitRate = kBitRates[byteAt(bytes, position + 2) >> 4U];
    const std::size_t sampleRate = kSampleRates[(byteAt(bytes, position + 2) >> 2U) & 3U];
    const std::size_t padding = (byteAt(bytes, position + 2) >> 1U) & 1U;
    return bitRate == 0 || sampleRate == 0 ? 0 : 144000 * bitRate / sampleRate + padding;
}

// Frames that follow each other without a gap from `start` to the end of the bytes; 0 when the chain breaks.
inline std::size_t unbrokenFrames(const std::string& bytes, std::size_t start)
{
    std::size_t count = 0;
    std::size_t position = start;
    while (position + 4 <= bytes.size()) {
        const std::size_t length = frameLength(bytes, position);
        if (length == 0) {
            return 0;
        }
        position += length;
        ++count;
    }
    return count;
}

// The same for the best place to start in the first two thousand bytes: a listener comes in mid-frame.
inline std::size_t framesIn(const std::string& bytes)
{
    constexpr std::size_t kLongestFrame = 1500;
    std::size_t best = 0;
    for (std::size_t start = 0; start < kLongestFrame; ++start) {
        best = std::max(best, unbrokenFrames(bytes, start));
    }
    return best;
}

} // namespace support
