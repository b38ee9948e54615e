// What a URL of a UDP stream means, letter by letter: slow, obvious, and without the library.
#pragma once

#include <cstdint>
#include <string>

namespace support {

struct UdpUrl
{
    enum class Verdict
    {
        good,
        wrongProtocol,
        portMissing,
        noAddress,
        portIncorrect
    };

    Verdict verdict = Verdict::wrongProtocol;
    std::string address;  // text, from noAddress on
    std::string portText; // from portIncorrect on
    int port = 0;         // only good
};

// "0" to "255", without leading zeros, four times, with one dot between each two.
inline bool isFourNumbers(const std::string& text)
{
    int fields = 0;
    std::string field;
    for (const char letter : text + ".") {
        if (letter >= '0' && letter <= '9') {
            field += letter;
            continue;
        }
        const bool length = field.size() == 1 || field.size() == 2 || field.size() == 3;
        if (letter != '.' || !length || (field.size() > 1 && field[0] == '0')) {
            return false;
        }
        int value = 0;
        for (const char digit : field) {
            value = value * 10 + (digit - '0');
        }
        if (value > 255) {
            return false;
        }
        field.clear();
        ++fields;
    }
    return fields == 4;
}

// A sign or none, at least one digit, nothing else, and a value of 32 bits.
inline bool isNumber(const std::string& text, int& value)
{
    constexpr std::int64_t kBeyond = 10'000'000'000;
    bool negative = false;
    std::int64_t amount = 0;
    int digits = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char letter = text[at];
        if (at == 0 && (letter == '+' || letter == '-')) {
            negative = letter == '-';
        } else if (letter >= '0' && letter <= '9') {
            amount = amount >= kBeyond ? kBeyond : amount * 10 + (letter - '0');
            ++digits;
        } else {
            return false;
        }
    }
    const std::int64_t result = negative ? -amount : amount;
    if (digits == 0 || result < INT32_MIN || result > INT32_MAX) {
        return false;
    }
    value = static_cast<int>(result);
    return true;
}

inline UdpUrl understandUdpUrl(const std::string& url)
{
    UdpUrl result;
    const std::string scheme = "udp://";
    std::size_t at = 0;
    while (at < scheme.size()) {
        if (at >= url.size() || url[at] != scheme[at]) {
            return result;
        }
        ++at;
    }
    std::size_t behindAt = at;
    for (std::size_t i = url.size(); i > at; --i) { // from behind, so that the first one wins
        if (url[i - 1] == '@') {
            behindAt = i;
        }
    }
    at = behindAt;
    result.verdict = UdpUrl::Verdict::portMissing;
    std::string address;
    while (at < url.size() && url[at] != ':') {
        address += url[at++];
    }
    if (at == url.size()) {
        return result;
    }
    ++at;
    result.address = address;
    result.verdict = UdpUrl::Verdict::noAddress;
    if (!isFourNumbers(address)) {
        return result;
    }
    result.verdict = UdpUrl::Verdict::portIncorrect;
    while (at < url.size() && url[at] != '/' && url[at] != '?' && url[at] != '&' && url[at] != '#') {
        result.portText += url[at++];
    }
    if (isNumber(result.portText, result.port)) {
        result.verdict = UdpUrl::Verdict::good;
    }
    return result;
}

} // namespace support
