// A long way to a server: every byte takes its time, in both directions.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace support {

// Accepts connections on a free port of 127.0.0.1 and passes them on to another one. No right is needed. (A connection
// is complete for the client before the way begins.)
class LongWay
{
public:
    // delay: of each byte, each way. bytesPerSecond: towards the client; 0: no limit.
    LongWay(std::uint16_t origin, std::chrono::milliseconds delay, std::uint64_t bytesPerSecond = 0);
    ~LongWay();
    LongWay(const LongWay&) = delete;
    LongWay& operator=(const LongWay&) = delete;

    std::string url(std::string_view path = "/") const; // "http://127.0.0.1:PORT/path"

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace support
