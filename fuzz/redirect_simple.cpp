// The reader of plain lists of URLs: the input is the body.
#include "harness.h"
#include "mdc_hlp_redirect.h"

#include <cstdint>
#include <string>
#include <strings.h>

namespace {

bool isUrl(const std::string& text)
{
    for (const std::string scheme : {"http://", "https://", "mms://", "mmsh://"}) {
        if (strcasecmp(text.substr(0, scheme.size()).c_str(), scheme.c_str()) == 0) {
            return true;
        }
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const fuzz::TracesFormatted traces;
    const std::string text = fuzz::textOf(data, size).c_str(); // NOLINT: a NUL ends it
    std::string url = "untouched";
    const bool found = md::parseSIMPLE(fuzz::textOf(data, size), url);
    fuzz::require(found == isUrl(text), "found or not");
    fuzz::require(url == (found ? text.substr(0, text.find_first_of("\r\n")) : "untouched"),
                  "the first line");
    fuzz::require(!found || text.find(url) == 0, "text that is in the input");
    return 0;
}
