// System calls that fail on command, for the paths that no healthy system walks.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace support {

// A system call, all of them or those with certain arguments.
struct SystemCall
{
    struct Argument
    {
        unsigned int index; // from 0
        std::uint32_t value;
    };

    long number; // SYS_...
    std::vector<Argument> arguments;
};

// Runs the function on a thread of its own, on which each such call fails with that errno value and nothing
// else happens; no other thread is concerned. Empty, or why the system does not lend itself to it (a seccomp
// filter is refused); the function did not run then.
std::string whileFailing(const SystemCall& call, int errorNumber, const std::function<void()>& function);

} // namespace support
