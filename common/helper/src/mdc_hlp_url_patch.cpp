#include "mdc_hlp_url_patch.h"

#include "mdc_hlp_text_buffer.h"
#include "mdc_hlp_trace.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

namespace md {

namespace {

constexpr std::size_t kMostBytes = 8191; // of a URL that are looked at, and of a repaired one

// Severities: a byte that should not be in a URL is an error; the lines with the whole URL, which may hold a
// password, count as call traces.
constexpr const char* kFunction = "urlPatch";

bool isPlain(unsigned char byte)
{
    return byte >= 0x21 && byte <= 0x7e && byte != '"' && byte != '{' && byte != '|' && byte != '}';
}

// The text under construction, on the stack.
class Output
{
public:
    explicit Output(std::size_t capacity) : m_capacity(capacity) {}

    std::size_t size() const { return m_size; }
    bool isFull() const { return m_size == m_capacity; }
    bool hasRoomForEscapes(std::size_t count) const { return 3 * count <= m_capacity - m_size; }

    // Caller knows that there is room.
    void put(char character) { m_text[m_size++] = character; }
    void put(const char* text, std::size_t count)
    {
        std::memcpy(m_text.data() + m_size, text, count);
        m_size += count;
    }
    void escape(unsigned int byte)
    {
        constexpr const char* kDigits = "0123456789ABCDEF";
        put('%');
        put(kDigits[byte >> 4U]);
        put(kDigits[byte & 0x0fU]);
    }
    void cutTo(std::size_t size) { m_size = size; }

    const char* text()
    {
        m_text[m_size] = '\0';
        return m_text.data();
    }

private:
    std::array<char, kMostBytes + 1> m_text; // as much of it is touched as is written
    std::size_t m_capacity;
    std::size_t m_size = 0;
};

class Repair
{
public:
    // length: bytes that are looked at, of which the first plain ones need no repair.
    Repair(const char* url, std::size_t length, std::size_t plain)
        : m_url(url), m_length(length), m_at(plain), m_output(std::min(6 * length, kMostBytes))
    {
        m_output.put(url, plain);
    }

    std::string run()
    {
        while (m_at < m_length && !m_output.isFull()) {
            step();
        }
        trace();
        return std::string(m_output.text(), m_output.size());
    }

private:
    enum class Charset
    {
        ascii,
        utf8,
        latin1
    };

    unsigned char byteAt(std::size_t at) const { return static_cast<unsigned char>(m_url[at]); }

    void step()
    {
        const unsigned char byte = byteAt(m_at);
        if (isPlain(byte)) {
            m_output.put(m_url[m_at]);
            ++m_at;
        } else if (byte < 0x80) {
            escapeAscii(byte);
        } else if (m_charset == Charset::latin1) {
            escapeLatin1(byte);
        } else if (!escapeUtf8()) {
            if (m_charset == Charset::utf8) {
                m_at = m_firstUtf8At;
                m_output.cutTo(m_firstUtf8Output);
            }
            m_charset = Charset::latin1;
        }
    }

    void escapeAscii(unsigned char byte)
    {
        if (m_output.hasRoomForEscapes(1)) {
            m_output.escape(byte);
        }
        MDCH_TRACE(kTraceError, "%s(): error: %d: %02X is invalid but ASCII!\n", kFunction,
                   static_cast<int>(m_at), byte);
        ++m_at;
    }

    // False: no UTF-8, or no room for it; nothing has changed.
    bool escapeUtf8()
    {
        const auto* lead = reinterpret_cast<const unsigned char*>(m_url) + m_at;
        const auto count =
            static_cast<std::size_t>(validUtf8Char(lead, static_cast<int>(m_length - 1 - m_at)));
        if (count == 0 || !m_output.hasRoomForEscapes(count)) {
            return false;
        }
        if (m_charset == Charset::ascii) {
            m_firstUtf8At = m_at;
            m_firstUtf8Output = m_output.size();
            m_charset = Charset::utf8;
        }
        for (const std::size_t end = m_at + count; m_at < end; ++m_at) {
            m_output.escape(byteAt(m_at));
            MDCH_TRACE(kTraceError, "%s(): error: %d: %02X is correct UTF-8!\n", kFunction,
                       static_cast<int>(m_at), byteAt(m_at));
        }
        return true;
    }

    void escapeLatin1(unsigned char byte)
    {
        if (m_output.hasRoomForEscapes(2)) {
            m_output.escape(0xc0U | static_cast<unsigned int>(byte >> 6U));
            m_output.escape(0x80U | (byte & 0x3fU));
        }
        MDCH_TRACE(kTraceError, "%s(): error: %d: %02X is assumed to be ISO 8859-1!\n", kFunction,
                   static_cast<int>(m_at), byte);
        ++m_at;
    }

    const char* charsetName() const
    {
        switch (m_charset) {
        case Charset::ascii:
            return "ASCII";
        case Charset::utf8:
            return "UTF-8";
        default:
            return "ISO 8859-1";
        }
    }

    void trace()
    {
        MDCH_TRACE(kTraceCall, "%s(): input hex:  %s\n", kFunction, "DATA");
        mdpDebugHexDump(kTraceCall, m_url, m_length);
        MDCH_TRACE(kTraceCall, "%s(): input:  %s\n", kFunction, m_url);
        MDCH_TRACE(kTraceCall, "%s(): assume: %s\n", kFunction, charsetName());
        MDCH_TRACE(kTraceCall, "%s(): output: %s\n", kFunction, m_output.text());
    }

    const char* m_url;
    std::size_t m_length;
    std::size_t m_at;
    Output m_output;
    Charset m_charset = Charset::ascii;
    std::size_t m_firstUtf8At = 0;
    std::size_t m_firstUtf8Output = 0;
};

} // namespace

int validUtf8Char(const unsigned char* lead, int following)
{
    if (lead == nullptr) {
        return 0;
    }
    if (*lead < 0x80) {
        return 1;
    }
    int length = 0;
    if (*lead >= 0xc2 && *lead <= 0xdf) {
        length = 2;
    } else if (*lead >= 0xe0 && *lead <= 0xef) {
        length = 3;
    } else if (*lead >= 0xf0 && *lead <= 0xf4) {
        length = 4;
    }
    if (length == 0 || following < length - 1) {
        return 0;
    }
    const bool complete =
        std::all_of(lead + 1, lead + length, [](unsigned char byte) { return (byte & 0xc0U) == 0x80U; });
    return complete ? length : 0;
}

std::string urlPatch(const char* url)
{
    if (url == nullptr) {
        return {};
    }
    const std::size_t length = strnlen(url, kMostBytes);
    const char* bad = std::find_if_not(url, url + length,
                                       [](char byte) { return isPlain(static_cast<unsigned char>(byte)); });
    if (bad == url + length) {
        return url;
    }
    return Repair(url, length, static_cast<std::size_t>(bad - url)).run();
}

std::string urlPatch(const std::string& url)
{
    return urlPatch(url.c_str());
}

} // namespace md

int mdc_httphelper_urlPatch(const char* url, char* buffer, int bufferSize)
{
    return md::transformToBuffer(url, buffer, bufferSize,
                                 [](const char* input) { return md::urlPatch(input); });
}
