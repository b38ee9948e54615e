#include "command_line.h"
#include "failure.h"

#include "mdp_debug.h"

#include <csignal>
#include <exception>

int main(int argc, char** argv)
{
    try {
        mdpDebugSetSeverity(0);
        std::signal(SIGPIPE, SIG_IGN); // a write tells the reason as EPIPE
        return mdch::runCommandLine(argc, argv);
    } catch (const std::exception& error) {
        return mdch::report(
            {"cannot go on", error.what(), "Try again with less load on the machine", mdch::kExitOther});
    }
}
