// A command of the tool: what it takes, its help, and what it does. One file per command.
#pragma once

#include <functional>

namespace CLI {
class App; // no more than the name: the header takes the compiler long
}

namespace mdch {

class Interrupt;

struct Command
{
    CLI::App* app = nullptr; // its options and help; belongs to the whole command line
    std::function<int(Interrupt&)> run =
        {}; // does the work once the options are read; returns the exit status
};

// Each adds itself to the command line.
Command addInfo(CLI::App& line);
Command addCat(CLI::App& line);
Command addResolve(CLI::App& line);
Command addPlaylist(CLI::App& line);
Command addEncode(CLI::App& line);
Command addDecode(CLI::App& line);
Command addRepair(CLI::App& line);
Command addVolumes(CLI::App& line);
Command addNative(CLI::App& line);
Command addUpload(CLI::App& line);
Command addWatch(CLI::App& line);

} // namespace mdch
