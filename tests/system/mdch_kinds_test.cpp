// The command line on media volumes and on datagrams.
#include "support_mdch.h"

#include "support/sockets.h"
#include "support/temp_dir.h"
#include "support/wait.h"

#include <arpa/inet.h>
#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using support::mdch;
using support::Result;
using testing::HasSubstr;

class MdchVolumes : public testing::Test
{
protected:
    MdchVolumes() { m_folder.write("song.mp3", "hello"); }

    std::vector<std::string> command(std::vector<std::string> words) const
    {
        words.push_back("--volume");
        words.push_back("1234-ABCD=" + m_folder.path());
        return words;
    }

    support::TempDir m_folder;
};

// Sends one datagram after another to a port of 127.0.0.1 until it goes.
class Sender
{
public:
    Sender() : m_socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), m_port(freePort())
    {
        m_thread = std::thread([this] { run(); });
    }
    ~Sender()
    {
        m_done = true;
        m_thread.join();
        close(m_socket);
    }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    std::string url() const { return "udp://127.0.0.1:" + std::to_string(m_port); }

    static std::string datagram() { return std::string(1000, 'd') + "\n"; }

private:
    static sockaddr_in address(std::uint16_t port)
    {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        to.sin_port = htons(port);
        return to;
    }

    static std::uint16_t freePort()
    {
        const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in bound = address(0);
        socklen_t size = sizeof bound;
        bind(probe, reinterpret_cast<const sockaddr*>(&bound), sizeof bound);
        getsockname(probe, reinterpret_cast<sockaddr*>(&bound), &size);
        close(probe);
        return ntohs(bound.sin_port);
    }

    void run() const
    {
        const sockaddr_in to = address(m_port);
        const std::string text = datagram();
        while (!m_done) {
            sendto(m_socket, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
            std::this_thread::yield();
        }
    }

    int m_socket;
    std::uint16_t m_port;
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

TEST_F(MdchVolumes, VolumesListsUuidPathAndDevice)
{
    const Result result = mdch(command({"volumes"}));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, testing::ContainsRegex("^UUID +PATH +DEVICE +FUNCTIONS\n"));
    EXPECT_THAT(result.out,
                testing::ContainsRegex("\n1234-ABCD +" + m_folder.path() + "/ +- +read, write\n"));
}

TEST_F(MdchVolumes, NativePrintsThePath)
{
    const Result result = mdch(command({"native", "NVL2://1234-abcd/no such/song.mp3"}));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, m_folder.path() + "/no such/song.mp3\n");
}

TEST_F(MdchVolumes, NativeOfAnUnknownVolumeAndOfOtherAddresses)
{
    const Result unknown = mdch(command({"native", "nvl2://none/a"}));
    EXPECT_EQ(unknown.status, 9);
    EXPECT_EQ(unknown.out, "");
    EXPECT_EQ(unknown.err, "mdch: cannot translate nvl2://none/a: there is no such media volume. "
                           "See with mdch volumes which there are.\n");
    const Result other = mdch(command({"native", "http://host/a"}));
    EXPECT_EQ(other.status, 1);
    EXPECT_EQ(other.err, "mdch: cannot translate http://host/a: it is not on a media volume. "
                         "Such addresses are nvl2://UUID/PATH.\n");
}

TEST_F(MdchVolumes, InfoOfAFileOnAVolume)
{
    const Result result = mdch(command({"info", "nvl2://1234-abcd/song.mp3"}));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "URL           nvl2://1234-abcd/song.mp3\n"
                          "Back-end      media volume\n"
                          "Length        5 bytes\n"
                          "Seekable      yes\n"
                          "Capabilities  byte seek, stalling\n");
    const Result native = mdch(command({"info", "nvl2://1234-abcd/song.mp3", "--native"}));
    EXPECT_THAT(native.out, HasSubstr("Back-end      file\n"));
}

TEST_F(MdchVolumes, CatOfAFileOnAVolume)
{
    EXPECT_EQ(mdch(command({"cat", "nvl2://1234-abcd/song.mp3"})).out, "hello");
    EXPECT_EQ(mdch(command({"cat", "nvl2://1234-abcd/song.mp3", "--native"})).out, "hello");
    EXPECT_EQ(mdch(command({"cat", "nvl2://1234-abcd/song.mp3", "--offset", "-3", "--length", "2"})).out,
              "ll");
}

TEST_F(MdchVolumes, WhatIsNotThere)
{
    const Result unknown = mdch(command({"cat", "nvl2://none/a"}));
    EXPECT_EQ(unknown.status, 9);
    EXPECT_EQ(unknown.err, "mdch: cannot open nvl2://none/a: there is no such media volume. See with mdch "
                           "volumes which there are.\n");
    const Result missing = mdch(command({"cat", "nvl2://1234-abcd/none"}));
    EXPECT_EQ(missing.status, 9);
    EXPECT_EQ(missing.err,
              "mdch: cannot open nvl2://1234-abcd/none: No such file or directory. Check the path.\n");
    const Result outside = mdch(command({"cat", "nvl2://1234-abcd/../a"}));
    EXPECT_EQ(outside.status, 9);
    EXPECT_THAT(outside.err, HasSubstr("cannot open nvl2://1234-abcd/../a: Permission denied."));
}

TEST(MdchDatagrams, InfoTellsTheKind)
{
    const Result result = mdch({"info", "udp://127.0.0.1:0"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "URL           udp://127.0.0.1:0\n"
                          "Back-end      UDP\n"
                          "Length        unknown\n"
                          "Seekable      no\n"
                          "Capabilities  none\n");
}

TEST(MdchDatagrams, CatWritesWholeDatagramsUpToTheLength)
{
    const Sender sender;
    const Result result = mdch({"cat", sender.url(), "--length", "2500"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, (Sender::datagram() + Sender::datagram() + Sender::datagram()).substr(0, 2500));
}

TEST(MdchDatagrams, SilenceIsAFailure)
{
    const Result result = mdch({"cat", "udp://127.0.0.1:0", "--timeout", "1"});
    EXPECT_EQ(result.status, 6);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "mdch: cannot read udp://127.0.0.1:0 after 0 bytes: nothing came for 1 s. "
                          "Check the address, the port and the sender, or allow more time with --timeout.\n");
}

TEST(MdchDatagrams, MalformedAddressesAreWrongUsage)
{
    const Result result = mdch({"cat", "udp://example:1234"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "mdch: cannot open udp://example:1234: it is not udp://ADDRESS:PORT with an address in "
              "four numbers. For example udp://239.1.2.3:5000.\n");
}

TEST(MdchDatagrams, AForeignAddressIsANetworkFailure)
{
    const Result result = mdch({"cat", "udp://198.51.100.1:5000"});
    EXPECT_EQ(result.status, 6);
    EXPECT_THAT(result.err,
                HasSubstr("cannot open udp://198.51.100.1:5000: Cannot assign requested address."));
}

} // namespace
