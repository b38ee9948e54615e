// The options of every command that opens a stream.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace mdch {

struct StreamOptions
{
    std::string url;
    std::string userAgent = "mdch/" MDCH_VERSION;
    std::vector<std::string> headerLines;
    std::string cookie;
    std::string caPath;
    std::string clientCert;
    std::string keyPasswordFile;
    bool keyPasswordPrompt = false;
    std::string keyPassword; // as the file or the prompt gave it
    std::string proxyHost;   // empty: none
    std::int32_t proxyPort = 0;
    std::int32_t dlnaMode = 0; // 1 streaming, 2 interactive, 3 background
    std::int32_t bufferSize = 0;
    std::int32_t timeout = 0;       // seconds, for both of the following; 0: the library's own
    std::int32_t headerTimeout = 0; // seconds, 0: not given
    std::int32_t dataTimeout = 0;
    bool followRedirects = true;
    std::int32_t maxRedirects = -1; // negative: the library's own
    bool forceRange = false;
    bool pauseBuffering = false;
    bool icy = false;
    bool native = false; // open a file on a media volume by its native path
};

// Longest waits in seconds; 0: the library's own.
std::int32_t headerSeconds(const StreamOptions& options);
std::int32_t dataSeconds(const StreamOptions& options);

// URL and all options above.
void addStreamOptions(CLI::App& command, StreamOptions& options);

// Those that commands without a stream of their own share with the others.
void addUserAgentOption(CLI::App& command, std::string& userAgent);
void addProxyOption(CLI::App& command, std::string& host, std::int32_t& port);

// Makes the proxy that of the process; an empty host: none.
void setProxy(const std::string& host, std::int32_t port);

// --volume UUID=DIR, which registers a directory as a media volume at once.
void addVolumeOption(CLI::App& command);

// -v and --help, which every command has.
void addCommonOptions(CLI::App& command);

} // namespace mdch
