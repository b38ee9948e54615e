// Streams over local files: paths, modes, positions.
#include "mdc_hlp_url_file.h"

#include "support/temp_dir.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kRead = 0;
constexpr int kWrite = 1;

std::string contentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool exists(const std::string& path)
{
    struct stat facts = {};
    return lstat(path.c_str(), &facts) == 0;
}

std::string readText(MdchUrlFile& stream, unsigned int size)
{
    std::string text(size, '\0');
    const int count = stream.read(reinterpret_cast<unsigned char*>(text.data()), size);
    text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return text;
}

int writeText(MdchUrlFile& stream, std::string text)
{
    return stream.write(reinterpret_cast<unsigned char*>(text.data()),
                        static_cast<unsigned int>(text.size()));
}

// Makes a folder the current one for as long as it lives.
class CurrentFolder
{
public:
    explicit CurrentFolder(const std::string& path) : m_former(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        EXPECT_GE(m_former, 0);
        EXPECT_EQ(chdir(path.c_str()), 0);
    }
    ~CurrentFolder()
    {
        EXPECT_EQ(fchdir(m_former), 0);
        close(m_former);
    }
    CurrentFolder(const CurrentFolder&) = delete;
    CurrentFolder& operator=(const CurrentFolder&) = delete;

private:
    int m_former;
};

class FileStream : public testing::Test
{
protected:
    support::TempDir dir;
    MdchUrlFile stream;
};

} // namespace

TEST_F(FileStream, readsAFileByItsPlainPath)
{
    const std::string path = dir.write("a", "hello");
    EXPECT_EQ(stream.open(path.c_str(), kRead), 0);
    EXPECT_EQ(readText(stream, 100), "hello");
    EXPECT_EQ(stream.close(), 0);
}

TEST_F(FileStream, takesTheSchemeAwayWhateverItsCase)
{
    const std::string path = dir.write("a", "hello");
    for (const char* scheme : {"file://", "FILE://", "File://", "fILe://"}) {
        EXPECT_EQ(stream.open((scheme + path).c_str(), kRead), 0) << scheme;
        EXPECT_EQ(readText(stream, 100), "hello") << scheme;
        EXPECT_EQ(stream.close(), 0);
    }
}

TEST_F(FileStream, schemeWithOneSlashIsALiteralRelativePath)
{
    dir.write("file:/tmp/a", "literal");
    const CurrentFolder current(dir.path());
    EXPECT_EQ(stream.open("file:/tmp/a", kRead), 0);
    EXPECT_EQ(readText(stream, 100), "literal");
    stream.close();
}

TEST_F(FileStream, noHostPartIsRecognised)
{
    dir.write("media/x", "relative");
    const CurrentFolder current(dir.path());
    EXPECT_EQ(stream.open("file://media/x", kRead), 0);
    EXPECT_EQ(readText(stream, 100), "relative");
    stream.close();
}

TEST_F(FileStream, schemeIsTakenAwayOnce)
{
    dir.write("file:/b", "behind two schemes");
    const CurrentFolder current(dir.path());
    EXPECT_EQ(stream.open("file://file://b", kRead), 0);
    EXPECT_EQ(readText(stream, 100), "behind two schemes");
    stream.close();
}

TEST_F(FileStream, nothingIsPercentDecoded)
{
    const std::string path = dir.write("a%20b#c?d", "as it stands");
    dir.write("a b", "decoded");
    EXPECT_EQ(stream.open(("file://" + path).c_str(), kRead), 0);
    EXPECT_EQ(readText(stream, 100), "as it stands");
    stream.close();
}

TEST_F(FileStream, anUnknownSchemeIsAPath)
{
    dir.write("ftp:/host/a", "a folder named like a scheme");
    const CurrentFolder current(dir.path());
    EXPECT_EQ(stream.open("ftp://host/a", kRead), 0);
    EXPECT_EQ(readText(stream, 7), "a folde");
    stream.close();
}

TEST_F(FileStream, failedOpenGivesTheNegatedErrno)
{
    const std::string file = dir.write("a", "hello");
    EXPECT_EQ(stream.open(dir.file("missing").c_str(), kRead), -2);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(stream.open((file + "/below").c_str(), kRead), -ENOTDIR);
    EXPECT_EQ(stream.open(dir.path().c_str(), kWrite), -EISDIR);
    EXPECT_EQ(stream.open("", kRead), -ENOENT);
    EXPECT_EQ(stream.open("file://", kRead), -ENOENT);
    EXPECT_EQ(stream.open(dir.file(std::string(300, 'x')).c_str(), kRead), -ENAMETOOLONG);
    EXPECT_EQ(stream.close(), 0) << "nothing is open";
}

TEST_F(FileStream, readModeCreatesNothing)
{
    EXPECT_EQ(stream.open(dir.file("new").c_str(), kRead), -ENOENT);
    EXPECT_FALSE(exists(dir.file("new")));
}

TEST_F(FileStream, openWithAnotherModeGivesMinusOneAndTouchesNothing)
{
    const std::string existing = dir.write("a", "hello");
    for (const int mode : {2, 3, -1, 0x100, INT32_MIN}) {
        for (const std::string& path : {existing, dir.file("new")}) {
            errno = 0;
            EXPECT_EQ(stream.open(path.c_str(), mode), -1) << mode;
            EXPECT_EQ(errno, EINVAL) << mode;
        }
    }
    EXPECT_EQ(contentOf(existing), "hello");
    EXPECT_FALSE(exists(dir.file("new")));
    errno = 0;
    EXPECT_EQ(stream.open(dir.file("missing").c_str(), 2), -1) << "the mode is judged before the path";
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(FileStream, openWithAnotherModeLeavesTheOpenFileOpen)
{
    ASSERT_EQ(stream.open(dir.write("a", "hello").c_str(), kRead), 0);
    EXPECT_EQ(stream.open(dir.write("b", "other").c_str(), 2), -1);
    EXPECT_EQ(readText(stream, 100), "hello");
}

TEST_F(FileStream, nullUrlIsInvalid)
{
    EXPECT_EQ(stream.open(nullptr, kRead), -EINVAL);
    EXPECT_EQ(stream.open(nullptr, kWrite), -EINVAL);
}

TEST_F(FileStream, writeModeCreates)
{
    const std::string path = dir.file("new");
    EXPECT_EQ(stream.open(("file://" + path).c_str(), kWrite), 0);
    EXPECT_EQ(writeText(stream, "fresh"), 5);
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(contentOf(path), "fresh");
}

TEST_F(FileStream, writeModeTruncates)
{
    const std::string path = dir.write("a", "a long former content");
    EXPECT_EQ(stream.open(path.c_str(), kWrite), 0);
    EXPECT_EQ(stream.size(), 0);
    EXPECT_EQ(stream.tell(), 0);
    EXPECT_EQ(writeText(stream, "new"), 3);
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(contentOf(path), "new");
}

TEST_F(FileStream, bytesArriveAsTheyAre)
{
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes += static_cast<char>(i);
    }
    const std::string path = dir.file("bytes");
    ASSERT_EQ(stream.open(path.c_str(), kWrite), 0);
    EXPECT_EQ(writeText(stream, bytes), 256);
    ASSERT_EQ(stream.close(), 0);
    ASSERT_EQ(stream.open(path.c_str(), kRead), 0);
    EXPECT_EQ(readText(stream, 1000), bytes);
}

TEST_F(FileStream, readGivesWhatIsThere)
{
    ASSERT_EQ(stream.open(dir.write("a", "hello").c_str(), kRead), 0);
    EXPECT_EQ(readText(stream, 0), "");
    EXPECT_EQ(readText(stream, 2), "he");
    EXPECT_EQ(stream.tell(), 2);
    EXPECT_EQ(readText(stream, 100), "llo");
    EXPECT_EQ(readText(stream, 100), "");
    EXPECT_EQ(stream.tell(), 5);
}

TEST_F(FileStream, getcGivesBytesFrom0To255AndMinusOneAtTheEnd)
{
    ASSERT_EQ(stream.open(dir.write("a", std::string("\0\x7f\x80\xff", 4)).c_str(), kRead), 0);
    EXPECT_EQ(stream.getc(), 0);
    EXPECT_EQ(stream.getc(), 127);
    EXPECT_EQ(stream.getc(), 128);
    EXPECT_EQ(stream.eof(), 0);
    EXPECT_EQ(stream.getc(), 255);
    EXPECT_EQ(stream.eof(), 0) << "the end shows when somebody asks beyond it";
    EXPECT_EQ(stream.getc(), -1);
    EXPECT_NE(stream.eof(), 0);
    EXPECT_EQ(stream.error(), 0);
}

TEST_F(FileStream, seekMovesFromStartPositionAndEnd)
{
    ASSERT_EQ(stream.open(dir.write("a", "0123456789").c_str(), kRead), 0);
    EXPECT_EQ(stream.seek(4, 0), 0);
    EXPECT_EQ(stream.tell(), 4);
    EXPECT_EQ(stream.getc(), '4');
    EXPECT_EQ(stream.seek(2, 1), 0);
    EXPECT_EQ(stream.tell(), 7);
    EXPECT_EQ(stream.getc(), '7');
    EXPECT_EQ(stream.seek(-1, 2), 0);
    EXPECT_EQ(stream.getc(), '9');
    EXPECT_EQ(stream.seek(-10, 1), 0);
    EXPECT_EQ(stream.getc(), '0');
    EXPECT_EQ(stream.seek(0, 2), 0);
    EXPECT_EQ(stream.tell(), 10);
    EXPECT_EQ(stream.seek(5, 2), 0) << "a position behind the end is possible";
    EXPECT_EQ(stream.tell(), 15);
    EXPECT_EQ(stream.getc(), -1);
}

TEST_F(FileStream, seekWithAnotherWhenceIsInvalid)
{
    ASSERT_EQ(stream.open(dir.write("a", "0123456789").c_str(), kRead), 0);
    ASSERT_EQ(stream.seek(3, 0), 0);
    for (const int whence : {3, 4, -1, INT32_MAX, INT32_MIN}) {
        errno = 0;
        EXPECT_EQ(stream.seek(0, whence), -1) << whence;
        EXPECT_EQ(errno, EINVAL) << whence;
    }
    EXPECT_EQ(stream.tell(), 3);
}

TEST_F(FileStream, seekBeforeTheStartFailsAsTheLibrarySays)
{
    ASSERT_EQ(stream.open(dir.write("a", "0123456789").c_str(), kRead), 0);
    ASSERT_EQ(stream.seek(3, 0), 0);
    errno = 0;
    EXPECT_EQ(stream.seek(-1, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(stream.seek(-4, 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(stream.seek(-11, 2), -1);
    EXPECT_EQ(stream.tell(), 3);
}

TEST_F(FileStream, seekClearsTheEnd)
{
    ASSERT_EQ(stream.open(dir.write("a", "x").c_str(), kRead), 0);
    EXPECT_EQ(readText(stream, 10), "x");
    EXPECT_NE(stream.eof(), 0);
    EXPECT_EQ(stream.seek(0, 0), 0);
    EXPECT_EQ(stream.eof(), 0);
    EXPECT_EQ(stream.getc(), 'x');
}

TEST_F(FileStream, positionsAndSizesBeyond4GiB)
{
    constexpr long long kGiB = 1LL << 30;
    constexpr long long kSize = 5 * kGiB + 3;
    const std::string path = dir.write("sparse", "start");
    const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(file, 0);
    ASSERT_EQ(pwrite(file, "border", 6, 4 * kGiB - 3), 6);
    ASSERT_EQ(pwrite(file, "end", 3, 5 * kGiB), 3);
    ASSERT_EQ(close(file), 0);

    ASSERT_EQ(stream.open(path.c_str(), kRead), 0);
    EXPECT_EQ(stream.size(), kSize);
    EXPECT_EQ(stream.seek(4 * kGiB - 3, 0), 0);
    EXPECT_EQ(stream.tell(), 4 * kGiB - 3);
    EXPECT_EQ(readText(stream, 6), "border");
    EXPECT_EQ(stream.tell(), 4 * kGiB + 3);
    EXPECT_EQ(stream.seek(kGiB - 3, 1), 0);
    EXPECT_EQ(stream.tell(), 5 * kGiB);
    EXPECT_EQ(readText(stream, 10), "end");
    EXPECT_EQ(stream.tell(), kSize);
    EXPECT_NE(stream.eof(), 0);
    EXPECT_EQ(stream.seek(-kSize, 2), 0);
    EXPECT_EQ(readText(stream, 5), "start");
    EXPECT_EQ(stream.seek(-3, 2), 0);
    EXPECT_EQ(stream.tell(), 5 * kGiB);
    EXPECT_EQ(stream.getc(), 'e');
}

TEST_F(FileStream, writesBeyond4GiB)
{
    constexpr long long kFar = (1LL << 32) + 17;
    const std::string path = dir.file("sparse");
    ASSERT_EQ(stream.open(path.c_str(), kWrite), 0);
    EXPECT_EQ(stream.seek(kFar, 0), 0);
    EXPECT_EQ(writeText(stream, "far"), 3);
    EXPECT_EQ(stream.tell(), kFar + 3);
    EXPECT_EQ(stream.close(), 0);
    struct stat facts = {};
    ASSERT_EQ(stat(path.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_size, kFar + 3);
}

TEST_F(FileStream, sizeDoesNotCountBytesInTheWriteBuffer)
{
    const std::string path = dir.file("new");
    ASSERT_EQ(stream.open(path.c_str(), kWrite), 0);
    EXPECT_EQ(writeText(stream, "buffered"), 8);
    EXPECT_EQ(stream.tell(), 8);
    EXPECT_EQ(stream.size(), 0);
    EXPECT_EQ(stream.seek(0, 1), 0); // flushes
    EXPECT_EQ(stream.size(), 8);
}
