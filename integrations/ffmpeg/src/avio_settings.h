/*
 * The caller's options, copied: a stream that is opened again needs them later, and records have versions.
 */
#ifndef MDCH_AVIO_SETTINGS_H
#define MDCH_AVIO_SETTINGS_H

#include "mdch_avio.h"

#include <string>

namespace md {
class HttpAccess;
}

namespace avio {

struct Settings
{
    std::string url;
    std::string userAgent;
    std::string headers;
    std::string cookie;
    std::string caCertPath;
    std::string clientCert;
    std::string certPasswd;
    mdchAvioOptions options = {}; // its numbers and its callback; the texts stand above

    bool wantsTitles() const
    {
        return options.title != nullptr || (options.flags & MDCH_URL_ICY_METADATA) != 0;
    }
};

/* Copies the caller's record, which may be null. 0 or AVERROR(EINVAL). */
int takeOptions(const char* url, const mdchAvioOptions* given, Settings& settings);

/* Everything that an HTTP stream is told before it is opened. */
void configure(md::HttpAccess& http, const Settings& settings);

} // namespace avio

#endif
