// The commands around addresses: encode, decode, repair, resolve, playlist.
#include "support_mdch.h"
#include "support_nginx.h"

#include "support/http_server.h"
#include "support/sockets.h"
#include "support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace {

using support::mdch;
using support::Result;

void expectOutput(const Result& result, const std::string& out)
{
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, out);
}

void expectFailure(const Result& result, int status, const std::string& line)
{
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "mdch: " + line + "\n");
}

Result withInput(const std::string& command, const std::string& input)
{
    const support::TempDir folder;
    const std::string file = folder.write("input", input);
    return support::runToEnd({"bash", "-c", std::string(MDCH_BINARY) + " " + command + " < " + file});
}

TEST(MdchText, EncodePrintsALinePerText)
{
    expectOutput(mdch({"encode", "http://host/a b", "x@y"}), "http://host/a%20b\nx%40y\n");
    expectOutput(mdch({"encode", "nvl2://A/b c"}), "nvl2://A/b c\n");
    expectOutput(mdch({"encode", ""}), "\n");
}

TEST(MdchText, DecodePrintsBytes)
{
    expectOutput(mdch({"decode", "a%20b+c%zz", "%C3%A9"}), "a b+c%zz\n\xc3\xa9\n");
}

TEST(MdchText, RepairGuessesTheCharacterSet)
{
    expectOutput(mdch({"repair", "http://h/caf\xc3\xa9 \"x\"", "http://h/caf\xe9", "http://h/a%20b"}),
                 "http://h/caf%C3%A9%20%22x%22\nhttp://h/caf%C3%A9\nhttp://h/a%20b\n");
}

TEST(MdchText, WithoutTextsTheLinesOfStandardInputAreTaken)
{
    expectOutput(withInput("encode", "a b\n\nc?d\n"), "a%20b\n\nc%3Fd\n");
    expectOutput(withInput("decode", "a%20b\nno line end: %41"), "a b\nno line end: A\n");
    expectOutput(withInput("repair", ""), "");
}

class MdchStations : public testing::Test
{
protected:
    std::string file(const std::string& name, const std::string& content) const
    {
        m_server.addFile(name, content);
        return m_server.plain("/" + name);
    }

    support::Nginx m_server;
};

TEST_F(MdchStations, ResolveFindsTheStreamBehindEveryKindOfList)
{
    const std::string stream = file("live.mp3", "sound");
    expectOutput(mdch({"resolve", file("a.m3u", "#EXTM3U\n#EXTINF:-1,Radio\n" + stream + "\n")}),
                 stream + "\n");
    expectOutput(mdch({"resolve", file("b.asx", "<asx><entry><ref href=\"" + stream + "\"/></entry></asx>")}),
                 "mmsh" + stream.substr(4) + "\n");
    expectOutput(mdch({"resolve", file("c.asf", "[Reference]\r\nRef1=" + stream + "\r\n")}),
                 "mmsh" + stream.substr(4) + "\n");
    expectOutput(mdch({"resolve", stream}), stream + "\n");
    expectOutput(mdch({"resolve", "mms://host/a"}), "mms://host/a\n");
}

TEST_F(MdchStations, ResolveGoesFromListToList)
{
    const std::string stream = file("live.mp3", "sound");
    const std::string list = file("list.m3u", stream + "\n");
    const std::string first = file("first.asx", "<asx><entryref href=\"" + list + "\"/></asx>");
    expectOutput(mdch({"resolve", first}), stream + "\n");
    expectOutput(mdch({"resolve", first, "--all"}), first + "\n" + list + "\n" + stream + "\n");
}

TEST_F(MdchStations, ListsThatLeadInACircleEnd)
{
    const std::string list = m_server.plain("/one.asx");
    const std::string other = file("two.asx", "<asx><entryref href=\"" + list + "\"/></asx>");
    file("one.asx", "<asx><entryref href=\"" + other + "\"/></asx>");
    expectFailure(mdch({"resolve", list}), 8,
                  "cannot resolve " + list +
                      ": it leads from one playlist to the next. Look at them with mdch cat.");
    const std::string itself = m_server.plain("/self.asx");
    file("self.asx", "<asx><entryref href=\"" + itself + "\"/></asx>");
    expectOutput(mdch({"resolve", itself}), itself + "\n");
}

TEST_F(MdchStations, WhatCannotBeFetchedIsAFailure)
{
    const std::string none = m_server.plain("/none.m3u");
    expectFailure(mdch({"resolve", none}), 6,
                  "cannot resolve " + none + ": it cannot be fetched. See with mdch info why.");
    const support::LoopbackPort closed = support::closedPort();
    const std::string list = file("list.m3u", closed.url("/a") + "\n");
    const Result result = mdch({"resolve", list, "--all"});
    EXPECT_EQ(result.status, 6);
    EXPECT_EQ(result.out, list + "\n" + closed.url("/a") + "\n") << "as far as it came";
}

TEST_F(MdchStations, PlaylistOfAWebServer)
{
    const std::string list = file("all.m3u", "#EXTM3U\n#PLAYLIST:Best of\n#EXTINF:215,Ann\xc3\xa9 - One\n"
                                             "http://host/1.mp3\n#EXTINF:-1,Radio\nhttp://host/2\n");
    expectOutput(mdch({"playlist", list}), "Best of\n"
                                           "\n"
                                           "   TIME  ARTIST  TITLE  LOCATOR\n"
                                           "1  215s  Ann\xc3\xa9    One    http://host/1.mp3\n"
                                           "2  -1s           Radio  http://host/2\n");
}

TEST(MdchPlaylist, OnAVolumeAsJson)
{
    const support::TempDir folder;
    folder.write("p.m3u", "#EXTINF:5,Caf\xe9 - \"x\"\nmusic\\a.mp3\n");
    const std::vector<std::string> command = {"playlist", "nvl2://A/p.m3u", "--volume", "A=" + folder.path(),
                                              "--json"};
    const auto page = [](const std::string& artist) {
        return "{\n"
               "  \"name\": \"\",\n"
               "  \"entries\": [\n"
               "    {\n"
               "      \"locator\": \"nvl2://A/music/a.mp3\",\n"
               "      \"title\": \"\\\"x\\\"\",\n"
               "      \"artist\": \"" +
               artist +
               "\",\n"
               "      \"playtime\": \"5s\",\n"
               "      \"thumb\": \"\"\n"
               "    }\n"
               "  ]\n"
               "}\n";
    };
    expectOutput(mdch(command), page("Caf\xef\xbf\xbd"));
    std::vector<std::string> converting = command;
    converting.emplace_back("--latin1");
    expectOutput(mdch(converting), page("Caf\xc3\xa9"));
}

TEST(MdchPlaylist, NothingInItIsAFailureButNotForPrograms)
{
    const support::TempDir folder;
    const std::string empty = folder.write("empty.m3u", "#EXTM3U\n");
    expectFailure(mdch({"playlist", empty}), 8,
                  "no items in " + empty + ": it is empty or no M3U playlist. Look at it with mdch cat.");
    expectOutput(mdch({"playlist", empty, "--json"}), "{\n  \"name\": \"\",\n  \"entries\": []\n}\n");
    const std::string none = folder.file("none.m3u");
    expectFailure(mdch({"playlist", none}), 9,
                  "cannot open " + none + ": No such file or directory. Check the path.");
}

TEST(MdchPlaylist, TakesTheOptionsOfEveryStream)
{
    support::HttpServer server(support::Tls{});
    server.on("/list", support::Reply().body("song\n"));
    server.on("/cut", support::Reply::resource("one\ntwo\n").close(support::At::body(4)));
    const Result untrusted = mdch({"playlist", server.url("/list")});
    EXPECT_EQ(untrusted.status, 4);
    EXPECT_THAT(untrusted.err, testing::HasSubstr(": the server's certificate was not accepted. "));
    const std::vector<std::string> command = {"--ca-path", support::certificates().caDirectory, "--header",
                                              "X-Key: 1"};
    const auto list = [&](const std::string& path) {
        std::vector<std::string> whole = {"playlist", server.url(path)};
        whole.insert(whole.end(), command.begin(), command.end());
        return mdch(whole);
    };
    EXPECT_THAT(list("/list").out, testing::HasSubstr("song"));
    EXPECT_EQ(server.requests("/list").back().header("X-Key"), "1");
    EXPECT_EQ(list("/none").status, 2);
    // Half a playlist is no playlist.
    const Result cut = list("/cut");
    EXPECT_EQ(cut.status, 7);
    EXPECT_EQ(cut.out, "");
}

} // namespace
