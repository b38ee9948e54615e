#include "command.h"
#include "failure.h"
#include "interrupt.h"
#include "open.h"
#include "table.h"

#include "mdc_hlp_playlist.h"
#include "mdc_hlp_url_base.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <list>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace mdch {

namespace {

// As many bytes, and for as long, as md::scanPlaylist reads, which takes no options for the stream.
constexpr std::size_t kMostBytes = 50000;
constexpr std::chrono::seconds kPatience(60);

struct PlaylistOptions : StreamOptions
{
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

// True, or false with the failure.
bool readText(PlaylistOptions& options, Interrupt& interrupt, std::vector<unsigned char>& text,
              Failure& failure)
{
    Source source;
    if (!openSource(options, interrupt, source, failure)) {
        return false;
    }
    interrupt.setAction([stream = source.stream] { stream->close(); });
    text.resize(kMostBytes);
    std::size_t count = 0;
    const auto end = std::chrono::steady_clock::now() + kPatience;
    int got = 1;
    while (got > 0 && count < text.size() && std::chrono::steady_clock::now() < end) {
        errno = 0;
        got = source.stream->read(text.data() + count, static_cast<unsigned int>(text.size() - count));
        count += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    const int savedErrno = errno;
    const int code = got > 0 ? 0 : source.stream->error();
    interrupt.setAction(nullptr);
    text.resize(count);
    if (got < 0 || code != 0) {
        failure = failureOf(
            source, "cannot read " + options.url + " after " + bytesOf(static_cast<std::int64_t>(count), -1),
            code, savedErrno);
        return false;
    }
    return !interrupt.requested();
}

int runPlaylist(PlaylistOptions& options, Interrupt& interrupt)
{
    std::vector<unsigned char> text;
    Failure failure;
    if (!readText(options, interrupt, text, failure)) {
        return interrupt.requested() ? interrupt.report() : report(failure);
    }
    Playlist playlist;
    parseM3uBufferToPlaylist(options.url, text,
                             options.latin1 ? md::kConversionLatin1ToUtf8 : md::kConversionNone,
                             playlist.entries, playlist.name);
    if (playlist.entries.empty() && !options.json) {
        return report({"no items in " + options.url, "it is empty or no M3U playlist",
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
    addStreamOptions(*playlist, *options);
    playlist->add_flag("--json", options->json, "as JSON");
    playlist->add_flag("--latin1", options->latin1, "titles and artists are ISO 8859-1 in the file");
    playlist->footer("Example:\n  mdch playlist nvl2://1234-ABCD/music/all.m3u --json\n");
    return {playlist, [options](Interrupt& interrupt) { return runPlaylist(*options, interrupt); }};
}

} // namespace mdch
