// Mounted volumes as a mount table tells them: which there are, where they lie, and what is no volume.
#include "nvol2_volume.h"

#include "support/mount_table.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <vector>

namespace {

using support::Mount;
using Places = std::map<std::string, std::string>;

// The nodes that every machine has stand for its disks.
constexpr const char* kDisk = "/dev/null";
constexpr const char* kStick = "/dev/zero";
constexpr const char* kDisc = "/dev/full";

class MountedVolumes : public testing::Test, protected support::MountTable
{
protected:
    MountedVolumes()
    {
        uuid("0d15c000-1111", kDisk);
        uuid("1234-ABCD", kStick);
        uuid("2020-01-01-00", kDisc);
        mount({22, 1, kDisk, "/"});
    }
};

TEST_F(MountedVolumes, areTheDevicesWithAUuidInTheOrderOfTheTable)
{
    mount({23, 22, kDisc, "/media/disc", "iso9660", "/", "11:0"});
    mount({24, 22, kStick, "/media/stick", "vfat", "/", "8:17"});
    const std::vector<Nvol2Volume> all = volumes();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(all[0].uuid, "0d15c000-1111");
    EXPECT_EQ(all[0].accessPath, "/");
    EXPECT_EQ(all[0].deviceName, kDisk);
    EXPECT_EQ(all[0].mediaType, NVOL2_MEDIA_DISK);
    EXPECT_EQ(all[0].connectType, NVOL2_CONNECT_INTERNAL);
    EXPECT_EQ(all[0].device, makedev(8, 1));
    EXPECT_EQ(all[1].uuid, "2020-01-01-00");
    EXPECT_EQ(all[1].accessPath, "/media/disc/");
    EXPECT_EQ(all[1].deviceName, kDisc);
    EXPECT_EQ(all[1].mediaType, NVOL2_MEDIA_OPTICAL);
    EXPECT_EQ(all[1].device, makedev(11, 0));
    EXPECT_EQ(all[2].uuid, "1234-ABCD") << "in the spelling of the device";
    EXPECT_EQ(all[2].accessPath, "/media/stick/");
    EXPECT_EQ(all[2].mediaType, NVOL2_MEDIA_DISK);
    EXPECT_EQ(all[2].device, makedev(8, 17));
}

TEST_F(MountedVolumes, areOpticalByTheirFileSystem)
{
    mount({23, 22, kStick, "/media/stick", "udf"});
    EXPECT_EQ(volumes().at(1).mediaType, NVOL2_MEDIA_OPTICAL);
}

TEST_F(MountedVolumes, tellNoDeviceNumberWhereTheirFilesHaveAnother)
{
    mount({23, 22, kStick, "/media/stick", "btrfs", "/", "0:45"});
    EXPECT_EQ(volumes().at(1).device, 0U);
}

TEST_F(MountedVolumes, lieAtPathsWithBlanksAndOtherOddLetters)
{
    mount({23, 22, kStick, "/media/my\\040stick\\011\\134\\012\xc3\xa4"});
    EXPECT_EQ(places().at("1234-ABCD"), "/media/my stick\t\\\n\xc3\xa4/");
}

TEST_F(MountedVolumes, haveDevicesWhoseNamesAreOdd)
{
    const std::string node = dir().file("a b");
    std::filesystem::create_symlink(kStick, node);
    std::string written = "/dev/.." + dir().path() + "/a\\040b";
    mount({23, 22, written, "/media/stick"});
    const std::vector<Nvol2Volume> all = volumes();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[1].uuid, "1234-ABCD");
    EXPECT_EQ(all[1].deviceName, "/dev/.." + node);
}

// As /dev/mapper/NAME, which is a link to /dev/dm-0.
TEST_F(MountedVolumes, areRecognisedByAnotherNameOfTheirDevice)
{
    std::filesystem::create_symlink(kStick, dir().file("mapper"));
    const std::string name = "/dev/.." + dir().file("mapper");
    mount({23, 22, name, "/media/stick"});
    const std::vector<Nvol2Volume> all = volumes();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[1].uuid, "1234-ABCD");
    EXPECT_EQ(all[1].deviceName, name);
}

TEST_F(MountedVolumes, countOnceUnderTwoNamesOfTheirDevice)
{
    std::filesystem::create_symlink(kStick, dir().file("mapper"));
    mount({23, 22, "/dev/.." + dir().file("mapper"), "/media/stick"});
    mount({24, 22, kStick, "/media/again"});
    const std::vector<Nvol2Volume> all = volumes();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[1].accessPath, "/media/stick/");
}

TEST_F(MountedVolumes, countOnceWhenTwoDevicesCarryOneUuid)
{
    uuid("1234-abcd", "/dev/random");
    mount({23, 22, kStick, "/media/stick"});
    mount({24, 22, "/dev/random", "/media/copy"});
    const std::vector<Nvol2Volume> all = volumes();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[1].uuid, "1234-ABCD");
    EXPECT_EQ(all[1].accessPath, "/media/stick/");
}

TEST_F(MountedVolumes, lieWhereTheirWholeTreeIs)
{
    mount({23, 22, kStick, "/srv/music", "vfat", "/Music"});
    mount({24, 22, kStick, "/srv/film", "vfat", "/Film"});
    EXPECT_EQ(places().at("1234-ABCD"), "/srv/music/") << "the first, when none is whole";
    mount({25, 22, kStick, "/media/stick", "vfat"});
    EXPECT_EQ(places().at("1234-ABCD"), "/media/stick/");
    mount({26, 22, kStick, "/media/again", "vfat"});
    mount({27, 22, kStick, "/srv/music2", "vfat", "/Music"});
    EXPECT_EQ(places().at("1234-ABCD"), "/media/stick/");
    EXPECT_EQ(volumes().size(), 2U);
}

TEST_F(MountedVolumes, ofSubVolumesTheFirstCounts)
{
    mount({23, 22, kStick, "/media/a", "btrfs", "/@", "0:40"});
    mount({24, 22, kStick, "/media/b", "btrfs", "/@home", "0:40"});
    EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}, {"1234-ABCD", "/media/a/"}}));
}

TEST_F(MountedVolumes, areNoneWithoutAUuid)
{
    mount({23, 22, "/dev/random", "/media/a"});
    mount({24, 22, "/dev/there-is-no-such-device", "/media/b"});
    mount({25, 22, "/dev/random", "/media/c"});
    EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}}));
}

TEST_F(MountedVolumes, areAskedThemselvesWithoutALink)
{
    // The least of an ext2 file system: its magic number and a UUID.
    std::vector<char> image(1 << 20);
    image[0x438] = 0x53;
    image[0x439] = static_cast<char>(0xef);
    for (int index = 0; index < 16; ++index) {
        image[static_cast<std::size_t>(0x468 + index)] = static_cast<char>(0xa0 + index);
    }
    dir().write("image", std::string(image.begin(), image.end()));
    mount({23, 22, "/dev/.." + dir().file("image"), "/media/a", "ext2"});
    mount({24, 22, "/dev/.." + dir().file("image"), "/media/b", "ext2"});
    EXPECT_EQ(places(),
              (Places{{"0d15c000-1111", "/"}, {"a0a1a2a3-a4a5-a6a7-a8a9-aaabacadaeaf", "/media/a/"}}));
}

TEST_F(MountedVolumes, areFoundWithoutTheFolderOfLinks)
{
    std::filesystem::remove_all(dir().file("by-uuid"));
    EXPECT_EQ(places(), Places{}) << "these devices tell nothing";
    dir().write("by-uuid", "no folder");
    EXPECT_EQ(places(), Places{});
}

TEST_F(MountedVolumes, areNotConfusedByOtherThingsAmongTheLinks)
{
    uuid(".hidden", "/dev/random");
    uuid("gone", "/dev/there-is-no-such-device");
    uuid("loop", "loop");
    dir().write("by-uuid/file", "no link");
    dir().makeDir("by-uuid/folder");
    mount({23, 22, "/dev/random", "/media/a"});
    mount({24, 22, kStick, "/media/stick"});
    EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}, {"1234-ABCD", "/media/stick/"}}));
}

TEST_F(MountedVolumes, areNoOtherFileSystems)
{
    const std::vector<std::pair<std::string, std::string>> others{
        {"proc", "proc"},         {"tmpfs", "tmpfs"},       {"overlay", "overlay"}, {"nfs", "server:/export"},
        {"cifs", "//server/one"}, {"tmpfs", "none"},        {"ext4", "/devices/x"}, {"ext4", "dev/null"},
        {"ext4", "UUID=1234"},    {"ext4", "/tmp/dev/null"}};
    int id = 30;
    for (const auto& [type, source] : others) {
        mount({id, 22, source, "/media/" + std::to_string(id), type});
        ++id;
    }
    EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}}));
}

// Who may mount with fusermount names the source as he likes.
TEST_F(MountedVolumes, areNotWhatAUserSaysInItsPlace)
{
    mount({23, 22, kStick, "/home/user/a", "fuse.sshfs", "/", "0:50"});
    mount({24, 22, kStick, "/home/user/b", "fuse", "/", "0:51"});
    EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}}));
    mount({25, 22, kStick, "/media/stick", "fuseblk", "/", "8:17"});
    EXPECT_EQ(places().at("1234-ABCD"), "/media/stick/");
}

TEST_F(MountedVolumes, areNotHiddenOnes)
{
    mount({23, 22, kStick, "/media"});
    mount({24, 23, kDisc, "/media"});
    EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}, {"2020-01-01-00", "/media/"}}));
}

TEST_F(MountedVolumes, areHiddenByAnythingThatLiesOnThem)
{
    mount({23, 22, kStick, "/media"});
    mount({24, 23, "tmpfs", "/media", "tmpfs"});
    EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}}));
}

TEST_F(MountedVolumes, areHiddenByMountsAboveTheirFolder)
{
    mount({23, 22, kStick, "/media/usb/stick"});
    mount({24, 22, "tmpfs", "/media", "tmpfs"});
    EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}}));
    mount({25, 24, kDisc, "/media/usb/stick"});
    EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}, {"2020-01-01-00", "/media/usb/stick/"}}));
}

TEST_F(MountedVolumes, areNotHiddenByMountsBesideOrBelow)
{
    mount({23, 22, kStick, "/media/stick"});
    mount({24, 22, "tmpfs", "/media/sti", "tmpfs"});
    mount({25, 22, "tmpfs", "/media/stick2", "tmpfs"});
    mount({26, 23, "tmpfs", "/media/stick/sub", "tmpfs"});
    EXPECT_EQ(places().at("1234-ABCD"), "/media/stick/");
}

TEST_F(MountedVolumes, lieWhereTheyCanBeReached)
{
    mount({23, 22, kStick, "/media/stick"});
    mount({24, 23, "tmpfs", "/media/stick", "tmpfs"});
    mount({25, 22, kStick, "/srv/music", "vfat", "/Music"});
    EXPECT_EQ(places().at("1234-ABCD"), "/srv/music/");
    mount({26, 22, kStick, "/srv/stick"});
    EXPECT_EQ(places().at("1234-ABCD"), "/srv/stick/");
}

TEST_F(MountedVolumes, mayLieOnTheFormerRoot)
{
    text("");
    mount({1, 1, "rootfs", "/", "rootfs"});
    mount({22, 1, kDisk, "/"});
    mount({23, 22, kStick, "/media/stick"});
    mount({24, 1, kDisc, "/media/disc"});
    EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}, {"1234-ABCD", "/media/stick/"}}));
}

// In a changed root, what lies outside of it is not in the table.
TEST_F(MountedVolumes, areFoundWithoutAMountedRoot)
{
    text("");
    mount({23, 22, kStick, "/media/stick"});
    mount({24, 99, kDisc, "/media/disc"});
    EXPECT_EQ(places(), (Places{{"1234-ABCD", "/media/stick/"}, {"2020-01-01-00", "/media/disc/"}}));
}

TEST_F(MountedVolumes, cannotBeReachedWhereTheTableGoesInCircles)
{
    mount({23, 24, kStick, "/media"});
    mount({24, 23, kDisc, "/media"});
    EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}})) << "on nothing but one another";
    mount({26, 22, "tmpfs", "/media", "tmpfs"});
    mount({27, 26, "tmpfs", "/media", "tmpfs"});
    mount({26, 27, "tmpfs", "/media", "tmpfs"}); // from 26 to 27 and back
    mount({28, 22, kDisc, "/srv"});
    EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}, {"2020-01-01-00", "/srv/"}}));
    mount({29, 29, kStick, "/itself"});
    EXPECT_EQ(places().count("1234-ABCD"), 0U) << "lies on no mount that a path meets";
}

TEST_F(MountedVolumes, areNoSingleFiles)
{
    const std::string file = dir().write("hosts", "");
    mount({23, 22, kStick, file, "ext4", "/containers/hosts"});
    EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}}));
    mount({24, 22, kStick, dir().makeDir("folder"), "ext4", "/containers/folder"});
    EXPECT_EQ(places().at("1234-ABCD"), dir().file("folder") + "/");
}

TEST_F(MountedVolumes, areReadFromBetweenHostileLines)
{
    const std::vector<std::string> lines{
        "",
        " ",
        "x",
        "24",
        "24 22",
        "24 22 8:1",
        "24 22 8:1 / /media/a",
        "24 22 8:1 / /media/a rw",
        "24 22 8:1 / /media/a rw -",
        "24 22 8:1 / /media/a rw - ext4",
        "-1 -2 a:b / /media/a rw - ext4 /dev/random rw",
        "24 22 8:1 / relative rw - ext4 /dev/zero rw",
        "24 22 8:1 / \\040 rw - ext4 /dev/zero rw",
        "24 22 8:1 / /media/a rw - ext4 /dev/ rw",
        "24 22 8:1 / /media/a rw - ext4 /dev/\\ rw",
        "24 22 8:1 / /media/a rw - ext4 /dev/%s%n rw",
        "24 22 8:1 / /media/\\999\\04 rw - ext4 /dev/\\012 rw",
        "24 22 8:1 / /media/" + std::string(100000, 'a') + " rw - ext4 /dev/random rw",
        "24 22 8:1 / /media/a rw - ext4 /dev/" + std::string(100000, 'a') + " rw",
        "24 22 8:1 / /media/a rw - " + std::string(100000, 'a') + " /dev/random rw",
        "\xff\xfe\x80",
        "# 24 22 8:1 / /media/a rw - ext4 /dev/zero rw",
    };
    for (const std::string& one : lines) {
        text("");
        mount({22, 1, kDisk, "/"});
        line(one);
        mount({23, 22, kStick, "/media/stick"});
        EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}, {"1234-ABCD", "/media/stick/"}})) << one;
    }
}

TEST_F(MountedVolumes, areNoneInTablesOfAnotherKind)
{
    for (const std::string whole :
         {"", "\n", "\n\n\n", "garbage", "/dev/zero /media/stick vfat rw 0 0\n", "/dev/zero /media/stick\n",
          "# nothing\n", "Filename Type Size\n/dev/zero partition 1 2 3\n"}) {
        text(whole);
        EXPECT_EQ(places(), Places{}) << whole;
    }
    text(std::string("22 1 8:1 / / rw - ext4 \0/dev/zero rw\n", 38));
    EXPECT_EQ(places(), Places{}) << "cut off by NUL";
}

TEST_F(MountedVolumes, areNoneWithoutATable)
{
    const std::string links = dir().file("by-uuid");
    EXPECT_EQ(nvol2MountedVolumes(dir().file("missing").c_str(), links.c_str()).size(), 0U);
    EXPECT_EQ(nvol2MountedVolumes(dir().path().c_str(), links.c_str()).size(), 0U);
}

TEST_F(MountedVolumes, leaveATableOfManyInTime)
{
    for (int count = 0; count < 3000; ++count) {
        const std::string name = std::to_string(count);
        mount({1000 + count, 22, count % 2 == 0 ? kStick : "/dev/random", "/media/" + name, "ext4",
               "/" + name});
    }
    EXPECT_EQ(places(), (Places{{"0d15c000-1111", "/"}, {"1234-ABCD", "/media/0/"}}));
}

TEST(MountedVolumesOfThisMachine, lieInFoldersAndHaveOneUuidEach)
{
    std::set<std::string> keys;
    for (const Nvol2Volume& volume : nvol2MountedVolumes("/proc/self/mountinfo", "/dev/disk/by-uuid")) {
        EXPECT_FALSE(volume.uuid.empty());
        EXPECT_TRUE(keys.insert(nvol2UuidKey(volume.uuid)).second) << volume.uuid;
        EXPECT_EQ(volume.accessPath.front(), '/');
        EXPECT_EQ(volume.accessPath.back(), '/');
        EXPECT_EQ(volume.deviceName.rfind("/dev/", 0), 0U) << volume.deviceName;
    }
}

TEST(UuidKey, isTheSameForEachSpelling)
{
    EXPECT_EQ(nvol2UuidKey("1234-ABCD"), "1234-abcd");
    EXPECT_EQ(nvol2UuidKey("AZaz09-_@[`{"), "azaz09-_@[`{");
    EXPECT_EQ(nvol2UuidKey("\xc4\xd6\xff"), "\xc4\xd6\xff") << "letters of other languages as they are";
    EXPECT_EQ(nvol2UuidKey(""), "");
}

TEST(RootOfAVolume, isOpenedOnlyOnTheFileSystemThatWasMeant)
{
    const support::TempDir dir;
    struct stat facts = {};
    ASSERT_EQ(stat(dir.path().c_str(), &facts), 0);
    Nvol2Volume volume;
    volume.accessPath = dir.path() + "/";
    for (const dev_t device : {dev_t{0}, facts.st_dev}) {
        volume.device = device;
        const int root = nvol2OpenRoot(volume);
        ASSERT_GE(root, 0);
        EXPECT_EQ(close(root), 0);
    }
    volume.device = facts.st_dev + 1;
    errno = 0;
    EXPECT_EQ(nvol2OpenRoot(volume), -1);
    EXPECT_EQ(errno, ENODEV);
    volume.accessPath = dir.file("missing/");
    EXPECT_EQ(nvol2OpenRoot(volume), -1);
    EXPECT_EQ(errno, ENOENT);
    volume.accessPath = dir.write("file", "");
    EXPECT_EQ(nvol2OpenRoot(volume), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

} // namespace
