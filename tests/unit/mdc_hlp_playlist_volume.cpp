// Playlists on a media volume: read through its service, and items that the service opens.
#include "mdc_hlp_playlist.h"

#include "mdc_hlp_url.h"
#include "nvol2.h"
#include "support/temp_dir.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <list>
#include <string>
#include <vector>

namespace {

constexpr const char* kUuid = "7C3A-11EF";

// A stick with music: /music/lists/a.m3u and what it names.
class PlaylistVolume : public testing::Test
{
protected:
    PlaylistVolume()
    {
        m_folder.write("stick/root.mp3", "at the root");
        m_folder.write("stick/music/one.mp3", "beside the lists");
        m_folder.write("stick/music/lists/two.mp3", "in the folder");
        m_folder.write("stick/music/lists/cd 1/three.mp3", "below it");
        m_folder.write("stick/music/lists/cover.jpg", "a picture");
        m_folder.write("outside.mp3", "not on the volume");
        EXPECT_GT(nvol2VolumeAdd(kUuid, (m_folder.file("stick") + "/").c_str()), 0);
    }
    ~PlaylistVolume() override { nvol2VolumeRemove(kUuid); }

    void writeList(const std::string& content) const { m_folder.write("stick/music/lists/a.m3u", content); }

    static std::string locator(const std::string& scheme = "nvl2")
    {
        return scheme + "://7C3A-11EF/music/lists/a.m3u";
    }

    std::list<md::PlaylistEntry> scan(const std::string& playlist)
    {
        std::list<md::PlaylistEntry> entries;
        EXPECT_EQ(md::scanPlaylist(playlist, entries, m_text, md::kConversionNone), 0);
        return entries;
    }

    // What stands at a locator; "(none)" when it cannot be opened.
    static std::string contentAt(const std::string& place)
    {
        const unsigned int handle = mdch_UrlOpen(place.c_str(), MDCH_MODE_READ);
        if (handle == 0) {
            return "(none)";
        }
        std::vector<unsigned char> buffer(100);
        const int count = mdch_UrlRead(handle, buffer.data(), static_cast<unsigned int>(buffer.size()));
        mdch_UrlClose(handle);
        return {buffer.begin(), buffer.begin() + std::max(count, 0)};
    }

    support::TempDir m_folder;
    std::string m_text;
};

} // namespace

TEST_F(PlaylistVolume, itemsOfAScannedPlaylistCanBeOpened)
{
    writeList("#EXTM3U\r\n#PLAYLIST:Stick\r\n"
              "#EXTINF:1,A - B##VOREN{thumbURL=\"cover.jpg\"}\r\n..\\one.mp3\r\n"
              "two.mp3\r\ncd 1\\three.mp3\r\n\\root.mp3\r\n/music/lists/./two.mp3");
    const std::list<md::PlaylistEntry> entries = scan(locator());
    EXPECT_EQ(m_text, "Stick");
    std::vector<std::string> contents;
    for (const md::PlaylistEntry& entry : entries) {
        contents.push_back(contentAt(entry.locator));
    }
    EXPECT_EQ(contents, (std::vector<std::string>{"beside the lists", "in the folder", "below it",
                                                  "at the root", "in the folder"}));
    EXPECT_EQ(entries.front().locator, "nvl2://7C3A-11EF/music/one.mp3");
    EXPECT_EQ(entries.front().thumb, "nvl2://7C3A-11EF/music/lists/cover.jpg");
    EXPECT_EQ(contentAt(entries.front().thumb), "a picture");
}

TEST_F(PlaylistVolume, schemeInUpperCaseIsReadAlike)
{
    writeList("two.mp3\n");
    const std::list<md::PlaylistEntry> entries = scan(locator("NVL2"));
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries.front().locator, "NVL2://7C3A-11EF/music/lists/two.mp3");
    EXPECT_EQ(contentAt(entries.front().locator), "in the folder");
}

TEST_F(PlaylistVolume, itemsStayOnTheirVolume)
{
    writeList("../../../outside.mp3\n../../../../../../../../etc/passwd\n");
    const std::list<md::PlaylistEntry> entries = scan(locator());
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries.front().locator, "nvl2://7C3A-11EF/outside.mp3");
    EXPECT_EQ(entries.back().locator, "nvl2://7C3A-11EF/etc/passwd");
    for (const md::PlaylistEntry& entry : entries) {
        EXPECT_EQ(contentAt(entry.locator), "(none)") << entry.locator;
    }
}

TEST_F(PlaylistVolume, noMoreThanFiftyThousandBytesAreRead)
{
    std::string content;
    for (int i = 0; i < 8000; ++i) {
        content += std::to_string(100000000 + i) + "\n";
    }
    writeList(content);
    EXPECT_EQ(scan(locator()).size(), 5000U);
}

TEST_F(PlaylistVolume, emptyPlaylistHasNoItems)
{
    writeList("");
    EXPECT_TRUE(scan(locator()).empty());
}

TEST_F(PlaylistVolume, playlistOnAVolumeThatIsAwayCannotBeOpened)
{
    writeList("two.mp3\n");
    std::list<md::PlaylistEntry> entries;
    EXPECT_EQ(md::scanPlaylist("nvl2://7C3A-11EF/none.m3u", entries, m_text, md::kConversionNone), -ENOENT);
    EXPECT_EQ(md::scanPlaylist("nvl2://none/music/lists/a.m3u", entries, m_text, md::kConversionNone),
              -ENOENT);
    nvol2VolumeRemove(kUuid);
    EXPECT_EQ(md::scanPlaylist(locator(), entries, m_text, md::kConversionNone), -ENOENT);
    EXPECT_TRUE(entries.empty());
}
