// The commands; each returns the exit status.
#pragma once

#include "arguments.h"

namespace mdch {

class Interrupt;

int runInfo(const Arguments& arguments, Interrupt& interrupt);
int runCat(const Arguments& arguments, Interrupt& interrupt);

} // namespace mdch
