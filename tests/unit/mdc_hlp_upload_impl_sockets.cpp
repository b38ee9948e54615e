// Breaking connections off, and never anybody else's.
#include "mdc_hlp_upload_impl_sockets.h"

#include "support/descriptors.h"
#include "support/ftp_upload.h"
#include "support/sockets.h"
#include "support/temp_dir.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using support::FtpServer;
using support::UniqueFd;
using support::uploadTo;

std::atomic<int> shutdownsOfNothing{0};

} // namespace

// In place of the C library's, for the whole program.
extern "C" int shutdown(int socket, int how) noexcept
{
    const auto result = static_cast<int>(syscall(SYS_shutdown, socket, how));
    shutdownsOfNothing += result != 0 && errno == EBADF ? 1 : 0;
    return result;
}

namespace {

struct Pair
{
    Pair()
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        one = UniqueFd(ends[0]);
        other = UniqueFd(ends[1]);
    }

    // A byte, what was read; "end" or "nothing".
    static std::string read(int fd)
    {
        char byte = 0;
        const ssize_t count = recv(fd, &byte, 1, MSG_DONTWAIT);
        return count > 0 ? std::string(1, byte) : count == 0 ? "end" : "nothing";
    }

    UniqueFd one;
    UniqueFd other;
};

TEST(UploadSockets, whatIsOpenIsBrokenOff)
{
    Pair connection;
    md::UploadSockets sockets;
    sockets.add(connection.one.get());
    sockets.expectNothing();
    EXPECT_EQ(Pair::read(connection.one.get()), "end");
    EXPECT_EQ(send(connection.one.get(), "a", 1, MSG_NOSIGNAL), 1) << "it still sends";
    sockets.breakOff();
    EXPECT_EQ(Pair::read(connection.other.get()), "a");
    EXPECT_EQ(Pair::read(connection.other.get()), "end");
}

TEST(UploadSockets, aNumberThatIsSomebodyElsesByNowIsLeftAlone)
{
    Pair connection;
    Pair stranger;
    md::UploadSockets sockets;
    const int number = connection.one.get();
    sockets.add(number);
    // libcurl closes it without a word, and another thread gets its number.
    ASSERT_EQ(dup3(stranger.one.get(), number, O_CLOEXEC), number);
    sockets.expectNothing();
    sockets.breakOff();
    EXPECT_EQ(Pair::read(number), "nothing");
    EXPECT_EQ(send(number, "a", 1, MSG_NOSIGNAL), 1);
    EXPECT_EQ(Pair::read(stranger.other.get()), "a");
    EXPECT_EQ(Pair::read(connection.other.get()), "end") << "what it was noted for is broken off";
}

TEST(UploadSockets, aNumberThatComesAgainIsTheNewConnection)
{
    Pair former;
    Pair next;
    md::UploadSockets sockets;
    const int number = former.one.get();
    sockets.add(number);
    ASSERT_EQ(dup3(next.one.get(), number, O_CLOEXEC), number);
    sockets.add(number);
    EXPECT_EQ(Pair::read(former.other.get()), "end") << "nobody holds it any more";
    sockets.breakOff();
    EXPECT_EQ(Pair::read(next.other.get()), "end");
}

TEST(UploadSockets, everyNumberIsGivenBack)
{
    const auto before = support::openDescriptors();
    {
        Pair closed;
        Pair dropped;
        Pair forgotten;
        md::UploadSockets sockets;
        sockets.add(closed.one.get());
        EXPECT_EQ(sockets.close(dup(closed.one.get())), 0) << "one that it does not know";
        sockets.add(dropped.one.get());
        sockets.clear();
        sockets.add(forgotten.one.get());
    }
    EXPECT_EQ(support::openDescriptors(), before);
}

// Wherever it is stopped: libcurl has just opened a connection, or has just closed one.
TEST(UploadSockets, anUploadThatIsStoppedInAnyOfItsCallsShutsDownNothingButItsOwn)
{
    const support::TempDir folder;
    const std::string file = folder.write("a.bin", std::string(100000, 'x'));
    shutdownsOfNothing = 0;
    FtpServer server;
    const std::optional<int> stopped = support::stopInEachCall([&] { return uploadTo(server, file); });
    ASSERT_TRUE(stopped.has_value());
    EXPECT_GT(*stopped, 1);
    EXPECT_EQ(shutdownsOfNothing, 0);
}

} // namespace
