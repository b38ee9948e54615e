#include "pages.h"

#include <map>
#include <set>

namespace mdch {

namespace {

// What the shells offer as the value of an option. Values of other kinds are the user's own.
enum class Offer
{
    kNothing,
    kFiles,
    kFolders,
    kModes
};

constexpr const char* kModeWords = "streaming interactive background";

Offer offerFor(const PageOption& option)
{
    static const std::map<std::string, Offer> kOffers = {
        {"FILE", Offer::kFiles}, {"DIR", Offer::kFolders}, {"MODE", Offer::kModes}};
    const auto found = kOffers.find(option.value);
    return found != kOffers.end() ? found->second : Offer::kNothing;
}

std::string joined(const std::set<std::string>& words, const char* between)
{
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : between) + word;
    }
    return text;
}

std::string optionWords(const PageCommand& command)
{
    std::set<std::string> words;
    for (const PageOption& option : command.options) {
        words.insert(option.names.begin(), option.names.end());
    }
    return joined(words, " ");
}

// The branches by the word before: what its value may be.
std::string bashValues(const Pages& pages)
{
    std::map<Offer, std::set<std::string>> names;
    for (const PageCommand& command : pages.commands) {
        for (const PageOption& option : command.options) {
            if (!option.value.empty()) {
                names[offerFor(option)].insert(option.names.begin(), option.names.end());
            }
        }
    }
    const std::map<Offer, std::string> actions = {
        {Offer::kNothing, "return"},
        {Offer::kFiles, "_mdch_offer -f; return"},
        {Offer::kFolders, "_mdch_offer -d; return"},
        {Offer::kModes, std::string("_mdch_offer -W \"") + kModeWords + "\"; return"}};
    std::string text;
    for (const auto& [offer, words] : names) {
        text += "    " + joined(words, "|") + ") " + actions.at(offer) + " ;;\n";
    }
    return text;
}

// Within single quotes.
std::string shellQuoted(const std::string& text)
{
    std::string result = "'";
    for (const char letter : text) {
        result += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    }
    return result + "'";
}

std::string escapedFor(const std::string& text, const char* letters)
{
    std::string result;
    for (const char letter : text) {
        if (std::string(letters).find(letter) != std::string::npos) {
            result += '\\';
        }
        result += letter;
    }
    return result;
}

// "--output[write to FILE]:FILE:_files", for each name; names of one option exclude each other.
std::string zshOption(const PageOption& option)
{
    static const std::map<Offer, std::string> kActions = {
        {Offer::kNothing, " "},
        {Offer::kFiles, "_files"},
        {Offer::kFolders, "_files -/"},
        {Offer::kModes, std::string("(") + kModeWords + ")"}};
    std::string all;
    for (const std::string& name : option.names) {
        all += (all.empty() ? "" : " ") + name;
    }
    std::string text;
    for (const std::string& name : option.names) {
        std::string one = option.isRepeated ? "*" : "(" + all + ")";
        one += name + "[" + escapedFor(option.text, "[]\\") + "]";
        if (!option.value.empty()) {
            one += ":" + escapedFor(option.value, ":\\") + ":" + kActions.at(offerFor(option));
        }
        text += " \\\n            " + shellQuoted(one);
    }
    return text;
}

} // namespace

std::string bashCompletion(const Pages& pages)
{
    std::string names;
    std::string cases;
    for (const PageCommand& command : pages.commands) {
        names += command.name + " ";
        cases += "    " + command.name + ") options=\"" + optionWords(command) + "\" ;;\n";
    }
    return "# bash completion for mdch, made by mdch --completion bash\n"
           "\n"
           "# What compgen finds, a line each: names may hold blanks.\n"
           "_mdch_offer()\n"
           "{\n"
           "    case $1 in -f | -d) compopt -o filenames 2>/dev/null ;; esac\n"
           "    mapfile -t COMPREPLY < <(compgen \"$@\" -- \"${COMP_WORDS[COMP_CWORD]}\")\n"
           "}\n"
           "\n"
           "_mdch()\n"
           "{\n"
           "    local options\n"
           "    COMPREPLY=()\n"
           "    if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
           "        _mdch_offer -W \"" +
           names +
           "--help --version\"\n"
           "        return\n"
           "    fi\n"
           "    case ${COMP_WORDS[COMP_CWORD - 1]} in\n" +
           bashValues(pages) +
           "    esac\n"
           "    case ${COMP_WORDS[1]} in\n" +
           cases +
           "    *) return ;;\n"
           "    esac\n"
           "    case ${COMP_WORDS[COMP_CWORD]} in\n"
           "    -*) _mdch_offer -W \"$options\" ;;\n"
           "    *) _mdch_offer -f ;;\n"
           "    esac\n"
           "}\n"
           "\n"
           "complete -F _mdch mdch\n";
}

std::string zshCompletion(const Pages& pages)
{
    std::string names;
    std::string cases;
    for (const PageCommand& command : pages.commands) {
        names += "            " + shellQuoted(command.name + ":" + escapedFor(command.text, "\\")) + "\n";
        cases += "    " + command.name + ")\n        _arguments -S";
        for (const PageOption& option : command.options) {
            cases += zshOption(option);
        }
        const std::string argument = command.arguments.empty() ? "" : " \\\n            '*:argument:_files'";
        cases += argument + "\n        ;;\n";
    }
    return "#compdef mdch\n"
           "# zsh completion for mdch, made by mdch --completion zsh\n"
           "\n"
           "_mdch()\n"
           "{\n"
           "    if (( CURRENT == 2 )); then\n"
           "        local -a commands\n"
           "        commands=(\n" +
           names +
           "        )\n"
           "        _describe command commands\n"
           "        return\n"
           "    fi\n"
           "    local command=$words[2]\n"
           "    shift words\n"
           "    (( CURRENT-- ))\n"
           "    case $command in\n" +
           cases +
           "    esac\n"
           "}\n"
           "\n"
           "_mdch \"$@\"\n";
}

} // namespace mdch
