// The M3U reader of redirects: the input is the body.
#include "harness.h"
#include "mdc_hlp_redirect.h"

#include <cstdint>
#include <string>

namespace {

std::size_t lineEnd(const std::string& text)
{
    const std::size_t end = text.find('\r');
    return end != std::string::npos ? end : text.find('\n');
}

// The URL, or "" when there is none: no scheme is empty.
std::string expectedOf(std::string text)
{
    for (const std::string directive : {"#EXTM3U", "#EXTINF"}) {
        if (text.substr(0, directive.size()) == directive) {
            const std::size_t end = lineEnd(text);
            if (end == std::string::npos) {
                return "";
            }
            text.erase(0, end + 1);
        }
    }
    for (const std::string scheme :
         {"file:/", "http://", "rtsp://", "rtp://", "mms://", "https://", "mmsh://"}) {
        if (text.substr(0, scheme.size()) == scheme) {
            return text.substr(0, lineEnd(text));
        }
    }
    return "";
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const fuzz::TracesFormatted traces;
    const std::string text = fuzz::textOf(data, size);
    std::string url = "untouched";
    const bool found = md::parseM3U(text, url);
    const std::string expected = expectedOf(text.c_str());
    fuzz::require(found == !expected.empty(), "found or not");
    fuzz::require(url == (found ? expected : "untouched"), "the first item");
    fuzz::require(!found || text.find(url) != std::string::npos, "text that is in the input");
    return 0;
}
