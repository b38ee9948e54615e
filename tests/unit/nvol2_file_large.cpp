// Files of the media file-system service behind 4 GiB. They are sparse: nothing but a few bytes is stored.
#include "nvol2.h"

#include "support/volume.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <type_traits>

namespace {

using support::openFile;
using support::Volume;
using support::VolumeFile;

// Also where long has 32 bits.
static_assert(std::is_same_v<decltype(nvol2_ftell(nullptr)), std::int64_t>);
static_assert(std::is_same_v<decltype(&nvol2_fseek), int (*)(nvol2File*, std::int64_t, int)>);

constexpr std::int64_t kGiB = std::int64_t{1} << 30;
constexpr std::int64_t kFar = 5 * kGiB + 7;

class LargeFiles : public testing::Test
{
protected:
    void SetUp() override
    {
        const std::string path = volume.dir().write("large", "start");
        std::error_code error;
        std::filesystem::resize_file(path, static_cast<std::uintmax_t>(kFar), error);
        if (error) {
            GTEST_SKIP() << "the file system for temporary files keeps none of this size: "
                         << error.message();
        }
        std::FILE* file = fopen64(path.c_str(), "a");
        ASSERT_NE(file, nullptr);
        fputs("end", file);
        ASSERT_EQ(fclose(file), 0);
    }

    Volume volume;
};

TEST_F(LargeFiles, areReadBehind4GiB)
{
    const VolumeFile file = openFile(volume.id(), "large");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(nvol2_fseek(file.get(), kFar, SEEK_SET), 0);
    EXPECT_EQ(nvol2_ftell(file.get()), kFar);
    EXPECT_EQ(support::readAll(file.get()), "end");
    EXPECT_EQ(nvol2_ftell(file.get()), kFar + 3);
    EXPECT_EQ(nvol2_fseek(file.get(), -(kFar + 3), SEEK_CUR), 0);
    EXPECT_EQ(nvol2_ftell(file.get()), 0);
    EXPECT_EQ(nvol2_fgetc(file.get()), 's');
}

TEST_F(LargeFiles, arePositionedFromEachWhence)
{
    const VolumeFile file = openFile(volume.id(), "large");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(nvol2_fseek(file.get(), 0, SEEK_END), 0);
    EXPECT_EQ(nvol2_ftell(file.get()), kFar + 3);
    EXPECT_EQ(nvol2_fseek(file.get(), -3, SEEK_END), 0);
    EXPECT_EQ(nvol2_fgetc(file.get()), 'e');
    EXPECT_EQ(nvol2_fseek(file.get(), -(kFar + 3), SEEK_END), 0);
    EXPECT_EQ(nvol2_fgetc(file.get()), 's');
    EXPECT_EQ(nvol2_fseek(file.get(), kFar, SEEK_CUR), 0);
    EXPECT_EQ(nvol2_fgetc(file.get()), 'n');
    // Neighbours whose low 32 bits differ by the sign, or not at all.
    for (const std::int64_t position : {2 * kGiB - 1, 2 * kGiB, 4 * kGiB - 1, 4 * kGiB, 4 * kGiB + 1}) {
        EXPECT_EQ(nvol2_fseek(file.get(), position, SEEK_SET), 0);
        EXPECT_EQ(nvol2_ftell(file.get()), position);
        EXPECT_EQ(nvol2_fgetc(file.get()), 0) << position;
        EXPECT_EQ(nvol2_ftell(file.get()), position + 1);
    }
}

TEST_F(LargeFiles, areWrittenBehind4GiB)
{
    {
        const VolumeFile file = openFile(volume.id(), "large", "r+");
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(nvol2_fseek(file.get(), kFar - 4, SEEK_SET), 0);
        EXPECT_EQ(nvol2_fwrite("the ", 1, 4, file.get()), 4U);
        EXPECT_EQ(nvol2_ftell(file.get()), kFar);
    }
    const VolumeFile file = openFile(volume.id(), "large");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(nvol2_fseek(file.get(), -7, SEEK_END), 0);
    EXPECT_EQ(support::readAll(file.get()), "the end");
    EXPECT_EQ(nvol2_fseek(file.get(), (kFar - 4) % (4 * kGiB), SEEK_SET), 0);
    EXPECT_EQ(nvol2_fgetc(file.get()), 0) << "written to the low 32 bits of the position";
}

TEST_F(LargeFiles, areContinuedAtTheirEnd)
{
    {
        const VolumeFile file = openFile(volume.id(), "large", "a");
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(nvol2_ftell(file.get()), kFar + 3);
        EXPECT_EQ(nvol2_fwrite("ing", 1, 3, file.get()), 3U);
    }
    EXPECT_EQ(std::filesystem::file_size(volume.dir().file("large")), static_cast<std::uintmax_t>(kFar + 6));
}

TEST_F(LargeFiles, areMadeByASeek)
{
    {
        const VolumeFile file = openFile(volume.id(), "new", "w+");
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(nvol2_fseek(file.get(), kFar, SEEK_SET), 0);
        EXPECT_EQ(nvol2_fwrite("x", 1, 1, file.get()), 1U);
        EXPECT_EQ(nvol2_fseek(file.get(), -1, SEEK_CUR), 0);
        EXPECT_EQ(nvol2_fgetc(file.get()), 'x');
    }
    EXPECT_EQ(std::filesystem::file_size(volume.dir().file("new")), static_cast<std::uintmax_t>(kFar + 1));
}

TEST_F(LargeFiles, haveNoPositionsThatNoNumberCanTell)
{
    const VolumeFile file = openFile(volume.id(), "large");
    ASSERT_NE(file, nullptr);
    constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(nvol2_fseek(file.get(), kFar, SEEK_SET), 0);
    EXPECT_EQ(nvol2_fseek(file.get(), kMost, SEEK_CUR), -1);
    EXPECT_EQ(nvol2_fseek(file.get(), kMost, SEEK_END), -1);
    EXPECT_EQ(nvol2_fseek(file.get(), std::numeric_limits<std::int64_t>::min(), SEEK_CUR), -1);
    EXPECT_EQ(nvol2_fseek(file.get(), -kFar - 1, SEEK_CUR), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(nvol2_ftell(file.get()), kFar) << "stays where it was";
}

} // namespace
