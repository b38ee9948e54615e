#include "pages.h"

#include <algorithm>
#include <cctype>
#include <sstream>

namespace mdch {

namespace {

// Text in a line of its own.
std::string roff(const std::string& text)
{
    std::string result;
    for (const char letter : text) {
        switch (letter) {
        case '\\':
            result += "\\e";
            break;
        case '-':
            result += "\\-";
            break;
        case '"':
            result += "\\(dq";
            break;
        default:
            result += letter;
        }
    }
    const bool isRequest = !result.empty() && (result.front() == '.' || result.front() == '\'');
    return isRequest ? "\\&" + result : result;
}

std::string bold(const std::string& text)
{
    return "\\fB" + roff(text) + "\\fR";
}

std::string italic(const std::string& text)
{
    return "\\fI" + roff(text) + "\\fR";
}

// A footer's headings ("Examples:") become the page's, its lines stay lines.
std::string roffLines(const std::string& text, const char* heading)
{
    std::string result;
    std::istringstream lines(text);
    bool isOpen = false;
    const auto end = [&result, &isOpen] {
        result += isOpen ? ".EE\n" : "";
        isOpen = false;
    };
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) {
            continue;
        }
        if (line.front() != ' ' && line.back() == ':') {
            end();
            line.pop_back();
            std::transform(line.begin(), line.end(), line.begin(),
                           [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
            result += std::string(heading) + " " + roff(line) + "\n.EX\n";
            isOpen = true;
        } else {
            result += roff(line) + "\n";
        }
    }
    end();
    return result;
}

std::string optionEntry(const PageOption& option)
{
    std::string names;
    for (const std::string& name : option.names) {
        names += (names.empty() ? "" : ", ") + bold(name);
    }
    if (!option.value.empty()) {
        names += " " + italic(option.value);
    }
    return ".TP\n" + names + "\n" + roff(option.text) + "\n";
}

std::string commandEntry(const PageCommand& command)
{
    std::string text = ".SH COMMAND " + roff(command.name) + "\n.B mdch " + roff(command.name) + "\n";
    if (!command.arguments.empty()) {
        text += italic(command.arguments) + "\n";
    }
    text += "[options]\n.PP\n" + roff(command.text) + "\n";
    for (const PageOption& option : command.options) {
        text += optionEntry(option);
    }
    return text + roffLines(command.footer, ".SS");
}

} // namespace

std::string manualPage(const Pages& pages)
{
    const std::size_t dash = pages.text.find(" - ");
    const std::string name = pages.text.substr(0, dash);
    const std::string purpose = dash != std::string::npos ? pages.text.substr(dash + 3) : std::string();
    std::string text = ".\\\" Made by mdch --man\n"
                       ".TH MDCH 1 \"\" \"mdch " MDCH_VERSION "\" \"User Commands\"\n"
                       ".SH NAME\n" +
                       roff(name) + " \\- " + roff(purpose) +
                       "\n.SH SYNOPSIS\n.B mdch\n\\fICOMMAND\\fR [options]\n"
                       ".SH COMMANDS\n";
    for (const PageCommand& command : pages.commands) {
        text += ".TP\n" + bold(command.name) + "\n" + roff(command.text) + "\n";
    }
    for (const PageCommand& command : pages.commands) {
        text += commandEntry(command);
    }
    return text + roffLines(pages.footer, ".SH");
}

} // namespace mdch
