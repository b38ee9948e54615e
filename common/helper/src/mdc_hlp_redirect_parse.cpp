#include "mdc_hlp_redirect.h"
#include "mdc_hlp_redirect_names.h"
#include "mdc_hlp_redirect_read.h"
#include "mdc_hlp_trace.h"

#include <array>
#include <cstring>
#include <new>

namespace md {

namespace {

// The next CR wherever it is, even behind a LF; the next LF only if there is no CR at all; else null.
const char* lineEnd(const char* text)
{
    const char* end = std::strchr(text, '\r');
    return end != nullptr ? end : std::strchr(text, '\n');
}

std::string upToLineEnd(const char* text)
{
    const char* end = lineEnd(text);
    return end != nullptr ? std::string(text, end) : std::string(text);
}

bool hasPrefix(const char* text, std::string_view prefix)
{
    return std::strncmp(text, prefix.data(), prefix.size()) == 0;
}

// Passes a line that begins with the prefix. False when that line has no end.
bool passLine(const char*& at, std::string_view prefix)
{
    if (!hasPrefix(at, prefix)) {
        return true;
    }
    const char* end = lineEnd(at);
    if (end == nullptr) {
        return false;
    }
    at = end + 1;
    return true;
}

bool isMediaUrl(const char* text)
{
    for (const std::string_view scheme :
         {"file:/", "http://", "rtsp://", "rtp://", "mms://", "https://", "mmsh://"}) {
        if (hasPrefix(text, scheme)) {
            return true;
        }
    }
    return false;
}

// The tag whose first quoted value is the reference; null when there is none. direct becomes false when
// that is a further list.
const char* asxTag(const char* text, bool& direct)
{
    const char* asx = strcasestr(text, "<asx");
    if (asx == nullptr) {
        return nullptr;
    }
    if (const char* list = strcasestr(asx, "<entryref")) {
        direct = false;
        return list;
    }
    const char* entry = strcasestr(asx, "<entry");
    return entry != nullptr ? strcasestr(entry, "<ref") : nullptr;
}

bool takeQuoted(const char* tag, std::string& url)
{
    const char* open = std::strchr(tag, '"');
    const char* close = open != nullptr ? std::strchr(open + 1, '"') : nullptr;
    if (close == nullptr) {
        return false;
    }
    url.assign(open + 1, close);
    return true;
}

bool takeReference(const char* text, std::string& url)
{
    const char* section = strcasestr(text, "[Reference]");
    const char* equals = section != nullptr ? std::strchr(section, '=') : nullptr;
    if (equals == nullptr) {
        return false;
    }
    url = upToLineEnd(equals + 1);
    return true;
}

template <class Parser>
bool falseWithoutMemory(const Parser& parser)
{
    try {
        return parser();
    } catch (const std::bad_alloc&) {
        return false;
    }
}

} // namespace

bool readM3U(const std::string& text, std::string& url)
{
    const char* at = text.c_str();
    if (!passLine(at, "#EXTM3U") || !passLine(at, "#EXTINF")) {
        return false;
    }
    if (!isMediaUrl(at)) {
        MDCH_TRACE(kTraceNotice, "%s() Unknown protocol for redirect \"%s\"\n", "parseM3U", at);
        return false;
    }
    url = upToLineEnd(at);
    return true;
}

bool readASX(const std::string& text, std::string& url, bool& mmsh)
{
    mmsh = true;
    const char* tag = asxTag(text.c_str(), mmsh);
    return (tag != nullptr && takeQuoted(tag, url)) || takeReference(text.c_str(), url);
}

bool readSIMPLE(const std::string& text, std::string& url)
{
    constexpr std::array<std::string_view, 4> kSchemes = {kHttp, kHttps, kMms, kMmsh};
    if (!beginsWithAny(text, kSchemes)) {
        return false;
    }
    url.assign(text.c_str(), std::strcspn(text.c_str(), "\r\n"));
    return true;
}

bool parseM3U(const std::string& text, std::string& url)
{
    return falseWithoutMemory([&] { return readM3U(text, url); });
}

bool parseASX(const std::string& text, std::string& url, bool& mmsh)
{
    return falseWithoutMemory([&] { return readASX(text, url, mmsh); });
}

bool parseSIMPLE(const std::string& text, std::string& url)
{
    return falseWithoutMemory([&] { return readSIMPLE(text, url); });
}

} // namespace md
