// Media volumes that are mounted: real file systems on loop devices, found by their UUIDs.
#include "support_image.h"

#include "mdc_hlp_url.h"
#include "mdc_hlp_url_nvol2.h"
#include "nvol2.h"
#include "support/trace_capture.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <vector>

namespace {

using support::Image;
using support::MountedImage;

constexpr const char* kUuid = "a1b2c3d4-0001-4abc-8def-0123456789ab";
constexpr const char* kOtherUuid = "a1b2c3d4-0002-4abc-8def-0123456789ab";

class VolumeImage : public testing::Test
{
protected:
    void SetUp() override
    {
        const std::string obstacle = support::separateMounts();
        if (!obstacle.empty()) {
            GTEST_SKIP() << "file systems cannot be mounted here: " << obstacle;
        }
    }

    static int idOf(const std::string& uuid) { return nvol2MediaIDGetByUUID(uuid.c_str()); }

    static bool isListed(int id)
    {
        std::vector<int> ids(100);
        const int count = nvol2MediaIDList(ids.data(), static_cast<int>(ids.size()));
        return std::count(ids.begin(), ids.begin() + std::min(count, 100), id) == 1;
    }

    static nvol2Media_struct recordOf(int id)
    {
        nvol2Media_struct record{};
        EXPECT_EQ(nvol2MediaGet(id, &record), 0);
        return record;
    }

    static std::string url(const std::string& uuid, const std::string& path)
    {
        return "nvl2://" + uuid + "/" + path;
    }

    static std::string readAll(unsigned int handle)
    {
        std::string content;
        for (int byte = mdch_UrlGetc(handle); byte >= 0; byte = mdch_UrlGetc(handle)) {
            content.push_back(static_cast<char>(byte));
        }
        return content;
    }

    // The file's content, or the reason why it cannot be opened.
    static std::string contentOf(const std::string& locator, int flags = 0)
    {
        mdch_UrlExtended_struct ext{};
        ext.flags = flags;
        const unsigned int handle = mdch_UrlOpenExt(locator.c_str(), MDCH_MODE_READ, &ext);
        if (handle == 0) {
            return "error " + std::to_string(ext.error);
        }
        std::string content = readAll(handle);
        EXPECT_EQ(mdch_UrlClose(handle), 0);
        return content;
    }

    static int openError(int id, const char* path, const char* mode)
    {
        errno = 0;
        nvol2File* file = nvol2_fopen(id, path, mode);
        return file != nullptr ? nvol2_fclose(file) : errno;
    }

    const std::string unknown = "error " + std::to_string(-ENODEV);
};

TEST_F(VolumeImage, isFoundByItsUuidInEitherCase)
{
    const Image image(kUuid);
    EXPECT_EQ(idOf(kUuid), -ENODEV);
    const MountedImage mounted(image);
    const int id = idOf(kUuid);
    EXPECT_GE(id, 1);
    EXPECT_EQ(idOf(image.upperCaseUuid()), id);
    EXPECT_TRUE(isListed(id));
}

TEST_F(VolumeImage, isDescribedByItsRecord)
{
    const Image image(kUuid);
    const MountedImage mounted(image);
    const nvol2Media_struct record = recordOf(idOf(kUuid));
    EXPECT_EQ(record.accessPath, mounted.place() + "/");
    EXPECT_EQ(record.deviceName, mounted.device());
    EXPECT_STREQ(record.uuid, kUuid);
    EXPECT_EQ(record.mediaType, NVOL2_MEDIA_DISK);
    EXPECT_EQ(record.connectType, NVOL2_CONNECT_INTERNAL);
    EXPECT_EQ(record.functions, static_cast<unsigned int>(NVOL2_FUNCTION_READ | NVOL2_FUNCTION_WRITE));
}

TEST_F(VolumeImage, isReadAndWrittenThroughHandles)
{
    const Image image(kUuid);
    const MountedImage mounted(image);
    mounted.write("music/a.mp3", "content");
    EXPECT_EQ(contentOf(url(kUuid, "music/a.mp3")), "content");
    EXPECT_EQ(contentOf("NVL2://" + image.upperCaseUuid() + "//music//a.mp3"), "content");
    EXPECT_EQ(contentOf(url(kUuid, "missing")), "error " + std::to_string(-ENOENT));
    EXPECT_EQ(contentOf(url(kUuid, "music")), "error " + std::to_string(-EISDIR));
    const unsigned int handle = mdch_UrlOpen(url(kUuid, "new").c_str(), MDCH_MODE_WRITE);
    ASSERT_GT(handle, 0U);
    unsigned char bytes[] = "written";
    EXPECT_EQ(mdch_UrlWrite(handle, bytes, 7), 7);
    EXPECT_EQ(mdch_UrlSize(handle), 7);
    EXPECT_EQ(mdch_UrlClose(handle), 0);
    EXPECT_EQ(std::filesystem::file_size(mounted.place() + "/new"), 7U);
}

TEST_F(VolumeImage, isReadAsANativePath)
{
    const Image image(kUuid);
    const MountedImage mounted(image);
    mounted.write("music/a.mp3", "content");
    const support::TraceCapture traces(4000);
    EXPECT_EQ(contentOf(url(kUuid, "music/a.mp3"), MDCH_URL_NATIVE_PATH), "content");
    EXPECT_EQ(traces.texts(),
              std::vector<std::string>{"MdchUrlNvol2::nvol2UrlToNative() translate to file protocol: " +
                                       mounted.place() + "/music/a.mp3\n"});
    EXPECT_EQ(contentOf(url(kOtherUuid, "music/a.mp3"), MDCH_URL_NATIVE_PATH), unknown);
}

TEST_F(VolumeImage, twoAreThereAtOnce)
{
    const Image one(kUuid);
    const Image two(kOtherUuid);
    const MountedImage mountedOne(one);
    const MountedImage mountedTwo(two);
    mountedOne.write("f", "one");
    mountedTwo.write("f", "two");
    EXPECT_NE(idOf(kUuid), idOf(kOtherUuid));
    EXPECT_TRUE(isListed(idOf(kUuid)) && isListed(idOf(kOtherUuid)));
    EXPECT_EQ(contentOf(url(kUuid, "f")), "one");
    EXPECT_EQ(contentOf(url(kOtherUuid, "f")), "two");
}

TEST_F(VolumeImage, isReadOnWhenItIsUnmounted)
{
    const Image image(kUuid);
    MountedImage mounted(image);
    mounted.write("f", std::string(100000, 'a') + "end");
    const int id = idOf(kUuid);
    const unsigned int handle = mdch_UrlOpen(url(kUuid, "f").c_str(), MDCH_MODE_READ);
    ASSERT_GT(handle, 0U);
    EXPECT_EQ(mdch_UrlGetc(handle), 'a');
    mounted.detach();

    EXPECT_EQ(idOf(kUuid), -ENODEV);
    EXPECT_FALSE(isListed(id));
    nvol2Media_struct record{};
    EXPECT_EQ(nvol2MediaGet(id, &record), -ENODEV);
    EXPECT_EQ(openError(id, "f", "r"), ENODEV);
    EXPECT_EQ(openError(id, "new", "w"), ENODEV);
    EXPECT_EQ(contentOf(url(kUuid, "f")), unknown);

    EXPECT_EQ(mdch_UrlSize(handle), 100003);
    EXPECT_EQ(mdch_UrlSeek(handle, -3, 2), 0);
    EXPECT_EQ(readAll(handle), "end");
    EXPECT_EQ(mdch_UrlClose(handle), 0);
}

TEST_F(VolumeImage, keepsItsMediaIdWhereverItIsMountedAgain)
{
    const Image image(kUuid);
    int id = -1;
    std::string place;
    {
        const MountedImage mounted(image);
        mounted.write("f", "content");
        id = idOf(kUuid);
        place = mounted.place();
    }
    EXPECT_EQ(idOf(kUuid), -ENODEV);
    const MountedImage again(image, 0, "somewhere else");
    EXPECT_EQ(idOf(kUuid), id);
    EXPECT_EQ(recordOf(id).accessPath, again.place() + "/");
    EXPECT_NE(again.place(), place);
    EXPECT_EQ(contentOf(url(kUuid, "f")), "content");
    EXPECT_EQ(contentOf(url(kUuid, "f"), MDCH_URL_NATIVE_PATH), "content") << "below a path with a blank";
}

TEST_F(VolumeImage, isNotWrittenToWhenItIsMountedReadOnly)
{
    const Image image(kUuid);
    {
        const MountedImage writable(image);
        writable.write("f", "content");
    }
    const MountedImage mounted(image, MS_RDONLY);
    const int id = idOf(kUuid);
    EXPECT_EQ(recordOf(id).functions, static_cast<unsigned int>(NVOL2_FUNCTION_READ));
    EXPECT_EQ(contentOf(url(kUuid, "f")), "content");
    for (const char* mode : {"r+", "w", "a"}) {
        EXPECT_EQ(openError(id, "f", mode), EROFS) << mode;
    }
    EXPECT_EQ(openError(id, "new", "w"), EROFS);
}

TEST_F(VolumeImage, isNotTakenForTheOneThatHidesIt)
{
    const Image below(kUuid);
    const Image above(kOtherUuid);
    const MountedImage mountedBelow(below);
    mountedBelow.write("f", "below");
    {
        const MountedImage elsewhere(above);
        elsewhere.write("f", "above");
        ASSERT_EQ(mount(elsewhere.place().c_str(), mountedBelow.place().c_str(), nullptr, MS_BIND, nullptr),
                  0);
        EXPECT_EQ(contentOf(url(kUuid, "f")), unknown);
        EXPECT_EQ(contentOf(url(kOtherUuid, "f")), "above");
        ASSERT_EQ(umount(mountedBelow.place().c_str()), 0);
    }
    EXPECT_EQ(contentOf(url(kUuid, "f")), "below");
    const std::string folder = std::filesystem::path(mountedBelow.place()).parent_path();
    ASSERT_EQ(mount("tmpfs", folder.c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(contentOf(url(kUuid, "f")), unknown) << "hidden by a mount on the folder above";
    ASSERT_EQ(umount(folder.c_str()), 0);
    EXPECT_EQ(contentOf(url(kUuid, "f")), "below");
}

TEST_F(VolumeImage, liesWhereItsWholeTreeIs)
{
    const Image image(kUuid);
    MountedImage mounted(image);
    mounted.write("music/f", "content");
    const support::TempDir dir;
    const std::string music = std::filesystem::canonical(dir.makeDir("music"));
    ASSERT_EQ(mount((mounted.place() + "/music").c_str(), music.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(recordOf(idOf(kUuid)).accessPath, mounted.place() + "/");
    mounted.detach();
    EXPECT_EQ(recordOf(idOf(kUuid)).accessPath, music + "/") << "what is left of it";
    EXPECT_EQ(contentOf(url(kUuid, "f")), "content");
    ASSERT_EQ(umount(music.c_str()), 0);
    EXPECT_EQ(idOf(kUuid), -ENODEV);
}

TEST_F(VolumeImage, yieldsToARegisteredFolderOfItsUuid)
{
    const Image image(kUuid);
    const MountedImage mounted(image);
    mounted.write("f", "mounted");
    const int id = idOf(kUuid);
    const support::TempDir dir;
    dir.write("f", "registered");
    EXPECT_EQ(nvol2VolumeAdd(image.upperCaseUuid().c_str(), (dir.path() + "/").c_str()), id);
    EXPECT_EQ(contentOf(url(kUuid, "f")), "registered");
    EXPECT_EQ(recordOf(id).accessPath, dir.path() + "/");
    EXPECT_TRUE(isListed(id));
    EXPECT_EQ(nvol2VolumeRemove(kUuid), 0);
    EXPECT_EQ(nvol2VolumeRemove(kUuid), -ENODEV) << "what is mounted is no registration";
    EXPECT_EQ(contentOf(url(kUuid, "f")), "mounted");
    EXPECT_EQ(idOf(kUuid), id);
}

TEST_F(VolumeImage, handsOutNothingButItsFiles)
{
    const Image image(kUuid);
    const MountedImage mounted(image);
    mounted.write("dir/f", "content");
    std::filesystem::create_symlink("dir/f", mounted.place() + "/inside");
    std::filesystem::create_symlink("/etc/passwd", mounted.place() + "/absolute");
    std::filesystem::create_symlink("../../../../../../etc/passwd", mounted.place() + "/relative");
    ASSERT_EQ(mknod((mounted.place() + "/device").c_str(), S_IFBLK | 0666, makedev(7, 0)), 0);
    ASSERT_EQ(mkfifo((mounted.place() + "/pipe").c_str(), 0666), 0);
    EXPECT_EQ(contentOf(url(kUuid, "inside")), "content");
    for (const std::string path : {"absolute", "relative", "device", "pipe", "../x", "dir/../../x"}) {
        EXPECT_EQ(contentOf(url(kUuid, path)), "error " + std::to_string(-EACCES)) << path;
    }
}

// Device names longer than the record has room for: the volume has a media ID, but no record.
TEST_F(VolumeImage, withoutARecordHasNoNativePath)
{
    const Image image(kUuid);
    MountedImage mounted(image);
    mounted.write("f", "content");
    struct stat facts = {};
    ASSERT_EQ(stat(mounted.device().c_str(), &facts), 0);
    const support::TempDir dir;
    // A folder of /dev that only this process sees.
    ASSERT_EQ(mount("tmpfs", "/dev/shm", "tmpfs", 0, nullptr), 0);
    const std::string folder = "/dev/shm/" + std::string(200, 'd');
    ASSERT_TRUE(std::filesystem::create_directory(folder));
    const std::string node = folder + "/" + std::string(100, 'n');
    ASSERT_EQ(mknod(node.c_str(), S_IFBLK | 0600, facts.st_rdev), 0);
    ASSERT_EQ(mount(node.c_str(), dir.path().c_str(), "ext4", 0, nullptr), 0);
    mounted.detach();

    const int id = idOf(kUuid);
    EXPECT_GE(id, 1);
    nvol2Media_struct record{};
    EXPECT_EQ(nvol2MediaGet(id, &record), -ENAMETOOLONG);
    const support::TraceCapture traces(4000);
    EXPECT_EQ(contentOf(url(kUuid, "f"), MDCH_URL_NATIVE_PATH), "content") << "through the volume stream";
    EXPECT_EQ(traces.texts(),
              std::vector<std::string>{"MdchUrlNvol2::nvol2UrlToNative() No media record for mediaID=" +
                                       std::to_string(id) + "\n"});
    ASSERT_EQ(umount2(dir.path().c_str(), MNT_DETACH), 0);
    ASSERT_EQ(umount2("/dev/shm", MNT_DETACH), 0);
}

} // namespace
