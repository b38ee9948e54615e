// What a player asks for beyond an address: one record for all frameworks, applied to the library's streams.
#pragma once

#include "mdc_hlp_http_access.h"

#include <string>
#include <vector>

namespace player {

struct StreamSettings
{
    std::string userAgent;                // empty: none is sent
    std::vector<std::string> cookies;     // "name=value" each
    std::vector<std::string> headerLines; // "Name: value" each
    bool wantsTitles = false;             // asks a radio server for titles within the stream
    bool followsRedirects = true;
    int timeoutSeconds = 30; // for the response header, and for data; 0: none
    int transferMode = 0;    // DLNA: 1 Streaming, 2 Interactive, 3 Background; 0: no word of it
    int bufferBytes = 0;     // 98304 to 3211264; 0: the library's own choice
    bool pauseBuffering = false;
    int retries = 3; // of a transfer that broke off and can go on where it was; negative: without end

    std::string caDirectory; // PEM files, the only certificates that are trusted; empty: the system's
    bool verifiesServer = true;
    std::string clientCertificate; // PEM, or PKCS#12 when the name holds ".p12"
    std::string clientPassword;

    // The library has one proxy for the whole process: an address here replaces it, an empty text leaves it alone.
    std::string proxy; // HOST:PORT, perhaps behind "http://"
    std::string proxyUser;
    std::string proxyPassword;
};

// Before the stream's open.
void apply(const StreamSettings& settings, md::HttpAccess& http);
void applyTimeout(const StreamSettings& settings, md::HttpAccess& http);

// Sets the process's proxy, if the settings name one. False: that is no address of a proxy.
bool applyProxy(const StreamSettings& settings);

} // namespace player
