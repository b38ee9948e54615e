#include "mdc_hlp_icy_block.h"

#include "mdp_charset.h"

#include <algorithm>
#include <cstddef>
#include <strings.h>

namespace md {

namespace {

constexpr std::size_t kNone = std::string_view::npos;
constexpr std::string_view kSeparators = "; \t\r\n";
constexpr std::string_view kTitleKey = "StreamTitle";
constexpr std::string_view kUrlKey = "StreamUrl";

unsigned int byteAt(std::string_view text, std::size_t at)
{
    return static_cast<unsigned char>(text[at]);
}

// Length of the UTF-8 sequence there; 0 when there is none (RFC 3629, section 4).
std::size_t utf8Length(std::string_view text, std::size_t at)
{
    const unsigned int lead = byteAt(text, at);
    if (lead < 0x80) {
        return 1;
    }
    if (lead < 0xc2 || lead > 0xf4) {
        return 0;
    }
    const std::size_t length = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    if (text.size() - at < length) {
        return 0;
    }
    // The second byte's range excludes overlong forms, surrogates and values beyond U+10FFFF.
    const unsigned int second = byteAt(text, at + 1);
    const unsigned int least = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
    const unsigned int most = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
    if (second < least || second > most) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        if ((byteAt(text, at + i) & 0xc0U) != 0x80) {
            return 0;
        }
    }
    return length;
}

bool isUtf8(std::string_view text)
{
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = utf8Length(text, at);
        if (length == 0) {
            return false;
        }
        at += length;
    }
    return true;
}

bool isKeyCharacter(char character)
{
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9') || character == '_' || character == '-';
}

bool isSame(std::string_view key, std::string_view other)
{
    return key.size() == other.size() && strncasecmp(key.data(), other.data(), key.size()) == 0;
}

class Parser
{
public:
    explicit Parser(std::string_view text) : m_text(text) {}

    IcyFields run()
    {
        IcyFields fields;
        for (m_at = behindSeparators(0); m_at < m_text.size(); m_at = behindSeparators(m_at)) {
            const std::string_view name = nameAt(m_at);
            m_at += std::max<std::size_t>(name.size(), 1);
            if (name.empty() || !standsAt(m_at, '=')) {
                continue; // nothing that anybody knows
            }
            ++m_at;
            const std::string_view value = takeValue();
            if (isSame(name, kTitleKey)) {
                fields.title = icyText(value);
            } else if (isSame(name, kUrlKey)) {
                fields.url = icyText(value);
            }
        }
        return fields;
    }

private:
    bool standsAt(std::size_t at, char character) const
    {
        return at < m_text.size() && m_text[at] == character;
    }

    std::size_t behindSeparators(std::size_t at) const
    {
        return std::min(m_text.find_first_not_of(kSeparators, at), m_text.size());
    }

    std::string_view nameAt(std::size_t at) const
    {
        const auto* begin = m_text.begin() + at;
        const auto* end = std::find_if_not(begin, m_text.end(), isKeyCharacter);
        return m_text.substr(at, static_cast<std::size_t>(end - begin));
    }

    // Whether a value may end in front of that place: nothing follows, or another key. A key that nobody knows
    // must have its quote, as "x=" may well stand in a title.
    bool isFieldOrEnd(std::size_t at) const
    {
        if (at == m_text.size()) {
            return true;
        }
        const std::string_view name = nameAt(at);
        const std::size_t behind = at + name.size();
        if (name.empty() || !standsAt(behind, '=')) {
            return false;
        }
        return standsAt(behind + 1, '\'') || isSame(name, kTitleKey) || isSame(name, kUrlKey);
    }

    std::string_view takeValue()
    {
        if (!standsAt(m_at, '\'')) {
            return takePlainValue();
        }
        ++m_at;
        return takeQuotedValue();
    }

    std::string_view takeQuotedValue()
    {
        constexpr std::string_view kEnd = "';";
        std::size_t last = kNone;
        for (std::size_t end = m_text.find(kEnd, m_at); end != kNone; end = m_text.find(kEnd, end + 1)) {
            last = end;
            if (isFieldOrEnd(behindSeparators(end + kEnd.size()))) {
                break;
            }
        }
        if (last != kNone) {
            return takeUpTo(last, last + kEnd.size());
        }
        // The rest, of which an apostrophe at the very end is a quote without its semicolon.
        const std::size_t final = m_text.find_last_not_of(kSeparators);
        const bool quoted = final != kNone && final >= m_at && m_text[final] == '\'';
        return takeUpTo(quoted ? final : m_text.size(), m_text.size());
    }

    std::string_view takePlainValue()
    {
        std::size_t end = m_text.find(';', m_at);
        while (end != kNone) {
            const std::size_t next = behindSeparators(end);
            if (isFieldOrEnd(next)) {
                return takeUpTo(end, next);
            }
            end = m_text.find(';', next);
        }
        return takeUpTo(m_text.size(), m_text.size());
    }

    std::string_view takeUpTo(std::size_t end, std::size_t next)
    {
        const std::string_view value = m_text.substr(m_at, end - m_at);
        m_at = next;
        return value;
    }

    std::string_view m_text;
    std::size_t m_at = 0;
};

} // namespace

IcyFields parseIcyBlock(std::string_view block)
{
    // Behind a NUL byte some servers send what their buffer held before.
    return Parser(block.substr(0, block.find('\0'))).run();
}

std::string icyText(std::string_view value)
{
    std::string text(value);
    // A title is one line on a display, and must not steer a terminal.
    std::replace_if(
        text.begin(), text.end(),
        [](char character) {
            const auto byte = static_cast<unsigned char>(character);
            return byte < 0x20 || byte == 0x7f;
        },
        ' ');
    return isUtf8(text) ? text : mdpLatin1ToUtf8(text);
}

} // namespace md
