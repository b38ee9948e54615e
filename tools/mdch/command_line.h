// The command line as a whole: which command is meant, help, and what is said about wrong usage.
#pragma once

namespace mdch {

class Interrupt;

// Reads the command line and runs the command. Returns the exit status.
int runCommandLine(int argc, char** argv);

} // namespace mdch
