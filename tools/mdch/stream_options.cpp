#include "stream_options.h"

#include "trace.h"

#include "mdc_hlp_httpproxy.h"
#include "nvol2.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>
#include <map>

namespace mdch {

namespace {

constexpr int kSmallestBuffer = 98304;
constexpr int kLargestBuffer = 3211264;
constexpr int kLongestTimeout = 86400;
constexpr int kMostRedirects = 1000;
constexpr int kHighestPort = 65535;

const std::map<std::string, std::int32_t> kDlnaModes = {
    {"streaming", 1}, {"interactive", 2}, {"background", 3}};

constexpr const char* kStreamGroup = "Web servers";
constexpr const char* kVolumeGroup = "Media volumes";

std::string checkHeaderLine(const std::string& line)
{
    const std::size_t colon = line.find(':');
    const bool isWhole =
        colon != std::string::npos && colon > 0 && line.find_first_of("\r\n") == std::string::npos;
    return isWhole ? std::string() : "\"" + line + "\" is no header line (NAME: VALUE)";
}

std::string checkDlnaMode(const std::string& name)
{
    const bool isKnown = kDlnaModes.find(name) != kDlnaModes.end();
    return isKnown ? std::string() : "\"" + name + "\" is not streaming, interactive or background";
}

// "host:port"; an IPv6 address stands in brackets, which stay.
bool splitProxy(const std::string& text, std::string& host, std::int32_t& port)
{
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || text.find("//") != std::string::npos) {
        return false;
    }
    const std::string digits = text.substr(colon + 1);
    constexpr std::size_t kMostDigits = 5;
    if (digits.empty() || digits.size() > kMostDigits ||
        digits.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    host = text.substr(0, colon);
    port = std::stoi(digits);
    return port > 0 && port <= kHighestPort;
}

// Registers "uuid=directory".
void addVolume(const std::string& text)
{
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) {
        throw CLI::ValidationError("--volume", "\"" + text + "\" is not UUID=DIR");
    }
    std::string path = text.substr(equals + 1);
    if (!path.empty() && path.back() != '/') {
        path += '/';
    }
    const int result = nvol2VolumeAdd(text.substr(0, equals).c_str(), path.c_str());
    if (result < 0) {
        throw CLI::ValidationError("--volume", "\"" + text + "\": " + std::strerror(-result));
    }
}

void addTimeoutOptions(CLI::App& command, StreamOptions& options)
{
    const CLI::Range range(1, kLongestTimeout);
    command.add_option("--timeout", options.timeout, "longest wait for the response header and for data")
        ->option_text("SECONDS")
        ->check(range);
    command.add_option("--header-timeout", options.headerTimeout, "longest wait for the response header")
        ->option_text("SECONDS")
        ->check(range);
    command.add_option("--data-timeout", options.dataTimeout, "longest wait for data")
        ->option_text("SECONDS")
        ->check(range);
}

void addRequestOptions(CLI::App& command, StreamOptions& options)
{
    addUserAgentOption(command, options.userAgent);
    command.add_option("--header", options.headerLines, "one more request header line; may be repeated")
        ->option_text("\"NAME: VALUE\"")
        ->expected(1)
        ->take_all()
        ->check(checkHeaderLine)
        ->group(kStreamGroup);
    command.add_option("--cookie", options.cookie, "cookies to send, joined by \";\"")
        ->option_text("NAME=VALUE")
        ->group(kStreamGroup);
    command.add_flag("--icy", options.icy, "ask a radio server for titles within the stream")
        ->group(kStreamGroup);
    command.add_flag("--force-range", options.forceRange, "send a Range line even from the first byte")
        ->group(kStreamGroup);
    CLI::Option* most =
        command.add_option("--max-redirects", options.maxRedirects, "follow so many redirects at most")
            ->option_text("COUNT")
            ->check(CLI::Range(0, kMostRedirects))
            ->group(kStreamGroup);
    command
        .add_flag_callback(
            "--no-redirects", [&options] { options.followRedirects = false; }, "follow no redirect")
        ->excludes(most)
        ->group(kStreamGroup);
}

void addCertificateOptions(CLI::App& command, StreamOptions& options)
{
    command
        .add_option("--ca-path", options.caPath, "trust the certificates in DIR (PEM files) and no others")
        ->option_text("DIR")
        ->check(CLI::ExistingDirectory)
        ->group(kStreamGroup);
    CLI::Option* certificate = command
                                   .add_option("--client-cert", options.clientCert,
                                               "client certificate with its key: PEM, or PKCS#12 (*.p12)")
                                   ->option_text("FILE")
                                   ->check(CLI::ExistingFile)
                                   ->group(kStreamGroup);
    CLI::Option* file = command
                            .add_option("--key-password-file", options.keyPasswordFile,
                                        "pass phrase of the client's key: the first line of FILE")
                            ->option_text("FILE")
                            ->group(kStreamGroup);
    command
        .add_flag("--key-password-prompt", options.keyPasswordPrompt,
                  "ask for the pass phrase at the terminal, unseen")
        ->needs(certificate)
        ->excludes(file)
        ->group(kStreamGroup);
}

void addTransferOptions(CLI::App& command, StreamOptions& options)
{
    command
        .add_option_function<std::string>(
            "--dlna-mode", [&options](const std::string& name) { options.dlnaMode = kDlnaModes.at(name); },
            "transfer mode: streaming, interactive or background")
        ->option_text("MODE")
        ->check(checkDlnaMode)
        ->group(kStreamGroup);
    command.add_option("--buffer-size", options.bufferSize, "receive buffer, 98304 to 3211264")
        ->option_text("BYTES")
        ->check(CLI::Range(kSmallestBuffer, kLargestBuffer))
        ->group(kStreamGroup);
    command
        .add_flag("--pause-buffering", options.pauseBuffering, "go on receiving while the stream is paused")
        ->group(kStreamGroup);
}

} // namespace

std::int32_t headerSeconds(const StreamOptions& options)
{
    return options.headerTimeout != 0 ? options.headerTimeout : options.timeout;
}

std::int32_t dataSeconds(const StreamOptions& options)
{
    return options.dataTimeout != 0 ? options.dataTimeout : options.timeout;
}

void addCommonOptions(CLI::App& command)
{
    command.set_help_flag("-h,--help", "this text");
    command.add_flag_function("-v", showTraces,
                              "trace to standard error: fatal; -vv failures, -vvv notices, -vvvv every call");
}

void addUserAgentOption(CLI::App& command, std::string& userAgent)
{
    command.add_option("--user-agent", userAgent, "User-Agent to send")
        ->option_text("TEXT")
        ->group(kStreamGroup);
}

void addProxyOption(CLI::App& command, std::string& host, std::int32_t& port)
{
    command
        .add_option_function<std::string>(
            "--proxy",
            [&host, &port](const std::string& text) {
                if (!splitProxy(text, host, port)) {
                    throw CLI::ValidationError("--proxy", "\"" + text + "\" is not HOST:PORT");
                }
            },
            "HTTP proxy")
        ->option_text("HOST:PORT")
        ->group(kStreamGroup);
}

void setProxy(const std::string& host, std::int32_t port)
{
    md::httpProxyInfo_struct info;
    info.host = host;
    info.port = port;
    md::setHttpProxyInfo(info, !host.empty(), false);
}

void addVolumeOption(CLI::App& command)
{
    command
        .add_option_function<std::vector<std::string>>(
            "--volume",
            [](const std::vector<std::string>& texts) {
                std::for_each(texts.begin(), texts.end(), addVolume);
            },
            "take DIR for the media volume UUID; may be repeated")
        ->option_text("UUID=DIR")
        ->expected(1)
        ->take_all()
        ->group(kVolumeGroup);
}

void addStreamOptions(CLI::App& command, StreamOptions& options)
{
    addCommonOptions(command);
    command
        .add_option("URL", options.url,
                    "http://..., https://..., udp://ADDRESS:PORT, nvl2://UUID/PATH, file://... or a path")
        ->option_text(" ")
        ->required()
        ->check([](const std::string& url) { return url.empty() ? "it is empty" : std::string(); });
    addTimeoutOptions(command, options);
    addRequestOptions(command, options);
    addCertificateOptions(command, options);
    addProxyOption(command, options.proxyHost, options.proxyPort);
    addTransferOptions(command, options);
    addVolumeOption(command);
    command.add_flag("--native", options.native, "open a file on a volume by its native path")
        ->group(kVolumeGroup);
}

} // namespace mdch
