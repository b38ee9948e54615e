// What the user asked for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mdch {

struct Arguments
{
    enum class Command
    {
        kInfo,
        kCat
    };

    Command command = Command::kInfo;
    std::string url;
    std::string output;       // empty: standard output
    std::int64_t offset = 0;  // first byte; negative: that many before the end
    std::int64_t timeMs = -1; // play time to start at; negative: not asked for
    std::int64_t length = -1; // most bytes; negative: all

    std::string userAgent = "mdch/" MDCH_VERSION;
    std::vector<std::string> headerLines;
    std::string cookie;
    std::string caPath;
    std::string clientCert;
    std::string keyPassword;
    std::string proxyHost; // empty: none
    std::int32_t proxyPort = 0;
    std::int32_t dlnaMode = 0; // 1 streaming, 2 interactive, 3 background
    std::int32_t bufferSize = 0;
    std::int32_t timeout = 0; // seconds, 0: the library's own
    bool icy = false;
    unsigned int traceSeverity = 0;
};

// Reads the command line. True: go on. False: everything is said and done, and the program ends with `status`.
bool parseArguments(int argc, char** argv, Arguments& arguments, int& status);

} // namespace mdch
