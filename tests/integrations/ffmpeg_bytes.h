// What the tests of FFmpeg's context read, and how.
#pragma once

#include "ffmpeg_player.h"

#include "support/media.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace support {

inline constexpr std::size_t kSize = 400000; // more than the receive buffer holds
inline const Media kMedia(3);

// Reads to the end, or so many bytes; result: of the last read, when it was none.
inline std::string readBytes(AVIOContext& context, std::size_t wanted, int& result)
{
    std::string all;
    std::vector<unsigned char> buffer(10000);
    result = 0;
    while (all.size() < wanted) {
        const auto size = static_cast<int>(std::min(buffer.size(), wanted - all.size()));
        result = avio_read_partial(&context, buffer.data(), size);
        if (result <= 0) {
            break;
        }
        all.append(buffer.begin(), buffer.begin() + result);
    }
    return all;
}

inline std::string readBytes(AVIOContext& context, std::size_t wanted = SIZE_MAX)
{
    int result = 0;
    return readBytes(context, wanted, result);
}

inline void expectBytes(AVIOContext& context, std::uint64_t position, std::size_t count)
{
    EXPECT_EQ(avio_tell(&context), static_cast<std::int64_t>(position));
    const std::string bytes = readBytes(context, count);
    EXPECT_EQ(bytes.size(), count);
    EXPECT_TRUE(kMedia.matches(position, bytes)) << "from " << position;
}

// Once: an error of the context stays until a seek.
inline void goOnBehindAnError(AVIOContext& context)
{
    context.error = 0;
    context.eof_reached = 0;
}

} // namespace support
