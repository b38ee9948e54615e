/*
 * Looks into the running engine for tests: descriptors, registry, rest.
 */
#ifndef SUPPORT_ENGINE_H
#define SUPPORT_ENGINE_H

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_http_curl.h"
#include "mdc_hlp_http_curl_engine.h"
#include "support/wait.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace support {

/* Stops the engine at the end of a test, whatever became of it, so that the next one starts with number 100. */
struct EngineStopped
{
    EngineStopped() = default;
    ~EngineStopped() { md::HttpAccess::shutdown(); }
    EngineStopped(const EngineStopped&) = delete;
    EngineStopped& operator=(const EngineStopped&) = delete;
};

/* Reads a field of a registered descriptor under its lock. */
template <class Function>
auto inspect(int number, Function function)
{
    const md::MdchDescriptorPtr desc = mdchHttpCurl_getContext(number);
    if (desc == nullptr) {
        md::MdchCurlDescriptor_struct none;
        return function(none);
    }
    const MdpLock lock = md::lockDescriptor(*desc);
    return function(*desc);
}

/* Waits until a condition on a registered descriptor holds. */
template <class Predicate>
bool waitForDescriptor(int number, Predicate predicate)
{
    return waitUntil([&] { return inspect(number, predicate); });
}

inline std::size_t registeredCount()
{
    std::size_t count = 0;
    for (auto desc = md::nextDescriptor(md::kBeforeAll); desc != nullptr;
         desc = md::nextDescriptor(desc->fd)) {
        ++count;
    }
    return count;
}

inline bool waitForEmptyRegistry()
{
    return waitUntil([] { return registeredCount() == 0; });
}

/* Whether the worker comes to rest: no pass within a while. Its beat is 5 s. */
inline bool workerRests(std::chrono::milliseconds quiet = std::chrono::milliseconds(300))
{
    using Clock = std::chrono::steady_clock;
    std::uint64_t last = mdchHttpCurl_passCount();
    auto since = Clock::now();
    return waitUntil([&] {
        const std::uint64_t now = mdchHttpCurl_passCount();
        if (now != last) {
            last = now;
            since = Clock::now();
        }
        return Clock::now() - since >= quiet;
    });
}

/* Reads to the end, in pieces. */
inline std::string readAll(MdchUrlBase& stream, unsigned int piece = 32768)
{
    std::string all;
    std::vector<unsigned char> buffer(piece);
    for (;;) {
        const int count = stream.read(buffer.data(), piece);
        if (count <= 0) {
            return all;
        }
        all.append(buffer.begin(), buffer.begin() + count);
    }
}

/* Reads exactly count bytes, or what there is before the end. */
inline std::string readSome(MdchUrlBase& stream, unsigned int count)
{
    std::string bytes(count, '\0');
    const int got = stream.read(reinterpret_cast<unsigned char*>(bytes.data()), count);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
}

} // namespace support

#endif
