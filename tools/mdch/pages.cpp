#include "pages.h"

#include <CLI/CLI.hpp>

namespace mdch {

namespace {

bool takesValue(const CLI::Option& option)
{
    return !option.get_positional() && option.get_option_text().find_first_not_of(' ') != std::string::npos;
}

PageOption pageOptionFrom(const CLI::Option& option)
{
    PageOption page;
    for (const std::string& name : option.get_snames()) {
        page.names.push_back("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        page.names.push_back("--" + name);
    }
    page.value = takesValue(option) ? option.get_option_text() : std::string();
    page.text = option.get_description();
    page.isRepeated =
        option.get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll || page.names.front() == "-v";
    return page;
}

} // namespace

Pages pagesFrom(const CLI::App& line, const std::vector<Command>& commands)
{
    Pages pages;
    pages.text = line.get_description();
    pages.footer = line.get_footer();
    for (const Command& command : commands) {
        PageCommand page;
        page.name = command.app->get_name();
        page.text = command.app->get_description();
        page.footer = command.app->get_footer();
        const CLI::App& app = *command.app;
        for (const CLI::Option* option : app.get_options()) {
            if (option->get_positional()) {
                const std::string name = option->get_name();
                page.arguments += page.arguments.empty() ? "" : " ";
                page.arguments += option->get_required() ? name : "[" + name + "]";
            } else {
                page.options.push_back(pageOptionFrom(*option));
            }
        }
        pages.commands.push_back(std::move(page));
    }
    return pages;
}

std::optional<std::string> requestedPage(const std::vector<std::string>& words, const Pages& pages)
{
    if (words == std::vector<std::string>{"--man"}) {
        return manualPage(pages);
    }
    if (words == std::vector<std::string>{"--completion", "bash"}) {
        return bashCompletion(pages);
    }
    if (words == std::vector<std::string>{"--completion", "zsh"}) {
        return zshCompletion(pages);
    }
    return std::nullopt;
}

} // namespace mdch
