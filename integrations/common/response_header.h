// What a response header says of the resource. Who asks a stream waits for its header.
#pragma once

#include <string>

namespace md {
class HttpAccess;
}

namespace player {

// Of the first line with that name, whatever its case, without blanks around it; empty: there is none.
std::string headerValue(md::HttpAccess& http, const std::string& name);

// What has to be the same for bytes of two responses to belong together: length and entity tag (RFC 9110, 8.8.3).
struct Version
{
    long long size = -1; // negative: unknown
    std::string tag;     // empty: none was told
};
Version versionOf(md::HttpAccess& http);

// Nothing that both responses tell may differ. Some servers leave the tag out of the answer to a range.
bool areOfOneFile(const Version& one, const Version& other);

} // namespace player
