#include "ftp_address.h"

#include "mdc_hlp_url_encode.h"

#include <algorithm>
#include <cctype>

namespace mdch {

std::string parseFtpAddress(const std::string& url, FtpAddress& address)
{
    const std::size_t colon = url.find("://");
    std::string scheme = url.substr(0, std::min(colon, url.size()));
    std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    if (colon == std::string::npos || (scheme != "ftp" && scheme != "ftps")) {
        return "an upload goes to ftp://[USER@]HOST/[DIR/]NAME or to ftps://...";
    }
    address.protocol = scheme;
    const std::size_t begin = colon + 3;
    const std::size_t slash = std::min(url.find('/', begin), url.size());
    std::string authority = url.substr(begin, slash - begin);
    const std::size_t at = authority.rfind('@');
    if (at != std::string::npos) {
        const std::string user = authority.substr(0, at);
        if (user.find(':') != std::string::npos) {
            return "a password in the URL is seen by other users of this machine: leave it out to be asked "
                   "for it, "
                   "or use --password-file or --password-stdin";
        }
        address.user = md::urlDecode(user);
        authority.erase(0, at + 1);
    }
    address.server = authority;
    if (address.server.empty()) {
        return "the URL names no host";
    }
    address.path = slash < url.size() ? url.substr(slash + 1) : std::string();
    if (address.path.empty() || address.path.back() == '/') {
        return "the URL names no file: it ends with the name that the file gets on the server";
    }
    return {};
}

} // namespace mdch
