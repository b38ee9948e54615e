// Streams over UDP: reading and writing on the loopback interface, open, closed and never opened.
#include "mdc_hlp_url_udp.h"

#include "mdc_hlp_url.h"
#include "support/network_namespace.h"
#include "support/udp_stream.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <memory>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <poll.h>
#include <random>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace {

using support::readNext;
using support::readOnce;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;

constexpr const char* kReadTrace = "5000 mdc_hlp_url_udp.cpp:#:read(): read .\n";
constexpr const char* kReadError = "1000 mdc_hlp_url_udp.cpp:#:read(): read error.\n";
constexpr const char* kWriteError = "1000 mdc_hlp_url_udp.cpp:#:write(): write error.\n";
constexpr std::chrono::milliseconds kPatience{500};

class UdpRead : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(m_stream.start("udp://" + m_address + ":0"), 0);
        m_sender = std::make_unique<support::UdpSender>(m_address, m_stream.port());
    }

    void send(std::string_view bytes) const { m_sender->send(bytes); }

    bool somethingHasCome() const
    {
        pollfd waited{m_stream.fd(), POLLIN, 0};
        return poll(&waited, 1, static_cast<int>(support::defaultDeadline.count())) > 0;
    }

    const std::string m_address = support::ownLoopbackAddress();
    support::UdpStream m_stream;
    std::unique_ptr<support::UdpSender> m_sender;
};

} // namespace

TEST_F(UdpRead, givesOneDatagramAfterTheOther)
{
    for (const char* text : {"one", "two", "three"}) {
        send(text);
    }
    EXPECT_EQ(readNext(m_stream), "one");
    EXPECT_EQ(readNext(m_stream), "two");
    EXPECT_EQ(readNext(m_stream), "three");
}

TEST_F(UdpRead, doesNotFillTheBufferFromTwoDatagrams)
{
    send("abc");
    send("def");
    unsigned char buffer[6] = {9, 9, 9, 9, 9, 9};
    int count = 0;
    support::waitUntil([&] { return (count = m_stream.read(buffer, 6)) != 0; });
    EXPECT_EQ(count, 3);
    EXPECT_EQ(std::string(buffer, buffer + 3), "abc");
    EXPECT_EQ(buffer[3], 9) << "behind the datagram nothing is touched";
}

TEST_F(UdpRead, cutsADatagramThatIsLongerThanTheBuffer)
{
    send("abcdef");
    send("next");
    EXPECT_EQ(readNext(m_stream, 4), "abcd");
    EXPECT_EQ(readNext(m_stream, 4), "next") << "the rest of the first is gone";
}

TEST_F(UdpRead, aBufferOfSizeZeroTakesTheDatagram)
{
    send("gone");
    send("next");
    ASSERT_TRUE(somethingHasCome());
    EXPECT_EQ(m_stream.read(nullptr, 0), 0);
    EXPECT_EQ(readNext(m_stream), "next");
}

TEST_F(UdpRead, anEmptyDatagramGivesZeroAndNothingElse)
{
    send("");
    send("next");
    ASSERT_TRUE(somethingHasCome());
    const support::TraceCapture traces;
    EXPECT_EQ(readOnce(m_stream), "");
    EXPECT_EQ(support::levelsAndTexts(traces), Lines{kReadTrace});
    EXPECT_EQ(readNext(m_stream), "next");
}

TEST_F(UdpRead, givesTheLongestDatagramWhole)
{
    std::string longest(65507, '\0');
    std::mt19937 random(3);
    for (char& each : longest) {
        each = static_cast<char>(random());
    }
    send(longest);
    EXPECT_EQ(readNext(m_stream), longest);
    send(longest);
    EXPECT_EQ(readNext(m_stream, 65507), longest);
    send(longest);
    EXPECT_EQ(readNext(m_stream, 65506), longest.substr(0, 65506));
}

TEST_F(UdpRead, aBufferMayBeLargerThanAnyDatagram)
{
    send("hello");
    std::vector<unsigned char> buffer(1 << 20);
    int count = 0;
    support::waitUntil([&] {
        return (count = m_stream.read(buffer.data(), static_cast<unsigned int>(buffer.size()))) != 0;
    });
    EXPECT_EQ(count, 5);
}

TEST_F(UdpRead, withoutTrafficWaitsHalfASecondAndGivesZero)
{
    const support::TraceCapture traces;
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(readOnce(m_stream), "");
    EXPECT_GE(Clock::now() - begin, kPatience);
    EXPECT_EQ(m_stream.error(), 0);
    EXPECT_EQ(m_stream.eof(), 0);
    EXPECT_EQ(support::levelsAndTexts(traces), Lines{kReadTrace});
    send("later");
    EXPECT_EQ(readNext(m_stream), "later") << "it was no end";
}

TEST_F(UdpRead, aLateReaderGetsWhatTheBufferHeld)
{
    constexpr int kSent = 2000;
    for (int i = 0; i < kSent; ++i) {
        send(std::to_string(i) + std::string(1000, 'x'));
    }
    int held = 0;
    for (std::string bytes = readNext(m_stream); !bytes.empty(); bytes = readOnce(m_stream)) {
        EXPECT_EQ(bytes, std::to_string(held) + std::string(1000, 'x'));
        ++held;
    }
    EXPECT_GT(held, 50) << "the buffer is large";
    EXPECT_LT(held, kSent) << "but not endless: what came when it was full is lost";
    send("after");
    EXPECT_EQ(readNext(m_stream), "after");
    EXPECT_EQ(m_stream.error(), 0);
}

TEST_F(UdpRead, takesOnlyWhatIsSentToItsAddress)
{
    support::UdpSender("127.0.0.2", m_stream.port()).send("to another address");
    send("to this one");
    EXPECT_EQ(readNext(m_stream), "to this one");
    EXPECT_EQ(readOnce(m_stream), "");
}

TEST_F(UdpRead, tracesEachReadOnce)
{
    send("a");
    send("b");
    const support::TraceCapture traces;
    EXPECT_EQ(readOnce(m_stream), "a");
    EXPECT_EQ(readOnce(m_stream), "b");
    EXPECT_EQ(support::levelsAndTexts(traces), (Lines{kReadTrace, kReadTrace}));
}

TEST_F(UdpRead, writingHasNowhereToSendTo)
{
    unsigned char bytes[] = {1, 2, 3};
    const support::TraceCapture traces;
    EXPECT_EQ(m_stream.write(bytes, 3), 0);
    EXPECT_EQ(m_stream.write(bytes, 0), 0);
    EXPECT_EQ(support::levelsAndTexts(traces), (Lines{kWriteError, kWriteError}));
    EXPECT_EQ(m_stream.error(), 0) << "write does not keep its failures";
    send("still here");
    EXPECT_EQ(readNext(m_stream), "still here");
}

TEST_F(UdpRead, aConnectedSocketSends)
{
    const support::UdpReceiver peer(m_address, 0);
    const sockaddr_in address = support::udpAddress(m_address, peer.port());
    ASSERT_EQ(connect(m_stream.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    unsigned char bytes[] = {'a', 'b', 'c'};
    EXPECT_EQ(m_stream.write(bytes, 3), 3);
    EXPECT_EQ(peer.receive(), "abc");
}

TEST_F(UdpRead, aClosedStreamGivesZeroAtOnceAndSaysSo)
{
    m_stream.close();
    m_stream.clearerr();
    unsigned char bytes[] = {1, 2, 3};
    const support::TraceCapture traces;
    EXPECT_EQ(m_stream.read(bytes, 3), 0);
    EXPECT_EQ(m_stream.write(bytes, 3), 0);
    EXPECT_EQ(bytes[0], 1);
    EXPECT_EQ(m_stream.error(), 0);
    EXPECT_EQ(support::levelsAndTexts(traces), (Lines{kReadTrace, kReadError, kWriteError}));
}

TEST_F(UdpRead, aStreamThatWasNeverOpenedGivesZero)
{
    MdchUrlUdp stream;
    unsigned char bytes[] = {1, 2, 3};
    const support::TraceCapture traces;
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(stream.read(bytes, 3), 0);
    EXPECT_GE(Clock::now() - begin, kPatience) << "nothing came from nowhere";
    EXPECT_EQ(stream.write(bytes, 3), 0);
    EXPECT_EQ(stream.error(), 0);
    EXPECT_EQ(support::levelsAndTexts(traces), (Lines{kReadTrace, kWriteError}));
}

TEST_F(UdpRead, manyDescriptorsAreOpenAlready)
{
    constexpr rlim_t kHigh = 2000; // more than select() could wait for
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, 2 * kHigh));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    std::vector<support::UniqueFd> others;
    do {
        others.emplace_back(fcntl(m_stream.fd(), F_DUPFD_CLOEXEC, 0));
        ASSERT_GE(others.back().get(), 0) << "the limit is " << limit.rlim_cur;
    } while (others.back().get() < static_cast<int>(kHigh));

    support::UdpStream stream;
    ASSERT_EQ(stream.start("udp://127.0.0.1:0"), 0); // another address: two streams may get the same port
    ASSERT_GT(stream.fd(), static_cast<int>(kHigh));
    support::UdpSender("127.0.0.1", stream.port()).send("hello");
    EXPECT_EQ(readNext(stream), "hello");
}

TEST_F(UdpRead, aClosedStreamTouchesNobodyElsesDescriptor)
{
    const auto before = support::openDescriptors();
    const int number = m_stream.fd();
    m_stream.close();
    // One of them gets the stream's number, with datagrams to steal.
    std::vector<std::unique_ptr<support::UdpReceiver>> others;
    bool taken = false;
    for (int i = 0; i < 50; ++i) {
        others.push_back(std::make_unique<support::UdpReceiver>(m_address, 0));
        taken = taken || others.back()->fd() == number;
        support::UdpSender(m_address, others.back()->port()).send("mine");
    }
    ASSERT_TRUE(taken);
    EXPECT_EQ(m_stream.close(), -EBADF);
    unsigned char byte = 'x';
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(readOnce(m_stream), "");
        EXPECT_EQ(m_stream.write(&byte, 1), 0);
        EXPECT_EQ(m_stream.open(("udp://" + m_address + ":0").c_str(), 0), -EEXIST);
        EXPECT_EQ(m_stream.close(), -EBADF);
    }
    for (const auto& other : others) {
        EXPECT_EQ(other->receive(), "mine");
        support::UdpSender(m_address, other->port()).send("mine too");
        EXPECT_EQ(other->receive(), "mine too") << "it was shut down";
    }
    others.clear();
    EXPECT_EQ(support::openDescriptors().size(), before.size() - 1);
}

TEST_F(UdpRead, aFailedStreamTouchesNobodyElsesDescriptor)
{
    const auto before = support::openDescriptors();
    MdchUrlUdp stream;
    ASSERT_EQ(stream.open("udp://192.0.2.1:0", 0), -EADDRNOTAVAIL);
    std::vector<std::unique_ptr<support::UdpReceiver>> others;
    for (int i = 0; i < 20; ++i) {
        others.push_back(std::make_unique<support::UdpReceiver>(m_address, 0));
        support::UdpSender(m_address, others.back()->port()).send("mine");
    }
    unsigned char byte = 'x';
    EXPECT_EQ(readOnce(stream), "");
    EXPECT_EQ(stream.write(&byte, 1), 0);
    EXPECT_EQ(stream.close(), -EBADF);
    for (const auto& other : others) {
        EXPECT_EQ(other->receive(), "mine");
    }
    others.clear();
    EXPECT_EQ(support::openDescriptors(), before);
}

// A datagram whose checksum does not fit makes a socket look readable, and is then dropped.
TEST(UdpDamaged, aDamagedDatagramHoldsNoReader)
{
    const support::NetworkNamespace network;
    if (!network) {
        GTEST_SKIP() << network.problem();
    }
    support::UdpStream stream;
    ASSERT_EQ(stream.start("udp://127.0.0.1:5000"), 0);
    const support::UniqueFd raw(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_UDP));
    ASSERT_TRUE(raw);
    struct
    {
        udphdr header;
        char text[4];
    } packet{};
    packet.header.source = htons(4000);
    packet.header.dest = htons(5000);
    packet.header.len = htons(sizeof packet);
    packet.header.check = htons(0x1234);
    const sockaddr_in to = support::udpAddress("127.0.0.1", 0);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(
            sendto(raw.get(), &packet, sizeof packet, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to),
            static_cast<ssize_t>(sizeof packet));
    }
    const support::TraceCapture traces;
    EXPECT_EQ(readOnce(stream), "");
    EXPECT_EQ(support::levelsAndTexts(traces), Lines{kReadTrace}) << "nor is it an error";
    support::UdpSender("127.0.0.1", 5000).send("whole");
    EXPECT_EQ(readNext(stream), "whole");
}
