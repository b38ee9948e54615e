#include "arguments.h"

#include "failure.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <iostream>
#include <map>

namespace mdch {

namespace {

constexpr const char* kHelp = R"(mdch - read media from files, web servers and internet radio

Usage:
  mdch info URL [options]             say what is there: length, type, what it can do
  mdch cat  URL [-o FILE] [options]   copy the bytes to standard output or to FILE

URL is http://..., https://..., file://... or a path.

Examples:
  mdch info http://radio.example/live --icy
  mdch cat https://media.example/film.ts --ca-path /etc/ssl/media -o film.ts
  mdch cat http://media.example/film.ts --offset -65536 -o end.ts

Options:
  -o, --output FILE             cat: write to FILE
      --offset BYTES            cat: start there; -N starts N bytes before the end
      --time SECONDS            cat: start at that play time (DLNA servers)
      --length BYTES            cat: stop after so many bytes
      --user-agent TEXT         User-Agent to send
      --header "NAME: VALUE"    one more request header line; may be repeated
      --cookie NAME=VALUE       cookies to send, joined by ";"
      --ca-path DIR             trust the certificates in DIR (PEM files) and no others
      --client-cert FILE        client certificate with its key: PEM, or PKCS#12 (*.p12)
      --key-password-file FILE  pass phrase of the client's key: the first line of FILE
      --proxy HOST:PORT         HTTP proxy
      --dlna-mode MODE          streaming, interactive or background
      --buffer-size BYTES       receive buffer, 98304 to 3211264
      --timeout SECONDS         longest wait for the response header and for data
      --icy                     ask a radio server for titles within the stream
  -v, -vv, -vvv, -vvvv          trace to standard error: fatal, failures, notices, every call
  -h, --help                    this text
      --version                 the version

)";

// The library's severities, one per -v.
constexpr std::array<unsigned int, 5> kSeverities = {0, 1000, 3000, 4000, 5000};

constexpr int kSmallestBuffer = 98304;
constexpr int kLargestBuffer = 3211264;
constexpr int kLongestTimeout = 86400;
constexpr int kHighestPort = 65535;
constexpr double kLatestSecond = 4294967; // in milliseconds still 32 bits

// What CLI11 fills in and is not yet in the form of Arguments.
struct Raw
{
    std::string proxy;
    std::string keyPasswordFile;
    std::string dlnaMode;
};

const std::map<std::string, std::int32_t> kDlnaModes = {
    {"streaming", 1}, {"interactive", 2}, {"background", 3}};

void addOptions(CLI::App& command, Arguments& arguments, Raw& raw)
{
    command.set_help_flag();
    command.add_flag_callback(
        "-h,--help", [] { throw CLI::CallForHelp(); }, "Help");
    command.add_option("URL", arguments.url)->required();
    command.add_option("--user-agent", arguments.userAgent);
    command.add_option("--header", arguments.headerLines)
        ->expected(1)
        ->take_all()
        ->check([](const std::string& line) {
            const bool whole = line.find(':') != std::string::npos && line.find(':') > 0 &&
                               line.find_first_of("\r\n") == std::string::npos;
            return whole ? std::string() : "\"" + line + "\" is no header line (NAME: VALUE)";
        });
    command.add_option("--cookie", arguments.cookie);
    command.add_option("--ca-path", arguments.caPath)->check(CLI::ExistingDirectory);
    command.add_option("--client-cert", arguments.clientCert)->check(CLI::ExistingFile);
    command.add_option("--key-password-file", raw.keyPasswordFile);
    command.add_option("--proxy", raw.proxy);
    command.add_option("--dlna-mode", raw.dlnaMode)->check([](const std::string& name) {
        const bool known = kDlnaModes.find(name) != kDlnaModes.end();
        return known ? std::string() : "\"" + name + "\" is not streaming, interactive or background";
    });
    command.add_option("--buffer-size", arguments.bufferSize)
        ->check(CLI::Range(kSmallestBuffer, kLargestBuffer));
    command.add_option("--timeout", arguments.timeout)->check(CLI::Range(1, kLongestTimeout));
    command.add_flag("--icy", arguments.icy);
    command.add_flag_function("-v", [&arguments](std::int64_t count) {
        const auto most = static_cast<std::int64_t>(kSeverities.size() - 1);
        arguments.traceSeverity =
            kSeverities[static_cast<std::size_t>(std::clamp<std::int64_t>(count, 0, most))];
    });
}

void addCatOptions(CLI::App& cat, Arguments& arguments)
{
    cat.add_option("-o,--output", arguments.output);
    CLI::Option* offset = cat.add_option("--offset", arguments.offset);
    cat.add_option_function<double>("--time",
                                    [&arguments](double seconds) {
                                        constexpr double kMsPerSecond = 1000;
                                        arguments.timeMs = std::llround(seconds * kMsPerSecond);
                                    })
        ->check(CLI::Range(0.0, kLatestSecond))
        ->excludes(offset);
    cat.add_option("--length", arguments.length)->check(CLI::NonNegativeNumber);
}

// "host:port"; an IPv6 address stands in brackets, which stay.
bool splitProxy(const std::string& text, Arguments& arguments)
{
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || text.find("//") != std::string::npos) {
        return false;
    }
    const std::string port = text.substr(colon + 1);
    constexpr std::size_t kMostDigits = 5;
    if (port.empty() || port.size() > kMostDigits ||
        port.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    arguments.proxyHost = text.substr(0, colon);
    arguments.proxyPort = std::stoi(port);
    return arguments.proxyPort > 0 && arguments.proxyPort <= kHighestPort;
}

int usageError(std::string text)
{
    // Some of CLI11's messages have several lines.
    std::replace(text.begin(), text.end(), '\n', ' ');
    text.erase(text.find_last_not_of(" .") + 1);
    std::cerr << "mdch: " << text << ". Try mdch --help.\n";
    return kExitUsage;
}

} // namespace

bool parseArguments(int argc, char** argv, Arguments& arguments, int& status)
{
    Raw raw;
    CLI::App app;
    app.set_help_flag();
    app.add_flag_callback(
        "-h,--help", [] { throw CLI::CallForHelp(); }, "Help");
    app.add_flag_callback(
        "--version", [] { throw CLI::CallForVersion(); }, "Version");
    CLI::App* info = app.add_subcommand("info");
    CLI::App* cat = app.add_subcommand("cat");
    addOptions(*info, arguments, raw);
    addOptions(*cat, arguments, raw);
    addCatOptions(*cat, arguments);
    app.require_subcommand(1);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::cout << kHelp << exitStatusHelp();
        status = kExitOk;
        return false;
    } catch (const CLI::CallForVersion&) {
        std::cout << "mdch " MDCH_VERSION "\n";
        status = kExitOk;
        return false;
    } catch (const CLI::ParseError& error) {
        const bool noCommand = !info->parsed() && !cat->parsed();
        status = usageError(noCommand && argc < 2 ? "a command is missing: info or cat"
                            : noCommand && *argv[1] != '-'
                                ? "\"" + std::string(argv[1]) + "\" is no command: info or cat"
                                : error.what());
        return false;
    }
    arguments.command = cat->parsed() ? Arguments::Command::kCat : Arguments::Command::kInfo;
    if (arguments.url.empty()) {
        status = usageError("the URL is empty");
        return false;
    }
    if (!raw.proxy.empty() && !splitProxy(raw.proxy, arguments)) {
        status = usageError("--proxy: \"" + raw.proxy + "\" is not HOST:PORT");
        return false;
    }
    if (!raw.dlnaMode.empty()) {
        arguments.dlnaMode = kDlnaModes.at(raw.dlnaMode);
    }
    if (!raw.keyPasswordFile.empty()) {
        std::ifstream file(raw.keyPasswordFile);
        if (!file || !std::getline(file, arguments.keyPassword)) {
            status = report(localFailure("cannot read " + raw.keyPasswordFile, errno));
            return false;
        }
    }
    return true;
}

} // namespace mdch
