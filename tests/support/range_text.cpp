#include "support/range_text.h"

#include "support/text.h"

#include <algorithm>

namespace support {

std::optional<ByteRange> parseByteRange(std::string_view text, std::uint64_t size)
{
    if (!takePrefix(text, "bytes=")) {
        return std::nullopt;
    }
    const std::uint64_t end = size == 0 ? 0 : size - 1;
    if (takePrefix(text, "-")) {
        const std::optional<std::uint64_t> suffix = takeNumber(text);
        if (!suffix || !text.empty()) {
            return std::nullopt;
        }
        return ByteRange{size - std::min(*suffix, size), end};
    }
    const std::optional<std::uint64_t> first = takeNumber(text);
    if (!first || !takePrefix(text, "-")) {
        return std::nullopt;
    }
    if (text.empty()) {
        return ByteRange{*first, end};
    }
    const std::optional<std::uint64_t> last = takeNumber(text);
    if (!last || !text.empty() || *last < *first) {
        return std::nullopt;
    }
    return ByteRange{*first, std::min(*last, end)};
}

std::optional<std::uint64_t> parseNptStart(std::string_view text)
{
    if (!takePrefix(text, "npt=")) {
        return std::nullopt;
    }
    std::optional<std::uint64_t> part = takeNumber(text);
    std::uint64_t seconds = part.value_or(0);
    while (part && takePrefix(text, ":")) {
        part = takeNumber(text);
        seconds = seconds * 60 + part.value_or(0);
    }
    if (!part) {
        return std::nullopt;
    }
    std::uint64_t milliseconds = seconds * 1000;
    if (takePrefix(text, ".")) {
        std::uint64_t weight = 100;
        while (!text.empty() && text.front() >= '0' && text.front() <= '9') {
            milliseconds += static_cast<std::uint64_t>(text.front() - '0') * weight;
            weight /= 10;
            text.remove_prefix(1);
        }
    }
    return takePrefix(text, "-") ? std::optional<std::uint64_t>(milliseconds) : std::nullopt;
}

std::string nptText(std::uint64_t milliseconds)
{
    const std::string fraction = std::to_string(milliseconds % 1000);
    return std::to_string(milliseconds / 1000) + "." + std::string(3 - fraction.size(), '0') + fraction;
}

} // namespace support
