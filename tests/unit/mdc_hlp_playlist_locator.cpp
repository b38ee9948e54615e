// Where the items of a playlist are: on its media volume, or as they stand.
#include "mdc_hlp_playlist.h"

#include "support/trace_capture.h"

#include <gtest/gtest.h>
#include <string>

namespace {

// The item of a playlist in the folder /music/lists of a volume.
std::string onVolume(const std::string& item)
{
    return createM3uItemLocator("NVL2://1234-ABCD/music/lists/a.m3u", item);
}

constexpr const char* kNotOnAVolume =
    "mdc_hlp_playlist_locator.cpp:#:createM3uItemLocator(): Playlist does not seem to be stored on an nvol2 "
    "media, has locator \"/media/a.m3u\".\n";

} // namespace

TEST(PlaylistLocator, playlistElsewhereLeavesItsItemsAsTheyStand)
{
    for (const char* playlist : {"/media/usb/a.m3u", "file:///media/a.m3u", "http://host/a.m3u", "",
                                 "NVL2:/x/a.m3u", "NVL2", " NVL2://x/a.m3u"}) {
        for (const char* item : {"song.mp3", "../song.mp3", "\\music\\song.mp3", "http://host/x", "", "/x"}) {
            EXPECT_EQ(createM3uItemLocator(playlist, item), item) << playlist;
        }
    }
}

TEST(PlaylistLocator, playlistElsewhereIsTraced)
{
    const support::TraceCapture traces;
    createM3uItemLocator("/media/a.m3u", "song.mp3");
    EXPECT_EQ(traces.count(kNotOnAVolume), 1U);
    EXPECT_EQ(traces.severityOf(kNotOnAVolume), 5000U);
    EXPECT_EQ(traces.lines().size(), 1U);
}

TEST(PlaylistLocator, playlistOnAVolumeIsNotTraced)
{
    const support::TraceCapture traces;
    onVolume("song.mp3");
    onVolume("http://host/x");
    EXPECT_TRUE(traces.lines().empty());
}

TEST(PlaylistLocator, schemeOfThePlaylistComparesWithoutRegardToCase)
{
    EXPECT_EQ(createM3uItemLocator("nvl2://v/a.m3u", "x.mp3"), "nvl2://v/x.mp3");
    EXPECT_EQ(createM3uItemLocator("NVL2://v/a.m3u", "x.mp3"), "NVL2://v/x.mp3");
    EXPECT_EQ(createM3uItemLocator("Nvl2://v/a.m3u", "x.mp3"), "Nvl2://v/x.mp3");
}

TEST(PlaylistLocator, absoluteItemsAreKeptOnAVolume)
{
    for (const char* item : {"http://host/../a b\\c", "mms://host/x", "rtsp://host/x", "HTTP://host/x",
                             "http://", "Rtsp://host//x/./y"}) {
        EXPECT_EQ(onVolume(item), item);
    }
}

TEST(PlaylistLocator, allOtherItemsArePlacedOnTheVolume)
{
    EXPECT_EQ(onVolume("https:x"), "NVL2://1234-ABCD/music/lists/https:x");
    EXPECT_EQ(onVolume("https://host/x"), "NVL2://1234-ABCD/music/lists/https:/host/x");
    EXPECT_EQ(onVolume("mmsh://host/x"), "NVL2://1234-ABCD/music/lists/mmsh:/host/x");
    EXPECT_EQ(onVolume("http:/host/x"), "NVL2://1234-ABCD/music/lists/http:/host/x");
    EXPECT_EQ(onVolume(" http://host/x"), "NVL2://1234-ABCD/music/lists/ http:/host/x");
    EXPECT_EQ(onVolume("C:\\Music\\a.mp3"), "NVL2://1234-ABCD/music/lists/C:/Music/a.mp3");
}

TEST(PlaylistLocator, relativeItemIsInThePlaylistsFolder)
{
    EXPECT_EQ(onVolume("a.mp3"), "NVL2://1234-ABCD/music/lists/a.mp3");
    EXPECT_EQ(onVolume("cd 1/a.mp3"), "NVL2://1234-ABCD/music/lists/cd 1/a.mp3");
    EXPECT_EQ(onVolume("cd1\\a.mp3"), "NVL2://1234-ABCD/music/lists/cd1/a.mp3");
}

TEST(PlaylistLocator, itemWithASlashInFrontIsAtTheVolumesRoot)
{
    EXPECT_EQ(onVolume("/a.mp3"), "NVL2://1234-ABCD/a.mp3");
    EXPECT_EQ(onVolume("\\other\\a.mp3"), "NVL2://1234-ABCD/other/a.mp3");
    EXPECT_EQ(onVolume("\\\\server\\share\\a.mp3"), "NVL2://1234-ABCD/server/share/a.mp3");
    EXPECT_EQ(onVolume("/"), "NVL2://1234-ABCD/");
}

TEST(PlaylistLocator, stepsAreResolved)
{
    EXPECT_EQ(onVolume("./a.mp3"), "NVL2://1234-ABCD/music/lists/a.mp3");
    EXPECT_EQ(onVolume("../a.mp3"), "NVL2://1234-ABCD/music/a.mp3");
    EXPECT_EQ(onVolume("..\\pop\\.\\x\\..\\a.mp3"), "NVL2://1234-ABCD/music/pop/a.mp3");
    EXPECT_EQ(onVolume("/a/b/../c"), "NVL2://1234-ABCD/a/c");
    EXPECT_EQ(onVolume("..."), "NVL2://1234-ABCD/music/lists/...");
    EXPECT_EQ(onVolume("..a/.b/a.."), "NVL2://1234-ABCD/music/lists/..a/.b/a..");
}

TEST(PlaylistLocator, stepsStopAtTheVolumesRoot)
{
    EXPECT_EQ(onVolume("../../a.mp3"), "NVL2://1234-ABCD/a.mp3");
    EXPECT_EQ(onVolume("../../../../../a.mp3"), "NVL2://1234-ABCD/a.mp3");
    EXPECT_EQ(onVolume("/../a.mp3"), "NVL2://1234-ABCD/a.mp3");
    EXPECT_EQ(onVolume("../../.."), "NVL2://1234-ABCD/");
    EXPECT_EQ(onVolume("x/../../../../y/.."), "NVL2://1234-ABCD/");
}

TEST(PlaylistLocator, stepsOfThePlaylistsOwnLocatorAreResolvedToo)
{
    EXPECT_EQ(createM3uItemLocator("nvl2://v/a/../b/./c/list.m3u", "x"), "nvl2://v/b/c/x");
    EXPECT_EQ(createM3uItemLocator("nvl2://v/../../list.m3u", "x"), "nvl2://v/x");
}

TEST(PlaylistLocator, exactlyOneSlashJoinsThePieces)
{
    EXPECT_EQ(createM3uItemLocator("nvl2://v/list.m3u", "x"), "nvl2://v/x");
    EXPECT_EQ(createM3uItemLocator("nvl2://v//a//list.m3u", "x//y"), "nvl2://v/a/x/y");
    EXPECT_EQ(createM3uItemLocator("nvl2://v/a/list.m3u", "//x"), "nvl2://v/x");
    EXPECT_EQ(createM3uItemLocator("nvl2://v/a/", "x"), "nvl2://v/a/x");
    EXPECT_EQ(createM3uItemLocator("nvl2://v/", "/x"), "nvl2://v/x");
}

TEST(PlaylistLocator, volumeWithoutAPathHasItsItemsAtTheRoot)
{
    EXPECT_EQ(createM3uItemLocator("nvl2://1234-abcd", "x.mp3"), "nvl2://1234-abcd/x.mp3");
    EXPECT_EQ(createM3uItemLocator("nvl2://", "x.mp3"), "nvl2:///x.mp3");
    EXPECT_EQ(createM3uItemLocator("nvl2:///list.m3u", "x.mp3"), "nvl2:///x.mp3");
}

TEST(PlaylistLocator, volumePartKeepsItsSpelling)
{
    EXPECT_EQ(createM3uItemLocator("nVl2://12ab-cDEF\\..%20/list.m3u", "../x"), "nVl2://12ab-cDEF\\..%20/x");
}

TEST(PlaylistLocator, emptyItemIsThePlaylistsFolder)
{
    EXPECT_EQ(onVolume(""), "NVL2://1234-ABCD/music/lists");
    EXPECT_EQ(createM3uItemLocator("nvl2://v/list.m3u", ""), "nvl2://v/");
}

TEST(PlaylistLocator, textBehindANulDoesNotHideAStep)
{
    EXPECT_EQ(onVolume(std::string("..\0x", 4)), "NVL2://1234-ABCD/music");
    EXPECT_EQ(createM3uItemLocator(std::string("nvl2://v/a/..\0/b/list.m3u", 25), "x"), "nvl2://v/a/x");
}

TEST(PlaylistLocator, bytesOfEveryKindStayAsTheyAre)
{
    std::string item;
    for (int byte = 1; byte < 256; ++byte) {
        if (byte != '\\' && byte != '/' && byte != '.') {
            item += static_cast<char>(byte);
        }
    }
    EXPECT_EQ(onVolume(item), "NVL2://1234-ABCD/music/lists/" + item);
}
