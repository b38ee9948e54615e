// A scenario, run again and again while one call after the other fails.
#pragma once

#include "nth_call.h"

#include <functional>
#include <string>

namespace faults {

// What became of a scenario.
struct Outcome
{
    enum class Kind
    {
        kRight,  // everything as it is without failures
        kFailed, // an error was told, and what came before it was right
        kWrong   // anything else
    };

    Kind kind = Kind::kRight;
    std::string why;

    static Outcome failed(std::string why) { return {Kind::kFailed, std::move(why)}; }
    static Outcome wrong(std::string why) { return {Kind::kWrong, std::move(why)}; }
    bool isRight() const { return kind == Kind::kRight; }
};

struct EachCall
{
    long step = 1;           // the first call fails, then the one that many further on
    bool andLater = false;   // all later calls fail as well
    long fewest = 1;         // calls that a scenario surely makes: fewer would mean that nothing is tested
    bool neverRight = false; // the scenario fails with or without failing calls
};

// Runs the scenario with its first call of the kind failing, then its second, until it makes no more of them. After
// each failure the scenario runs once more, and comes out right. No descriptor of the library is open then.
// A run that takes a minute counts as hung and ends the program.
void eachCallFails(Kind kind, const std::function<Outcome()>& scenario, const EachCall& how = {});

// Calls into the library; what happens in it is subject to failing. std::bad_alloc is an error that may be told.
template <class Function>
bool inLibrary(const Function& function)
{
    const InLibrary inside;
    try {
        function();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

} // namespace faults
