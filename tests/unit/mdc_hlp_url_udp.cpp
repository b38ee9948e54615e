// Streams over UDP: opening, closing and what they answer in every state, on the loopback interface.
#include "mdc_hlp_url_udp.h"

#include "mdc_hlp_url.h"
#include "mdc_hlp_url_base.h"
#include "support/udp_stream.h"

#include <algorithm>
#include <boost/shared_ptr.hpp>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using support::UdpStream;
using Lines = std::vector<std::string>;

const std::string kAddress = support::ownLoopbackAddress();
const std::string kAnyPort = "udp://" + kAddress + ":0";
constexpr int kReceiveBuffer = 192512;

void expectConstants(MdchUrlUdp& stream)
{
    EXPECT_EQ(stream.tell(), -1);
    EXPECT_EQ(stream.size(), -1);
    for (const int whence : {0, 1, 2, 3, -1}) {
        EXPECT_EQ(stream.seek(0, whence), -1);
    }
    EXPECT_EQ(stream.seekTime(0), -1);
    EXPECT_EQ(stream.seekTime(UINT_MAX), -1);
    EXPECT_EQ(stream.getc(), -1);
    EXPECT_EQ(stream.eof(), 0);
    EXPECT_EQ(stream.isSeekable(), 0);
    EXPECT_EQ(stream.capability(), 0U);
    EXPECT_EQ(stream.pause(), -1);
    EXPECT_EQ(stream.resume(), -1);
    for (const int command : {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}) {
        EXPECT_EQ(stream.fcntl(command), -ENOSYS) << command;
    }
}

} // namespace

TEST(UdpStream, beginsWithoutAnError)
{
    MdchUrlUdp stream;
    EXPECT_EQ(stream.error(), 0);
}

TEST(UdpStream, constantsHoldInEveryState)
{
    UdpStream stream;
    expectConstants(stream);
    ASSERT_EQ(stream.start(kAnyPort), 0);
    expectConstants(stream);
    EXPECT_EQ(stream.error(), 0) << "an answer of -1 is no failed socket call";
    stream.close();
    expectConstants(stream);
}

TEST(UdpStream, constantsTraceNothing)
{
    MdchUrlUdp stream;
    const support::TraceCapture traces;
    expectConstants(stream);
    stream.error();
    stream.clearerr();
    EXPECT_EQ(traces.texts(), Lines{});
}

TEST(UdpStream, opensADatagramSocketBoundToTheAddress)
{
    UdpStream stream;
    ASSERT_EQ(stream.start(kAnyPort), 0);
    ASSERT_GE(stream.fd(), 0) << "one descriptor";
    EXPECT_EQ(stream.boundTo(), kAddress + ":" + std::to_string(stream.port()));
    EXPECT_EQ(stream.option(SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
    EXPECT_EQ(stream.option(SOL_SOCKET, SO_DOMAIN), AF_INET);
    EXPECT_EQ(stream.error(), 0);
}

TEST(UdpStream, bindsThePortOfTheUrl)
{
    const std::uint16_t port = support::UdpReceiver(kAddress, 0).port(); // free again
    UdpStream stream;
    ASSERT_EQ(stream.start("udp://" + kAddress + ":" + std::to_string(port)), 0);
    EXPECT_EQ(stream.port(), port);
}

TEST(UdpStream, setsTheSocketsOptions)
{
    UdpStream stream;
    ASSERT_EQ(stream.start(kAnyPort), 0);
    EXPECT_EQ(stream.option(SOL_SOCKET, SO_REUSEADDR), 1);
    int most = 0;
    std::ifstream("/proc/sys/net/core/rmem_max") >> most;
    ASSERT_GT(most, 0);
    EXPECT_EQ(stream.option(SOL_SOCKET, SO_RCVBUF), 2 * std::min(kReceiveBuffer, most))
        << "the kernel doubles what it allows";
    EXPECT_EQ(fcntl(stream.fd(), F_GETFD), FD_CLOEXEC);
}

TEST(UdpStream, openIgnoresTheMode)
{
    for (const int mode : {0, 1, 2, 7, -1, INT_MAX, INT_MIN}) {
        MdchUrlUdp stream;
        EXPECT_EQ(stream.open(kAnyPort.c_str(), mode), 0) << mode;
        stream.close();
    }
}

TEST(UdpStream, openTracesAddressAndSuccess)
{
    UdpStream stream;
    const support::TraceCapture traces;
    ASSERT_EQ(stream.start("udp://user@127.0.0.1:0/path?x"), 0);
    EXPECT_EQ(support::levelsAndTexts(traces),
              (Lines{"4000 mdc_hlp_url_udp.cpp:#:parseUrl(): ipv4 127.0.0.1 port 0.\n",
                     "4000 MdchUrlUdp::open() udp://user@127.0.0.1:0/path?x open OK. ret=0.\n"}));
}

TEST(UdpStream, aUnicastAddressIsInNoGroupSoCloseFailsAndStillCloses)
{
    UdpStream stream;
    const auto before = support::openDescriptors();
    ASSERT_EQ(stream.start(kAnyPort), 0);
    ASSERT_GE(stream.fd(), 0);
    const support::TraceCapture traces;
    EXPECT_EQ(stream.close(), -EADDRNOTAVAIL);
    EXPECT_EQ(support::openDescriptors(), before);
    EXPECT_EQ(stream.error(), EADDRNOTAVAIL);
    EXPECT_EQ(support::levelsAndTexts(traces),
              Lines{"1000 mdc_hlp_url_udp.cpp:#:close(): Dropping multicast group error.\n"});
}

TEST(UdpStream, clearerrForgetsTheError)
{
    MdchUrlUdp stream;
    ASSERT_EQ(stream.open(kAnyPort.c_str(), 0), 0);
    stream.close();
    ASSERT_NE(stream.error(), 0);
    ASSERT_NE(stream.error(), 0) << "asking does not reset it";
    stream.clearerr();
    EXPECT_EQ(stream.error(), 0);
}

TEST(UdpStream, aSecondOpenIsRefusedAndTheFirstGoesOn)
{
    UdpStream stream;
    ASSERT_EQ(stream.start(kAnyPort), 0);
    const auto before = support::openDescriptors();
    const support::TraceCapture traces;
    EXPECT_EQ(stream.open(kAnyPort.c_str(), 0), -EEXIST);
    EXPECT_EQ(stream.open("nonsense", 0), -EEXIST) << "judged before the URL";
    EXPECT_EQ(stream.open(nullptr, 0), -EEXIST);
    EXPECT_EQ(support::levelsAndTexts(traces),
              Lines(3, "1000 mdc_hlp_url_udp.cpp:#:open(): Already opened.\n"));
    EXPECT_EQ(support::openDescriptors(), before);
    EXPECT_EQ(stream.error(), 0);
    support::UdpSender(kAddress, stream.port()).send("hello");
    EXPECT_EQ(support::readNext(stream), "hello");
}

TEST(UdpStream, aSecondOpenIsRefusedAfterClose)
{
    MdchUrlUdp stream;
    ASSERT_EQ(stream.open(kAnyPort.c_str(), 0), 0);
    stream.close();
    const auto before = support::openDescriptors();
    EXPECT_EQ(stream.open(kAnyPort.c_str(), 0), -EEXIST);
    EXPECT_EQ(stream.open(kAnyPort.c_str(), 0), -EEXIST);
    EXPECT_EQ(support::openDescriptors(), before);
}

TEST(UdpStream, aRefusedSecondOpenLeavesTheUrlAsItWas)
{
    support::TraceCapture traces;
    MdchUrlUdp stream;
    ASSERT_EQ(stream.open(kAnyPort.c_str(), 0), 0);
    EXPECT_EQ(stream.open("udp://127.0.0.2:0", 0), -EEXIST);
    EXPECT_FALSE(traces.hasAnywhere("127.0.0.2"));
    stream.close();
}

TEST(UdpStream, opensAfterAMalformedUrl)
{
    UdpStream stream;
    for (const char* url : {"", "udp://", "udp://127.0.0.1", "udp://localhost:1", "udp://127.0.0.1:x"}) {
        EXPECT_EQ(stream.open(url, 0), -EINVAL) << url;
        EXPECT_EQ(stream.error(), 0) << "no socket call failed";
    }
    EXPECT_EQ(stream.start(kAnyPort), 0) << "no socket was made, so it counts as never opened";
}

TEST(UdpStream, aNullUrlIsMalformed)
{
    MdchUrlUdp stream;
    const support::TraceCapture traces;
    EXPECT_EQ(stream.open(nullptr, 0), -EINVAL);
    EXPECT_EQ(support::levelsAndTexts(traces),
              (Lines{"1000 mdc_hlp_url_udp.cpp:#:parseUrl(): wrong protocol.\n",
                     "1000 mdc_hlp_url_udp.cpp:#:open(): parseUrl failed.\n"}));
}

TEST(UdpStream, closingWhatWasNeverOpenedFails)
{
    MdchUrlUdp stream;
    const auto before = support::openDescriptors();
    const support::TraceCapture traces;
    EXPECT_EQ(stream.close(), -EBADF);
    EXPECT_EQ(stream.error(), EBADF);
    EXPECT_EQ(support::levelsAndTexts(traces),
              Lines{"1000 mdc_hlp_url_udp.cpp:#:close(): Dropping multicast group error.\n"});
    EXPECT_EQ(support::openDescriptors(), before) << "descriptor 0 is not touched, nor any other";
    stream.clearerr();
    EXPECT_EQ(stream.open(kAnyPort.c_str(), 0), 0) << "still never opened";
    stream.close();
}

TEST(UdpStream, closingTwiceFailsTheSecondTime)
{
    MdchUrlUdp stream;
    ASSERT_EQ(stream.open(kAnyPort.c_str(), 0), 0);
    EXPECT_EQ(stream.close(), -EADDRNOTAVAIL);
    EXPECT_EQ(stream.close(), -EBADF);
    EXPECT_EQ(stream.error(), EBADF) << "the last failure";
    EXPECT_EQ(stream.close(), -EBADF);
}

TEST(UdpStream, theDestructorLeavesTheSocketOpen)
{
    const auto before = support::openDescriptors();
    auto stream = std::make_unique<MdchUrlUdp>();
    ASSERT_EQ(stream->open(kAnyPort.c_str(), 0), 0);
    const int fd = support::descriptorOpenedSince(before);
    ASSERT_GE(fd, 0);
    const std::string bound = support::boundTo(fd);
    const support::TraceCapture traces;
    stream.reset();
    EXPECT_EQ(support::descriptorOpenedSince(before), fd);
    EXPECT_EQ(support::boundTo(fd), bound);
    EXPECT_EQ(traces.texts(), Lines{});
    ::close(fd);
}

TEST(UdpStream, theDestructorOfAClosedStreamLeavesOthersAlone)
{
    const auto before = support::openDescriptors();
    {
        MdchUrlUdp closed;
        ASSERT_EQ(closed.open(kAnyPort.c_str(), 0), 0);
        closed.close();
        const MdchUrlUdp neverOpened;
        MdchUrlUdp malformed;
        malformed.open("udp://", 0);
    }
    EXPECT_EQ(support::openDescriptors(), before);
}

TEST(UdpStream, aThousandStreamsLeaveNoDescriptor)
{
    const support::TraceCapture quiet;
    const auto before = support::openDescriptors();
    for (int i = 0; i < 1000; ++i) {
        MdchUrlUdp stream;
        ASSERT_EQ(stream.open(kAnyPort.c_str(), 0), 0);
        stream.close();
    }
    EXPECT_EQ(support::openDescriptors(), before);
}

TEST(UdpStream, theSchemeLeadsHere)
{
    for (const char* url : {"udp://127.0.0.1:0", "UDP://127.0.0.1:0", "Udp://", "udp://"}) {
        const boost::shared_ptr<MdchUrlBase> stream(MdchUrlBase::createInstance(url));
        EXPECT_NE(dynamic_cast<MdchUrlUdp*>(stream.get()), nullptr) << url;
    }
}

TEST(UdpStream, opensThroughTheDispatch)
{
    mdch_UrlExtended_struct ext{};
    boost::shared_ptr<MdchUrlBase> stream;
    ASSERT_EQ(mdch_OpenUrl(kAnyPort.c_str(), MDCH_MODE_READ, &ext, stream), 0);
    EXPECT_EQ(ext.error, 0);
    ASSERT_NE(dynamic_cast<MdchUrlUdp*>(stream.get()), nullptr);
    stream->close();
}

TEST(UdpStream, aCallerInCSeesTheSameStream)
{
    const auto before = support::openDescriptors();
    const unsigned int handle = mdch_UrlOpen(kAnyPort.c_str(), MDCH_MODE_READ);
    ASSERT_NE(handle, 0U);
    const std::string bound = support::boundTo(support::descriptorOpenedSince(before));
    ASSERT_EQ(bound.substr(0, kAddress.size() + 1), kAddress + ":");
    support::UdpSender(kAddress, static_cast<std::uint16_t>(std::stoi(bound.substr(kAddress.size() + 1))))
        .send("hello");

    unsigned char buffer[16] = {};
    int count = 0;
    support::waitUntil([&] { return (count = mdch_UrlRead(handle, buffer, sizeof buffer)) != 0; });
    EXPECT_EQ(std::string(buffer, buffer + count), "hello");
    EXPECT_EQ(mdch_UrlTell(handle), -1);
    EXPECT_EQ(mdch_UrlSize(handle), -1);
    EXPECT_EQ(mdch_UrlSeek(handle, 0, 0), -1);
    EXPECT_EQ(mdch_UrlSeekTime(handle, 0), -1);
    EXPECT_EQ(mdch_UrlGetc(handle), -1);
    EXPECT_EQ(mdch_UrlEof(handle), 0);
    EXPECT_EQ(mdch_UrlError(handle), 0);
    EXPECT_EQ(mdch_UrlIsSeekable(handle), 0);
    EXPECT_EQ(mdch_UrlCapability(handle), 0U);
    EXPECT_EQ(mdch_UrlPause(handle), -1);
    EXPECT_EQ(mdch_UrlResume(handle), -1);
    EXPECT_EQ(mdch_UrlClose(handle), -EADDRNOTAVAIL);
    EXPECT_EQ(support::openDescriptors(), before);
    errno = 0;
    EXPECT_EQ(mdch_UrlClose(handle), -1) << "the handle is given up, whatever close returned";
    EXPECT_EQ(errno, EBADF);
}
