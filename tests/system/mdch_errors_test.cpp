// The command line where something goes wrong: one line, and a status that tells what.
#include "support_mdch.h"

#include "support/certificates.h"
#include "support/http_server.h"
#include "support/media.h"
#include "support/sockets.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace {

using support::At;
using support::HttpServer;
using support::mdch;
using support::Media;
using support::Reply;
using support::Result;
using testing::StartsWith;

// The status, exactly this line, and nothing on standard output.
void expectFailure(const Result& result, int status, const std::string& line)
{
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.err, "mdch: " + line + "\n");
    EXPECT_EQ(result.out, "");
}

class MdchErrorsTest : public testing::Test
{
protected:
    // The same failure for both commands.
    static void expectCannotOpen(const std::string& url, const std::vector<std::string>& options, int status,
                                 const std::string& reason)
    {
        for (const char* command : {"info", "cat"}) {
            std::vector<std::string> arguments = {command, url};
            arguments.insert(arguments.end(), options.begin(), options.end());
            expectFailure(mdch(arguments), status, "cannot open " + url + ": " + reason);
        }
    }

    HttpServer m_server;
    support::TempDir m_folder;
};

TEST_F(MdchErrorsTest, WrongUsageIsStatus1)
{
    std::string names;
    const std::vector<std::string> commands = support::mdchCommands();
    for (std::size_t index = 0; index < commands.size(); ++index) {
        names += (index == 0 ? "" : index + 1 < commands.size() ? ", " : " or ") + commands[index];
    }
    expectFailure(mdch({}), 1, "a command is missing: " + names + ". Try mdch --help.");
    expectFailure(mdch({"play"}), 1, "\"play\" is no command: " + names + ". Try mdch --help.");
    for (const std::vector<std::string>& words : {std::vector<std::string>{"-v"}, {"-v", "info", "x"}}) {
        expectFailure(mdch(words), 1,
                      "-v is no option of mdch itself: the command comes first, then its options. "
                      "Try mdch --help.");
    }
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"--completion"}, {"--completion", "fish"}}) {
        expectFailure(mdch(words), 1, "--completion takes bash or zsh, and nothing else. Try mdch --help.");
    }
    expectFailure(mdch({"info"}), 1, "URL is required. Try mdch info --help.");
    expectFailure(mdch({"info", "x", "y", "z"}), 1, "\"y\" is one argument too many. Try mdch info --help.");
    for (const std::vector<std::string>& words : {std::vector<std::string>{"cat", "x", "--lenght", "5"},
                                                  {"cat", "--lenght=5", "x"},
                                                  {"cat", "--lenght"}}) {
        expectFailure(mdch(words), 1, "--lenght is no option of mdch cat. Try mdch cat --help.");
    }
    expectFailure(mdch({"cat", "x", "--offset"}), 1, "--offset needs a value. Try mdch cat --help.");
    expectFailure(mdch({"cat", "x", "--offset", "1.5"}), 1,
                  "--offset: \"1.5\" is no whole number. Try mdch cat --help.");
    expectFailure(mdch({"cat", "x", "--length", "some"}), 1,
                  "--length: \"some\" is no whole number. Try mdch cat --help.");
    expectFailure(mdch({"cat", "x", "--length", "-5"}), 1,
                  "--length: \"-5\" is below 0. Try mdch cat --help.");
    expectFailure(mdch({"info", ""}), 1, "URL: it is empty. Try mdch info --help.");
    expectFailure(mdch({"cat", "x", "--proxy", "here"}), 1,
                  "--proxy: \"here\" is not HOST:PORT. Try mdch cat --help.");
    expectFailure(mdch({"cat", "x", "--proxy", "here:99999"}), 1,
                  "--proxy: \"here:99999\" is not HOST:PORT. Try mdch cat --help.");
    expectFailure(mdch({"cat", "x", "--dlna-mode", "fast"}), 1,
                  "--dlna-mode: \"fast\" is not streaming, interactive or background. Try mdch cat --help.");
    expectFailure(mdch({"cat", "x", "--header", "no colon"}), 1,
                  "--header: \"no colon\" is no header line (NAME: VALUE). Try mdch cat --help.");
    expectFailure(mdch({"cat", "x", "--volume", "A"}), 1,
                  "--volume: \"A\" is not UUID=DIR. Try mdch cat --help.");
    expectFailure(mdch({"cat", "x", "--volume", "A=/nonexistent"}), 1,
                  "--volume: \"A=/nonexistent\": No such file or directory. Try mdch cat --help.");
    for (const std::vector<std::string>& command : {std::vector<std::string>{"info", "x", "y"},
                                                    {"info", "x", "--output", "y"},
                                                    {"cat", "x", "--none"},
                                                    {"cat", "x", "--buffer-size", "5"},
                                                    {"cat", "x", "--timeout", "0"},
                                                    {"cat", "x", "-o"},
                                                    {"cat", "x", "--ca-path", "/nonexistent"},
                                                    {"cat", "x", "--client-cert", "/nonexistent"}}) {
        const Result result = mdch(command);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, StartsWith("mdch: "));
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
}

TEST_F(MdchErrorsTest, StatusesOfTheServer)
{
    m_server.on("/gone", Reply::error(410));
    m_server.on("/busy", Reply::error(503));
    expectCannotOpen(
        m_server.url("/none"), {}, 2,
        "the server answered 404. Check the address and whether it needs a log-in or a certificate.");
    expectCannotOpen(
        m_server.url("/gone"), {"--header", "X-One: 1"}, 2,
        "the server answered 410. Check the address and whether it needs a log-in or a certificate.");
    expectCannotOpen(m_server.url("/busy"), {}, 3, "the server failed with 503. Try again later.");
}

TEST_F(MdchErrorsTest, CertificatesAndTls)
{
    HttpServer secure{support::Tls()};
    secure.on("/song", Reply().body("hello"));
    const std::string refused = "the server's certificate was not accepted";
    const std::string advice = ". Check the host name and this machine's clock, or name a folder of trusted "
                               "certificates with --ca-path.";
    expectCannotOpen(secure.url("/song"), {}, 4, refused + advice);
    const support::Certificates& files = support::certificates();
    expectCannotOpen(secure.url("/song"), {"--ca-path", files.unrelatedDirectory}, 4,
                     refused + ": unable to get local issuer certificate" + advice);
    const HttpServer old(support::Tls(files.expiredLeaf));
    expectCannotOpen(old.url("/song"), {"--ca-path", files.caDirectory}, 4,
                     refused + ": certificate has expired" + advice);
    const HttpServer strange(support::Tls().handshake(support::Tls::Handshake::Garbage));
    expectCannotOpen(strange.url("/song"), {}, 5,
                     "no TLS connection could be made. "
                     "Check that this port speaks https, and the client certificate if there is one.");
}

TEST_F(MdchErrorsTest, TheNetwork)
{
    const std::string nobody =
        "nobody answers there. Check the host name, the port, the proxy and the network.";
    const support::LoopbackPort refused = support::closedPort();
    expectCannotOpen(refused.url("/song"), {}, 6, nobody);
    expectCannotOpen("http://no-such-host.invalid/song", {}, 6,
                     "the host name is not known. Check it, and the network.");
    for (const std::vector<std::string>& more : {std::vector<std::string>{}, {"--header", "X-One: 1"}}) {
        std::vector<std::string> options = {"--proxy", refused.url("").substr(std::string("http://").size())};
        options.insert(options.end(), more.begin(), more.end());
        expectCannotOpen("http://no-such-host.invalid/song", options, 6, nobody);
    }
    expectCannotOpen("http://no-such-host.invalid/song", {"--proxy", "no-such-proxy.invalid:3128"}, 6,
                     "the host name of the proxy is not known. Check it, and the network.");
    expectCannotOpen("http://127.0.0.1:99999/song", {}, 8,
                     "the address is not valid. Check the host name and the port.");

    const support::LoopbackPort silent = support::silentPort();
    expectCannotOpen(silent.url("/song"), {"--timeout", "1"}, 6,
                     "no answer in time. Try again, or allow more time with --timeout.");
}

TEST_F(MdchErrorsTest, WhatIsNotHttp)
{
    m_server.on("/elsewhere", Reply::redirect("ftp://127.0.0.1/song"));
    m_server.on("/garbage", Reply::raw("220 Welcome to another kind of server\r\n"));
    for (const char* path : {"/elsewhere", "/garbage"}) {
        expectCannotOpen(m_server.url(path), {}, 8,
                         "the answer or the address it leads to is not HTTP. Check the address.");
    }
}

TEST_F(MdchErrorsTest, ATruncatedTransferIsNoSuccess)
{
    const std::string content = Media(5).bytes(0, 50000);
    m_server.on("/song", Reply().body(content).contentLength(200000).close(At::body(50000)));
    const std::string line =
        "mdch: cannot read " + m_server.url("/song") +
        " after 50000 of 200000 bytes: the transfer broke off before its end. Try again.\n";
    const Result piped = mdch({"cat", m_server.url("/song")});
    EXPECT_EQ(piped.status, 7);
    EXPECT_TRUE(piped.out == content);
    EXPECT_EQ(piped.err, line);

    const std::string copy = m_folder.file("copy");
    const Result copied = mdch({"cat", m_server.url("/song"), "-o", copy});
    EXPECT_EQ(copied.status, 7);
    EXPECT_EQ(copied.err, line);
    EXPECT_TRUE(support::readFile(copy) == content);
}

TEST_F(MdchErrorsTest, ABrokenChunkedTransferIsNoSuccess)
{
    m_server.on("/song", Reply().body(Media(5), 50000).chunked().close(At::body(30000)));
    const Result result = mdch({"cat", m_server.url("/song")});
    EXPECT_EQ(result.status, 7) << result.err;
    EXPECT_EQ(result.out.size(), 30000U);
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
}

TEST_F(MdchErrorsTest, AServerThatFallsSilentIsNoSuccess)
{
    m_server.on("/song", Reply().body(Media(5), 200000).stall(At::body(50000)));
    const Result result = mdch({"cat", m_server.url("/song"), "--timeout", "1"});
    EXPECT_EQ(result.status, 6);
    EXPECT_EQ(result.out.size(), 50000U);
    EXPECT_EQ(
        result.err,
        "mdch: cannot read " + m_server.url("/song") +
            " after 50000 of 200000 bytes: no data in time. Try again, or allow more time with --timeout.\n");
}

TEST_F(MdchErrorsTest, LocalFiles)
{
    expectCannotOpen("/nonexistent/song", {}, 9, "No such file or directory. Check the path.");
    expectCannotOpen("file:///nonexistent/song", {}, 9, "No such file or directory. Check the path.");
    expectCannotOpen(m_folder.path(), {}, 9, "Is a directory. Name a file.");
    expectCannotOpen(
        "gopher://127.0.0.1/song", {}, 9,
        "No such file or directory. "
        "Addresses begin with http://, https://, udp://, nvl2:// or file://; anything else is a path.");
    expectFailure(mdch({"cat", "x", "--key-password-file", "/nonexistent"}), 9,
                  "cannot read /nonexistent: No such file or directory. Check the path.");
}

TEST_F(MdchErrorsTest, WhatCannotBeWritten)
{
    m_server.on("/song", Reply().body(Media(5), 200000));
    support::ProcessOptions full;
    full.standardOutput = "/dev/full";
    const std::string noRoom = "No space left on device. Make room and try again.";
    expectFailure(mdch({"cat", m_server.url("/song")}, full), 9,
                  "cannot write to standard output: " + noRoom);
    expectFailure(mdch({"info", m_server.url("/song")}, full), 9,
                  "cannot write to standard output: " + noRoom);
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"--help"}, {"--version"}, {"cat", "--help"}, {"--man"}}) {
        expectFailure(mdch(words, full), 9, "cannot write to standard output: " + noRoom);
    }
    expectFailure(mdch({"cat", m_server.url("/song"), "-o", "/dev/full"}), 9,
                  "cannot write to /dev/full: " + noRoom);
    expectFailure(mdch({"cat", m_server.url("/song"), "-o", "/nonexistent/song"}), 9,
                  "cannot write to /nonexistent/song: No such file or directory. Check the path.");

    // A reader that goes away after the first bytes.
    m_server.on("/live", Reply::endless(Media(5)));
    const Result result = support::runToEnd(
        {"bash", "-c",
         "set -o pipefail; " MDCH_BINARY " cat " + m_server.url("/live") + " | head -c 5 >/dev/null"});
    EXPECT_EQ(result.status, 9);
    EXPECT_EQ(result.err, "mdch: cannot write to standard output: Broken pipe. "
                          "The program that was to take the bytes has gone.\n");
}

TEST_F(MdchErrorsTest, ExistingFilesAreSafe)
{
    const std::string file = m_folder.write("song.mp3", "precious");
    expectFailure(mdch({"cat", file, "-o", file}), 9,
                  "cannot write to " + file + ": it is the file that is read. Name another file.");
    EXPECT_EQ(support::readFile(file), "precious");
    EXPECT_EQ(mdch({"cat", m_server.url("/none"), "-o", file}).status, 2);
    EXPECT_EQ(support::readFile(file), "precious");
}

class MdchInterruptTest : public MdchErrorsTest
{
protected:
    // Starts the command, waits until `ready`, sends the signal, and returns what is left.
    template <typename Ready>
    Result interrupt(const std::vector<std::string>& arguments, int number, Ready ready)
    {
        support::ProcessOptions options;
        options.standardOutput = m_folder.file("out");
        options.standardError = m_folder.file("err");
        // What an earlier command left would make this one look ready before it has begun.
        std::filesystem::remove(options.standardOutput);
        std::filesystem::remove(options.standardError);
        support::Process process(support::mdchCommand(arguments), options);
        EXPECT_TRUE(support::waitUntil(ready));
        process.signal(number);
        Result result;
        result.status = process.wait().value_or(-1);
        result.out = support::readFile(options.standardOutput);
        result.err = support::readFile(options.standardError);
        return result;
    }
};

TEST_F(MdchInterruptTest, WhileBytesCome)
{
    m_server.on("/live", Reply::endless(Media(5)).throttle(1000000));
    const std::string file = m_folder.file("out");
    const auto hasBytes = [&file] {
        std::error_code none;
        return std::filesystem::exists(file, none) && std::filesystem::file_size(file, none) > 0;
    };
    for (const int number : {SIGINT, SIGTERM}) {
        const Result result = interrupt({"cat", m_server.url("/live")}, number, hasBytes);
        EXPECT_EQ(result.status, 128 + number);
        EXPECT_EQ(result.err, "mdch: interrupted after " + std::to_string(result.out.size()) + " bytes.\n");
        EXPECT_TRUE(Media(5).matches(0, result.out));
        EXPECT_TRUE(m_server.waitForOpenConnections(0));
    }
}

TEST_F(MdchInterruptTest, WhileTheServerKeepsSilentInTheBody)
{
    m_server.on("/song", Reply().body(Media(5), 200000).stall(At::body(50000)));
    const auto sent = [this] { return m_server.waitForBodyBytes("/song", 50000); };
    const Result result = interrupt({"cat", m_server.url("/song")}, SIGINT, sent);
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(result.err, "mdch: interrupted after " + std::to_string(result.out.size()) + " bytes.\n");
}

TEST_F(MdchInterruptTest, WhileTheServerOwesItsAnswer)
{
    m_server.on("/song", Reply::silence());
    const auto asked = [this] { return m_server.waitForRequests(1); };
    const Result result = interrupt({"info", m_server.url("/song")}, SIGINT, asked);
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(result.err, "mdch: interrupted after 0 bytes.\n");
}

} // namespace
