#include "mdp_charset.h"

#include <algorithm>

std::string mdpLatin1ToUtf8(const std::string& latin1)
{
    constexpr unsigned char kFirstTwoByte = 0x80;
    const auto wide = std::count_if(latin1.begin(), latin1.end(),
                                    [](char c) { return static_cast<unsigned char>(c) >= kFirstTwoByte; });
    std::string utf8;
    utf8.reserve(latin1.size() + static_cast<size_t>(wide));
    for (const char c : latin1) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < kFirstTwoByte) {
            utf8.push_back(c);
        } else {
            utf8.push_back(static_cast<char>(0xc0U | (byte >> 6U)));
            utf8.push_back(static_cast<char>(0x80U | (byte & 0x3fU)));
        }
    }
    return utf8;
}
