#include "command.h"
#include "failure.h"
#include "interrupt.h"
#include "open.h"

#include "mdc_hlp_http_access.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>

namespace mdch {

namespace {

std::string capabilityWords(unsigned int capabilities)
{
    std::string words;
    const auto add = [&words](const char* word) {
        if (!words.empty()) {
            words += ", ";
        }
        words += word;
    };
    if ((capabilities & MDCH_CAPABILITY_BYTE_SEEK) != 0) {
        add("byte seek");
    }
    if ((capabilities & MDCH_CAPABILITY_TIME_SEEK) != 0) {
        add("time seek");
    }
    if ((capabilities & MDCH_CAPABILITY_STALLING) != 0) {
        add("stalling");
    }
    return words.empty() ? "none" : words;
}

class Table
{
public:
    void add(const char* name, const std::string& value)
    {
        constexpr int kColumn = 14;
        m_text << std::left << std::setw(kColumn) << name << printable(value) << '\n';
    }
    void addHeading(const char* name) { m_text << name << '\n'; }
    void addIndented(const std::string& line) { m_text << "  " << printable(line) << '\n'; }
    std::string text() const { return m_text.str(); }

private:
    std::ostringstream m_text;
};

int runInfo(StreamOptions& options, Interrupt& interrupt)
{
    Source source;
    Failure failure;
    if (!openSource(options, interrupt, source, failure)) {
        return interrupt.requested() ? interrupt.report() : report(failure);
    }
    const std::deque<std::string> lines = headerLines(source);
    const long long length = source.stream->size();

    Table table;
    table.add("URL", options.url);
    table.add("Back-end", source.backEnd());
    if (source.http != nullptr) {
        table.add("Status", std::to_string(source.http->getResponseCode()));
        const std::string type = headerValue(lines, "content-type");
        table.add("Content type", type.empty() ? "not told" : type);
    }
    table.add("Length", length >= 0 ? std::to_string(length) + " bytes" : "unknown");
    table.add("Seekable", source.stream->isSeekable() != 0 ? "yes" : "no");
    table.add("Capabilities", capabilityWords(source.stream->capability()));
    if (source.icyInterval > 0) {
        table.add("ICY interval", std::to_string(source.icyInterval) + " bytes");
    }
    if (!lines.empty()) {
        table.addHeading("Response");
        for (const std::string& line : lines) {
            table.addIndented(line);
        }
    }
    if (!(std::cout << table.text() << std::flush)) {
        return report(localFailure("cannot write to standard output", errno));
    }
    return kExitOk;
}

} // namespace

Command addInfo(CLI::App& line)
{
    const auto options = std::make_shared<StreamOptions>();
    CLI::App* info = line.add_subcommand("info", "say what is there: length, type, what it can do");
    addStreamOptions(*info, *options);
    info->footer("Example:\n  mdch info http://radio.example/live --icy\n");
    return {info, [options](Interrupt& interrupt) { return runInfo(*options, interrupt); }};
}

} // namespace mdch
