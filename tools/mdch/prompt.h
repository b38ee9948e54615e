// A secret that the user types at the terminal.
#pragma once

#include "failure.h"

#include <string>

namespace mdch {

class Interrupt;

struct Question
{
    std::string prompt;
    std::string missing; // what there is not without an answer, for the message
    std::string next;    // what to try instead
};

// Asks at the terminal that controls the process, wherever input and output go, and does not show
// what is typed. True, or false with the failure, which counts for nothing when the user interrupted.
bool askUnseen(const Question& question, Interrupt& interrupt, std::string& answer, Failure& failure);

} // namespace mdch
