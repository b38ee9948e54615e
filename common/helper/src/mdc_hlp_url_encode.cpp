#include "mdc_hlp_url_encode.h"

#include "mdc_hlp_text_buffer.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <strings.h>
#include <utility>

namespace md {

namespace {

bool passes(char character)
{
    const auto byte = static_cast<unsigned char>(character);
    return byte > 0x2c && byte < 0x80 && byte != '?' && byte != '@' && byte != '[' && byte != ']';
}

// -1: no hexadecimal digit.
int digitValue(char digit)
{
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'A' && digit <= 'F') {
        return digit - 'A' + 10;
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    return -1;
}

} // namespace

std::string urlEncode(std::string url)
{
    constexpr const char* kDigits = "0123456789ABCDEF";
    if (strncasecmp(url.c_str(), "nvl2:", 5) == 0) {
        return url;
    }
    const char* begin = url.c_str();
    const char* end = begin + std::strlen(begin);
    const auto passing = std::count_if(begin, end, passes);
    if (passing == end - begin) {
        return url;
    }
    std::string encoded;
    encoded.reserve(static_cast<std::size_t>(passing) + 3 * static_cast<std::size_t>(end - begin - passing));
    for (const char* at = begin; at != end; ++at) {
        if (passes(*at)) {
            encoded += *at;
        } else {
            const auto byte = static_cast<unsigned char>(*at);
            encoded += '%';
            encoded += kDigits[byte >> 4U];
            encoded += kDigits[byte & 0x0fU];
        }
    }
    return encoded;
}

std::string urlDecode(std::string text)
{
    const std::size_t length = std::strlen(text.c_str());
    std::size_t used = 0; // decoded in place: never ahead of the byte that is looked at
    for (std::size_t at = 0; at < length; ++at) {
        char byte = text[at];
        if (byte == '%' && length - at > 2) {
            const int high = digitValue(text[at + 1]);
            const int low = digitValue(text[at + 2]);
            if (high >= 0 && low >= 0) {
                byte = static_cast<char>(high * 16 + low);
                at += 2;
            }
        }
        text[used++] = byte;
    }
    text.resize(used);
    return text;
}

} // namespace md

int mdc_httphelper_urlEncode(const char* url, char* buffer, int bufferSize)
{
    return md::transformToBuffer(url, buffer, bufferSize,
                                 [](const char* input) { return md::urlEncode(input); });
}

int mdc_httphelper_urlDecode(const char* text, char* buffer, int bufferSize)
{
    return md::transformToBuffer(text, buffer, bufferSize,
                                 [](const char* input) { return md::urlDecode(input); });
}
