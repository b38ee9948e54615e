// What a response header says of the resource. Both wait for the header.
#pragma once

#include <string>

namespace md {
class HttpAccess;
}

namespace player {

// Of the first line with that name, whatever its case, without blanks around it; empty: there is none.
std::string headerValue(md::HttpAccess& http, const std::string& name);

// What has to be the same for bytes of two responses to belong together: length and entity tag (RFC 9110, 8.8.3).
std::string versionOf(md::HttpAccess& http);

} // namespace player
