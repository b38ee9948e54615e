// Repair of any URL, against the slow implementation: as it is, and where both limits fall into it.
#include "mdc_hlp_url_patch.h"
#include "support/slow_url.h"
#include "text_for_c.h"

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kMost = 8191;

std::string check(const std::string& url)
{
    const support::SlowPatch expected = support::slowUrlPatch(url);
    std::string repaired = md::urlPatch(url);
    fuzz::require(repaired == expected.text, "repaired as by the slow implementation");
    fuzz::require(md::urlPatch(repaired) == repaired, "repairing again changes nothing");
    const bool needed = !expected.charset.empty();
    fuzz::require(needed ? repaired.size() <= kMost : repaired == support::upToNul(url),
                  "cut when repaired, whole when not");
    fuzz::require(!needed || std::all_of(repaired.begin(), repaired.end(),
                                         [](char byte) {
                                             return support::slowIsPlain(static_cast<unsigned char>(byte));
                                         }),
                  "a repaired URL holds plain bytes only");
    return repaired;
}

void checkSequences(const std::string& text)
{
    // Exact size and no NUL behind it: a sanitizer sees what reads on.
    const std::vector<unsigned char> bytes(text.begin(), text.end());
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const int length = md::validUtf8Char(&bytes[i], static_cast<int>(bytes.size() - 1 - i));
        fuzz::require(length == static_cast<int>(support::slowUtf8Length(text, i)),
                      "a sequence is one for the slow implementation");
    }
}

// The URL behind plain bytes, so that the end of what is looked at or of the result falls somewhere into it, and
// perhaps behind UTF-8, which may have to be taken back then.
std::string movedToTheLimits(const std::string& url, std::size_t choice)
{
    const std::size_t within = std::min(choice / 2 % (6 * url.size() + 7), kMost);
    return (choice % 2 == 0 ? "\xc3\xa9" : "") + std::string(kMost - within, 'a') + url;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string url = support::upToNul(fuzz::textOf(data, size));
    {
        const fuzz::TracesFormatted traces;
        fuzz::checkTextForC(mdc_httphelper_urlPatch, url, check(url));
    }
    checkSequences(url);
    // The URL itself tells whether and where. Not all are moved: long URLs take a hundred times as long.
    const std::size_t sum =
        std::accumulate(url.begin(), url.end(), std::size_t{0},
                        [](auto total, char byte) { return total * 31 + static_cast<unsigned char>(byte); });
    if (sum % 8 == 0) {
        check(movedToTheLimits(url, sum / 8));
    }
    return 0;
}
