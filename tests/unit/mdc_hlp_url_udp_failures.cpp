// Streams over UDP: what each failing socket call gives, traces and leaves behind.
#include "mdc_hlp_url_udp.h"

#include "mdc_hlp_url.h"
#include "support/failing_call.h"
#include "support/network_namespace.h"
#include "support/udp_stream.h"

#include <cerrno>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <vector>

namespace {

using support::SystemCall;
using Lines = std::vector<std::string>;

const std::string kAddress = support::ownLoopbackAddress();
const std::string kAnyPort = "udp://" + kAddress + ":0";
const std::string kParsed = "4000 mdc_hlp_url_udp.cpp:#:parseUrl(): ipv4 " + kAddress + " port 0.\n";

SystemCall settingOption(int level, int option)
{
    return {SYS_setsockopt,
            {{1, static_cast<std::uint32_t>(level)}, {2, static_cast<std::uint32_t>(option)}}};
}

std::string opening(const std::string& text)
{
    return "1000 mdc_hlp_url_udp.cpp:#:open(): " + text;
}

// Opens while a call fails; checks result, error member, traces and descriptors. Afterwards `stream` is in the
// state that the failure left.
class UdpFailure : public testing::Test
{
protected:
    void openWhileFailing(const SystemCall& call, int errorNumber, const Lines& expected,
                          const std::string& url = kAnyPort)
    {
        const auto before = support::openDescriptors();
        const support::TraceCapture traces;
        int result = 0;
        m_problem = support::whileFailing(call, errorNumber, [&] { result = m_stream.open(url.c_str(), 0); });
        if (m_problem.empty()) {
            EXPECT_EQ(result, -errorNumber);
            EXPECT_EQ(m_stream.error(), errorNumber);
            EXPECT_EQ(support::levelsAndTexts(traces), expected);
            EXPECT_EQ(support::openDescriptors(), before) << "the socket is closed again";
        }
    }

    void expectSpent()
    {
        const auto before = support::openDescriptors();
        const int error = m_stream.error();
        EXPECT_EQ(m_stream.open(kAnyPort.c_str(), 0), -EEXIST) << "the socket's number is kept";
        EXPECT_EQ(m_stream.error(), error) << "which is no failed call";
        EXPECT_EQ(m_stream.close(), -EBADF);
        EXPECT_EQ(m_stream.open(kAnyPort.c_str(), 0), -EEXIST);
        EXPECT_EQ(support::openDescriptors(), before);
    }

    MdchUrlUdp m_stream;
    std::string m_problem;
};

#define SKIP_WITHOUT_FILTER()                                                                                \
    if (!m_problem.empty()) {                                                                                \
        GTEST_SKIP() << m_problem;                                                                           \
    }

} // namespace

TEST_F(UdpFailure, noSocket)
{
    openWhileFailing({SYS_socket, {}}, ENOBUFS,
                     {kParsed, opening("Error creating socket " + std::to_string(ENOBUFS) + ".\n")});
    SKIP_WITHOUT_FILTER();
    EXPECT_EQ(m_stream.open(kAnyPort.c_str(), 0), 0) << "no number was stored, so it counts as never opened";
    m_stream.close();
}

TEST_F(UdpFailure, noDescriptors)
{
    // What works at first; sanitizers, which need descriptors to look at types, have seen them then, too.
    const unsigned int handle = mdch_UrlOpen(kAnyPort.c_str(), MDCH_MODE_READ);
    ASSERT_NE(handle, 0U);
    mdch_UrlClose(handle);
    ASSERT_EQ(m_stream.open("", 0), -EINVAL);

    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    support::TraceCapture traces;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(m_stream.open(kAnyPort.c_str(), 0), -EMFILE);
    EXPECT_EQ(mdch_UrlOpen(kAnyPort.c_str(), MDCH_MODE_READ), 0U);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(m_stream.error(), EMFILE);
    EXPECT_EQ(
        traces.count("mdc_hlp_url_udp.cpp:#:open(): Error creating socket " + std::to_string(EMFILE) + ".\n"),
        2U);
    EXPECT_EQ(m_stream.open(kAnyPort.c_str(), 0), 0);
    EXPECT_EQ(m_stream.error(), EMFILE) << "a success does not reset it";
    m_stream.close();
}

TEST_F(UdpFailure, reuseAddressRefused)
{
    openWhileFailing(settingOption(SOL_SOCKET, SO_REUSEADDR), ENOPROTOOPT,
                     {kParsed, opening("Error setting SO_REUSEADDR " + std::to_string(ENOPROTOOPT) + ".\n")});
    SKIP_WITHOUT_FILTER();
    expectSpent();
}

TEST_F(UdpFailure, receiveBufferRefused)
{
    openWhileFailing(
        settingOption(SOL_SOCKET, SO_RCVBUF), EPERM,
        {kParsed, opening("Error " + std::to_string(EPERM) + " setting SO_RCVBUF to 192512.\n")});
    SKIP_WITHOUT_FILTER();
    expectSpent();
}

TEST_F(UdpFailure, bindRefused)
{
    openWhileFailing({SYS_bind, {}}, EACCES, {kParsed, opening("bind to socket failed.\n")});
    SKIP_WITHOUT_FILTER();
    expectSpent();
}

TEST_F(UdpFailure, joiningRefused)
{
    // Refused before the kernel sees it: nothing is sent.
    openWhileFailing(settingOption(IPPROTO_IP, IP_ADD_MEMBERSHIP), ENOBUFS,
                     {"4000 mdc_hlp_url_udp.cpp:#:parseUrl(): ipv4 239.0.0.1 port 0.\n",
                      "4000 mdc_hlp_url_udp.cpp:#:open(): Join multicast group.",
                      opening("adding to multicast group failed.\n")},
                     "udp://239.0.0.1:0");
    SKIP_WITHOUT_FILTER();
    expectSpent();
}

TEST_F(UdpFailure, portInUseWithoutSharing)
{
    const support::UdpReceiver owner(kAddress, 0, support::UdpPort::alone);
    const std::string url = "udp://" + kAddress + ":" + std::to_string(owner.port());
    const auto before = support::openDescriptors();
    const support::TraceCapture traces;
    EXPECT_EQ(m_stream.open(url.c_str(), 0), -EADDRINUSE);
    EXPECT_EQ(m_stream.error(), EADDRINUSE);
    EXPECT_EQ(support::levelsAndTexts(traces),
              (Lines{"4000 mdc_hlp_url_udp.cpp:#:parseUrl(): ipv4 " + kAddress + " port " +
                         std::to_string(owner.port()) + ".\n",
                     opening("bind to socket failed.\n")}));
    EXPECT_EQ(support::openDescriptors(), before);
    expectSpent();
}

TEST_F(UdpFailure, addressOfAnotherMachine)
{
    EXPECT_EQ(m_stream.open("udp://192.0.2.1:0", 0), -EADDRNOTAVAIL);
    EXPECT_EQ(m_stream.error(), EADDRNOTAVAIL);
    expectSpent();
}

TEST_F(UdpFailure, aFailureShowsInTheRecordAndGivesNoHandle)
{
    mdch_UrlExtended_struct ext{};
    EXPECT_EQ(mdch_UrlOpenExt("udp://192.0.2.1:0", MDCH_MODE_READ, &ext), 0U);
    EXPECT_EQ(ext.error, -EADDRNOTAVAIL);
}

TEST_F(UdpFailure, noRouteForTheGroup)
{
    const support::NetworkNamespace network;
    if (!network) {
        GTEST_SKIP() << network.problem();
    }
    network.ip("route delete 224.0.0.0/4");
    const auto before = support::openDescriptors();
    const support::TraceCapture traces;
    EXPECT_EQ(m_stream.open("udp://239.0.0.1:1234", 0), -ENODEV);
    EXPECT_EQ(m_stream.error(), ENODEV);
    EXPECT_EQ(support::levelsAndTexts(traces),
              (Lines{"4000 mdc_hlp_url_udp.cpp:#:parseUrl(): ipv4 239.0.0.1 port 1234.\n",
                     "4000 mdc_hlp_url_udp.cpp:#:open(): Join multicast group.",
                     opening("adding to multicast group failed.\n")}));
    EXPECT_EQ(support::openDescriptors(), before);
    expectSpent();
}

TEST_F(UdpFailure, theInterfaceOptionIsDispensable)
{
    const support::NetworkNamespace network;
    if (!network) {
        GTEST_SKIP() << network.problem();
    }
    int result = -1;
    const std::string problem =
        support::whileFailing(settingOption(IPPROTO_IP, IP_MULTICAST_ALL), ENOPROTOOPT,
                              [&] { result = m_stream.open("udp://239.0.0.1:1234", 0); });
    if (!problem.empty()) {
        GTEST_SKIP() << problem;
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(m_stream.error(), 0);
    support::UdpSender("239.0.0.1", 1234).send("hello");
    EXPECT_EQ(support::readNext(m_stream), "hello");
    EXPECT_EQ(m_stream.close(), 0);
}

TEST_F(UdpFailure, closeGivesTheResultOfClosing)
{
    const support::NetworkNamespace network;
    if (!network) {
        GTEST_SKIP() << network.problem();
    }
    const auto before = support::openDescriptors();
    ASSERT_EQ(m_stream.open("udp://239.0.0.1:1234", 0), 0);
    const int fd = support::descriptorOpenedSince(before);
    ASSERT_GE(fd, 0);
    int result = 0;
    const std::string problem = support::whileFailing({SYS_close, {{0, static_cast<std::uint32_t>(fd)}}}, EIO,
                                                      [&] { result = m_stream.close(); });
    if (problem.empty()) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(m_stream.error(), 0) << "leaving the group went well";
        ::close(fd); // the filter kept it open
    } else {
        m_stream.close();
        GTEST_SKIP() << problem;
    }
}

TEST_F(UdpFailure, aFailingReadGivesZeroAndLeavesTheError)
{
    support::UdpStream stream;
    ASSERT_EQ(stream.start(kAnyPort), 0);
    support::UdpSender(kAddress, stream.port()).send("hello");
    const support::TraceCapture traces;
    std::string bytes = "not read";
    const std::string problem =
        support::whileFailing({SYS_recvfrom, {}}, EIO, [&] { bytes = support::readOnce(stream); });
    if (!problem.empty()) {
        GTEST_SKIP() << problem;
    }
    EXPECT_EQ(bytes, "");
    EXPECT_EQ(stream.error(), 0);
    EXPECT_EQ(support::levelsAndTexts(traces), (Lines{"5000 mdc_hlp_url_udp.cpp:#:read(): read .\n",
                                                      "1000 mdc_hlp_url_udp.cpp:#:read(): read error.\n"}));
    EXPECT_EQ(support::readNext(stream), "hello") << "the stream goes on";
}

SystemCall waiting()
{
#ifdef SYS_poll
    return {SYS_poll, {}};
#else
    return {SYS_ppoll, {}};
#endif
}

TEST_F(UdpFailure, whatIsQueuedNeedsNoWait)
{
    support::UdpStream stream;
    ASSERT_EQ(stream.start(kAnyPort), 0);
    const support::UdpSender sender(kAddress, stream.port());
    sender.send("one");
    sender.send("two");
    std::vector<std::string> read;
    const std::string problem = support::whileFailing(waiting(), EINTR, [&] {
        read.push_back(support::readOnce(stream));
        read.push_back(support::readOnce(stream));
    });
    if (!problem.empty()) {
        GTEST_SKIP() << problem;
    }
    EXPECT_EQ(read, (std::vector<std::string>{"one", "two"}));
}

TEST_F(UdpFailure, aFailingWaitGivesZeroWithoutAWord)
{
    support::UdpStream stream;
    ASSERT_EQ(stream.start(kAnyPort), 0);
    const support::TraceCapture traces;
    std::string bytes = "not read";
    const std::string problem =
        support::whileFailing(waiting(), EINTR, [&] { bytes = support::readOnce(stream); });
    if (!problem.empty()) {
        GTEST_SKIP() << problem;
    }
    EXPECT_EQ(bytes, "");
    EXPECT_EQ(stream.error(), 0);
    EXPECT_EQ(support::levelsAndTexts(traces), Lines{"5000 mdc_hlp_url_udp.cpp:#:read(): read .\n"});
    support::UdpSender(kAddress, stream.port()).send("hello");
    EXPECT_EQ(support::readNext(stream), "hello") << "the stream goes on";
}
