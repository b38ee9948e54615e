// What cat shows while it copies: one line on a terminal, and nothing anywhere else.
#include "support_mdch.h"
#include "support_terminal.h"

#include "support/gate.h"
#include "support/http_server.h"
#include "support/media.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <vector>

namespace {

using support::At;
using support::Gate;
using support::HttpServer;
using support::mdch;
using support::Media;
using support::Reply;
using support::Terminal;
using support::waitUntil;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kClearLine = "\r\x1b[K";

// A block of titles as a server mixes it between audio.
std::string block(std::string text)
{
    text.resize((text.size() + 15) / 16 * 16, '\0');
    return static_cast<char>(text.size() / 16) + text;
}

class MdchProgress : public testing::Test
{
protected:
    support::ProcessOptions onTerminal() const
    {
        support::ProcessOptions options;
        options.terminalFd = m_terminal.fd();
        options.standardOutput = m_terminal.path();
        return options;
    }
    std::vector<std::string> cat(const std::string& path, const std::vector<std::string>& more = {}) const
    {
        std::vector<std::string> command = {MDCH_BINARY, "cat", m_server.url(path), "-o", m_copy};
        command.insert(command.end(), more.begin(), more.end());
        return command;
    }
    bool waitForLine(const std::string& pattern)
    {
        const std::regex form(pattern);
        return waitUntil([&] { return std::regex_search(m_terminal.shown(), form); },
                         std::chrono::minutes(1));
    }
    // All lines that were drawn, in their order.
    std::vector<std::string> lines()
    {
        std::vector<std::string> found;
        std::string rest = m_terminal.shown();
        const std::string start = kClearLine;
        for (std::size_t at = rest.find(start); at != std::string::npos; at = rest.find(start)) {
            rest.erase(0, at + start.size());
            found.push_back(rest.substr(0, rest.find(start)));
        }
        return found;
    }

    HttpServer m_server;
    Terminal m_terminal;
    support::TempDir m_folder;
    const std::string m_copy = m_folder.file("copy");
};

TEST_F(MdchProgress, BarBytesRateTimeLeftAndBuffer)
{
    constexpr std::size_t kSize = 1000000;
    Gate gate;
    // What has come goes to the file at once: half is copied, less than a buffer's piece waits.
    m_server.on("/song", Reply::resource(Media(5), kSize).throttle(400000).wait(At::body(900000), gate));
    support::Process process(cat("/song"), onTerminal());
    EXPECT_TRUE(waitForLine(
        R"(\[=+ +\] +[0-9]+%  [0-9.]+ kB of 1\.0 MB  [0-9.]+ k?B/s  [0-9:]+ left  buffer [0-9]+%)"))
        << m_terminal.shown();
    gate.open();
    EXPECT_EQ(process.wait(), 0);
    EXPECT_TRUE(support::readFile(m_copy) == Media(5).bytes(0, kSize));
    EXPECT_EQ(lines().back(), ""); // nothing is left on the screen
    EXPECT_THAT(m_terminal.shown(), Not(HasSubstr("\n")));
}

TEST_F(MdchProgress, AStandstillShows)
{
    m_server.on("/song", Reply::resource(Media(5), 1000000).stall(At::body(300000)));
    support::Process process(cat("/song"), onTerminal());
    EXPECT_TRUE(waitForLine(R"(  [0-9]+ B/s  )")) << m_terminal.shown(); // falls by and by
    EXPECT_TRUE(process.isRunning());
}

TEST_F(MdchProgress, ALiveStreamShowsTimeRateAndTheCurrentTitle)
{
    Gate gate;
    const std::string audio = Media(5).bytes(0, 24000);
    std::string body;
    body += audio.substr(0, 8000) + block("StreamTitle='First - Song';");
    body += audio.substr(8000, 8000) + block("StreamTitle='Second \x1b[31m Song';");
    body += audio.substr(16000) + block("");
    m_server.on("/live", Reply::icy("Radio", 8000)
                             .body(body)
                             .closeDelimited()
                             .wait(At::body(16000 + 33), gate)
                             .stall(At::body(body.size())));
    support::Process process(cat("/live", {"--icy"}), onTerminal());
    EXPECT_TRUE(waitForLine(R"(kB  [0-9.]+ k?B/s  [0-9:]+  buffer [0-9]+%  First - Song)"))
        << m_terminal.shown();
    gate.open();
    EXPECT_TRUE(waitForLine(R"(buffer [0-9]+%  Second  \[31m Song)")) << m_terminal.shown();
    // Whole pieces of 4096 bytes.
    EXPECT_TRUE(waitUntil([&] { return support::readFile(m_copy).size() >= 20480; }));
    process.signal(SIGINT);
    EXPECT_EQ(process.wait(), 130);
    const std::string copy = support::readFile(m_copy);
    EXPECT_TRUE(copy == audio.substr(0, copy.size()));
}

TEST_F(MdchProgress, NeverWiderThanTheTerminal)
{
    m_terminal.setColumns(30);
    const std::string title = "\xc3\x84\xe6\x97\xa5 and many letters more of this song";
    const std::string body =
        Media(5).bytes(0, 4096) + block("StreamTitle='" + title + "';") + Media(5).bytes(4096, 4096);
    m_server.on("/live", Reply::icy("Radio", 4096).body(body).closeDelimited().stall(At::body(body.size())));
    support::Process process(cat("/live", {"--icy"}), onTerminal());
    EXPECT_TRUE(waitForLine("B/s  [0-9:]+  b")) << m_terminal.shown();
    process.signal(SIGINT);
    EXPECT_EQ(process.wait(), 130);
    const std::vector<std::string> drawn = lines();
    for (std::size_t index = 0; index + 1 < drawn.size(); ++index) {
        const auto isLead = [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0U) != 0x80U; };
        EXPECT_LT(std::count_if(drawn[index].begin(), drawn[index].end(), isLead), 30) << drawn[index];
    }
}

TEST_F(MdchProgress, QuietUnlessOutputAndErrorsAreTheTerminal)
{
    // Long enough for several lines.
    m_server.on("/song", Reply::resource(Media(5), 300000).throttle(300000));
    support::ProcessOptions piped = onTerminal();
    piped.standardOutput = "/dev/null";
    support::Process outputElsewhere(cat("/song"), piped);
    EXPECT_EQ(outputElsewhere.wait(), 0);
    EXPECT_EQ(m_terminal.shown(), "");

    support::ProcessOptions logged;
    logged.standardOutput = m_terminal.path();
    logged.standardError = m_folder.file("log");
    support::Process errorsElsewhere(cat("/song"), logged);
    EXPECT_EQ(errorsElsewhere.wait(), 0);
    EXPECT_EQ(m_terminal.shown(), "");
    EXPECT_EQ(support::readFile(m_folder.file("log")), "");

    // The bytes themselves on the terminal, and nothing else.
    m_server.on("/text", Reply::resource(std::string(3000, 'x')).throttle(3000));
    support::Process bytes({MDCH_BINARY, "cat", m_server.url("/text")}, onTerminal());
    EXPECT_EQ(bytes.wait(), 0);
    EXPECT_TRUE(waitUntil([&] { return m_terminal.shown().size() >= 3000; }));
    EXPECT_EQ(m_terminal.shown(), std::string(3000, 'x'));
}

TEST_F(MdchProgress, WithoutTitlesTheBytesAreTheAudioAlone)
{
    const std::string audio = Media(5).bytes(0, 30000);
    std::string mixed;
    for (std::size_t at = 0; at < audio.size(); at += 1000) {
        mixed += audio.substr(at, 1000) + block(at % 3000 == 0 ? "StreamTitle='A';" : "");
    }
    m_server.on("/live", Reply::icy("Radio", 1000).body(mixed).closeDelimited());
    EXPECT_TRUE(mdch({"cat", m_server.url("/live"), "--icy"}).out == audio);
    EXPECT_TRUE(mdch({"cat", m_server.url("/live"), "--icy", "--raw"}).out == mixed);
    EXPECT_TRUE(mdch({"cat", m_server.url("/live"), "--icy", "--length", "5500"}).out ==
                audio.substr(0, 5500));
    EXPECT_EQ(mdch({"cat", m_server.url("/live"), "--raw"}).status, 1);
    const support::Result moved = mdch({"cat", m_server.url("/live"), "--icy", "--offset", "10"});
    EXPECT_EQ(moved.status, 1);
    EXPECT_EQ(moved.out, "");
}

} // namespace
