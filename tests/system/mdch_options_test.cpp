// The options that all commands share that open a stream: what they make of the request and of the waiting, where
// the key's pass phrase comes from, and what a trace looks like.
#include "support_mdch.h"
#include "support_terminal.h"

#include "support/certificates.h"
#include "support/http_server.h"
#include "support/media.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using support::At;
using support::HttpServer;
using support::mdch;
using support::Media;
using support::Reply;
using support::Result;
using support::Terminal;
using testing::HasSubstr;
using testing::Not;

class MdchOptions : public testing::Test
{
protected:
    Result fetch(const std::string& path, const std::vector<std::string>& options) const
    {
        std::vector<std::string> command = {"cat", m_server.url(path)};
        command.insert(command.end(), options.begin(), options.end());
        return mdch(command);
    }
    std::string failed(const std::string& what, const std::string& path, const std::string& why) const
    {
        return "mdch: cannot " + what + " " + m_server.url(path) + why + "\n";
    }

    HttpServer m_server;
    support::TempDir m_folder;
};

TEST_F(MdchOptions, RedirectsAreFollowedAsFarAsAllowed)
{
    m_server.on("/first", Reply::redirect("/second"));
    m_server.on("/second", Reply::redirect("/song"));
    m_server.on("/song", Reply().body("hello"));
    EXPECT_EQ(fetch("/first", {}).out, "hello");
    EXPECT_EQ(fetch("/first", {"--max-redirects", "2"}).out, "hello");
    const Result tooMany = fetch("/first", {"--max-redirects", "1"});
    EXPECT_EQ(tooMany.status, 6);
    EXPECT_EQ(tooMany.err, failed("open", "/first",
                                  ": it redirects too often. Check the address, or allow more with "
                                  "--max-redirects."));
    EXPECT_EQ(tooMany.out, "");
    EXPECT_EQ(fetch("/song", {"--max-redirects", "0"}).out, "hello");
}

TEST_F(MdchOptions, WithoutRedirectsTheAnswerIsThatItMoved)
{
    m_server.on("/first", Reply::redirect("/song"));
    m_server.on("/song", Reply().body("hello"));
    const Result result = fetch("/first", {"--no-redirects"});
    EXPECT_EQ(result.status, 8);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, failed("open", "/first", ": the content has moved (302). Use the new address."));
    EXPECT_EQ(m_server.requests("/song").size(), 0U);
    EXPECT_EQ(fetch("/first", {"--no-redirects", "--max-redirects", "3"}).status, 1);
}

TEST_F(MdchOptions, ARangeIsSentFromTheFirstByteIfAskedFor)
{
    m_server.on("/song", Reply::resource("hello"));
    for (const bool byHand : {false, true}) {
        const std::vector<std::string> more =
            byHand ? std::vector<std::string>{"--header", "X-One: 1"} : std::vector<std::string>{};
        std::vector<std::string> forced = more;
        forced.emplace_back("--force-range");
        EXPECT_EQ(fetch("/song", more).out, "hello");
        EXPECT_EQ(m_server.requests().back().header("Range"), "");
        EXPECT_EQ(fetch("/song", forced).out, "hello");
        EXPECT_EQ(m_server.requests().back().header("Range"), "bytes=0-");
    }
}

// The longer time-out would outlast the test.
TEST_F(MdchOptions, HeaderAndDataHaveTimeoutsOfTheirOwn)
{
    m_server.on("/silent", Reply::silence());
    m_server.on("/stuck", Reply::resource(Media(1), 200000).stall(At::body(70000)));
    const Result header = fetch("/silent", {"--timeout", "600", "--header-timeout", "1"});
    EXPECT_EQ(header.status, 6);
    EXPECT_EQ(header.err, failed("open", "/silent",
                                 ": no answer in time. Try again, or allow more time with --timeout."));
    const Result data = fetch("/stuck", {"--data-timeout", "1", "--header-timeout", "600"});
    EXPECT_EQ(data.status, 6);
    EXPECT_TRUE(data.out == Media(1).bytes(0, 70000));
    EXPECT_EQ(data.err, failed("read", "/stuck",
                               " after 70000 of 200000 bytes: no data in time. Try again, or allow more time "
                               "with --timeout."));
    EXPECT_EQ(fetch("/stuck", {"--data-timeout", "0"}).status, 1);
}

// The certificate's key opens with the right pass phrase only.
TEST_F(MdchOptions, ThePassPhraseIsAskedForUnseen)
{
    const support::Certificates& files = support::certificates();
    HttpServer server(support::Tls().requireClientSignedBy(files.ca.certificate));
    server.on("/song", Reply().body("hello"));
    const std::string phrase = files.clientFiles.password;
    for (const std::string& typed : {phrase, std::string("wrong")}) {
        Terminal terminal;
        support::ProcessOptions options;
        options.terminalFd = terminal.fd();
        options.standardOutput = m_folder.file("out");
        support::Process process({MDCH_BINARY, "cat", server.url("/song"), "--ca-path", files.caDirectory,
                                  "--client-cert", files.clientFiles.encryptedPem, "--key-password-prompt"},
                                 options);
        ASSERT_TRUE(terminal.waitFor("Pass phrase of " + files.clientFiles.encryptedPem + ": "));
        EXPECT_FALSE(terminal.echoes());
        terminal.type(typed + "\n");
        EXPECT_EQ(process.wait() == 0, typed == phrase) << terminal.shown();
        EXPECT_EQ(support::readFile(m_folder.file("out")), typed == phrase ? "hello" : "");
        EXPECT_THAT(terminal.shown(), Not(HasSubstr(typed)));
        EXPECT_TRUE(terminal.echoes());
    }
}

TEST_F(MdchOptions, AnInterruptedQuestionLeavesTheTerminalAsItWas)
{
    Terminal terminal;
    support::ProcessOptions options;
    options.terminalFd = terminal.fd();
    support::Process process({MDCH_BINARY, "info", m_server.url("/song"), "--client-cert",
                              support::certificates().clientFiles.encryptedPem, "--key-password-prompt"},
                             options);
    ASSERT_TRUE(terminal.waitFor("Pass phrase of "));
    terminal.type("\x03");
    EXPECT_EQ(process.wait(), 130);
    EXPECT_TRUE(terminal.echoes());
    EXPECT_EQ(m_server.requests().size(), 0U);
}

TEST_F(MdchOptions, WithoutATerminalNobodyIsAsked)
{
    const std::string certificate = support::certificates().clientFiles.encryptedPem;
    const Result result = support::runToEnd({"setsid", "--wait", MDCH_BINARY, "cat", m_server.url("/song"),
                                             "--client-cert", certificate, "--key-password-prompt"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "mdch: no pass phrase: there is no terminal to ask at. Use --key-password-file.\n");
    EXPECT_EQ(mdch({"cat", m_server.url("/song"), "--key-password-prompt"}).status, 1);
}

TEST_F(MdchOptions, EveryTraceLineHasItsTimeAndItsSeverity)
{
    m_server.on("/song", Reply().body("hello"));
    const Result result = fetch("/song", {"-vvvv"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "hello");
    const std::regex form(R"( *([0-9]+\.[0-9]{3}) (fatal  |failure|notice |call   )  (\S.*))");
    std::istringstream lines(result.err);
    std::size_t count = 0;
    double last = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(line, parts, form)) << line;
        EXPECT_LE(last, std::stod(parts[1]));
        last = std::stod(parts[1]);
    }
    EXPECT_GE(count, 10U);
    EXPECT_THAT(result.err, HasSubstr(" notice   open(): try to open url " + m_server.url("/song") + "\n"));
    EXPECT_THAT(result.err, HasSubstr(" call     createInstance(" + m_server.url("/song") + ") => HTTP\n"));
}

TEST_F(MdchOptions, FailuresShowFromTheSecondOn)
{
    const std::string gone = m_server.url("/gone");
    EXPECT_THAT(mdch({"info", gone, "-v"}).err, Not(HasSubstr(" failure ")));
    EXPECT_THAT(mdch({"info", gone, "-vv"}).err, HasSubstr(" failure  "));
    EXPECT_THAT(mdch({"info", gone, "-vv"}).err, Not(HasSubstr(" notice ")));
    EXPECT_THAT(mdch({"info", gone, "-vvvvvv"}).err, HasSubstr(" call  "));
}

} // namespace
