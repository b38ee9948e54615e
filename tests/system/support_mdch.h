// Running the command line.
#pragma once

#include "support_process.h"

#include <sstream>
#include <string>
#include <vector>

namespace support {

inline std::vector<std::string> mdchCommand(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), MDCH_BINARY);
    return arguments;
}

inline Result mdch(std::vector<std::string> arguments, const ProcessOptions& options = {})
{
    return runToEnd(mdchCommand(std::move(arguments)), options);
}

// The names of the commands, as the help lists them.
inline std::vector<std::string> mdchCommands()
{
    std::vector<std::string> names;
    std::istringstream help(mdch({"--help"}).out);
    bool isListed = false;
    for (std::string line; std::getline(help, line);) {
        if (isListed && line.rfind("  ", 0) == 0) {
            names.push_back(line.substr(2, line.find(' ', 2) - 2));
        }
        isListed = line == "Commands:" || (isListed && !line.empty());
    }
    return names;
}

} // namespace support
