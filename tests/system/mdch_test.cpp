// The command line where all goes well: what it prints, what it copies, what its options send.
#include "support_mdch.h"

#include "support/certificates.h"
#include "support/http_server.h"
#include "support/media.h"
#include "support_icecast.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

namespace {

using support::HttpServer;
using support::mdch;
using support::Media;
using support::Reply;
using support::Result;
using testing::HasSubstr;
using testing::Not;

class MdchTest : public testing::Test
{
protected:
    HttpServer m_server;
    support::TempDir m_folder;
};

TEST_F(MdchTest, HelpNamesCommandsExamplesAndStatuses)
{
    for (const char* option : {"--help", "-h"}) {
        const Result result = mdch({option});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        for (const char* part :
             {"Usage: mdch COMMAND [options]", "  info  ", "  cat  ", "  volumes  ", "  native  ",
              "Examples:", "Exit status:", "    7  the transfer broke off", "  130  interrupted"}) {
            EXPECT_THAT(result.out, HasSubstr(part));
        }
    }
    EXPECT_EQ(mdch({"--version"}).out, "mdch " MDCH_VERSION "\n");
}

TEST_F(MdchTest, EveryCommandTellsItsOptionsAndAnExample)
{
    const std::vector<std::string> commands = support::mdchCommands();
    ASSERT_GE(commands.size(), 4U);
    for (const std::string& command : commands) {
        const Result result = mdch({command, "--help"});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(mdch({command, "-h"}).out, result.out);
        for (const std::string& part : std::vector<std::string>{"Usage: mdch " + command, "-v "}) {
            EXPECT_THAT(result.out, HasSubstr(part)) << command;
        }
        EXPECT_THAT(result.out, testing::ContainsRegex("Examples?:\n  mdch " + command)) << command;
    }
    for (const char* part : {"--output", "--user-agent", "--header", "--cookie", "--ca-path", "--client-cert",
                             "--key-password-file", "--proxy", "--dlna-mode", "--buffer-size", "--timeout",
                             "--icy", "--volume", "--native", "-vvvv"}) {
        EXPECT_THAT(mdch({"cat", "--help"}).out, HasSubstr(part));
    }
}

TEST_F(MdchTest, InfoOfAFile)
{
    const std::string file = m_folder.write("song.mp3", "hello");
    for (const std::string& url : {file, "file://" + file}) {
        const Result result = mdch({"info", url});
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.out, "URL           " + url +
                                  "\n"
                                  "Back-end      file\n"
                                  "Length        5 bytes\n"
                                  "Seekable      yes\n"
                                  "Capabilities  byte seek, stalling\n");
    }
}

TEST_F(MdchTest, InfoOfAnHttpStream)
{
    m_server.on("/song", Reply::raw("HTTP/1.1 200 OK\r\n"
                                    "Content-Type: audio/mpeg\r\n"
                                    "Content-Length: 5\r\n"
                                    "Accept-Ranges: bytes\r\n"
                                    "X-Colours: \x1b[31mred\r\n"
                                    "\r\n"
                                    "hello"));
    const Result result = mdch({"info", m_server.url("/song")});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "URL           " + m_server.url("/song") +
                              "\n"
                              "Back-end      HTTP\n"
                              "Status        200\n"
                              "Content type  audio/mpeg\n"
                              "Length        5 bytes\n"
                              "Seekable      yes\n"
                              "Capabilities  byte seek, stalling\n"
                              "Response\n"
                              "  HTTP/1.1 200 OK\n"
                              "  Content-Type: audio/mpeg\n"
                              "  Content-Length: 5\n"
                              "  Accept-Ranges: bytes\n"
                              "  X-Colours: ?[31mred\n");
}

TEST_F(MdchTest, InfoOfAnEndlessStreamEnds)
{
    m_server.on("/live", Reply::endless(Media(1)).header("Accept-Ranges: none"));
    const Result result = mdch({"info", m_server.url("/live")});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("Length        unknown\nSeekable      no\n"));
}

TEST_F(MdchTest, InfoOfARadioStation)
{
    const support::Icecast station;
    const Result with = mdch({"info", station.station(), "--icy"});
    EXPECT_EQ(with.status, 0);
    EXPECT_THAT(with.out, HasSubstr("Content type  audio/mpeg\nLength        unknown\nSeekable      no\n"));
    EXPECT_THAT(with.out, HasSubstr("ICY interval  16000 bytes\n"));
    const Result without = mdch({"info", station.station()});
    EXPECT_EQ(without.status, 0);
    EXPECT_THAT(without.out, Not(HasSubstr("ICY interval")));
}

TEST_F(MdchTest, CatCopiesEveryByteAndKeepsQuiet)
{
    constexpr std::size_t kSize = 3000001;
    const std::string content = Media(5).bytes(0, kSize);
    m_server.on("/song", Reply::resource(Media(5), kSize));
    const std::string file = m_folder.write("song.mp3", content);
    for (const std::string& url : {m_server.url("/song"), file, "file://" + file}) {
        const Result piped = mdch({"cat", url});
        EXPECT_EQ(piped.status, 0);
        EXPECT_EQ(piped.err, "");
        EXPECT_TRUE(piped.out == content) << url;

        const std::string copy = m_folder.write("copy", "what was here before");
        const Result copied = mdch({"cat", url, "-o", copy});
        EXPECT_EQ(copied.status, 0);
        EXPECT_EQ(copied.out, "");
        EXPECT_EQ(copied.err, "");
        EXPECT_TRUE(support::readFile(copy) == content) << url;
    }
}

TEST_F(MdchTest, CatOfNothingIsNothing)
{
    m_server.on("/empty", Reply().body(""));
    const Result result = mdch({"cat", m_server.url("/empty")});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(mdch({"cat", m_folder.write("empty", "")}).status, 0);
}

TEST_F(MdchTest, AStreamWithoutLengthEndsWhereTheServerEndsIt)
{
    m_server.on("/closed", Reply().body("hello").closeDelimited());
    m_server.on("/chunked", Reply().body("hello").chunked());
    EXPECT_EQ(mdch({"cat", m_server.url("/closed")}).out, "hello");
    EXPECT_EQ(mdch({"cat", m_server.url("/chunked")}).out, "hello");
}

TEST_F(MdchTest, OptionsReachTheServer)
{
    m_server.on("/song", Reply().body("hello"));
    // With and without header lines of the user's own the stream is opened in different ways.
    for (const bool own : {false, true}) {
        std::vector<std::string> command = {
            "cat",   m_server.url("/song"), "--user-agent", "tester/1",      "--cookie", "a=b",
            "--icy", "--dlna-mode",         "interactive",  "--buffer-size", "98304"};
        if (own) {
            command.insert(command.end(),
                           {"--header", "X-One: 1", "--header", "X-Two: 2", "--timeout", "20"});
        }
        const Result result = mdch(command);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out, "hello");
        const support::Request request = m_server.requests().back();
        EXPECT_EQ(request.header("User-Agent"), "tester/1");
        EXPECT_EQ(request.header("Cookie"), "a=b");
        EXPECT_EQ(request.header("icy-metadata"), "1");
        EXPECT_EQ(request.header("transferMode.dlna.org"), "Interactive");
        EXPECT_EQ(request.header("X-One"), own ? "1" : "");
        EXPECT_EQ(request.header("X-Two"), own ? "2" : "");
    }
    EXPECT_EQ(mdch({"cat", m_server.url("/song")}).status, 0);
    EXPECT_EQ(m_server.requests().back().header("User-Agent"), "mdch/" MDCH_VERSION);
}

TEST_F(MdchTest, AProxyIsAskedForTheWholeAddress)
{
    m_server.otherwise([](const support::Request& request) { return Reply().body(request.target); });
    const Result result =
        mdch({"cat", "http://media.example/song", "--proxy", "127.0.0.1:" + std::to_string(m_server.port())});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "http://media.example/song");
}

TEST_F(MdchTest, CertificatesOfBothSides)
{
    const support::Certificates& files = support::certificates();
    HttpServer server(support::Tls().requireClientSignedBy(files.ca.certificate));
    server.on("/song", Reply().body("hello"));
    const std::string password = m_folder.write("password", files.clientFiles.password + "\nsecond line\n");
    for (const std::string& certificate : {files.clientFiles.encryptedPem, files.clientFiles.p12}) {
        for (const bool byHand : {false, true}) {
            std::vector<std::string> command = {
                "cat",           server.url("/song"), "--ca-path",           files.caDirectory,
                "--client-cert", certificate,         "--key-password-file", password};
            if (byHand) {
                command.insert(command.end(), {"--header", "X-One: 1"});
            }
            const Result result = mdch(command);
            EXPECT_EQ(result.status, 0) << result.err;
            EXPECT_EQ(result.out, "hello");
        }
    }
}

TEST_F(MdchTest, TracesGoToStandardErrorAsFarAsAskedFor)
{
    m_server.on("/song", Reply().body("hello"));
    const Result calls = mdch({"cat", m_server.url("/song"), "-vvvv"});
    EXPECT_EQ(calls.status, 0);
    EXPECT_EQ(calls.out, "hello");
    EXPECT_THAT(calls.err, HasSubstr(") => HTTP"));
    const Result notices = mdch({"cat", m_server.url("/song"), "-vvv"});
    EXPECT_THAT(notices.err, HasSubstr("try to open url " + m_server.url("/song")));
    EXPECT_THAT(notices.err, Not(HasSubstr("=> HTTP")));
    EXPECT_EQ(mdch({"cat", m_server.url("/song"), "-v"}).err, "");
}

} // namespace
