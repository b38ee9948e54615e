#include "command.h"
#include "failure.h"
#include "interrupt.h"
#include "stream_options.h"

#include "mdc_hlp_url_nvol2.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <iostream>
#include <memory>
#include <strings.h>

namespace mdch {

namespace {

Failure noPath(const std::string& url)
{
    const std::string what = "cannot translate " + url;
    constexpr const char* kScheme = "nvl2://";
    constexpr std::size_t kLength = 7;
    if (strncasecmp(url.c_str(), kScheme, kLength) != 0) {
        return {what, "it is not on a media volume", "Such addresses are nvl2://UUID/PATH", kExitUsage};
    }
    return noVolumeFailure(what);
}

int runNative(const std::string& url)
{
    std::string path;
    if (!md::nvol2UrlToNative(url, path)) {
        return report(noPath(url));
    }
    if (!(std::cout << path << '\n' << std::flush)) {
        return report(localFailure("cannot write to standard output", errno));
    }
    return kExitOk;
}

} // namespace

Command addNative(CLI::App& line)
{
    const auto url = std::make_shared<std::string>();
    CLI::App* native = line.add_subcommand("native", "print the native path of a file on a media volume");
    addCommonOptions(*native);
    native->add_option("URL", *url, "nvl2://UUID/PATH")->option_text(" ")->required();
    addVolumeOption(*native);
    native->footer("Example:\n  mdch native nvl2://1234-ABCD/music/song.mp3\n");
    return {native, [url](Interrupt&) { return runNative(*url); }};
}

} // namespace mdch
