// The URL functions once more, slow and obvious, as a second opinion for random tests and fuzzers. Nothing of the
// library is used.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace support {

inline std::string upToNul(const std::string& text)
{
    return text.substr(0, text.find('\0'));
}

// "%C3"
inline std::string slowEscape(unsigned char byte)
{
    char text[4];
    std::snprintf(text, sizeof text, "%%%02X", byte);
    return text;
}

// --- Encoding ---

inline std::string slowUrlEncode(const std::string& url)
{
    static const std::string passing = "-./0123456789:;<=>"
                                       "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "\\^_`"
                                       "abcdefghijklmnopqrstuvwxyz"
                                       "{|}~\x7f";
    static const std::string prefix = "nvl2:";
    const std::string text = upToNul(url);
    std::string start = text.substr(0, prefix.size());
    std::replace(start.begin(), start.end(), 'N', 'n');
    std::replace(start.begin(), start.end(), 'V', 'v');
    std::replace(start.begin(), start.end(), 'L', 'l');
    if (start == prefix || text.find_first_not_of(passing) == std::string::npos) {
        return url;
    }
    std::string result;
    for (const char letter : text) {
        result += passing.find(letter) != std::string::npos ? std::string(1, letter)
                                                            : slowEscape(static_cast<unsigned char>(letter));
    }
    return result;
}

inline std::string slowUrlDecode(const std::string& encoded)
{
    static const std::string digits = "0123456789abcdefABCDEF";
    const std::string text = upToNul(encoded);
    std::string result;
    for (std::size_t i = 0; i < text.size();) {
        const std::string pair = text[i] == '%' ? text.substr(i + 1, 2) : "";
        if (pair.size() == 2 && pair.find_first_not_of(digits) == std::string::npos) {
            result += static_cast<char>(std::stoi(pair, nullptr, 16));
            i += 3;
        } else {
            result += text[i];
            i += 1;
        }
    }
    return result;
}

// --- Repair ---

struct SlowPatch
{
    std::string text;
    std::string charset;             // empty when nothing needed repair
    std::vector<std::string> errors; // what is said about each byte, in order
};

inline bool slowIsPlain(unsigned char byte)
{
    return byte > ' ' && byte < 0x7f && byte != '"' && byte != '{' && byte != '|' && byte != '}';
}

// How many bytes of text from at on are one UTF-8 sequence; 0: they are none.
inline std::size_t slowUtf8Length(const std::string& text, std::size_t at)
{
    const auto isBetween = [&text](std::size_t i, int first, int last) {
        const int byte = i < text.size() ? static_cast<unsigned char>(text[i]) : -1;
        return byte >= first && byte <= last;
    };
    const auto continues = [&](std::size_t i) { return isBetween(i, 0x80, 0xbf); };
    if (isBetween(at, 0xc2, 0xdf) && continues(at + 1)) {
        return 2;
    }
    if (isBetween(at, 0xe0, 0xef) && continues(at + 1) && continues(at + 2)) {
        return 3;
    }
    if (isBetween(at, 0xf0, 0xf4) && continues(at + 1) && continues(at + 2) && continues(at + 3)) {
        return 4;
    }
    return isBetween(at, 0, 0x7f) ? 1 : 0;
}

// A whole repair under one assumption: text and what is said. False when the assumption UTF-8 breaks, with what was
// said until then.
inline bool slowRepair(const std::string& text, std::size_t capacity, bool asUtf8, std::string& result,
                       std::vector<std::pair<std::size_t, std::string>>& said)
{
    const auto append = [&result, capacity](const std::string& piece) {
        if (result.size() + piece.size() <= capacity) {
            result += piece;
        }
    };
    const auto say = [&text, &said](std::size_t at, const std::string& what) {
        const std::string hex = slowEscape(static_cast<unsigned char>(text[at])).substr(1);
        said.emplace_back(at,
                          "urlPatch(): error: " + std::to_string(at) + ": " + hex + " is " + what + "!\n");
    };
    for (std::size_t i = 0; i < text.size() && result.size() < capacity;) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (slowIsPlain(byte)) {
            result += text[i++];
        } else if (byte < 0x80) {
            append(slowEscape(byte));
            say(i++, "invalid but ASCII");
        } else if (asUtf8) {
            const std::size_t count = slowUtf8Length(text, i);
            if (count == 0 || result.size() + 3 * count > capacity) {
                return false;
            }
            for (std::size_t k = 0; k < count; ++k) {
                append(slowEscape(static_cast<unsigned char>(text[i])));
                say(i++, "correct UTF-8");
            }
        } else {
            // ISO 8859-1 is the first 256 code points: C2 or C3 and a continuation byte.
            append(byte < 0xc0 ? "%C2" + slowEscape(byte)
                               : "%C3" + slowEscape(static_cast<unsigned char>(byte - 0x40)));
            say(i++, "assumed to be ISO 8859-1");
        }
    }
    return true;
}

inline SlowPatch slowUrlPatch(const std::string& url)
{
    const auto isHigh = [](char byte) { return static_cast<unsigned char>(byte) >= 0x80; };
    const std::string whole = upToNul(url);
    const std::string text = whole.substr(0, 8191);
    if (std::all_of(text.begin(), text.end(),
                    [](char byte) { return slowIsPlain(static_cast<unsigned char>(byte)); })) {
        return {whole, "", {}};
    }
    const std::size_t capacity = std::min<std::size_t>(6 * text.size(), 8191);
    const auto firstHigh =
        static_cast<std::size_t>(std::find_if(text.begin(), text.end(), isHigh) - text.begin());

    SlowPatch patch;
    std::vector<std::pair<std::size_t, std::string>> said;
    if (slowRepair(text, capacity, true, patch.text, said)) {
        // What stands behind the end of a full result was never looked at.
        const bool sawUtf8 = std::any_of(said.begin(), said.end(),
                                         [firstHigh](const auto& each) { return each.first == firstHigh; });
        patch.charset = sawUtf8 ? "UTF-8" : "ASCII";
    } else {
        std::vector<std::pair<std::size_t, std::string>> again;
        patch.text.clear();
        slowRepair(text, capacity, false, patch.text, again);
        // Only what stands from the first non-ASCII byte on is gone through a second time.
        std::copy_if(again.begin(), again.end(), std::back_inserter(said),
                     [firstHigh](const auto& each) { return each.first >= firstHigh; });
        patch.charset = "ISO 8859-1";
    }
    for (const auto& each : said) {
        patch.errors.push_back(each.second);
    }
    return patch;
}

} // namespace support
