// mdch watch: what a stream does over time, as text and as a picture.
#include "support_mdch.h"

#include "support/gate.h"
#include "support/http_server.h"
#include "support/media.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <string>

namespace {

using support::At;
using support::Gate;
using support::HttpServer;
using support::mdch;
using support::Media;
using support::Reply;
using support::Result;
using support::waitUntil;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

class MdchWatch : public testing::Test
{
protected:
    support::Process start(const std::string& path, std::vector<std::string> more) const
    {
        std::vector<std::string> command = {MDCH_BINARY, "watch", m_server.url(path)};
        command.insert(command.end(), more.begin(), more.end());
        support::ProcessOptions options;
        options.standardOutput = m_out;
        options.standardError = m_err;
        return support::Process(command, options);
    }
    std::string shown() const { return support::readFile(m_out); }
    bool waitForText(const std::string& pattern) const
    {
        const std::regex form(pattern);
        return waitUntil([&] { return std::regex_search(shown(), form); }, std::chrono::minutes(1));
    }

    HttpServer m_server;
    support::TempDir m_folder;
    const std::string m_out = m_folder.write("out", "");
    const std::string m_err = m_folder.write("err", "");
    const std::string m_svg = m_folder.file("picture.svg");
};

TEST_F(MdchWatch, AWholeStreamIsWatchedToItsEnd)
{
    m_server.on("/song", Reply::resource(Media(5), 400000));
    const Result result = mdch({"watch", m_server.url("/song")});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, testing::StartsWith(m_server.url("/song") + "\ntaken as fast as it comes\n"));
    EXPECT_THAT(result.out, HasSubstr("playback starts"));
    EXPECT_THAT(result.out, HasSubstr("the stream ends\n\n"));
    EXPECT_THAT(result.out, ContainsRegex("400.0 kB, .* in the mean; .* 0 reconnects, "));
    const Result local = mdch({"watch", m_folder.write("song", "hello")});
    EXPECT_EQ(local.status, 0);
    EXPECT_THAT(local.out, HasSubstr(", 5 B, "));
    EXPECT_THAT(local.out, HasSubstr(" 0 stalls (0.0 s)\nNothing stalled.\n"));
}

TEST_F(MdchWatch, EndsWhenTheTimeIsOver)
{
    m_server.on("/live", Reply::endless(Media(5)).throttle(50000).header("Accept-Ranges: none"));
    const Result result = mdch({"watch", m_server.url("/live"), "--duration", "2"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, ContainsRegex("\n +0:[0-9]+ +[0-9.]+ kB +[0-9.]+ k?B/s +\\[#* *\\] +[0-9]+%"));
    EXPECT_THAT(result.out, ContainsRegex("\n([2-9]|[1-9][0-9]+)\\.[0-9] s, "));
}

TEST_F(MdchWatch, AStandstillOfTheServerIsAStall)
{
    Gate gate;
    m_server.on("/live", Reply::resource(Media(5), 20000).wait(At::body(10000), gate));
    support::Process process = start("/live", {"--svg", m_svg});
    EXPECT_TRUE(waitForText("[ ;] stalls\n")) << shown();
    gate.open();
    EXPECT_EQ(process.wait(), 0);
    // A busy machine may add stalls of its own.
    EXPECT_THAT(shown(), ContainsRegex(" [1-9][0-9]* stalls? \\("));
    EXPECT_THAT(shown(), ContainsRegex("Playback stuttered because nothing came \\([1-9][0-9]*\\)\\.\n"));
    EXPECT_THAT(support::readFile(m_svg), ContainsRegex("class=\"stall\".*: nothing came</title>"));
}

// Bytes that come afterwards, before the playback goes on, are no cause.
TEST_F(MdchWatch, AStandstillOfTheServerIsNotTooSlowAServer)
{
    Gate gate;
    m_server.on("/live", Reply::resource(Media(5), 400000).wait(At::body(100000), gate));
    support::Process process = start("/live", {"--rate", "400", "--duration", "600"});
    EXPECT_TRUE(waitForText("[ ;] stalls\n")) << shown();
    gate.open();
    EXPECT_EQ(process.wait(), 0);
    EXPECT_THAT(shown(), ContainsRegex("Playback stuttered because nothing came \\("));
}

// It comes steadily, at a quarter of what the playback takes.
TEST_F(MdchWatch, AServerThatIsTooSlowForThePlaybackIsTold)
{
    m_server.on("/live", Reply::endless(Media(5))
                             .header("Accept-Ranges: none")
                             .header("icy-br: 320")
                             .throttle(10000)
                             .pieces(500));
    support::Process process = start("/live", {"--duration", "600"});
    EXPECT_TRUE(waitForText("stalls.*\n[^]*goes on")) << shown();
    process.signal(SIGINT);
    EXPECT_EQ(process.wait(), 0);
    EXPECT_THAT(shown(), HasSubstr("\nplayed at 320 kbit/s\n"));
    EXPECT_THAT(shown(), ContainsRegex("Playback stuttered because .*too little came"));
}

// Each pause lasts until less than 96 KiB wait in the buffer: some seconds.
TEST_F(MdchWatch, APlaybackThatIsSlowerThanTheServerPausesTheTransfer)
{
    m_server.on("/song", Reply::resource(Media(5), 30000000));
    support::Process process =
        start("/song", {"--rate", "400", "--svg", m_svg, "--buffer-size", "262144", "--duration", "600"});
    EXPECT_TRUE(waitForText("paused until now, the buffer was full")) << shown();
    process.signal(SIGINT);
    EXPECT_EQ(process.wait(), 0);
    EXPECT_EQ(support::readFile(m_err), "");
    EXPECT_THAT(shown(), Not(HasSubstr(" 0 pauses")));
    EXPECT_THAT(support::readFile(m_svg), HasSubstr("class=\"pause\""));
}

TEST_F(MdchWatch, ABufferThatIsAlwaysFullIsOneLongPause)
{
    m_server.on("/song", Reply::resource(Media(5), 5000000));
    const Result result =
        mdch({"watch", m_server.url("/song"), "--rate", "100", "--buffer-size", "98304", "--duration", "3"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, ContainsRegex(" in the mean; [1-9][0-9]* pauses? \\([1-9][0-9]*\\.[0-9] s\\)"));
}

TEST_F(MdchWatch, ABrokenConnectionIsMadeAnewAtThePlaceWhereItBroke)
{
    m_server.onSequence("/song", {Reply::resource(Media(5), 300000).close(At::body(100000)),
                                  Reply::error(503), Reply::resource(Media(5), 300000)});
    const Result result = mdch({"watch", m_server.url("/song"), "--svg", m_svg});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("the transfer broke off before its end; the server failed with 503"));
    EXPECT_THAT(result.out, HasSubstr("reconnected"));
    EXPECT_THAT(result.out, HasSubstr("300.0 kB, "));
    EXPECT_THAT(result.out, ContainsRegex(" 1 reconnect, [1-9][0-9]* stalls? \\("));
    EXPECT_THAT(result.out, ContainsRegex("Playback stuttered because .*the connection broke \\([1-9]"));
    EXPECT_THAT(support::readFile(m_svg), HasSubstr("class=\"reconnect\""));
}

TEST_F(MdchWatch, AStreamThatDoesNotComeBackIsAFailure)
{
    m_server.onSequence("/live", {Reply().body("hello").closeDelimited(), Reply::error(404)});
    const Result result = mdch({"watch", m_server.url("/live"), "--duration", "4"});
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.out, HasSubstr("the server ended the stream"));
    EXPECT_THAT(result.out, HasSubstr("the connection broke (1)"));
    EXPECT_EQ(result.err,
              "mdch: cannot open " + m_server.url("/live") +
                  ": the server answered 404. Check the address and whether it needs a log-in or a "
                  "certificate.\n");
}

TEST_F(MdchWatch, CtrlCEndsItInGoodOrder)
{
    m_server.on("/live", Reply::endless(Media(5)).throttle(50000).header("Accept-Ranges: none"));
    support::Process process = start("/live", {"--svg", m_svg});
    ASSERT_TRUE(waitForText("\n +[0-9]+:[0-9]+ "));
    process.signal(SIGINT);
    EXPECT_EQ(process.wait(), 0);
    EXPECT_EQ(support::readFile(m_err), "");
    EXPECT_THAT(shown(), HasSubstr("in the mean;"));
    EXPECT_THAT(support::readFile(m_svg), HasSubstr("</svg>"));
}

TEST_F(MdchWatch, ThePictureIsWellFormedWhateverTheAddressHolds)
{
    m_server.otherwise([](const support::Request&) { return Reply::resource(Media(5), 300000); });
    const std::string url = m_server.url("/a?b=<c>&d=\"e\"");
    const Result result = mdch({"watch", url, "--svg", m_svg});
    EXPECT_EQ(result.status, 0) << result.err;
    const std::string picture = support::readFile(m_svg);
    EXPECT_THAT(picture, testing::StartsWith("<svg xmlns=\"http://www.w3.org/2000/svg\""));
    EXPECT_THAT(picture, HasSubstr("/a?b=&lt;c&gt;&amp;d=&quot;e&quot;</title>"));
    for (const char* name : {">bytes received<", ">rate<", ">receive buffer<", "300.0 kB<"}) {
        EXPECT_THAT(picture, HasSubstr(name));
    }
    const Result parsed = support::runToEnd(
        {"python3", "-c", "import sys, xml.dom.minidom; xml.dom.minidom.parse(sys.argv[1])", m_svg});
    EXPECT_EQ(parsed.status, 0) << parsed.err;
}

TEST_F(MdchWatch, FailuresAreTold)
{
    EXPECT_EQ(mdch({"watch", m_server.url("/gone")}).status, 2);
    m_server.on("/song", Reply::resource(Media(5), 1000));
    const Result unwritable = mdch({"watch", m_server.url("/song"), "--svg", m_folder.path() + "/no/file"});
    EXPECT_EQ(unwritable.status, 9);
    EXPECT_THAT(unwritable.err, HasSubstr("mdch: cannot write to "));
    EXPECT_EQ(unwritable.out, ""); // told before anything is watched
    EXPECT_EQ(mdch({"watch", m_server.url("/song"), "--duration", "0"}).status, 1);
}

// Its own listening for pauses does not change what -v shows.
TEST_F(MdchWatch, TracesShowAsFarAsAskedFor)
{
    m_server.on("/song", Reply::resource(Media(5), 1000));
    EXPECT_EQ(mdch({"watch", m_server.url("/song"), "-v"}).err, "");
    const std::string notices = mdch({"watch", m_server.url("/song"), "-vvv"}).err;
    EXPECT_THAT(notices, HasSubstr(" notice   open(): try to open url "));
    EXPECT_THAT(notices, Not(HasSubstr(" call ")));
}

} // namespace
