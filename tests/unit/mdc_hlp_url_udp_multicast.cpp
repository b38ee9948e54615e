// Streams over UDP: multicast groups. Each test has a network of its own, which nothing leaves.
#include "mdc_hlp_url_udp.h"

#include "mdc_hlp_url.h"
#include "support/network_namespace.h"
#include "support/udp_stream.h"

#include <cerrno>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

using support::readNext;
using support::readOnce;
using support::UdpReceiver;
using support::UdpSender;
using support::UdpStream;
using Lines = std::vector<std::string>;

constexpr const char* kUrl = "udp://239.0.0.1:1234";
constexpr const char* kGroup = "239.0.0.1";
constexpr std::uint16_t kPort = 1234;

class UdpMulticast : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!m_network) {
            GTEST_SKIP() << m_network.problem();
        }
    }

    // How many sockets have joined a group, by the kernel's table: address in network order, then users.
    static int members(const std::string& group)
    {
        std::ostringstream wanted;
        wanted << std::hex << std::uppercase;
        wanted.fill('0');
        wanted.width(8);
        wanted << support::udpAddress(group, 0).sin_addr.s_addr;
        std::ifstream table("/proc/thread-self/net/igmp");
        for (std::string word; table >> word;) {
            if (word == wanted.str()) {
                int users = 0;
                table >> users;
                return users;
            }
        }
        return 0;
    }

    support::NetworkNamespace m_network;
};

} // namespace

TEST_F(UdpMulticast, openBindsToTheGroupAndJoins)
{
    for (const char* url : {kUrl, "udp://@239.0.0.1:1234"}) {
        UdpStream stream;
        EXPECT_EQ(members(kGroup), 0);
        ASSERT_EQ(stream.start(url), 0);
        EXPECT_EQ(stream.boundTo(), "239.0.0.1:1234");
        EXPECT_EQ(members(kGroup), 1);
        UdpSender(kGroup, kPort).send("hello");
        EXPECT_EQ(readNext(stream), "hello");
        EXPECT_EQ(stream.close(), 0);
        EXPECT_EQ(members(kGroup), 0) << "left again";
    }
}

TEST_F(UdpMulticast, openAndCloseTraceEachStep)
{
    UdpStream stream;
    support::TraceCapture traces;
    ASSERT_EQ(stream.start("udp://@239.0.0.1:1234/x"), 0);
    EXPECT_EQ(support::levelsAndTexts(traces),
              (Lines{"4000 mdc_hlp_url_udp.cpp:#:parseUrl(): ipv4 239.0.0.1 port 1234.\n",
                     "4000 mdc_hlp_url_udp.cpp:#:open(): Join multicast group.",
                     "4000 MdchUrlUdp::open() udp://@239.0.0.1:1234/x open OK. ret=0.\n"}));
    traces.clear();
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(support::levelsAndTexts(traces),
              Lines{"4000 MdchUrlUdp::close() udp://@239.0.0.1:1234/x drop multicast ok, shutdown now.\n"});
    EXPECT_EQ(stream.error(), 0);
}

TEST_F(UdpMulticast, closeClosesTheSocket)
{
    const auto before = support::openDescriptors();
    UdpStream stream;
    ASSERT_EQ(stream.start(kUrl), 0);
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(support::openDescriptors(), before);
    EXPECT_EQ(stream.close(), -EBADF);
    EXPECT_EQ(stream.open(kUrl, 0), -EEXIST);
}

TEST_F(UdpMulticast, closeAfterTheGroupIsGoneFailsAndStillCloses)
{
    const auto before = support::openDescriptors();
    UdpStream stream;
    ASSERT_EQ(stream.start(kUrl), 0);
    const ip_mreq membership{support::udpAddress(kGroup, 0).sin_addr, {}};
    ASSERT_EQ(setsockopt(stream.fd(), IPPROTO_IP, IP_DROP_MEMBERSHIP, &membership, sizeof membership), 0);
    EXPECT_EQ(stream.close(), -EADDRNOTAVAIL);
    EXPECT_EQ(stream.error(), EADDRNOTAVAIL);
    EXPECT_EQ(support::openDescriptors(), before);
}

TEST_F(UdpMulticast, theGroupsReachFrom224To239)
{
    m_network.ip("address add 223.255.255.255/32 dev lo");
    struct Example
    {
        const char* address;
        bool isGroup;
    };
    for (const Example& example :
         {Example{"223.255.255.255", false}, Example{"224.0.0.0", true}, Example{"224.0.1.0", true},
          Example{"232.1.2.3", true}, Example{"239.255.255.255", true}, Example{"0.0.0.0", false},
          Example{"127.0.0.1", false}, Example{"255.255.255.255", false}}) {
        support::TraceCapture traces;
        UdpStream stream;
        ASSERT_EQ(stream.start(std::string("udp://") + example.address + ":1234"), 0) << example.address;
        EXPECT_EQ(members(example.address), example.isGroup ? 1 : 0) << example.address;
        EXPECT_EQ(traces.count("mdc_hlp_url_udp.cpp:#:open(): Join multicast group."),
                  example.isGroup ? 1U : 0U)
            << example.address;
        EXPECT_EQ(stream.close() == 0, example.isGroup) << example.address;
    }
}

TEST_F(UdpMulticast, aUnicastAddressBindsWithoutJoiningAndCloseFails)
{
    m_network.ip("address add 10.0.0.5/32 dev lo");
    UdpStream stream;
    ASSERT_EQ(stream.start("udp://10.0.0.5:5000"), 0);
    EXPECT_EQ(stream.boundTo(), "10.0.0.5:5000");
    UdpSender("10.0.0.5", 5000).send("hello");
    EXPECT_EQ(readNext(stream), "hello");
    EXPECT_LT(stream.close(), 0);
}

TEST_F(UdpMulticast, takesOnlyItsGroupAndPort)
{
    UdpStream stream;
    ASSERT_EQ(stream.start(kUrl), 0);
    const UdpReceiver otherGroup("239.0.0.2", kPort); // joined, so that its datagrams arrive here
    UdpSender("239.0.0.2", kPort).send("another group");
    UdpSender(kGroup, kPort + 1).send("another port");
    UdpSender("127.0.0.1", kPort).send("this machine");
    EXPECT_EQ(otherGroup.receive(), "another group");
    UdpSender(kGroup, kPort).send("hello");
    EXPECT_EQ(readNext(stream), "hello");
    EXPECT_EQ(readOnce(stream), "");
}

TEST_F(UdpMulticast, everyReceiverOfAGroupGetsEachDatagram)
{
    UdpStream one;
    UdpStream two;
    ASSERT_EQ(one.start(kUrl), 0);
    ASSERT_EQ(two.start(kUrl), 0) << "the port is shared";
    const UdpReceiver three(kGroup, kPort);
    EXPECT_EQ(members(kGroup), 3);
    const UdpSender sender(kGroup, kPort);
    for (int i = 0; i < 20; ++i) {
        sender.send(std::to_string(i));
    }
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(readNext(one), std::to_string(i));
        EXPECT_EQ(readNext(two), std::to_string(i));
        EXPECT_EQ(three.receive(), std::to_string(i));
    }
    EXPECT_EQ(one.close(), 0);
    EXPECT_EQ(members(kGroup), 2);
    sender.send("after one has left");
    EXPECT_EQ(readNext(two), "after one has left");
}

TEST_F(UdpMulticast, theGroupIsLeftWithTheLastSocketOnly)
{
    auto released = std::make_unique<MdchUrlUdp>();
    const auto before = support::openDescriptors();
    ASSERT_EQ(released->open(kUrl, 0), 0);
    released.reset();
    EXPECT_EQ(members(kGroup), 1) << "released without a close, it stays open and in its group";
    ::close(support::descriptorOpenedSince(before));
    EXPECT_EQ(members(kGroup), 0);
}

TEST_F(UdpMulticast, aLateReaderGetsWhatTheBufferHeld)
{
    UdpStream stream;
    ASSERT_EQ(stream.start(kUrl), 0);
    const UdpSender sender(kGroup, kPort);
    for (int i = 0; i < 2000; ++i) {
        sender.send(std::to_string(i) + std::string(1300, 'x'));
    }
    int held = 0;
    for (std::string bytes = readNext(stream); !bytes.empty(); bytes = readOnce(stream)) {
        EXPECT_EQ(bytes, std::to_string(held) + std::string(1300, 'x'));
        ++held;
    }
    EXPECT_GT(held, 50);
    EXPECT_LT(held, 2000);
    sender.send("after");
    EXPECT_EQ(readNext(stream), "after");
}

TEST_F(UdpMulticast, aClosedStreamLeavesNobodyElsesGroup)
{
    UdpStream stream;
    ASSERT_EQ(stream.start(kUrl), 0);
    const int number = stream.fd();
    ASSERT_EQ(stream.close(), 0);
    std::vector<std::unique_ptr<UdpReceiver>> others;
    bool taken = false;
    for (int i = 0; i < 20; ++i) { // one gets the stream's number, in the stream's group
        others.push_back(std::make_unique<UdpReceiver>(kGroup, kPort));
        taken = taken || others.back()->fd() == number;
    }
    ASSERT_TRUE(taken);
    EXPECT_EQ(members(kGroup), 20);
    UdpSender(kGroup, kPort).send("mine");
    EXPECT_EQ(stream.close(), -EBADF);
    EXPECT_EQ(readOnce(stream), "");
    EXPECT_EQ(stream.close(), -EBADF);
    EXPECT_EQ(members(kGroup), 20);
    for (const auto& other : others) {
        EXPECT_EQ(other->receive(), "mine");
    }
}

// The routes lead multicast to the first interface; on the second, other sockets may join.
class UdpTwoInterfaces : public UdpMulticast
{
protected:
    static constexpr const char* kFirst = "10.1.0.1";
    static constexpr const char* kSecond = "10.2.0.1";

    void SetUp() override
    {
        UdpMulticast::SetUp();
        if (IsSkipped()) {
            return;
        }
        m_network.ip("link add first type veth peer name firstpeer");
        m_network.ip("link add second type veth peer name secondpeer");
        for (const char* words :
             {"link set firstpeer up", "link set secondpeer up", "link set first up", "link set second up",
              "address add 10.1.0.1/24 dev first", "address add 10.2.0.1/24 dev second",
              "route replace 224.0.0.0/4 dev first"}) {
            m_network.ip(words);
        }
    }
};

TEST_F(UdpTwoInterfaces, whatComesInThroughAnotherInterfaceDoesNotCount)
{
    UdpStream stream;
    ASSERT_EQ(stream.start(kUrl), 0);
    EXPECT_EQ(stream.option(IPPROTO_IP, IP_MULTICAST_ALL), 0);
    const UdpReceiver onFirst(kGroup, kPort, support::UdpPort::shared, kFirst);
    const UdpReceiver onSecond(kGroup, kPort, support::UdpPort::shared, kSecond);

    UdpSender(kGroup, kPort, kSecond).send("second");
    EXPECT_EQ(onSecond.receive(), "second");
    UdpSender(kGroup, kPort, kFirst).send("first");
    EXPECT_EQ(onFirst.receive(), "second") << "an ordinary socket gets what anybody here has joined";
    EXPECT_EQ(onFirst.receive(), "first");
    EXPECT_EQ(readNext(stream), "first") << "the stream does not";
    EXPECT_EQ(readOnce(stream), "");
}

TEST_F(UdpTwoInterfaces, norDoesWhatComesWhileTheStreamIsOpened)
{
    // Each line that open traces stands for a moment in which a datagram may arrive.
    struct Interruption
    {
        UdpReceiver onSecond{kGroup, kPort, support::UdpPort::shared, kSecond};
        UdpSender sender{kGroup, kPort, kSecond};
        int sent = 0;
    } interruption;
    mdpDebugSetSink(
        [](void* context, unsigned int, const char*) {
            auto* self = static_cast<Interruption*>(context);
            self->sender.send("second");
            EXPECT_EQ(self->onSecond.receive(), "second");
            ++self->sent;
        },
        &interruption);
    mdpDebugSetSeverity(5000);
    UdpStream stream;
    const int result = stream.start(kUrl);
    mdpDebugSetSeverity(1000);
    mdpDebugSetSink(nullptr, nullptr);
    ASSERT_EQ(result, 0);
    EXPECT_EQ(interruption.sent, 3);
    EXPECT_EQ(readOnce(stream), "");
}

TEST_F(UdpMulticast, theInterfaceIsTheOneOfTheRoutes)
{
    m_network.ip("link add first type veth peer name firstpeer");
    for (const char* words : {"link set firstpeer up", "link set first up",
                              "address add 10.1.0.1/24 dev first", "route add 239.1.0.0/16 dev first"}) {
        m_network.ip(words);
    }
    UdpStream stream;
    ASSERT_EQ(stream.start("udp://239.1.0.1:1234"), 0);
    UdpSender("239.1.0.1", kPort, "127.0.0.1").send("loopback");
    UdpSender("239.1.0.1", kPort, "10.1.0.1").send("first");
    EXPECT_EQ(readNext(stream), "first");
    EXPECT_EQ(readOnce(stream), "");
}

TEST_F(UdpMulticast, aCallerInCClosesWithoutAnError)
{
    const unsigned int handle = mdch_UrlOpen(kUrl, MDCH_MODE_READ);
    ASSERT_NE(handle, 0U);
    UdpSender(kGroup, kPort).send("hello");
    unsigned char buffer[16] = {};
    int count = 0;
    support::waitUntil([&] { return (count = mdch_UrlRead(handle, buffer, sizeof buffer)) != 0; });
    EXPECT_EQ(std::string(buffer, buffer + count), "hello");
    EXPECT_EQ(mdch_UrlClose(handle), 0);
    EXPECT_EQ(members(kGroup), 0);
}
