// The manual page and the shells' completions, made from the same tables of options as the help.
#pragma once

#include "command.h"

#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace mdch {

// What stands between the name and the value of an option, and what it may be.
struct PageOption
{
    std::vector<std::string> names; // "-o", "--output"
    std::string value;              // "FILE"; empty: takes none
    std::string text;
    bool isRepeated = false;
};

struct PageCommand
{
    std::string name;
    std::string text;
    std::string arguments; // "URL", "[TEXT]"
    std::vector<PageOption> options;
    std::string footer; // examples
};

struct Pages
{
    std::string text;
    std::string footer;
    std::vector<PageCommand> commands;
};

Pages pagesFrom(const CLI::App& line, const std::vector<Command>& commands);

std::string bashCompletion(const Pages& pages);
std::string zshCompletion(const Pages& pages);
std::string manualPage(const Pages& pages);

// The page that the command line asks for: --completion bash, --completion zsh, --man. Nothing for any other.
std::optional<std::string> requestedPage(const std::vector<std::string>& words, const Pages& pages);

} // namespace mdch
