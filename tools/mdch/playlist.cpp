#include "command.h"
#include "failure.h"
#include "interrupt.h"
#include "stream_options.h"
#include "table.h"

#include "mdc_hlp_httpproxy.h"
#include "mdc_hlp_playlist.h"
#include "mdc_hlp_url.h"

#include <cerrno>
#include <iostream>
#include <list>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

namespace mdch {

namespace {

struct PlaylistOptions
{
    std::string locator;
    std::string userAgent = "mdch/" MDCH_VERSION;
    std::string proxyHost;
    std::int32_t proxyPort = 0;
    bool latin1 = false;
    bool json = false;
};

struct Playlist
{
    std::string name;
    std::list<md::PlaylistEntry> entries;
};

std::string tableOf(const Playlist& playlist)
{
    std::string text = playlist.name.empty() ? std::string() : printable(playlist.name) + "\n\n";
    Rows rows = {{"", "TIME", "ARTIST", "TITLE", "LOCATOR"}};
    for (const md::PlaylistEntry& entry : playlist.entries) {
        rows.push_back({std::to_string(rows.size()), printable(entry.playtime), printable(entry.artist),
                        printable(entry.title), printable(entry.locator)});
    }
    return text + tableText(rows);
}

std::string jsonOf(const Playlist& playlist)
{
    nlohmann::ordered_json page;
    page["name"] = playlist.name;
    page["entries"] = nlohmann::ordered_json::array();
    for (const md::PlaylistEntry& entry : playlist.entries) {
        page["entries"].push_back({{"locator", entry.locator},
                                   {"title", entry.title},
                                   {"artist", entry.artist},
                                   {"playtime", entry.playtime},
                                   {"thumb", entry.thumb}});
    }
    constexpr int kIndent = 2;
    // Bytes that are no UTF-8 become the replacement character: JSON knows nothing else.
    return page.dump(kIndent, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

int runPlaylist(const PlaylistOptions& options)
{
    const mdch_UrlInit_struct init = {options.userAgent.c_str()};
    mdch_UrlInit(&init);
    setProxy(options.proxyHost, options.proxyPort);
    Playlist playlist;
    const int result = md::scanPlaylist(options.locator, playlist.entries, playlist.name,
                                        options.latin1 ? md::kConversionLatin1ToUtf8 : md::kConversionNone);
    if (result != 0) {
        return report({"cannot read the playlist " + options.locator, "it cannot be opened",
                       "See with mdch info why", kExitNotFound});
    }
    if (playlist.entries.empty() && !options.json) {
        return report({"no items in " + options.locator, "it is empty or no M3U playlist",
                       "Look at it with mdch cat", kExitOther});
    }
    if (!(std::cout << (options.json ? jsonOf(playlist) : tableOf(playlist)) << std::flush)) {
        return report(localFailure("cannot write to standard output", errno));
    }
    return kExitOk;
}

} // namespace

Command addPlaylist(CLI::App& line)
{
    const auto options = std::make_shared<PlaylistOptions>();
    CLI::App* playlist = line.add_subcommand("playlist", "list the items of an M3U playlist");
    addCommonOptions(*playlist);
    playlist->add_option("LOCATOR", options->locator, "any address that info and cat take")
        ->option_text(" ")
        ->required();
    playlist->add_flag("--json", options->json, "as JSON");
    playlist->add_flag("--latin1", options->latin1, "titles and artists are ISO 8859-1 in the file");
    addUserAgentOption(*playlist, options->userAgent);
    addProxyOption(*playlist, options->proxyHost, options->proxyPort);
    addVolumeOption(*playlist);
    playlist->footer("Example:\n  mdch playlist nvl2://1234-ABCD/music/all.m3u --json\n");
    return {playlist, [options](Interrupt&) { return runPlaylist(*options); }};
}

} // namespace mdch
