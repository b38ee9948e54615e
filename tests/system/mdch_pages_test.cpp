// The shells' completions and the manual page, which are made from the tables of options: they name what the help
// names, and the programs that read them are content.
#include "support_mdch.h"
#include "support_terminal.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using support::mdch;
using support::Result;
using support::runToEnd;
using support::Terminal;
using testing::HasSubstr;

// Names of options as the help of a command shows them.
std::set<std::string> optionsInHelp(const std::string& command)
{
    std::set<std::string> names;
    std::istringstream lines(mdch({command, "--help"}).out);
    const std::regex form("^  ((-[a-z])(,(--[a-z0-9-]+))?|--[a-z0-9-]+)( .*|$)");
    for (std::string line; std::getline(lines, line);) {
        std::smatch parts;
        if (std::regex_match(line, parts, form)) {
            std::istringstream list(parts[1]);
            for (std::string name; std::getline(list, name, ',');) {
                names.insert(name);
            }
        }
    }
    return names;
}

class MdchPages : public testing::Test
{
protected:
    // What bash offers for the last of these words, in the test's folder.
    std::set<std::string> bashOffers(const std::vector<std::string>& words) const
    {
        std::string list;
        for (const std::string& word : words) {
            list += " '" + word + "'";
        }
        const Result result =
            runToEnd({"bash", "-c",
                      "cd " + m_folder.path() + "; . " + m_bash + "; COMP_WORDS=(" + list +
                          "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); $(complete -p mdch | sed 's/.*-F "
                          "\\([^ ]*\\).*/\\1/'); printf '%s\\n' \"${COMPREPLY[@]}\""});
        EXPECT_EQ(result.err, "");
        std::set<std::string> offers;
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);) {
            offers.insert(line);
        }
        return offers;
    }

    support::TempDir m_folder;
    const std::string m_bash = m_folder.write("bash-completion", mdch({"--completion", "bash"}).out);
};

TEST_F(MdchPages, BashIsContentWithItsCompletion)
{
    const Result result = runToEnd({"bash", "-n", m_bash});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
}

TEST_F(MdchPages, BashCompletesCommands)
{
    std::set<std::string> names{"--help", "--version"};
    for (const std::string& name : support::mdchCommands()) {
        names.insert(name);
    }
    EXPECT_EQ(bashOffers({"mdch", ""}), names);
    EXPECT_EQ(bashOffers({"mdch", "wat"}), std::set<std::string>{"watch"});
}

TEST_F(MdchPages, BashCompletesEveryOptionOfTheHelp)
{
    for (const std::string& command : support::mdchCommands()) {
        const std::set<std::string> options = optionsInHelp(command);
        EXPECT_GE(options.size(), 3U) << command;
        EXPECT_EQ(bashOffers({"mdch", command, "-"}), options) << command;
    }
    EXPECT_EQ(bashOffers({"mdch", "cat", "--ic"}), std::set<std::string>{"--icy"});
}

TEST_F(MdchPages, BashCompletesValues)
{
    m_folder.write("a song.mp3", "");
    ASSERT_EQ(runToEnd({"mkdir", m_folder.file("a folder")}).status, 0);
    using Offers = std::set<std::string>;
    EXPECT_EQ(bashOffers({"mdch", "cat", "a "}), (Offers{"a song.mp3", "a folder"}));
    EXPECT_EQ(bashOffers({"mdch", "cat", "-o", "a s"}), Offers{"a song.mp3"});
    EXPECT_EQ(bashOffers({"mdch", "cat", "--ca-path", "a "}), Offers{"a folder"});
    EXPECT_EQ(bashOffers({"mdch", "cat", "--dlna-mode", ""}),
              (Offers{"streaming", "interactive", "background"}));
    EXPECT_EQ(bashOffers({"mdch", "cat", "--timeout", ""}), Offers{""});
}

// As a user has it: a shell at a terminal, and the tabulator key.
TEST_F(MdchPages, BashCompletesAtATerminal)
{
    Terminal terminal;
    support::ProcessOptions options;
    options.terminalFd = terminal.fd();
    options.standardOutput = terminal.path();
    options.setting = {"TERM=xterm", "PS1=ready "};
    support::Process shell({"bash", "--norc", "--noprofile", "-i"}, options);
    ASSERT_TRUE(terminal.waitFor("ready "));
    terminal.type(". " + m_bash + "; echo loa''ded\n");
    ASSERT_TRUE(terminal.waitFor("loaded"));
    terminal.type("mdch wat\t--dur\t");
    EXPECT_TRUE(terminal.waitFor("mdch watch --duration ")) << terminal.shown();
}

TEST_F(MdchPages, ZshCompletesAtATerminal)
{
    ASSERT_EQ(runToEnd({"mkdir", m_folder.file("functions")}).status, 0);
    const std::string file = m_folder.write("functions/_mdch", mdch({"--completion", "zsh"}).out);
    const Result checked = runToEnd({"zsh", "-n", file});
    EXPECT_EQ(checked.status, 0);
    EXPECT_EQ(checked.err, "");

    Terminal terminal;
    support::ProcessOptions options;
    options.terminalFd = terminal.fd();
    options.standardOutput = terminal.path();
    options.setting = {"TERM=dumb"};
    support::Process shell({"zsh", "-f", "-i"}, options);
    terminal.type("PS1='ready '; fpath=(" + m_folder.file("functions") +
                  " $fpath); autoload -Uz compinit; compinit -u -d " + m_folder.file("dump") +
                  "; echo loa''ded\n");
    ASSERT_TRUE(terminal.waitFor("loaded")) << terminal.shown();
    terminal.type("mdch wat\t--dur\t5 --dlna-mode int\t");
    EXPECT_TRUE(terminal.waitFor("5 --dlna-mode interactive")) << terminal.shown();
    EXPECT_THAT(terminal.shown(), HasSubstr("mdch watch "));
    EXPECT_THAT(terminal.shown(), HasSubstr(" --duration "));
}

TEST_F(MdchPages, TheManualPageNamesEveryCommandAndOption)
{
    const std::string page = m_folder.write("mdch.1", mdch({"--man"}).out);
    const Result checked = runToEnd({"groff", "-man", "-ww", "-z", "-Tutf8", page});
    EXPECT_EQ(checked.status, 0);
    EXPECT_EQ(checked.out + checked.err, "");
    const std::string text = runToEnd({"groff", "-man", "-Tascii", "-P-cbou", "-rLL=200n", page}).out;
    for (const char* heading : {"NAME", "SYNOPSIS", "COMMANDS", "EXAMPLES", "EXIT STATUS"}) {
        EXPECT_THAT(text, HasSubstr(std::string("\n") + heading + "\n"));
    }
    EXPECT_THAT(text, HasSubstr("130  interrupted (Ctrl-C)"));
    for (const std::string& command : support::mdchCommands()) {
        const std::size_t begin = text.find("\nCOMMAND " + command + "\n");
        ASSERT_NE(begin, std::string::npos) << command;
        const std::string section = text.substr(begin, text.find("\nCOMMAND ", begin + 1) - begin);
        EXPECT_THAT(section, HasSubstr("   mdch " + command));
        for (const std::string& option : optionsInHelp(command)) {
            EXPECT_THAT(section, HasSubstr(option)) << command;
        }
    }
}

TEST_F(MdchPages, AreBuiltToBeInstalled)
{
    const std::string folder = PAGES_FOLDER;
    EXPECT_EQ(support::readFile(folder + "/mdch"), mdch({"--completion", "bash"}).out);
    EXPECT_EQ(support::readFile(folder + "/_mdch"), mdch({"--completion", "zsh"}).out);
    EXPECT_EQ(support::readFile(folder + "/mdch.1"), mdch({"--man"}).out);
    EXPECT_EQ(mdch({"--completion", "fish"}).status, 1);
    EXPECT_EQ(mdch({"--completion"}).status, 1);
}

} // namespace
