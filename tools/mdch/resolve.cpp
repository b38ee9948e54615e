#include "command.h"
#include "failure.h"
#include "interrupt.h"
#include "stream_options.h"

#include "mdc_hlp_httpproxy.h"
#include "mdc_hlp_redirect.h"
#include "mdc_hlp_url.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <deque>
#include <iostream>
#include <memory>
#include <string>

namespace mdch {

namespace {

constexpr int kMostSteps = 8;

struct ResolveOptions
{
    std::string url;
    std::string userAgent = "mdch/" MDCH_VERSION;
    std::string proxyHost;
    std::int32_t proxyPort = 0;
    bool all = false;
};

Failure resolveFailure(const std::string& url, int result)
{
    const std::string what = "cannot resolve " + url;
    if (result == -1) {
        return {what, "the server redirects without saying where to", "Ask its owner", kExitServer};
    }
    return {what, "it cannot be fetched", "See with mdch info why", kExitNetwork};
}

// The URLs on the way from the address to the stream, both included. Fails, or ends with one that stays as it is.
bool follow(const ResolveOptions& options, std::deque<std::string>& steps, Failure& failure)
{
    steps.push_back(options.url);
    for (int count = 0; count < kMostSteps; ++count) {
        const std::string url = steps.back();
        const int result = md::streamNeedRedirect(url, steps);
        if (result < 0) {
            failure = resolveFailure(url, result);
            return false;
        }
        if (result == 0 || steps.back() == url) {
            return true;
        }
    }
    failure = {"cannot resolve " + options.url, "it leads from one playlist to the next",
               "Look at them with mdch cat", kExitOther};
    return false;
}

int runResolve(const ResolveOptions& options)
{
    const mdch_UrlInit_struct init = {options.userAgent.c_str()};
    mdch_UrlInit(&init);
    setProxy(options.proxyHost, options.proxyPort);
    std::deque<std::string> steps;
    Failure failure;
    const bool isResolved = follow(options, steps, failure);
    if (options.all) {
        for (const std::string& step : steps) {
            std::cout << printable(step) << '\n';
        }
    } else if (isResolved) {
        std::cout << printable(steps.back()) << '\n';
    }
    if (!(std::cout << std::flush)) {
        return report(localFailure("cannot write to standard output", errno));
    }
    return isResolved ? kExitOk : report(failure);
}

} // namespace

Command addResolve(CLI::App& line)
{
    const auto options = std::make_shared<ResolveOptions>();
    CLI::App* resolve = line.add_subcommand("resolve", "find the stream behind a station's address");
    addCommonOptions(*resolve);
    resolve->add_option("URL", options->url, "http://... or https://...; others are printed as they are")
        ->option_text(" ")
        ->required();
    resolve->add_flag("--all", options->all, "print every address on the way, too");
    addUserAgentOption(*resolve, options->userAgent);
    addProxyOption(*resolve, options->proxyHost, options->proxyPort);
    resolve->footer("Example:\n  mdch resolve http://radio.example/listen.m3u\n");
    return {resolve, [options](Interrupt&) { return runResolve(*options); }};
}

} // namespace mdch
