// Stations with titles, lists, and station addresses that lead to a list.
#include "activity.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_icy.h"
#include "mdc_hlp_playlist.h"
#include "mdc_hlp_redirect.h"
#include "mdc_hlp_url_base.h"

#include <deque>
#include <list>

using support::Media;

namespace {

class Radio : public Activity
{
public:
    Radio(const Site& site, Ledger& ledger, std::uint32_t seed) : Activity("radio", site, ledger, seed)
    {
        fault("seek refused", [this](Fault& caused) {
            caused.must("seek(): seek not allowed in stream (fd: #)");
            caused.may("mdchHttpCurl_fillBuffer(): already done with error on fd #: 29");
            const boost::shared_ptr<MdchUrlBase> stream = tune();
            demandEqual(stream->seek(100, SEEK_SET), -29, "seek"); // error() forgets it with the next bytes
            stream->close();
        });
    }

private:
    std::uint64_t bitRate() const override { return 128'000; }

    boost::shared_ptr<MdchUrlBase> tune()
    {
        mdch_UrlExtended_struct options{};
        options.flags = MDCH_URL_ICY_METADATA;
        boost::shared_ptr<MdchUrlBase> stream;
        demandEqual(mdch_OpenUrl((m_site.http + "/radio").c_str(), MDCH_MODE_READ, &options, stream), 0,
                    "open");
        opened();
        demandEqual(options.icyMetaInt, Site::kInterval, "interval");
        return stream;
    }

    void round() override
    {
        const boost::shared_ptr<MdchUrlBase> stream = tune();
        md::IcyReader radio(stream, Site::kInterval);
        const Media sound(Site::kSoundSeed);
        long long titles = 0;
        std::uint64_t position = 0;
        const std::uint64_t enough = below(2 * Site::kTitles) * Site::kInterval; // often to the end
        while (position < enough) {
            const int count = radio.read(buffer(), static_cast<unsigned int>(1 + below(30'000)));
            check(sound, position, buffer(), count);
            position += static_cast<std::uint64_t>(count);
            for (const md::IcyTitle& change : radio.takeChanges()) {
                demandEqual(change.position, (titles + 1) * Site::kInterval, "place of a title");
                demand(change.title == "Title " + std::to_string(titles), "title '" + change.title + "'");
                ++titles;
            }
            if (count == 0) {
                demandEqual(position, static_cast<std::uint64_t>(Site::kTitles) * Site::kInterval, "length");
                demandEqual(stream->eof(), 1, "eof");
                break;
            }
            if (below(8) == 0) {
                demandEqual(stream->pause(), 0, "pause");
                demandEqual(stream->resume(), 0, "resume");
            }
        }
        demandEqual(stream->error(), 0, "error");
    }
};

class Lists : public Activity
{
public:
    Lists(const Site& site, Ledger& ledger, std::uint32_t seed) : Activity("list", site, ledger, seed)
    {
        fault("no list", [this](Fault& caused) {
            expectStatus(caused, 403);
            caused.says("mdc_hlp_url_base.cpp:#:mdch_OpenUrl(): error after open: 2");
            caused.says("mdc_hlp_playlist.cpp:#:scanPlaylist(): Unable to open \"" + m_site.http +
                        "/status/403\".");
            std::list<md::PlaylistEntry> entries;
            std::string text;
            demand(md::scanPlaylist(m_site.http + "/status/403", entries, text, md::kConversionNone) < 0,
                   "a list that is not there");
            demand(entries.empty(), "entries of a list that is not there");
            opened();
        });
        fault("no station", [this](Fault& caused) {
            expectStatus(caused, 405);
            caused.says("streamNeedRedirect() error=7 Couldn't connect to server");
            std::deque<std::string> found;
            demandEqual(md::streamNeedRedirect(m_site.http + "/status/405", found), -7, "result");
            opened();
        });
        fault("address in Latin-1", [this](Fault& caused) {
            const std::size_t place = (m_site.http + "/radio?").size();
            caused.says("urlPatch(): error: " + std::to_string(place) + ": E9 is assumed to be ISO 8859-1!");
            std::deque<std::string> found;
            demandEqual(md::streamNeedRedirect(m_site.http + "/radio?\xe9", found), 1, "result");
            demand(found.front() == m_site.http + "/radio?%C3%A9", found.front());
            opened();
        });
    }

private:
    static void expectStatus(Fault& caused, int status)
    {
        caused.must("mdchHttpCurl_headerCallback(): got error " + std::to_string(status) + " on fd #");
        caused.may("mdchHttpCurl_fillBuffer(): already done with error on fd #: 2");
    }

    void round() override
    {
        std::list<md::PlaylistEntry> entries;
        std::string text;
        demandEqual(md::scanPlaylist(m_site.http + "/list.m3u", entries, text, md::kConversionLatin1ToUtf8),
                    0, "scanPlaylist");
        opened();
        demandEqual(entries.size(), 2U, "entries");
        demand(entries.front().locator == m_site.http + "/film/1000" && entries.front().artist == "Artist" &&
                   entries.front().title == "Song" && entries.back().title == "News",
               "an entry is wrong");
        for (const char* station : {"/station.m3u", "/station.asx", "/radio"}) {
            std::deque<std::string> found;
            const int result = md::streamNeedRedirect(m_site.http + station, found);
            opened();
            const bool isStream = std::string(station) == "/radio";
            demandEqual(result, isStream ? 0 : 1, station);
            const std::string behindScheme = m_site.http.substr(4) + "/radio";
            demand(isStream || found.front() == "http" + behindScheme ||
                       found.front() == "mmsh" + behindScheme,
                   "a station leads to another place");
        }
    }
};

} // namespace

void addRadioActivities(Activities& all, const Site& site, Ledger& ledger, std::uint32_t seed)
{
    all.push_back(std::make_unique<Radio>(site, ledger, seed));
    all.push_back(std::make_unique<Lists>(site, ledger, seed));
}
