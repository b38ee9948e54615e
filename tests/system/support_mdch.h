// Running the command line.
#pragma once

#include "support_process.h"

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

} // namespace support
