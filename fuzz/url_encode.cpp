// Percent-encoding and decoding of any text, against the slow implementation.
#include "mdc_hlp_url_encode.h"
#include "support/slow_url.h"
#include "text_for_c.h"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text = fuzz::textOf(data, size);

    const std::string encoded = md::urlEncode(text);
    fuzz::require(encoded == support::slowUrlEncode(text), "encoded as by the slow implementation");
    fuzz::checkTextForC(mdc_httphelper_urlEncode, text, encoded);

    const std::string decoded = md::urlDecode(text);
    fuzz::require(decoded == support::slowUrlDecode(text), "decoded as by the slow implementation");
    fuzz::checkTextForC(mdc_httphelper_urlDecode, text, decoded);

    const std::string other = "x" + support::upToNul(text); // no media-volume URL
    fuzz::require(md::urlDecode(md::urlEncode(other)) == other, "decoding undoes encoding");
    return 0;
}
