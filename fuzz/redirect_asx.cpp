// The ASX reader of redirects: the input is the body.
#include "harness.h"
#include "mdc_hlp_redirect.h"

#include <cstdint>
#include <string>

namespace {

constexpr std::size_t kNone = std::string::npos;

struct Expected
{
    bool found = false;
    bool mmsh = true;
    std::string url = "untouched";
};

std::string inLowerCase(std::string text)
{
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

std::size_t placeBehind(const std::string& text, const std::string& what, std::size_t place)
{
    return place == kNone ? kNone : text.find(what, place);
}

std::string upToLineEnd(const std::string& text)
{
    const std::size_t end = text.find('\r');
    return text.substr(0, end != kNone ? end : text.find('\n'));
}

Expected expectedOf(const std::string& text)
{
    Expected expected;
    const std::string lower = inLowerCase(text);
    const std::size_t asx = lower.find("<asx");
    const std::size_t list = placeBehind(lower, "<entryref", asx);
    expected.mmsh = list == kNone;
    const std::size_t tag =
        list != kNone ? list : placeBehind(lower, "<ref", placeBehind(lower, "<entry", asx));
    const std::size_t open = placeBehind(text, "\"", tag);
    const std::size_t close = open == kNone ? kNone : text.find('"', open + 1);
    if (close != kNone) {
        expected.found = true;
        expected.url = text.substr(open + 1, close - open - 1);
        return expected;
    }
    const std::size_t equals = placeBehind(text, "=", lower.find("[reference]"));
    if (equals != kNone) {
        expected.found = true;
        expected.url = upToLineEnd(text.substr(equals + 1));
    }
    return expected;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const fuzz::TracesFormatted traces;
    const std::string text = fuzz::textOf(data, size);
    std::string url = "untouched";
    bool mmsh = size % 2 != 0;
    const bool found = md::parseASX(text, url, mmsh);
    const Expected expected = expectedOf(text.c_str());
    fuzz::require(found == expected.found, "found or not");
    fuzz::require(mmsh == expected.mmsh, "the medium itself, or a further list");
    fuzz::require(url == expected.url, "the first reference");
    fuzz::require(!found || text.find(url) != std::string::npos, "text that is in the input");
    return 0;
}
