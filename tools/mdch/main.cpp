#include "arguments.h"
#include "commands.h"
#include "failure.h"
#include "interrupt.h"

#include "mdp_debug.h"

#include <csignal>
#include <exception>

int main(int argc, char** argv)
{
    try {
        mdch::Arguments arguments;
        int status = mdch::kExitOk;
        if (!mdch::parseArguments(argc, argv, arguments, status)) {
            return status;
        }
        mdpDebugSetSeverity(arguments.traceSeverity);
        std::signal(SIGPIPE, SIG_IGN); // a write tells the reason as EPIPE
        mdch::Interrupt interrupt;
        return arguments.command == mdch::Arguments::Command::kCat ? mdch::runCat(arguments, interrupt)
                                                                   : mdch::runInfo(arguments, interrupt);
    } catch (const std::exception& error) {
        return mdch::report(
            {"cannot go on", error.what(), "Try again with less load on the machine", mdch::kExitOther});
    }
}
