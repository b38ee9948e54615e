// Files of the media file-system service: each function does what its namesake of the C library does.
#include "nvol2.h"

#include "support/volume.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace {

using support::openFile;
using support::Volume;
using support::VolumeFile;

const std::vector<std::string> kModes{"r",   "rb",  "r+", "rb+", "r+b", "w",   "wb", "w+",
                                      "wb+", "w+b", "a",  "ab",  "a+",  "ab+", "a+b"};

class VolumeFiles : public testing::Test
{
protected:
    VolumeFile open(const std::string& path, const std::string& mode = "r")
    {
        return openFile(volume.id(), path, mode);
    }

    Volume volume;
};

// What a sequence of calls answers, one line for each.
class Protocol
{
public:
    template <class Value>
    void note(const char* call, Value value)
    {
        m_lines += std::string(call) + " " + std::to_string(value) + " " + std::to_string(errno) + "\n";
        errno = 0;
    }
    void note(const char* call, const std::string& text) { m_lines += std::string(call) + " " + text + "\n"; }
    const std::string& lines() const { return m_lines; }

private:
    std::string m_lines;
};

// The functions of the C library, in the order of the service's.
struct Library
{
    using File = FILE;
    static constexpr auto fread = ::fread;
    static constexpr auto fwrite = ::fwrite;
    static constexpr auto fseek = ::fseeko64;
    static constexpr auto ftell = ::ftello64;
    static constexpr auto fgetc = ::fgetc;
    static constexpr auto feof = ::feof;
    static constexpr auto ferror = ::ferror;
    static constexpr auto clearerr = ::clearerr;
    static constexpr auto fclose = ::fclose;
};

struct Service
{
    using File = nvol2File;
    static constexpr auto fread = nvol2_fread;
    static constexpr auto fwrite = nvol2_fwrite;
    static constexpr auto fseek = nvol2_fseek;
    static constexpr auto ftell = nvol2_ftell;
    static constexpr auto fgetc = nvol2_fgetc;
    static constexpr auto feof = nvol2_feof;
    static constexpr auto ferror = nvol2_ferror;
    static constexpr auto clearerr = nvol2_clearerr;
    static constexpr auto fclose = nvol2_fclose;
};

// Goes through all functions on one open file.
template <class Functions>
std::string exercise(typename Functions::File* file)
{
    Protocol protocol;
    errno = 0;
    const auto state = [&] {
        protocol.note("feof", Functions::feof(file) != 0);
        protocol.note("ferror", Functions::ferror(file) != 0);
    };
    const auto read = [&](std::size_t size, std::size_t count) {
        std::array<char, 64> buffer{};
        protocol.note("fread", Functions::fread(buffer.data(), size, count, file));
        protocol.note("bytes", std::string(buffer.data()));
        state();
    };
    const auto write = [&](const std::string& text, std::size_t size) {
        protocol.note("fwrite", Functions::fwrite(text.data(), size, text.size() / size, file));
        state();
    };
    const auto seek = [&](std::int64_t offset, int whence) {
        protocol.note("fseek", Functions::fseek(file, offset, whence));
        protocol.note("ftell", Functions::ftell(file));
    };
    protocol.note("ftell", Functions::ftell(file));
    state();
    read(1, 3);
    read(2, 2);
    read(0, 5);
    read(5, 0);
    protocol.note("fgetc", Functions::fgetc(file));
    protocol.note("ftell", Functions::ftell(file));
    seek(1, SEEK_SET);
    read(4, 60 / 4);
    protocol.note("fgetc", Functions::fgetc(file));
    state();
    Functions::clearerr(file);
    state();
    seek(-2, SEEK_END);
    protocol.note("fgetc", Functions::fgetc(file));
    seek(-1, SEEK_CUR);
    seek(0, SEEK_CUR);
    write("written", 1);
    protocol.note("ftell", Functions::ftell(file));
    write("ABCDEFG", 3);
    write("", 1);
    seek(-5, SEEK_CUR);
    read(1, 2);
    Functions::clearerr(file);
    seek(20, SEEK_SET);
    write("behind", 2);
    seek(-1, SEEK_SET);
    seek(0, 3);
    seek(0, -1);
    seek(0, SEEK_END);
    state();
    protocol.note("fclose", Functions::fclose(file));
    return protocol.lines();
}

TEST_F(VolumeFiles, eachModeDoesWhatItDoesInTheLibrary)
{
    for (const std::string& mode : kModes) {
        for (const bool exists : {true, false}) {
            const support::TempDir other;
            const std::string name = "file-" + mode + (exists ? "-old" : "-new");
            if (exists) {
                volume.dir().write(name, "0123456789");
                other.write(name, "0123456789");
            }
            errno = 0;
            FILE* expected = fopen64(other.file(name).c_str(), mode.c_str());
            const int code = errno;
            errno = 0;
            nvol2File* file = nvol2_fopen(volume.id(), name.c_str(), mode.c_str());
            ASSERT_EQ(file != nullptr, expected != nullptr) << mode;
            if (file == nullptr) {
                EXPECT_EQ(errno, code) << mode;
                EXPECT_EQ(errno, ENOENT);
                continue;
            }
            EXPECT_EQ(exercise<Service>(file), exercise<Library>(expected)) << mode << ", exists " << exists;
            std::ifstream stream(other.file(name), std::ios::binary);
            const std::string content((std::istreambuf_iterator<char>(stream)), {});
            EXPECT_EQ(volume.contentOf(name), content) << mode;
        }
    }
}

TEST_F(VolumeFiles, anyOtherModeIsInvalid)
{
    volume.dir().write("f", "content");
    for (const std::string mode :
         {"",     " ",   "b",   "+",    "rw",          "wr",   "ra",    "ar",     "wa",   "rr",   "ww",
          "aa",   "r ",  " r",  "rb ",  "r +",         "r++",  "rbb",   "r+b+",   "rb+b", "rb++", "rbb+",
          "r+bb", "+r",  "br",  "b+r",  "R",           "W",    "A",     "Rb",     "rB",   "rt",   "r+t",
          "rx",   "wx",  "w+x", "wbx",  "re",          "rbe",  "we",    "rm",     "rc",   "rn",   "ru",
          "r-",   "r+-", "r\n", "r\t",  "r,ccs=UTF-8", "read", "write", "append", "0",    "1",    "rb1",
          "x",    "rwa", "r*",  "\xff", "r\xff",       "%s%n", "r%n",   "e",      "wb+x", "a+x"}) {
        errno = 0;
        EXPECT_EQ(nvol2_fopen(volume.id(), "f", mode.c_str()), nullptr) << "\"" << mode << "\"";
        EXPECT_EQ(errno, EINVAL) << mode;
        errno = 0;
        EXPECT_EQ(nvol2_fopen(volume.id(), "new", mode.c_str()), nullptr);
        EXPECT_EQ(errno, EINVAL) << mode;
    }
    errno = 0;
    EXPECT_EQ(nvol2_fopen(volume.id(), "f", std::string(1000000, 'r').c_str()), nullptr);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(nvol2_fopen(volume.id(), "f", nullptr), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(volume.contentOf("f"), "content");
    EXPECT_EQ(support::openFile(volume.id(), "new"), nullptr) << "was made";
}

TEST_F(VolumeFiles, aNullPathIsInvalidAndAnEmptyOneNotThere)
{
    errno = 0;
    EXPECT_EQ(nvol2_fopen(volume.id(), nullptr, "r"), nullptr);
    EXPECT_EQ(errno, EINVAL);
    for (const char* path : {"", "/", "//", "////"}) {
        for (const char* mode : {"r", "w", "a+"}) {
            errno = 0;
            EXPECT_EQ(nvol2_fopen(volume.id(), path, mode), nullptr) << path;
            EXPECT_EQ(errno, ENOENT) << path;
        }
    }
}

TEST_F(VolumeFiles, modeAndPathAreJudgedBeforeTheVolume)
{
    errno = 0;
    EXPECT_EQ(nvol2_fopen(-1, "f", ""), nullptr);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(nvol2_fopen(-1, nullptr, "r"), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(VolumeFiles, ofUnknownMediaIdsDoNotExist)
{
    volume.dir().write("f", "");
    for (const int id : {0, -1, -ENODEV, volume.id() + 1000, std::numeric_limits<int>::max(),
                         std::numeric_limits<int>::min()}) {
        for (const char* mode : {"r", "w"}) {
            errno = 0;
            EXPECT_EQ(nvol2_fopen(id, "f", mode), nullptr) << id;
            EXPECT_EQ(errno, ENODEV) << id;
        }
    }
}

TEST_F(VolumeFiles, nullIsNoFile)
{
    std::array<char, 4> buffer{1, 2, 3, 4};
    const auto fails = [](auto result, auto expected) {
        EXPECT_EQ(result, expected);
        EXPECT_EQ(errno, EBADF);
        errno = 0;
    };
    errno = 0;
    fails(nvol2_fread(buffer.data(), 1, 4, nullptr), 0U);
    fails(nvol2_fwrite(buffer.data(), 1, 4, nullptr), 0U);
    fails(nvol2_fseek(nullptr, 0, SEEK_SET), -1);
    fails(nvol2_fseek(nullptr, 0, 7), -1);
    fails(nvol2_ftell(nullptr), -1);
    fails(nvol2_fgetc(nullptr), -1);
    fails(nvol2_feof(nullptr), 1);
    fails(nvol2_ferror(nullptr), 1);
    fails(nvol2_fclose(nullptr), -1);
    nvol2_clearerr(nullptr);
    EXPECT_EQ(buffer, (std::array<char, 4>{1, 2, 3, 4}));
}

TEST_F(VolumeFiles, areReadWhole)
{
    std::string content;
    for (int count = 0; count < 100000; ++count) {
        content += static_cast<char>(count * 7 + count / 256);
    }
    volume.dir().write("f", content);
    const VolumeFile file = open("f");
    ASSERT_NE(file, nullptr);
    std::string read(content.size() + 1, '\0');
    EXPECT_EQ(nvol2_fread(&read[0], 1, 1, file.get()), 1U);
    EXPECT_EQ(nvol2_fread(&read[1], 1, read.size() - 1, file.get()), content.size() - 1);
    read.pop_back();
    EXPECT_TRUE(read == content);
    EXPECT_NE(nvol2_feof(file.get()), 0);
    EXPECT_EQ(nvol2_ferror(file.get()), 0);
    EXPECT_EQ(nvol2_ftell(file.get()), 100000);
}

TEST_F(VolumeFiles, ofSeveralVolumesAreKeptApart)
{
    const Volume other("other");
    volume.dir().write("f", "one");
    other.dir().write("f", "two");
    const VolumeFile one = openFile(volume.id(), "f");
    const VolumeFile two = openFile(other.id(), "f");
    EXPECT_EQ(support::readAll(one.get()), "one");
    EXPECT_EQ(support::readAll(two.get()), "two");
}

TEST_F(VolumeFiles, mayBeOpenSeveralTimes)
{
    volume.dir().write("f", "0123456789");
    const VolumeFile one = open("f");
    const VolumeFile two = open("f");
    ASSERT_TRUE(one != nullptr && two != nullptr);
    EXPECT_EQ(nvol2_fseek(one.get(), 5, SEEK_SET), 0);
    EXPECT_EQ(nvol2_fgetc(two.get()), '0');
    EXPECT_EQ(nvol2_fgetc(one.get()), '5');
}

TEST_F(VolumeFiles, aFullMediumShowsInALargeWriteOrAtTheLatestInClose)
{
    rlimit former{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &former), 0);
    rlimit small = former;
    small.rlim_cur = 100000;
    const auto formerHandler = signal(SIGXFSZ, SIG_IGN);
    const std::vector<char> block(200000, 'x');
    nvol2File* large = nvol2_fopen(volume.id(), "large", "w");
    nvol2File* late = nvol2_fopen(volume.id(), "late", "w");
    ASSERT_TRUE(large != nullptr && late != nullptr);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);

    errno = 0;
    EXPECT_LT(nvol2_fwrite(block.data(), 1, block.size(), large), block.size());
    EXPECT_EQ(errno, EFBIG);
    EXPECT_NE(nvol2_ferror(large), 0);
    nvol2_fclose(large);

    EXPECT_EQ(nvol2_fseek(late, 100000, SEEK_SET), 0);
    EXPECT_EQ(nvol2_fwrite(block.data(), 1, 1, late), 1U) << "the byte waits in the buffer";
    errno = 0;
    EXPECT_EQ(nvol2_fclose(late), -1);
    EXPECT_EQ(errno, EFBIG);

    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &former), 0);
    signal(SIGXFSZ, formerHandler);
}

} // namespace
