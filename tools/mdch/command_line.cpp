#include "command_line.h"

#include "command.h"
#include "failure.h"
#include "interrupt.h"
#include "pages.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace mdch {

namespace {

constexpr const char* kExamples = R"(Examples:
  mdch info http://radio.example/live --icy
  mdch cat https://media.example/film.ts --ca-path /etc/ssl/media -o film.ts
  mdch cat udp://239.1.2.3:5000 --length 10000000 -o sample.ts
  mdch watch http://radio.example/live --svg live.svg
  mdch upload film.ts ftps://me@archive.example/films/film.ts
  mdch COMMAND --help     the options of a command, and an example
)";

// CLI11's layout with wider columns, one usage line in the order in which people type, and single blank lines.
class Layout : public CLI::Formatter
{
public:
    Layout()
    {
        constexpr std::size_t kColumn = 32;
        column_width(kColumn);
        label("Positionals", "Arguments");
    }

    std::string make_usage(const CLI::App* app, std::string /*name*/) const override
    {
        if (app->get_parent() == nullptr) {
            return "\nUsage: mdch COMMAND [options]\n";
        }
        std::string usage = "\nUsage: mdch " + app->get_name();
        for (const CLI::Option* argument :
             app->get_options([](const CLI::Option* option) { return option->get_positional(); })) {
            const bool isNeeded = argument->get_required();
            usage += isNeeded ? " " + argument->get_name() : " [" + argument->get_name() + "]";
        }
        return usage + " [options]\n";
    }

    std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override
    {
        return withSingleBlankLines(Formatter::make_help(app, std::move(name), mode));
    }

    std::string make_option_opts(const CLI::Option* option) const override
    {
        const std::string& text = option->get_option_text();
        return text.empty() ? std::string() : " " + text;
    }

private:
    static std::string withSingleBlankLines(std::string text)
    {
        for (std::size_t at = text.find("\n\n\n"); at != std::string::npos; at = text.find("\n\n\n")) {
            text.erase(at, 1);
        }
        return text;
    }
};

std::vector<Command> addCommands(CLI::App& line)
{
    return {addInfo(line),    addCat(line),      addWatch(line),  addUpload(line),
            addResolve(line), addPlaylist(line), addEncode(line), addDecode(line),
            addRepair(line),  addVolumes(line),  addNative(line)};
}

std::string namesOf(const std::vector<Command>& commands)
{
    std::string names;
    for (std::size_t index = 0; index < commands.size(); ++index) {
        if (index > 0) {
            names += index + 1 < commands.size() ? ", " : " or ";
        }
        names += commands[index].app->get_name();
    }
    return names;
}

const Command* chosenOf(const std::vector<Command>& commands)
{
    const auto found = std::find_if(commands.begin(), commands.end(),
                                    [](const Command& command) { return command.app->parsed(); });
    return found != commands.end() ? &*found : nullptr;
}

int usageError(std::string text, const Command* command)
{
    // Some of CLI11's messages have several lines.
    std::replace(text.begin(), text.end(), '\n', ' ');
    text.erase(text.find_last_not_of(" .") + 1);
    const std::string help =
        command != nullptr ? "mdch " + command->app->get_name() + " --help" : "mdch --help";
    std::cerr << printable("mdch: " + text + ". Try " + help + ".") << '\n';
    return kExitUsage;
}

// The first word that the command did not take and that looks like an option, without its value; or nothing.
std::string unknownOption(const CLI::App& command)
{
    const std::vector<std::string> words = command.remaining();
    const auto found = std::find_if(words.begin(), words.end(), [](const std::string& word) {
        return word.size() > 1 && word[0] == '-';
    });
    return found != words.end() ? found->substr(0, found->find('=')) : std::string();
}

// CLI11's texts, where these say less than could be said.
std::string wordingOf(const CLI::ParseError& error, const CLI::App& command)
{
    // Whatever else is missing: a misspelt option is likely to be the cause.
    const std::string unknown = unknownOption(command);
    if (!unknown.empty()) {
        return unknown + " is no option of mdch " + command.get_name();
    }
    const std::string text = error.what();
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr && !command.remaining().empty()) {
        return "\"" + command.remaining().front() + "\" is one argument too many";
    }
    const std::size_t colon = text.find(": ");
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr && colon != std::string::npos) {
        return text.substr(0, colon) + " needs a value"; // only -v takes none
    }
    const std::size_t equals = text.find(" = ");
    if (dynamic_cast<const CLI::ConversionError*>(&error) != nullptr && colon < equals &&
        equals != std::string::npos) {
        const std::string name = text.substr(colon + 2, equals - colon - 2);
        return name + ": \"" + text.substr(equals + 3) +
               "\" is no whole number"; // others are checked as ranges
    }
    return error.what();
}

int wrongUsage(int argc, char** argv, const std::vector<Command>& commands, const CLI::ParseError& error)
{
    const Command* chosen = chosenOf(commands);
    if (argc < 2) {
        return usageError("a command is missing: " + namesOf(commands), nullptr);
    }
    const std::string first = argv[1];
    if (first == "--completion") {
        return usageError("--completion takes bash or zsh, and nothing else", nullptr);
    }
    if (first.rfind('-', 0) == 0) {
        return usageError(first + " is no option of mdch itself: the command comes first, then its options",
                          nullptr);
    }
    if (chosen == nullptr) {
        return usageError("\"" + first + "\" is no command: " + namesOf(commands), nullptr);
    }
    return usageError(wordingOf(error, *chosen->app), chosen);
}

int finishOutput()
{
    std::cout << std::flush;
    return std::cout ? kExitOk : report(localFailure("cannot write to standard output", errno));
}

} // namespace

int runCommandLine(int argc, char** argv)
{
    CLI::App line(
        "mdch - read media from files, web servers, radio, multicast and media volumes, and upload files",
        "mdch");
    line.formatter(std::make_shared<Layout>());
    line.set_help_flag("-h,--help", "this text");
    line.set_version_flag("--version", "mdch " MDCH_VERSION, "the version");
    line.require_subcommand(1);
    line.footer(kExamples + std::string("\n") + exitStatusHelp());
    const std::vector<Command> commands = addCommands(line);
    for (const Command& command : commands) {
        command.app->group("Commands");
    }
    // Not among the options in the help: for whoever packages the tool.
    const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    if (const auto page = requestedPage(words, pagesFrom(line, commands))) {
        std::cout << *page;
        return finishOutput();
    }
    try {
        line.parse(argc, argv);
    } catch (const CLI::Success& wish) { // help or version
        line.exit(wish);
        return finishOutput();
    } catch (const CLI::ParseError& error) {
        return wrongUsage(argc, argv, commands, error);
    }
    Interrupt interrupt;
    return chosenOf(commands)->run(interrupt);
}

} // namespace mdch
