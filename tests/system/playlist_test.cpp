// Playlists and redirects as real servers give them out: a radio station's own list, and files of a web server.
#include "support_icecast.h"
#include "support_nginx.h"

#include "mdc_hlp_playlist.h"
#include "mdc_hlp_redirect.h"
#include "mdc_hlp_url.h"

#include <array>
#include <deque>
#include <gtest/gtest.h>
#include <list>
#include <string>
#include <vector>

namespace {

// The result, and behind it what was appended.
std::string resolve(const std::string& url)
{
    std::deque<std::string> out;
    std::string result = std::to_string(md::streamNeedRedirect(url, out));
    for (const std::string& found : out) {
        result += " " + found;
    }
    return result;
}

std::vector<std::string> itemsOf(const std::string& locator)
{
    std::list<md::PlaylistEntry> entries;
    std::string text;
    EXPECT_EQ(md::scanPlaylist(locator, entries, text, md::kConversionNone), 0);
    std::vector<std::string> items;
    for (const md::PlaylistEntry& entry : entries) {
        items.push_back(entry.locator);
    }
    return items;
}

// Whether that many bytes can be read there.
bool plays(const std::string& url)
{
    const unsigned int handle = mdch_UrlOpen(url.c_str(), MDCH_MODE_READ);
    std::array<unsigned char, 20000> buffer{};
    const int count = mdch_UrlRead(handle, buffer.data(), static_cast<unsigned int>(buffer.size()));
    mdch_UrlClose(handle);
    return count == static_cast<int>(buffer.size());
}

class RadioLists : public testing::Test
{
protected:
    support::Icecast m_station;
};

class WebLists : public testing::Test
{
protected:
    std::string resolveFile(const std::string& name, const std::string& content) const
    {
        m_server.addFile(name, content);
        return resolve(m_server.plain("/" + name));
    }

    support::Nginx m_server;
};

} // namespace

TEST_F(RadioLists, listOfAMountPointLeadsToIt)
{
    const std::string list = m_station.station() + ".m3u";
    EXPECT_EQ(resolve(list), "1 " + m_station.station());
    EXPECT_EQ(itemsOf(list), std::vector<std::string>{m_station.station()});
    EXPECT_TRUE(plays(itemsOf(list).front()));
}

TEST_F(RadioLists, stationItselfNeedsNoRedirect)
{
    EXPECT_EQ(resolve(m_station.station()), "0");
}

TEST_F(RadioLists, otherListsOfTheStationAreNoRedirects)
{
    EXPECT_EQ(resolve(m_station.station() + ".xspf"), "0") << "no type that is read";
}

TEST_F(RadioLists, unknownMountPointIsAFailure)
{
    EXPECT_EQ(resolve(m_station.url("/none.mp3")), "-7");
    std::list<md::PlaylistEntry> entries;
    std::string text;
    EXPECT_EQ(md::scanPlaylist(m_station.url("/none.mp3"), entries, text, md::kConversionNone), -2);
}

TEST_F(WebLists, m3uLeadsToItsFirstItem)
{
    EXPECT_EQ(resolveFile("extended.m3u", "#EXTM3U\n#EXTINF:-1,Radio\nhttp://host/a b\nhttp://host/c\n"),
              "1 http://host/a%20b");
    EXPECT_EQ(resolveFile("bare.m3u", "http://host/a\r\nhttp://host/b\r\n"), "1 http://host/a");
    EXPECT_EQ(resolveFile("list.txt", "#EXTM3U\nrtsp://host/a\n"), "1 rtsp://host/a");
    EXPECT_EQ(resolveFile("returns.m3u", "#EXTM3U\r\nhttp://host/a\r\n"), "0");
}

TEST_F(WebLists, asxLeadsToItsMediumOrItsList)
{
    EXPECT_EQ(resolveFile("a.asx", "<ASX version=\"3\"><Entry><Ref href=\"http://host/a\"/></Entry></ASX>"),
              "1 mmsh://host/a");
    EXPECT_EQ(
        resolveFile("b.wax", "<asx version=\"3\">\r\n<entryref href=\"http://host/list.asx\"/>\r\n</asx>"),
        "1 http://host/list.asx");
    EXPECT_EQ(resolveFile("c.wvx", "http://host/a\n"), "1 mmsh://host/a");
}

TEST_F(WebLists, referenceFileLeadsToItsFirstReference)
{
    EXPECT_EQ(
        resolveFile("a.asf", "[Reference]\r\nRef1=http://host/a?MSWMExt=.asf\r\nRef2=http://host/b\r\n"),
        "1 mmsh://host/a?MSWMExt=.asf");
}

TEST_F(WebLists, otherFilesNeedNone)
{
    EXPECT_EQ(resolveFile("song.mp3", std::string(100000, 'x')), "0");
    EXPECT_EQ(resolveFile("page.html", "http://host/a\n"), "0");
    EXPECT_EQ(resolveFile("list.unknown", "http://host/a\n"), "0");
    EXPECT_EQ(resolveFile("long.txt", std::string(1000000, 'x')), "0");
    EXPECT_EQ(resolveFile("empty.m3u", ""), "0");
}

TEST_F(WebLists, urlThatNeededRepairIsHandedBack)
{
    m_server.addFile("a song.mp3", "sound");
    EXPECT_EQ(resolve(m_server.plain("/a song.mp3")), "1 " + m_server.plain("/a%20song.mp3"));
    m_server.addFile("\xc3\xbc.mp3", "sound");
    EXPECT_EQ(resolve(m_server.plain("/\xc3\xbc.mp3")), "1 " + m_server.plain("/%C3%BC.mp3"));
    EXPECT_EQ(resolve(m_server.plain("/\xfc.mp3")), "1 " + m_server.plain("/%C3%BC.mp3")) << "Latin-1";
}

TEST_F(WebLists, redirectionToAForeignSchemeIsHandedOut)
{
    EXPECT_EQ(resolve(m_server.plain("/to-mms")), "1 mms://127.0.0.1/live%20stream");
}

TEST_F(WebLists, redirectionToAListIsFollowed)
{
    m_server.addFile("station.m3u", "http://host/a\n");
    EXPECT_EQ(resolve(m_server.plain("/to-list")), "1 http://host/a");
}

TEST_F(WebLists, errorsAreFailures)
{
    for (const char* path : {"/none.m3u", "/broken", "/unavailable", "/forbidden", "/circle"}) {
        EXPECT_EQ(resolve(m_server.plain(path)), "-7") << path;
    }
    EXPECT_EQ(resolve(m_server.selfSigned("/a.m3u")), "-7");
}

TEST_F(WebLists, itemsOfAListComeInTheirOrder)
{
    m_server.addFile("list.m3u",
                     "\xef\xbb\xbf#EXTM3U\r\n#EXTINF:1,A - B\r\na.mp3\r\n\r\nhttp://host/b\r\nc.mp3");
    EXPECT_EQ(itemsOf(m_server.plain("/list.m3u")),
              (std::vector<std::string>{"a.mp3", "http://host/b", "c.mp3"}));
}

TEST_F(WebLists, longListsEndAtTheLimit)
{
    std::string content;
    for (int i = 0; i < 10000; ++i) {
        content += std::to_string(100000000 + i) + "\n";
    }
    m_server.addFile("long.m3u", content);
    EXPECT_EQ(itemsOf(m_server.plain("/long.m3u")).size(), 5000U);
}
