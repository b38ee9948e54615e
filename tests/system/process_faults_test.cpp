// The process around the library: no descriptors left, signals, peers that go away, forks, ends; and full disks.
#include "support_mdch.h"
#include "support_nginx.h"

#include "mdc_hlp_upload.h"
#include "mdc_hlp_url.h"
#include "mdc_hlp_url_base.h"
#include "nvol2.h"
#include "support/certificates.h"
#include "support/descriptors.h"
#include "support/ftp_server.h"
#include "support/http_server.h"
#include "support/media.h"
#include "support/sockets.h"
#include "support/udp_socket.h"
#include "support/wait.h"

#include <algorithm>
#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <set>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using support::HttpServer;
using support::Media;
using support::Nginx;
using support::Reply;
using support::TempDir;

const Media kMedia(21);

using Stream = boost::shared_ptr<MdchUrlBase>;

int open(const std::string& url, Stream& stream, const char* caFolder = nullptr)
{
    mdch_UrlExtended_struct options{};
    options.caCertPath = caFolder;
    return mdch_OpenUrl(url.c_str(), MDCH_MODE_READ, &options, stream);
}

// Reads so many bytes, or up to the end.
std::string read(MdchUrlBase& stream, std::size_t most, unsigned int piece = 16'384)
{
    std::string all;
    std::vector<unsigned char> buffer(piece);
    while (all.size() < most) {
        const auto wanted = static_cast<unsigned int>(std::min<std::size_t>(piece, most - all.size()));
        const int count = stream.read(buffer.data(), wanted);
        if (count <= 0) {
            break;
        }
        all.append(buffer.begin(), buffer.begin() + count);
    }
    return all;
}

int upload(const support::FtpServer& server, const std::string& file)
{
    md::FtpAccess access;
    access.setServerUrl(server.host());
    access.setSourceFile(file);
    access.setUploadedFile("a.bin");
    return access.upload();
}

// --- Descriptors ---

// No descriptor can be opened while the object lives.
class NoMoreDescriptors
{
public:
    NoMoreDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &m_former);
        // Numbers that are free below the highest one are taken by copies.
        for (int copy = dup(STDERR_FILENO); copy >= 0; copy = dup(STDERR_FILENO)) {
            m_copies.emplace_back(copy);
            if (m_isLimited) {
                continue;
            }
            const int highest = std::max(copy, support::openDescriptors().rbegin()->first);
            const rlimit limit{static_cast<rlim_t>(highest) + 1, m_former.rlim_max};
            m_isLimited = setrlimit(RLIMIT_NOFILE, &limit) == 0;
        }
    }
    ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &m_former); }
    NoMoreDescriptors(const NoMoreDescriptors&) = delete;
    NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

private:
    rlimit m_former{};
    bool m_isLimited = false;
    std::vector<support::UniqueFd> m_copies;
};

TEST(Descriptors, whenExhaustedLeaveRunningStreamsAloneAndFailNewOnes)
{
    constexpr std::size_t kSize = 3'000'000; // beyond what library and system buffer
    Nginx server;                            // a process of its own, which has descriptors
    server.addFile("film", kMedia.bytes(0, kSize));
    const TempDir folder;
    const std::string file = folder.write("film", kMedia.bytes(0, kSize));
    ASSERT_GT(nvol2VolumeAdd("EMPTY-HANDS", folder.path().c_str()), 0);
    support::FtpServer ftp;
    const std::string address = support::ownLoopbackAddress();
    const std::string datagrams =
        "udp://" + address + ":" +
        std::to_string(support::UdpReceiver(address, 0, support::UdpPort::alone).port());

    Stream running;
    Stream local;
    ASSERT_EQ(open(server.plain("/film"), running), 0);
    ASSERT_EQ(open(file, local), 0);
    std::string bytes = read(*running, 100'000);
    std::string localBytes = read(*local, 100'000);
    {
        const NoMoreDescriptors none;
        Stream other;
        EXPECT_EQ(open(server.plain("/film"), other), 152); // no connection
        EXPECT_EQ(open(file, other), -EMFILE);
        EXPECT_EQ(open(datagrams, other), -EMFILE);
        EXPECT_EQ(open("nvl2://EMPTY-HANDS/film", other), -EMFILE);
        EXPECT_EQ(upload(ftp, file), -1);
        bytes += read(*running, kSize);
        localBytes += read(*local, kSize);
    }
    EXPECT_EQ(bytes.size(), kSize);
    EXPECT_TRUE(kMedia.matches(0, bytes));
    EXPECT_EQ(running->error(), 0);
    EXPECT_EQ(localBytes.size(), kSize);
    EXPECT_TRUE(kMedia.matches(0, localBytes));
    for (const std::string& url :
         {server.plain("/film"), file, datagrams, std::string("nvl2://EMPTY-HANDS/film")}) {
        Stream other;
        EXPECT_EQ(open(url, other), 0) << url;
    }
    EXPECT_EQ(upload(ftp, file), 0);
    nvol2VolumeRemove("EMPTY-HANDS");
}

TEST(Descriptors, ofTheLibraryAreClosedInAProgramThatIsExecuted)
{
    HttpServer server;
    server.on("/", Reply::endless(kMedia));
    HttpServer secure{support::Tls()};
    secure.on("/", Reply::endless(kMedia));
    const TempDir folder;
    const std::string file = folder.write("film", "bytes");
    ASSERT_GT(nvol2VolumeAdd("HAND-DOWN", folder.path().c_str()), 0);
    const auto before = support::openDescriptors();
    std::vector<Stream> streams(5);
    ASSERT_EQ(open(server.url("/"), streams[0]), 0);
    ASSERT_EQ(open(secure.url("/"), streams[1], support::certificates().caDirectory.c_str()), 0);
    ASSERT_EQ(open(file, streams[2]), 0);
    ASSERT_EQ(open("nvl2://HAND-DOWN/film", streams[3]), 0);
    ASSERT_EQ(open("udp://" + support::ownLoopbackAddress() + ":0", streams[4]), 0);
    // libcurl wakes itself by pairs of its own, which nobody else can mark before another thread may fork.
    const auto isLibcurls = [](int number) {
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        return getsockname(number, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
               address.ss_family == AF_UNIX;
    };
    int looked = 0;
    for (const auto& [number, what] : support::openDescriptors()) {
        if (before.count(number) == 0 && fcntl(number, F_GETFD) >= 0 && !isLibcurls(number)) {
            EXPECT_NE(fcntl(number, F_GETFD) & FD_CLOEXEC, 0) << number << ": " << what;
            ++looked;
        }
    }
    EXPECT_GE(looked, 7) << "two connections, two files, a socket, and the pipe";
    nvol2VolumeRemove("HAND-DOWN");
}

TEST(Descriptors, beyondFiveThousandCarryAnUpload)
{
    constexpr rlim_t kWanted = 5'200;
    rlimit former{};
    getrlimit(RLIMIT_NOFILE, &former);
    const rlimit raised{std::max(former.rlim_cur, kWanted), std::max(former.rlim_max, kWanted)};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0) << "the hard limit of open files is below " << kWanted;
    const TempDir folder;
    const std::string content = kMedia.bytes(0, 500'000);
    const std::string file = folder.write("film", content);
    support::FtpServer ftp;
    std::vector<support::UniqueFd> many;
    while (many.empty() || many.back().get() < 5'000) {
        many.emplace_back(dup(STDERR_FILENO));
        ASSERT_GE(many.back().get(), 0);
    }
    EXPECT_EQ(upload(ftp, file), 0);
    ASSERT_EQ(ftp.uploads().size(), 1U);
    EXPECT_EQ(ftp.uploads()[0].sha256, support::sha256Of(content));
}

// --- Signals ---

std::atomic<long> g_signals{0};

// The thread that makes the object gets a signal each millisecond, which interrupts what it waits in.
class SignalStorm
{
public:
    SignalStorm() : m_target(pthread_self())
    {
        struct sigaction action = {};
        action.sa_handler = [](int) { ++g_signals; };
        sigaction(SIGUSR1, &action, &m_former); // without SA_RESTART
        m_thread = std::thread([this] {
            while (!m_isOver) {
                pthread_kill(m_target, SIGUSR1);
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }
    ~SignalStorm()
    {
        m_isOver = true;
        m_thread.join();
        sigaction(SIGUSR1, &m_former, nullptr);
    }
    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;

private:
    pthread_t m_target;
    struct sigaction m_former = {};
    std::atomic<bool> m_isOver{false};
    std::thread m_thread;
};

// A stream over HTTP, one of a file, and an upload.
class UnderSignals
{
public:
    UnderSignals() { m_server.on("/film", Reply::resource(kMedia, kSize).throttle(5'000'000)); }

    void expectNothingChanges() const
    {
        const std::string content = kMedia.bytes(0, kSize);
        const TempDir folder;
        const std::string file = folder.write("film", content);
        for (const std::string& url : {m_server.url("/film"), file}) {
            Stream stream;
            ASSERT_EQ(open(url, stream), 0) << url;
            const std::string bytes = read(*stream, kSize);
            EXPECT_EQ(bytes.size(), kSize) << url;
            EXPECT_TRUE(kMedia.matches(0, bytes)) << url;
            EXPECT_EQ(stream->error(), 0) << url;
            EXPECT_EQ(stream->seek(-1'000, SEEK_END), 0) << url;
            EXPECT_TRUE(kMedia.matches(kSize - 1'000, read(*stream, 1'000))) << url;
        }
        EXPECT_EQ(upload(m_ftp, file), 0);
        ASSERT_EQ(m_ftp.uploads().size(), 1U);
        EXPECT_EQ(m_ftp.uploads()[0].sha256, support::sha256Of(content));
    }

private:
    static constexpr std::size_t kSize = 1'000'000;
    HttpServer m_server;
    support::FtpServer m_ftp;
};

TEST(Signals, thatInterruptEverythingChangeNoStream)
{
    const UnderSignals streams;
    const SignalStorm storm;
    g_signals = 0;
    streams.expectNothingChanges();
    EXPECT_GT(g_signals, 10);
}

// Programs that the process starts end all the time: their signal interrupts the reader, and what they ended with is
// for the process, not for the library.
TEST(Signals, ofChildrenThatEndChangeNoStreamAndStayTheProcesss)
{
    sigset_t ofChildren;
    sigemptyset(&ofChildren);
    sigaddset(&ofChildren, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &ofChildren, nullptr); // for the threads that are started here
    const UnderSignals streams;
    struct sigaction action = {};
    struct sigaction former = {};
    action.sa_handler = [](int) { ++g_signals; };
    sigaction(SIGCHLD, &action, &former); // without SA_RESTART
    g_signals = 0;
    std::atomic<bool> isOver{false};
    std::thread children([&isOver] {
        char program[] = "false";
        char* arguments[] = {program, nullptr};
        while (!isOver) {
            pid_t child = -1;
            ASSERT_EQ(posix_spawnp(&child, program, nullptr, nullptr, arguments, environ), 0);
            int status = 0;
            ASSERT_EQ(waitpid(child, &status, 0), child);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
        }
    });
    pthread_sigmask(SIG_UNBLOCK, &ofChildren, nullptr);
    streams.expectNothingChanges();
    EXPECT_TRUE(support::waitUntil([] { return g_signals > 3; }));
    isOver = true;
    children.join();
    sigaction(SIGCHLD, &former, nullptr);
}

// A read waits for half a second. One that ended with the first signal would give nothing.
TEST(Signals, doNotEndTheWaitForADatagram)
{
    const std::string address = support::ownLoopbackAddress();
    const std::uint16_t port = support::UdpReceiver(address, 0, support::UdpPort::alone).port();
    Stream stream;
    ASSERT_EQ(open("udp://" + address + ":" + std::to_string(port), stream), 0);
    const SignalStorm storm;
    g_signals = 0;
    std::atomic<bool> isSent{false};
    std::thread sender([&] {
        while (g_signals < 20) { // many that came into the wait
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        isSent = true;
        support::UdpSender(address, port).send("late");
    });
    unsigned char buffer[10];
    int count = 0;
    int emptyReads = 0;
    // On a machine under load the datagram may really come after half a second; then the signals were few.
    while ((count = stream->read(buffer, sizeof buffer)) == 0 && emptyReads < 120) {
        EXPECT_GE(g_signals, 5) << "a read ended at once";
        ++emptyReads;
    }
    sender.join();
    EXPECT_EQ(std::string(buffer, buffer + std::max(count, 0)), "late");
    EXPECT_EQ(stream->error(), 0);
}

// What a peer that has gone does to a process that has not said otherwise is to kill it.
TEST(Signals, ofPeersThatHaveGoneDoNotReachTheProcess)
{
    ASSERT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
    const TempDir folder;
    const std::string file = folder.write("film", kMedia.bytes(0, 5'000'000));
    for (const char* point : {support::FtpServer::data, "STOR", support::FtpServer::finalReply}) {
        support::FtpServer ftp;
        ftp.reset(point);
        EXPECT_LT(upload(ftp, file), 0) << point;
        support::FtpServer secure{support::Tls(support::certificates().leaf)};
        secure.reset(point);
        md::FtpAccess access;
        access.setProtocol("ftps");
        access.setServerUrl(secure.host());
        access.setSourceFile(file);
        access.setUploadedFile("a.bin");
        EXPECT_LT(access.upload(), 0) << point;
    }
    HttpServer server{support::Tls()};
    server.on("/", Reply::endless(kMedia));
    for (int i = 0; i < 5; ++i) {
        Stream stream;
        ASSERT_EQ(open(server.url("/"), stream, support::certificates().caDirectory.c_str()), 0);
        EXPECT_EQ(read(*stream, 1'000).size(), 1'000U);
        server.resetConnections();
        stream->seek(5'000'000, SEEK_SET); // closes a connection that is gone
        stream->close();
    }
}

// --- Ends ---

TEST(Ends, ofAPlainProgramWithStreamsOpen)
{
    HttpServer server;
    server.on("/", Reply::endless(kMedia));
    for (const char* way : {"return", "thread", "quick", "at once", "fork", "unload"}) {
        const support::Result result = support::runToEnd({PLAIN_PROGRAM, LIBRARY_FILE, server.url("/"), way});
        EXPECT_EQ(result.status, 0) << way << ": " << result.err;
        EXPECT_EQ(result.err, "") << way;
    }
}

// --- Disks ---

// The commands run in a mount namespace with a small disk at that folder.
class Disks : public testing::Test
{
protected:
    support::Result onDisk(const std::string& options, const std::string& commands)
    {
        const std::string place = m_folder.path();
        return support::runToEnd({"unshare", "--user", "--map-root-user", "--mount", "sh", "-c",
                                  "mount -t tmpfs -o " + options + " disk '" + place + "' || exit 77; cd '" +
                                      place + "'; " + commands});
    }

    TempDir m_folder;
    HttpServer m_server;
};

TEST_F(Disks, thatAreFullAreToldAndKeepWhatFits)
{
    constexpr std::size_t kRoom = 262'144;
    m_server.on("/film", Reply::resource(kMedia, 1'000'000));
    const support::Result result =
        onDisk("size=" + std::to_string(kRoom),
               MDCH_BINARY " cat " + m_server.url("/film") + " -o film; status=$?; cat film; exit $status");
    if (result.status == 77) {
        GTEST_SKIP() << result.err;
    }
    EXPECT_EQ(result.status, 9);
    EXPECT_EQ(result.err, "mdch: cannot write to film: No space left on device. Make room and try again.\n");
    EXPECT_EQ(result.out.size(), kRoom);
    EXPECT_TRUE(kMedia.matches(0, result.out));
}

TEST_F(Disks, thatCannotBeWrittenAreTold)
{
    m_server.on("/film", Reply::resource(kMedia, 1'000));
    const support::Result result =
        onDisk("ro", MDCH_BINARY " cat " + m_server.url("/film") + " -o film; status=$?; ls; exit $status");
    if (result.status == 77) {
        GTEST_SKIP() << result.err;
    }
    EXPECT_EQ(result.status, 9);
    EXPECT_EQ(result.err.substr(0, 49), "mdch: cannot write to film: Read-only file system");
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1);
    EXPECT_EQ(result.out, "");
}

} // namespace
