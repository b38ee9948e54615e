// The volumes in memory keep the contract of nvol2.h.
#include "nvol2.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Closer
{
    void operator()(nvol2File* file) const { nvol2_fclose(file); }
};
using File = std::unique_ptr<nvol2File, Closer>;

class MemoryVolume : public testing::Test
{
protected:
    MemoryVolume() : m_id(nvol2VolumeAdd("4D1A-C0DE", "unused")) {}
    ~MemoryVolume() override { nvol2VolumeRemove("4D1A-C0DE"); }

    File open(const std::string& path, const char* mode) const
    {
        return File(nvol2_fopen(m_id, path.c_str(), mode));
    }

    void write(const std::string& path, const std::string& text, const char* mode = "w") const
    {
        const File file = open(path, mode);
        ASSERT_NE(file, nullptr);
        ASSERT_EQ(nvol2_fwrite(text.data(), 1, text.size(), file.get()), text.size());
    }

    std::string read(const std::string& path) const
    {
        const File file = open(path, "rb");
        if (file == nullptr) {
            return "errno " + std::to_string(errno);
        }
        std::string text(1000, '\0');
        text.resize(nvol2_fread(&text[0], 1, text.size(), file.get()));
        EXPECT_NE(nvol2_feof(file.get()), 0);
        EXPECT_EQ(nvol2_ferror(file.get()), 0);
        return text;
    }

    int errnoOfOpen(const std::string& path, const char* mode = "r") const
    {
        errno = 0;
        EXPECT_EQ(open(path, mode), nullptr) << path;
        return errno;
    }

    int m_id;
};

TEST_F(MemoryVolume, KeepsWhatIsWritten)
{
    write("music/song.txt", "la la");
    EXPECT_EQ(read("music/song.txt"), "la la");
    EXPECT_EQ(read("//music/./song.txt"), "la la");
    EXPECT_EQ(read("music/../music/song.txt"), "la la");
    write("music/song.txt", "lo");
    EXPECT_EQ(read("music/song.txt"), "lo") << "w empties the file";
    write("music/song.txt", " lu", "ab");
    EXPECT_EQ(read("music/song.txt"), "lo lu");
}

TEST_F(MemoryVolume, RefusesPathsThatAreNoFile)
{
    write("music/song.txt", "la");
    EXPECT_EQ(errnoOfOpen("none"), ENOENT);
    EXPECT_EQ(errnoOfOpen(""), ENOENT);
    EXPECT_EQ(errnoOfOpen("/"), EISDIR);
    EXPECT_EQ(errnoOfOpen("music"), EISDIR);
    EXPECT_EQ(errnoOfOpen("music", "w"), EISDIR);
    EXPECT_EQ(errnoOfOpen("music/song.txt/x", "w"), ENOTDIR);
    EXPECT_EQ(errnoOfOpen("mus"), ENOENT);
}

TEST_F(MemoryVolume, NoPathLeavesIt)
{
    write("a", "x");
    EXPECT_EQ(errnoOfOpen("../a"), EACCES);
    EXPECT_EQ(errnoOfOpen("music/../../a"), EACCES);
    EXPECT_EQ(errnoOfOpen("..", "w"), EACCES);
}

TEST_F(MemoryVolume, KnowsTheModesOfFopen)
{
    write("a", "x");
    for (const char* mode : {"", "x", "rr", "rb+b", "r++", "+r", "r "}) {
        EXPECT_EQ(errnoOfOpen("a", mode), EINVAL) << mode;
    }
    for (const char* mode : {"r", "rb", "r+", "rb+", "r+b"}) {
        EXPECT_NE(open("a", mode), nullptr) << mode;
    }
    EXPECT_EQ(nvol2_fopen(m_id, nullptr, "r"), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(nvol2_fopen(m_id, "a", nullptr), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(nvol2_fopen(m_id + 1000, "a", "r"), nullptr);
    EXPECT_EQ(errno, ENODEV);
}

TEST_F(MemoryVolume, MovesWithinAFile)
{
    write("a", "0123456789");
    const File file = open("a", "r");
    EXPECT_EQ(nvol2_fseek(file.get(), -3, SEEK_END), 0);
    EXPECT_EQ(nvol2_ftell(file.get()), 7);
    EXPECT_EQ(nvol2_fgetc(file.get()), '7');
    EXPECT_EQ(nvol2_fseek(file.get(), -2, SEEK_CUR), 0);
    EXPECT_EQ(nvol2_fgetc(file.get()), '6');
    for (const std::int64_t offset : {std::int64_t{-1}, std::numeric_limits<std::int64_t>::min()}) {
        EXPECT_EQ(nvol2_fseek(file.get(), offset, SEEK_SET), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(nvol2_fseek(file.get(), std::numeric_limits<std::int64_t>::max(), SEEK_CUR), -1);
    EXPECT_EQ(nvol2_fseek(file.get(), 0, 3), -1);
    EXPECT_EQ(nvol2_ftell(file.get()), 7) << "a failed seek does not move";
}

TEST_F(MemoryVolume, TheEndShowsWhenItWasReadOver)
{
    write("a", "01");
    const File file = open("a", "r");
    std::array<char, 2> bytes{};
    EXPECT_EQ(nvol2_fread(bytes.data(), 1, 2, file.get()), 2U);
    EXPECT_EQ(nvol2_feof(file.get()), 0);
    EXPECT_EQ(nvol2_fgetc(file.get()), -1);
    EXPECT_NE(nvol2_feof(file.get()), 0);
    EXPECT_EQ(nvol2_fseek(file.get(), 100, SEEK_SET), 0);
    EXPECT_EQ(nvol2_feof(file.get()), 0);
    EXPECT_EQ(nvol2_fread(bytes.data(), 1, 2, file.get()), 0U);
    EXPECT_NE(nvol2_feof(file.get()), 0);
    nvol2_clearerr(file.get());
    EXPECT_EQ(nvol2_feof(file.get()), 0);
}

TEST_F(MemoryVolume, CountsWholeItems)
{
    write("a", "01234");
    const File file = open("a", "r");
    std::array<char, 8> bytes{};
    EXPECT_EQ(nvol2_fread(bytes.data(), 2, 4, file.get()), 2U);
    EXPECT_EQ(nvol2_ftell(file.get()), 5);
    EXPECT_EQ(nvol2_fread(bytes.data(), 0, 4, file.get()), 0U);
    const std::size_t huge = std::numeric_limits<std::size_t>::max();
    EXPECT_EQ(nvol2_fread(bytes.data(), huge, 2, file.get()), 0U);
    EXPECT_NE(nvol2_ferror(file.get()), 0);
}

TEST_F(MemoryVolume, AGapThatASeekLeavesReadsAsZeros)
{
    {
        const File file = open("a", "w+");
        ASSERT_EQ(nvol2_fseek(file.get(), 3, SEEK_SET), 0);
        ASSERT_EQ(nvol2_fwrite("x", 1, 1, file.get()), 1U);
    }
    EXPECT_EQ(read("a"), std::string("\0\0\0x", 4));
}

TEST_F(MemoryVolume, AFileThatIsTooLargeIsRefused)
{
    const File file = open("a", "w");
    // Memory ends where its addresses do.
    constexpr auto kLast = static_cast<std::int64_t>(std::min<std::uint64_t>(
        std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::size_t>::max()));
    ASSERT_EQ(nvol2_fseek(file.get(), kLast - 1, SEEK_SET), 0);
    EXPECT_EQ(nvol2_fwrite("xyz", 1, 3, file.get()), 0U);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_NE(nvol2_ferror(file.get()), 0);
}

TEST_F(MemoryVolume, AnAppendingWriterIsAlwaysAtTheEnd)
{
    write("a", "01");
    {
        const File file = open("a", "a+");
        ASSERT_EQ(nvol2_fseek(file.get(), 0, SEEK_SET), 0);
        ASSERT_EQ(nvol2_fwrite("2", 1, 1, file.get()), 1U);
    }
    EXPECT_EQ(read("a"), "012");
}

TEST_F(MemoryVolume, AFileIsUsedAsItWasOpened)
{
    write("a", "01");
    const File reader = open("a", "r");
    EXPECT_EQ(nvol2_fwrite("x", 1, 1, reader.get()), 0U);
    EXPECT_EQ(errno, EBADF);
    EXPECT_NE(nvol2_ferror(reader.get()), 0);
    const File writer = open("b", "w");
    EXPECT_EQ(nvol2_fgetc(writer.get()), -1);
    EXPECT_NE(nvol2_ferror(writer.get()), 0);
    nvol2_clearerr(writer.get());
    EXPECT_EQ(nvol2_ferror(writer.get()), 0);
}

TEST_F(MemoryVolume, ANullFileGivesWhatTheHeaderSays)
{
    errno = 0;
    EXPECT_EQ(nvol2_fread(nullptr, 1, 1, nullptr), 0U);
    EXPECT_EQ(nvol2_fwrite(nullptr, 1, 1, nullptr), 0U);
    EXPECT_EQ(nvol2_fseek(nullptr, 0, SEEK_SET), -1);
    EXPECT_EQ(nvol2_ftell(nullptr), -1);
    EXPECT_EQ(nvol2_fgetc(nullptr), -1);
    EXPECT_EQ(nvol2_feof(nullptr), 1);
    EXPECT_EQ(nvol2_ferror(nullptr), 1);
    EXPECT_EQ(nvol2_fclose(nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    nvol2_clearerr(nullptr);
}

TEST_F(MemoryVolume, AnIdStaysWithItsUuid)
{
    EXPECT_GT(m_id, 0);
    EXPECT_EQ(nvol2MediaIDGetByUUID("4d1a-c0de"), m_id);
    EXPECT_EQ(nvol2VolumeAdd("4d1a-C0DE", "x"), -EEXIST);
    write("a", "x");
    const File open = this->open("a", "r");
    EXPECT_EQ(nvol2VolumeRemove("4D1A-C0DE"), 0);
    EXPECT_EQ(nvol2VolumeRemove("4D1A-C0DE"), -ENODEV);
    EXPECT_EQ(nvol2MediaIDGetByUUID("4D1A-C0DE"), -ENODEV);
    EXPECT_EQ(nvol2_fgetc(open.get()), 'x') << "an open file stays usable";
    const int other = nvol2VolumeAdd("ANOTHER", "x");
    EXPECT_NE(other, m_id);
    EXPECT_EQ(nvol2VolumeAdd("4d1a-c0de", "x"), m_id);
    EXPECT_EQ(read("a"), "errno " + std::to_string(ENOENT)) << "a new volume is empty";
    EXPECT_EQ(nvol2VolumeRemove("ANOTHER"), 0);
}

TEST_F(MemoryVolume, WhatIsNoUuidIsRefused)
{
    for (const char* uuid : {static_cast<const char*>(nullptr), "", "a/b"}) {
        EXPECT_EQ(nvol2VolumeAdd(uuid, "x"), -EINVAL);
    }
    EXPECT_EQ(nvol2VolumeAdd("A", nullptr), -EINVAL);
    EXPECT_EQ(nvol2VolumeAdd("A", ""), -EINVAL);
    EXPECT_EQ(nvol2VolumeAdd(std::string(300, 'a').c_str(), "x"), -ENAMETOOLONG);
    EXPECT_EQ(nvol2VolumeRemove(nullptr), -EINVAL);
    EXPECT_EQ(nvol2MediaIDGetByUUID(nullptr), -EINVAL);
}

TEST_F(MemoryVolume, TheRecordTellsWhatItIs)
{
    nvol2Media_struct record;
    ASSERT_EQ(nvol2MediaGet(m_id, &record), 0);
    EXPECT_STREQ(record.uuid, "4D1A-C0DE");
    EXPECT_STREQ(record.accessPath, "") << "nothing of it lies in the native file system";
    EXPECT_EQ(record.functions, static_cast<std::uint32_t>(NVOL2_FUNCTION_READ | NVOL2_FUNCTION_WRITE));
    EXPECT_EQ(nvol2MediaGet(m_id, nullptr), -EINVAL);
    for (const int id : {-1, 0, m_id + 1000}) {
        EXPECT_EQ(nvol2MediaGet(id, &record), -ENODEV);
    }
}

TEST_F(MemoryVolume, TheListHasWhatIsThere)
{
    ASSERT_GT(nvol2VolumeAdd("ANOTHER", "x"), 0);
    EXPECT_EQ(nvol2MediaIDList(nullptr, 0), 2);
    std::array<int, 2> ids{};
    EXPECT_EQ(nvol2MediaIDList(ids.data(), 1), 2);
    EXPECT_EQ(ids[0], m_id);
    EXPECT_EQ(ids[1], 0) << "not more than there is room for";
    EXPECT_EQ(nvol2VolumeRemove("ANOTHER"), 0);
    EXPECT_EQ(nvol2MediaIDList(ids.data(), 2), 1);
}

// Run under ThreadSanitizer: writers, readers and a table that changes.
TEST_F(MemoryVolume, ServesManyThreads)
{
    write("shared", "");
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([this, number] {
            const std::string own = "own" + std::to_string(number);
            for (int turn = 0; turn < 200; ++turn) {
                write("shared", "x", "a");
                write(own, own);
                EXPECT_EQ(read(own), own);
                EXPECT_GT(nvol2VolumeAdd(own.c_str(), "x"), 0);
                EXPECT_GE(nvol2MediaIDList(nullptr, 0), 2);
                EXPECT_EQ(nvol2VolumeRemove(own.c_str()), 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const File file = open("shared", "r");
    EXPECT_EQ(nvol2_fseek(file.get(), 0, SEEK_END), 0);
    EXPECT_EQ(nvol2_ftell(file.get()), 800);
}

} // namespace
