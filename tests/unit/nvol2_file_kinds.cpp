// Files of the media file-system service: which of the things on a volume can be opened, and what an open file holds.
#include "nvol2.h"

#include "support/descriptors.h"
#include "support/ordinary_user.h"
#include "support/volume.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <vector>

namespace {

using support::openFile;
using support::Volume;
using support::VolumeFile;

class VolumeFileKinds : public testing::Test
{
protected:
    // The errno value of a failed attempt; 0 when it works.
    int attempt(const std::string& path, const char* mode) const
    {
        errno = 0;
        return openFile(volume.id(), path, mode) != nullptr ? 0 : errno;
    }

    void expectRefused(const std::string& path, int code) const
    {
        for (const char* mode : {"r", "r+", "w", "w+", "a", "a+"}) {
            EXPECT_EQ(attempt(path, mode), code) << path << ", " << mode;
        }
    }

    void link(const std::string& name, const std::string& target) const
    {
        std::filesystem::create_symlink(target, volume.dir().file(name));
    }

    Volume volume;
};

TEST_F(VolumeFileKinds, leadingSlashesCountNothing)
{
    volume.dir().write("dir/f", "content");
    for (const char* path : {"dir/f", "/dir/f", "//dir/f", "////dir//f", "./dir/f", "/./dir/../dir/f"}) {
        const VolumeFile file = openFile(volume.id(), path);
        ASSERT_NE(file, nullptr) << path;
        EXPECT_EQ(support::readAll(file.get()), "content");
    }
    EXPECT_EQ(attempt("//new", "w"), 0);
    EXPECT_TRUE(std::filesystem::exists(volume.dir().file("new")));
}

TEST_F(VolumeFileKinds, foldersAreNoFiles)
{
    volume.dir().makeDir("dir/sub");
    link("link", "dir");
    for (const char* path : {"dir", "dir/", "/dir", "dir/sub", "dir/sub/..", ".", "./", "link", "link/"}) {
        expectRefused(path, EISDIR);
    }
}

TEST_F(VolumeFileKinds, aPipeIsRefusedAndNotWaitedFor)
{
    ASSERT_EQ(mkfifo(volume.dir().file("pipe").c_str(), 0600), 0);
    link("link", "pipe");
    expectRefused("pipe", EACCES);
    expectRefused("link", EACCES);
}

TEST_F(VolumeFileKinds, aSocketIsRefused)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string name = volume.dir().file("socket");
    ASSERT_LT(name.size(), sizeof(address.sun_path));
    name.copy(address.sun_path, name.size());
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    expectRefused("socket", EACCES);
    ::close(socket);
}

TEST_F(VolumeFileKinds, aDeviceIsRefused)
{
    if (mknod(volume.dir().file("device").c_str(), S_IFCHR | 0666, makedev(1, 3)) != 0) {
        GTEST_SKIP() << "making a device node takes more rights than this process has";
    }
    ASSERT_EQ(mknod(volume.dir().file("disk").c_str(), S_IFBLK | 0666, makedev(7, 0)), 0);
    link("link", "device");
    expectRefused("device", EACCES);
    expectRefused("disk", EACCES);
    expectRefused("link", EACCES);
}

// Opening a device can rewind a tape or start a watchdog.
TEST_F(VolumeFileKinds, whatIsRefusedIsNotEvenOpened)
{
    const std::string pipe = volume.dir().file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    volume.dir().write("f", "");
    const int events = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(events, 0);
    ASSERT_GE(inotify_add_watch(events, pipe.c_str(), IN_OPEN), 0);
    alignas(inotify_event) char buffer[4096];
    expectRefused("pipe", EACCES);
    EXPECT_EQ(read(events, buffer, sizeof(buffer)), -1) << "was opened";
    const int seen = ::open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_GT(read(events, buffer, sizeof(buffer)), 0) << "openings are not seen at all";
    ::close(seen);
    ::close(events);
}

TEST_F(VolumeFileKinds, aMissingFileIsMadeByTheModesThatWriteOnly)
{
    EXPECT_EQ(attempt("new", "r"), ENOENT);
    EXPECT_EQ(attempt("new", "r+"), ENOENT);
    EXPECT_FALSE(std::filesystem::exists(volume.dir().file("new")));
    for (const char* mode : {"w", "w+", "a", "a+"}) {
        EXPECT_EQ(attempt("new", mode), 0) << mode;
        EXPECT_TRUE(std::filesystem::remove(volume.dir().file("new")));
        EXPECT_EQ(attempt("nowhere/new", mode), ENOENT);
    }
}

TEST_F(VolumeFileKinds, newFilesGetTheRightsThatTheProcessGives)
{
    const mode_t former = umask(027);
    EXPECT_EQ(attempt("new", "w"), 0);
    umask(former);
    struct stat facts = {};
    ASSERT_EQ(stat(volume.dir().file("new").c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777U, 0640U);
}

TEST_F(VolumeFileKinds, theFileSystemsReasonsPassThrough)
{
    volume.dir().write("f", "");
    EXPECT_EQ(attempt("f/f", "r"), ENOTDIR);
    EXPECT_EQ(attempt("f/", "r"), ENOTDIR);
    EXPECT_EQ(attempt("new/", "w"), EISDIR);
    EXPECT_EQ(attempt(std::string(256, 'n'), "r"), ENAMETOOLONG);
    EXPECT_EQ(attempt(std::string(256, 'n'), "w"), ENAMETOOLONG);
    EXPECT_EQ(attempt(std::string(5000, '.'), "r"), ENAMETOOLONG);
    EXPECT_EQ(attempt(std::string(1000000, 'n'), "w"), ENAMETOOLONG);
    EXPECT_EQ(attempt(std::string(5000, '/') + "f", "r"), 0) << "slashes in front are not part of the path";
    link("loop", "loop");
    EXPECT_EQ(attempt("loop", "r"), ELOOP);
}

TEST_F(VolumeFileKinds, rightsOnTheFileHold)
{
    volume.dir().write("f", "content");
    ASSERT_EQ(chmod(volume.dir().path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(volume.dir().file("f").c_str(), 0), 0);
    support::asOrdinaryUser([this] { expectRefused("f", EACCES); });
    EXPECT_EQ(std::filesystem::file_size(volume.dir().file("f")), 7U);
}

TEST_F(VolumeFileKinds, noPathLeadsOut)
{
    const support::TempDir outside;
    const std::string secret = outside.write("secret", "secret");
    link("absolute", secret);
    link("absolute-folder", outside.path());
    link("relative", "../" + std::filesystem::path(secret).lexically_relative("/tmp").string());
    link("new", outside.file("new"));
    volume.dir().makeDir("dir");
    link("parent", "..");
    for (const std::string path :
         {"..", "../", "../x", "dir/../../x", "/../x", "//../x", "absolute", "absolute-folder/secret", "new",
          "parent", "parent/x", "dir/../parent/x"}) {
        expectRefused(path, EACCES);
    }
    expectRefused("../" + outside.path() + "/secret", EACCES);
    EXPECT_FALSE(std::filesystem::exists(outside.file("new")));
    EXPECT_EQ(std::filesystem::file_size(secret), 6U);
}

TEST_F(VolumeFileKinds, linksInsideAreFollowed)
{
    volume.dir().write("dir/f", "content");
    link("link", "dir/f");
    link("dangling", "dir/new");
    EXPECT_EQ(support::readAll(openFile(volume.id(), "link").get()), "content");
    EXPECT_EQ(attempt("dangling", "r"), ENOENT);
    EXPECT_EQ(attempt("dangling", "w"), 0);
    EXPECT_TRUE(std::filesystem::exists(volume.dir().file("dir/new")));
}

TEST_F(VolumeFileKinds, anOpenFileIsNotHandedToOtherPrograms)
{
    const std::string path = std::filesystem::canonical(volume.dir().path()).string() + "/f";
    volume.dir().write("f", "");
    for (const char* mode : {"r", "r+", "w", "w+", "a", "a+"}) {
        const VolumeFile file = openFile(volume.id(), "f", mode);
        ASSERT_NE(file, nullptr);
        const int descriptor = support::descriptorOf(path);
        ASSERT_GE(descriptor, 0);
        EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << mode;
    }
}

TEST_F(VolumeFileKinds, anOpenFileHoldsOneDescriptorAndAFailedOneNone)
{
    volume.dir().write("f", "");
    volume.dir().makeDir("dir");
    link("out", "..");
    ASSERT_EQ(mkfifo(volume.dir().file("pipe").c_str(), 0600), 0);
    const auto before = support::openDescriptors();
    for (const char* path : {"missing", "dir", "out", "pipe", "f/f", "../x", "", "dir/../out/x"}) {
        for (const char* mode : {"r", "r+", "", "x"}) {
            EXPECT_NE(attempt(path, mode), 0) << path;
        }
    }
    EXPECT_EQ(openFile(-1, "f"), nullptr);
    EXPECT_EQ(support::openDescriptors(), before);
    {
        const VolumeFile file = openFile(volume.id(), "f");
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(support::openDescriptors().size(), before.size() + 1);
    }
    EXPECT_EQ(support::openDescriptors(), before);
}

TEST_F(VolumeFileKinds, readingGoesOnWhenTheVolumeIsRemoved)
{
    volume.dir().write("f", std::string(100000, 'a') + "end");
    const VolumeFile file = openFile(volume.id(), "f");
    const VolumeFile written = openFile(volume.id(), "new", "w");
    ASSERT_TRUE(file != nullptr && written != nullptr);
    EXPECT_EQ(nvol2_fgetc(file.get()), 'a');
    ASSERT_EQ(volume.remove(), 0);
    EXPECT_EQ(attempt("f", "r"), ENODEV);
    EXPECT_EQ(attempt("other", "w"), ENODEV);
    EXPECT_EQ(nvol2_fseek(file.get(), -3, SEEK_END), 0);
    EXPECT_EQ(support::readAll(file.get()), "end");
    EXPECT_EQ(nvol2_fwrite("abc", 1, 3, written.get()), 3U);
    EXPECT_EQ(nvol2_fseek(written.get(), 0, SEEK_SET), 0);
    EXPECT_EQ(volume.contentOf("new"), "abc");
    ASSERT_EQ(nvol2VolumeAdd(volume.uuid().c_str(), volume.accessPath().c_str()), volume.id());
    EXPECT_EQ(attempt("f", "r"), 0);
}

TEST_F(VolumeFileKinds, readingGoesOnWhenTheFileIsDeleted)
{
    volume.dir().write("f", "content");
    const VolumeFile file = openFile(volume.id(), "f");
    ASSERT_NE(file, nullptr);
    std::filesystem::remove_all(volume.dir().path());
    EXPECT_EQ(support::readAll(file.get()), "content");
    EXPECT_EQ(attempt("f", "r"), ENOENT);
}

TEST_F(VolumeFileKinds, anAccessPathWithoutASlashAtItsEndWillDo)
{
    const support::TempDir dir;
    dir.write("folder/f", "content");
    std::filesystem::create_directory_symlink("folder", dir.file("link"));
    for (const std::string path : {"/folder", "/folder/", "/folder//", "/link", "/folder/../link/."}) {
        const int id = nvol2VolumeAdd("other", (dir.path() + path).c_str());
        ASSERT_GE(id, 1) << path;
        const VolumeFile file = openFile(id, "f");
        EXPECT_NE(file, nullptr) << path;
        EXPECT_EQ(nvol2VolumeRemove("other"), 0);
    }
}

} // namespace
