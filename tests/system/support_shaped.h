// What the tests over shaped networks share: a stream of known bytes whose reads are timed.
#pragma once

#include "mdc_hlp_http_access.h"
#include "support/http_server.h"
#include "support/media.h"
#include "support/trace_capture.h"
#include "support/wait.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace support {

const Media kFilm(71);

// Longer than anything takes on a busy machine, slow links included.
constexpr std::chrono::milliseconds kLongest{90'000};

class ShapedStream : public md::HttpAccess
{
public:
    using Clock = std::chrono::steady_clock;
    static constexpr int kPatience = 90; // seconds, for header and data

    explicit ShapedStream(const std::string& url)
    {
        fcntl(MDCH_FCNTL_HEADER_TIMEOUT, kPatience);
        fcntl(MDCH_FCNTL_DATA_TIMEOUT, kPatience);
        open(url.c_str(), MDCH_MODE_READ);
    }

    struct Timed
    {
        std::string bytes;
        double seconds = 0;
    };
    Timed timedRead(unsigned int size)
    {
        const auto begin = Clock::now();
        std::string bytes(size, '\0');
        const int count = read(reinterpret_cast<unsigned char*>(bytes.data()), size);
        bytes.resize(static_cast<std::size_t>(std::max(count, 0)));
        return {bytes, secondsSince(begin)};
    }

    // The next bytes are these of the film, in reads of 64 KiB at most.
    void expectFilm(std::uint64_t position, std::uint64_t count)
    {
        constexpr std::uint64_t kPiece = 65536;
        const std::uint64_t end = position + count;
        while (position < end) {
            const auto wanted = static_cast<unsigned int>(std::min(kPiece, end - position));
            const std::string bytes = timedRead(wanted).bytes;
            ASSERT_EQ(bytes.size(), wanted) << "at " << position << ", error " << error();
            ASSERT_TRUE(kFilm.matches(position, bytes)) << "at " << position;
            position += wanted;
            ASSERT_EQ(tell(), static_cast<long long>(position));
        }
    }

    // It ends here, and well. (The last byte comes a moment before the news that it was the last.)
    void expectEnd()
    {
        EXPECT_EQ(timedRead(1).bytes, "");
        EXPECT_EQ(eof(), 1);
        EXPECT_EQ(error(), 0);
    }

    // Bytes in the receive buffer.
    std::size_t level() const
    {
        std::size_t used = 0;
        std::size_t size = 0;
        EXPECT_EQ(getBufferLevel(used, size), 0);
        return used;
    }

    static double secondsSince(Clock::time_point begin)
    {
        return std::chrono::duration<double>(Clock::now() - begin).count();
    }
};

// Lines that hold this text.
inline std::size_t countAll(const TraceCapture& traces, const std::string& part)
{
    const std::vector<std::string> texts = traces.texts();
    return static_cast<std::size_t>(
        std::count_if(texts.begin(), texts.end(),
                      [&part](const std::string& text) { return text.find(part) != std::string::npos; }));
}

} // namespace support
