#include "mdp_debug_output.h"

#include <cstdio>

void mdpDebugOutput(void* /*context*/, unsigned int /*level*/, const char* text)
{
    std::fputs(text, stderr);
}
