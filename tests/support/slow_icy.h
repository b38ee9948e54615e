// Radio streams taken apart once more, byte by byte and by copying, to judge the implementation; and put together.
// Knows nothing of the library.
#ifndef SUPPORT_SLOW_ICY_H
#define SUPPORT_SLOW_ICY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace support {

// --- Making ---

// A text as a block: its length byte, the text (cut at 4080 bytes), and NUL bytes.
inline std::string icyBlock(const std::string& text)
{
    const std::string shown = text.substr(0, 4080);
    const std::size_t units = (shown.size() + 15) / 16;
    return static_cast<char>(units) + shown + std::string(16 * units - shown.size(), '\0');
}

inline std::string icyTitleBlock(const std::string& title)
{
    return icyBlock("StreamTitle='" + title + "';");
}

// --- Texts ---

inline void appendUtf8(std::string& text, std::uint32_t code)
{
    const auto put = [&text](std::uint32_t byte) { text += static_cast<char>(byte); };
    if (code < 0x80) {
        put(code);
    } else if (code < 0x800) {
        put(0xc0 + code / 64);
        put(0x80 + code % 64);
    } else if (code < 0x10000) {
        put(0xe0 + code / 4096);
        put(0x80 + code / 64 % 64);
        put(0x80 + code % 64);
    } else {
        put(0xf0 + code / 262144);
        put(0x80 + code / 4096 % 64);
        put(0x80 + code / 64 % 64);
        put(0x80 + code % 64);
    }
}

// A text is UTF-8 when what its bytes mean is written with the same bytes again.
inline bool slowIsUtf8(const std::string& text)
{
    std::string again;
    for (std::size_t at = 0; at < text.size();) {
        const auto byte = [&text, &at](std::size_t i) -> std::uint32_t {
            return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0U;
        };
        const std::size_t length = byte(0) < 0xc0 ? 1 : byte(0) < 0xe0 ? 2 : byte(0) < 0xf0 ? 3 : 4;
        std::uint32_t code = length == 1 ? byte(0) : byte(0) % (0x80U >> length);
        for (std::size_t i = 1; i < length; ++i) {
            code = code * 64 + byte(i) % 64;
        }
        if (code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff)) {
            return false;
        }
        appendUtf8(again, code);
        at += length;
    }
    return again == text;
}

inline std::string slowIcyText(const std::string& value)
{
    const bool utf8 = slowIsUtf8(value);
    std::string text;
    for (const char character : value) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 32 || byte == 127) {
            text += ' ';
        } else if (utf8) {
            text += character;
        } else {
            appendUtf8(text, byte);
        }
    }
    return text;
}

// --- Blocks ---

struct SlowIcyFields
{
    bool hasTitle = false;
    std::string title;
    bool hasUrl = false;
    std::string url;
};

inline std::string withoutLeading(const std::string& text, const std::string& characters)
{
    const std::size_t at = text.find_first_not_of(characters);
    return at != std::string::npos ? text.substr(at) : "";
}

inline std::string leadingName(const std::string& text)
{
    const std::string characters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    return text.substr(0, text.find_first_not_of(characters));
}

inline std::string slowLowerCase(std::string text)
{
    for (char& character : text) {
        if (character >= 'A' && character <= 'Z') {
            character = static_cast<char>(character - 'A' + 'a');
        }
    }
    return text;
}

// Whether a value may end in front of that text: there is nothing more, or a key.
inline bool slowMayEndBefore(const std::string& text)
{
    const std::string rest = withoutLeading(text, "; \t\r\n");
    if (rest.empty()) {
        return true;
    }
    const std::string name = leadingName(rest);
    const std::string behind = rest.substr(name.size());
    if (name.empty() || behind.empty() || behind[0] != '=') {
        return false;
    }
    const std::string known = slowLowerCase(name);
    return known == "streamtitle" || known == "streamurl" || behind.substr(0, 2) == "='";
}

// The value at the start of a text, which is left with what stands behind it.
inline std::string slowTakeValue(std::string& text)
{
    const bool quoted = text.substr(0, 1) == "'";
    const std::string end = quoted ? "';" : ";";
    if (quoted) {
        text.erase(0, 1);
    }
    std::size_t found = std::string::npos;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text.substr(at, end.size()) == end && slowMayEndBefore(text.substr(at + end.size()))) {
            found = at;
            break;
        }
    }
    if (found == std::string::npos && quoted) {
        found = text.rfind(end);
    }
    if (found != std::string::npos) {
        std::string value = text.substr(0, found);
        text.erase(0, found + end.size());
        return value;
    }
    std::string value;
    value.swap(text);
    const std::size_t last = value.find_last_not_of("; \t\r\n");
    if (quoted && last != std::string::npos && value[last] == '\'') {
        value.resize(last);
    }
    return value;
}

inline SlowIcyFields slowIcyFields(const std::string& block)
{
    SlowIcyFields fields;
    std::string text = block.substr(0, block.find('\0'));
    while (!text.empty()) {
        text = withoutLeading(text, "; \t\r\n");
        const std::string name = leadingName(text);
        text.erase(0, name.empty() ? 1 : name.size());
        if (name.empty() || text.substr(0, 1) != "=") {
            continue;
        }
        text.erase(0, 1);
        const std::string value = slowIcyText(slowTakeValue(text));
        if (slowLowerCase(name) == "streamtitle") {
            fields.hasTitle = true;
            fields.title = value;
        } else if (slowLowerCase(name) == "streamurl") {
            fields.hasUrl = true;
            fields.url = value;
        }
    }
    return fields;
}

// --- Streams ---

struct SlowIcyChange
{
    long long position;
    std::string title;
    std::string url;
};

struct SlowIcy
{
    std::string audio;
    std::vector<SlowIcyChange> changes;

    void take(const std::string& block)
    {
        const SlowIcyFields fields = slowIcyFields(block);
        const SlowIcyChange before = changes.empty() ? SlowIcyChange{0, "", ""} : changes.back();
        SlowIcyChange after = before;
        if (fields.hasTitle && fields.title != before.title) {
            after.title = fields.title;
            after.url = "";
        }
        if (fields.hasUrl) {
            after.url = fields.url;
        }
        if (after.title != before.title || after.url != before.url) {
            after.position = static_cast<long long>(audio.size());
            changes.push_back(after);
        }
    }
};

inline SlowIcy slowIcy(const std::string& bytes, int interval)
{
    SlowIcy result;
    int untilBlock = interval;
    for (std::size_t at = 0; at < bytes.size();) {
        if (interval <= 0 || untilBlock > 0) {
            result.audio += bytes[at++];
            --untilBlock;
            continue;
        }
        const std::size_t size = std::size_t{16} * static_cast<unsigned char>(bytes[at++]);
        if (bytes.size() - at < size) {
            break; // it never became whole
        }
        result.take(bytes.substr(at, size));
        at += size;
        untilBlock = interval;
    }
    return result;
}

} // namespace support

#endif
