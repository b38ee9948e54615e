// Streams over UDP: several threads on one stream.
#include "mdc_hlp_url_udp.h"

#include "mdc_hlp_url.h"
#include "support/udp_stream.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using support::readOnce;
using support::UdpReceiver;
using support::UdpSender;
using support::UdpStream;
using Clock = std::chrono::steady_clock;

const std::string kAddress = support::ownLoopbackAddress();
const std::string kAnyPort = "udp://" + kAddress + ":0";
constexpr std::chrono::milliseconds kPatience{500};

// One read on a thread of its own.
class Reader
{
public:
    explicit Reader(MdchUrlBase& stream)
        : m_thread(std::async(std::launch::async, [this, &stream] {
              m_id = static_cast<pid_t>(syscall(SYS_gettid));
              std::string bytes = readOnce(stream);
              m_id = -1;
              return bytes;
          }))
    {
    }

    // Until the thread waits in a system call for something to come (as far as the system shows it), or is
    // through.
    void waitUntilItWaits() const
    {
        support::waitUntil([this] { return m_id < 0 || (m_id > 0 && isInPoll(m_id)); });
    }

    bool isBack() const { return m_thread.wait_for(support::defaultDeadline) == std::future_status::ready; }
    std::string bytes() { return m_thread.get(); }

private:
    static bool isInPoll(pid_t id)
    {
        const std::string task = "/proc/self/task/" + std::to_string(id);
#ifdef MDC_EMULATED
        // System calls have the numbers of the machine that emulates: whether the thread sleeps is all there is to see.
        std::ifstream file(task + "/stat");
        std::string number;
        std::string name;
        std::string state;
        file >> number >> name >> state;
        return state == "S";
#else
        std::ifstream file(task + "/syscall");
        long number = -1;
        file >> number;
#ifdef SYS_poll
        return number == SYS_poll || number == SYS_ppoll;
#else
        return number == SYS_ppoll;
#endif
#endif
    }

    std::atomic<pid_t> m_id{0};
    std::future<std::string> m_thread;
};

} // namespace

TEST(UdpThreads, twoReadersAndOneDatagramNobodyHangs)
{
    const support::TraceCapture traces;
    for (int i = 0; i < 12; ++i) {
        UdpStream stream;
        ASSERT_EQ(stream.start(kAnyPort), 0);
        const UdpSender sender(kAddress, stream.port());
        Reader one(stream);
        Reader two(stream);
        one.waitUntilItWaits();
        two.waitUntilItWaits();
        sender.send("one");
        const bool bothBack = one.isBack() && two.isBack();
        EXPECT_TRUE(bothBack) << "a reader waits for a datagram that the other took";
        if (!bothBack) {
            sender.send("to let it go");
        }
        EXPECT_EQ(one.bytes() + two.bytes(), "one");
        if (!bothBack) {
            break;
        }
    }
    EXPECT_FALSE(traces.hasAnywhere("read error")) << "to be late is no error";
}

TEST(UdpThreads, severalReadersShareWhatComes)
{
    constexpr int kSent = 400;
    UdpStream stream;
    ASSERT_EQ(stream.start(kAnyPort), 0);
    std::array<std::atomic<int>, kSent> seen{};
    std::atomic<int> all{0};
    std::vector<std::future<void>> readers;
    readers.reserve(4);
    for (int i = 0; i < 4; ++i) {
        readers.push_back(std::async(std::launch::async, [&] {
            support::waitUntil([&] {
                const std::string bytes = readOnce(stream);
                if (!bytes.empty()) {
                    ++seen.at(static_cast<std::size_t>(std::stoi(bytes)));
                    ++all;
                }
                return all >= kSent;
            });
        }));
    }
    const UdpSender sender(kAddress, stream.port());
    for (int i = 0; i < kSent; ++i) {
        sender.send(std::to_string(i));
        EXPECT_TRUE(support::waitUntil([&] { return all > i - 20; })) << "the buffer holds twenty with ease";
    }
    for (auto& reader : readers) {
        reader.wait();
    }
    for (const auto& times : seen) {
        ASSERT_EQ(times, 1);
    }
}

TEST(UdpThreads, closeWakesAReader)
{
    const support::TraceCapture quiet;
    bool wasPrompt = false;
    // Without a wake-up, each read takes at least half a second, on the fastest machine. With it, a slow
    // machine may take as long now and then, but not every time.
    for (int i = 0; i < 20 && !wasPrompt; ++i) {
        UdpStream stream;
        ASSERT_EQ(stream.start(kAnyPort), 0);
        const Clock::time_point begin = Clock::now();
        Reader reader(stream);
        reader.waitUntilItWaits();
        EXPECT_EQ(stream.close(), -EADDRNOTAVAIL);
        EXPECT_EQ(reader.bytes(), "");
        wasPrompt = Clock::now() - begin < kPatience;
    }
    EXPECT_TRUE(wasPrompt);
}

TEST(UdpThreads, aReaderThatIsClosedUponReadsFromNobodyElse)
{
    const support::TraceCapture quiet;
    const auto before = support::openDescriptors();
    for (int i = 0; i < 200; ++i) {
        auto stream = std::make_unique<UdpStream>();
        ASSERT_EQ(stream->start(kAnyPort), 0);
        std::atomic<bool> closed{false};
        std::future<std::string> reader = std::async(std::launch::async, [&] {
            std::string all;
            for (bool wasClosed = false; !wasClosed;) {
                wasClosed = closed; // once more after that
                all += readOnce(*stream);
            }
            return all;
        });
        if (i % 2 == 0) {
            std::this_thread::yield(); // the reader is sometimes there first
        }
        stream->close();
        // Whoever gets the number of the closed socket has a datagram at once.
        std::vector<std::unique_ptr<UdpReceiver>> others;
        for (int each = 0; each < 5; ++each) {
            others.push_back(std::make_unique<UdpReceiver>(kAddress, 0));
            UdpSender(kAddress, others.back()->port()).send("mine");
        }
        closed = true;
        EXPECT_EQ(stream->close(), -EBADF);
        EXPECT_EQ(reader.get(), "");
        stream.reset();
        for (const auto& other : others) {
            ASSERT_EQ(other->receive(), "mine") << "round " << i;
        }
    }
    EXPECT_EQ(support::openDescriptors(), before);
}

TEST(UdpThreads, severalClosesCloseOnce)
{
    const support::TraceCapture quiet;
    const auto before = support::openDescriptors();
    for (int i = 0; i < 200; ++i) {
        MdchUrlUdp stream;
        ASSERT_EQ(stream.open(kAnyPort.c_str(), 0), 0);
        std::atomic<int> ready{0};
        std::vector<std::future<int>> closers;
        closers.reserve(3);
        for (int each = 0; each < 3; ++each) {
            closers.push_back(std::async(std::launch::async, [&] {
                ++ready;
                while (ready < 3) {
                    std::this_thread::yield();
                }
                return stream.close();
            }));
        }
        int failures = 0;
        for (auto& closer : closers) {
            failures += closer.get() < 0 ? 1 : 0;
        }
        EXPECT_EQ(failures, 3) << "in no group, or closed already";
    }
    EXPECT_EQ(support::openDescriptors(), before);
}

TEST(UdpThreads, aHandleMayBeClosedUnderAReader)
{
    const support::TraceCapture quiet;
    const auto before = support::openDescriptors();
    for (int i = 0; i < 100; ++i) {
        const unsigned int handle = mdch_UrlOpen(kAnyPort.c_str(), MDCH_MODE_READ);
        ASSERT_NE(handle, 0U);
        std::atomic<bool> reading{false};
        std::future<int> reader = std::async(std::launch::async, [&] {
            std::array<unsigned char, 100> buffer{};
            reading = true;
            return mdch_UrlRead(handle, buffer.data(), static_cast<unsigned int>(buffer.size()));
        });
        if (i % 2 == 0) {
            support::waitUntil([&] { return reading.load(); });
        }
        EXPECT_EQ(mdch_UrlClose(handle), -EADDRNOTAVAIL);
        EXPECT_EQ(reader.get(), 0);
        EXPECT_EQ(mdch_UrlClose(handle), -1);
    }
    EXPECT_EQ(support::openDescriptors(), before);
}

TEST(UdpThreads, closeWhileDatagramsKeepComing)
{
    const support::TraceCapture quiet;
    for (int i = 0; i < 30; ++i) {
        UdpStream stream;
        ASSERT_EQ(stream.start(kAnyPort), 0);
        const UdpSender sender(kAddress, stream.port());
        std::atomic<int> got{0};
        std::atomic<bool> closed{false};
        std::future<void> traffic = std::async(std::launch::async, [&] {
            while (!closed) {
                sender.send("next");
            }
        });
        std::future<void> reader = std::async(std::launch::async, [&] {
            while (!closed) {
                const std::string bytes = readOnce(stream);
                EXPECT_TRUE(bytes.empty() || bytes == "next") << bytes;
                got += bytes.empty() ? 0 : 1;
            }
        });
        EXPECT_TRUE(support::waitUntil([&] { return got > 10; }));
        EXPECT_LT(stream.close(), 0);
        EXPECT_EQ(readOnce(stream), "");
        closed = true;
        traffic.wait();
        reader.wait();
    }
}
