#include "command.h"
#include "failure.h"
#include "interrupt.h"
#include "stream_options.h"

#include "mdc_hlp_url_encode.h"
#include "mdc_hlp_url_patch.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace mdch {

namespace {

using Transform = std::string (*)(const std::string&);

std::string encode(const std::string& text)
{
    return md::urlEncode(text);
}

std::string decode(const std::string& text)
{
    return md::urlDecode(text);
}

std::string repair(const std::string& text)
{
    return md::urlPatch(text);
}

// The texts, or the lines of standard input when there are none: a line of output for each.
int runText(Transform transform, const std::vector<std::string>& texts)
{
    for (const std::string& text : texts) {
        std::cout << transform(text) << '\n';
    }
    for (std::string line; texts.empty() && std::cout && std::getline(std::cin, line);) {
        std::cout << transform(line) << '\n';
    }
    if (!(std::cout << std::flush)) {
        return report(localFailure("cannot write to standard output", errno));
    }
    return kExitOk;
}

Command addText(CLI::App& line, const char* name, const char* summary, const char* example,
                Transform transform)
{
    const auto texts = std::make_shared<std::vector<std::string>>();
    CLI::App* command = line.add_subcommand(name, summary);
    addCommonOptions(*command);
    command->add_option("TEXT", *texts, "one or more; without any, the lines of standard input")
        ->option_text(" ");
    command->footer(std::string("Example:\n  ") + example + "\n");
    return {command, [texts, transform](Interrupt&) { return runText(transform, *texts); }};
}

} // namespace

Command addEncode(CLI::App& line)
{
    return addText(line, "encode", "percent-encode a URL", "mdch encode \"http://host/a song.mp3\"", encode);
}

Command addDecode(CLI::App& line)
{
    return addText(line, "decode", "turn percent-escapes back into bytes",
                   "mdch decode http://host/a%20song.mp3", decode);
}

Command addRepair(CLI::App& line)
{
    return addText(line, "repair", "make a URL of unknown character set one that can be sent",
                   "mdch repair \"http://host/Jos\xc3\xa9's song.mp3\"", repair);
}

} // namespace mdch
