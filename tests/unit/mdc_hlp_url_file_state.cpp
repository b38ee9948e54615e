// Streams over local files: what they answer when closed, when the medium fails, and what they trace.
#include "mdc_hlp_url_file.h"

#include "support/temp_dir.h"
#include "support/trace_capture.h"

#include <boost/shared_ptr.hpp>
#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kRead = 0;
constexpr int kWrite = 1;

using Lines = std::vector<std::string>;

// The process's descriptor that has the file open, or -1.
int descriptorOf(const std::string& path)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), closedir);
    while (const dirent* entry = readdir(folder.get())) {
        char target[PATH_MAX] = {};
        if (readlinkat(dirfd(folder.get()), entry->d_name, target, sizeof(target) - 1) > 0 &&
            path == target) {
            return std::stoi(entry->d_name);
        }
    }
    return -1;
}

class FileStreamState : public testing::Test
{
protected:
    // Closes the descriptor under an open stream, so that every system call on it fails.
    static void breakStream(const std::string& path)
    {
        const int descriptor = descriptorOf(path);
        ASSERT_GE(descriptor, 0);
        ASSERT_EQ(::close(descriptor), 0);
    }

    support::TempDir dir;
    unsigned char byte = 'x';
};

void expectClosed(MdchUrlFile& stream)
{
    unsigned char buffer[4] = {1, 2, 3, 4};
    errno = 0;
    EXPECT_EQ(stream.read(buffer, 4), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(buffer[0], 1);
    errno = 0;
    EXPECT_EQ(stream.write(buffer, 4), 0);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(stream.tell(), -1);
    EXPECT_EQ(errno, EBADF);
    for (const int whence : {0, 1, 2}) {
        errno = 0;
        EXPECT_EQ(stream.seek(0, whence), -1);
        EXPECT_EQ(errno, EBADF);
    }
    for (const int whence : {3, -1}) {
        errno = 0;
        EXPECT_EQ(stream.seek(0, whence), -1);
        EXPECT_EQ(errno, EINVAL) << "judged before the state";
    }
    errno = 0;
    EXPECT_EQ(stream.size(), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(stream.getc(), -1);
    EXPECT_EQ(stream.eof(), -1);
    EXPECT_EQ(stream.error(), 0);
    stream.clearerr();
    EXPECT_EQ(stream.close(), 0);
}

void expectConstants(MdchUrlFile& stream)
{
    EXPECT_EQ(stream.isSeekable(), 1);
    EXPECT_EQ(stream.capability(), 5U);
    EXPECT_EQ(stream.pause(), 0);
    EXPECT_EQ(stream.resume(), 0);
    EXPECT_EQ(stream.seekTime(0), -1);
    EXPECT_EQ(stream.seekTime(UINT_MAX), -1);
    for (const int command : {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}) {
        EXPECT_EQ(stream.fcntl(command), -ENOSYS) << command;
    }
    EXPECT_EQ(stream.fcntl(2, 196608), -ENOSYS);
}

} // namespace

TEST_F(FileStreamState, neverOpenedAnswersAsClosed)
{
    MdchUrlFile stream;
    expectClosed(stream);
}

TEST_F(FileStreamState, closedAnswersAsClosed)
{
    MdchUrlFile stream;
    ASSERT_EQ(stream.open(dir.write("a", "hello").c_str(), kRead), 0);
    ASSERT_EQ(stream.close(), 0);
    expectClosed(stream);
}

TEST_F(FileStreamState, failedOpenAnswersAsClosed)
{
    MdchUrlFile stream;
    ASSERT_EQ(stream.open(dir.file("missing").c_str(), kRead), -ENOENT);
    expectClosed(stream);
}

TEST_F(FileStreamState, closingTwiceGivesZero)
{
    MdchUrlFile stream;
    ASSERT_EQ(stream.open(dir.write("a", "hello").c_str(), kRead), 0);
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(stream.close(), 0);
}

TEST_F(FileStreamState, constantsHoldInEveryState)
{
    MdchUrlFile stream;
    expectConstants(stream);
    ASSERT_EQ(stream.open(dir.write("a", "hello").c_str(), kRead), 0);
    expectConstants(stream);
    EXPECT_EQ(stream.tell(), 0);
    ASSERT_EQ(stream.close(), 0);
    expectConstants(stream);
}

TEST_F(FileStreamState, opensAgainAfterClose)
{
    MdchUrlFile stream;
    ASSERT_EQ(stream.open(dir.write("a", "a").c_str(), kRead), 0);
    EXPECT_EQ(stream.getc(), 'a');
    EXPECT_EQ(stream.getc(), -1);
    ASSERT_EQ(stream.close(), 0);
    ASSERT_EQ(stream.open(dir.write("b", "b").c_str(), kRead), 0);
    EXPECT_EQ(stream.eof(), 0);
    EXPECT_EQ(stream.getc(), 'b');
}

TEST_F(FileStreamState, openOnAnOpenStreamReplacesItAndClosesItAfterwards)
{
    const std::string first = dir.write("a", "first");
    MdchUrlFile stream;
    ASSERT_EQ(stream.open(first.c_str(), kRead), 0);
    ASSERT_EQ(stream.open(dir.write("b", "second").c_str(), kRead), 0);
    EXPECT_EQ(stream.getc(), 's');
    EXPECT_EQ(descriptorOf(first), -1) << "the earlier file is lost for ever";
}

TEST_F(FileStreamState, failedOpenOnAnOpenStreamLeavesItClosed)
{
    const std::string first = dir.write("a", "first");
    MdchUrlFile stream;
    ASSERT_EQ(stream.open(first.c_str(), kRead), 0);
    ASSERT_EQ(stream.open(dir.file("missing").c_str(), kRead), -ENOENT);
    EXPECT_EQ(stream.getc(), -1);
    EXPECT_EQ(stream.eof(), -1);
    EXPECT_EQ(descriptorOf(first), -1) << "the earlier file is lost for ever";
}

TEST_F(FileStreamState, destructorCloses)
{
    const std::string path = dir.file("new");
    {
        MdchUrlFile stream;
        ASSERT_EQ(stream.open(path.c_str(), kWrite), 0);
        EXPECT_EQ(stream.write(&byte, 1), 1);
        EXPECT_GE(descriptorOf(path), 0);
    }
    EXPECT_EQ(descriptorOf(path), -1);
    MdchUrlFile again;
    ASSERT_EQ(again.open(path.c_str(), kRead), 0);
    EXPECT_EQ(again.size(), 1) << "the buffered byte was not written";
}

TEST_F(FileStreamState, theLastOwnerOfTheBaseCloses)
{
    const std::string path = dir.write("a", "hello");
    boost::shared_ptr<MdchUrlBase> stream(new MdchUrlFile);
    ASSERT_EQ(stream->open(path.c_str(), kRead), 0);
    boost::shared_ptr<MdchUrlBase> copy = stream;
    stream.reset();
    EXPECT_GE(descriptorOf(path), 0);
    copy.reset();
    EXPECT_EQ(descriptorOf(path), -1);
}

TEST_F(FileStreamState, readOnAStreamForWritingFailsAsTheLibrarySays)
{
    MdchUrlFile stream;
    ASSERT_EQ(stream.open(dir.file("new").c_str(), kWrite), 0);
    errno = 0;
    EXPECT_EQ(stream.read(&byte, 1), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_NE(stream.error(), 0);
    stream.clearerr();
    EXPECT_EQ(stream.error(), 0);
    EXPECT_EQ(stream.getc(), -1);
}

TEST_F(FileStreamState, writeOnAStreamForReadingFailsAsTheLibrarySays)
{
    MdchUrlFile stream;
    ASSERT_EQ(stream.open(dir.write("a", "hello").c_str(), kRead), 0);
    errno = 0;
    EXPECT_EQ(stream.write(&byte, 1), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_NE(stream.error(), 0);
    stream.clearerr();
    EXPECT_EQ(stream.error(), 0);
}

TEST_F(FileStreamState, clearerrClearsTheEndToo)
{
    MdchUrlFile stream;
    ASSERT_EQ(stream.open(dir.write("a", "").c_str(), kRead), 0);
    EXPECT_EQ(stream.size(), 0);
    EXPECT_EQ(stream.eof(), 0);
    EXPECT_EQ(stream.read(&byte, 1), 0);
    EXPECT_NE(stream.eof(), 0);
    stream.clearerr();
    EXPECT_EQ(stream.eof(), 0);
}

TEST_F(FileStreamState, aFolderOpensButDoesNotRead)
{
    MdchUrlFile stream;
    ASSERT_EQ(stream.open(dir.path().c_str(), kRead), 0);
    errno = 0;
    EXPECT_EQ(stream.read(&byte, 1), 0);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_NE(stream.error(), 0);
    EXPECT_EQ(stream.eof(), 0);
}

TEST_F(FileStreamState, aFullMediumShowsAtTheLatestInClose)
{
    MdchUrlFile stream;
    ASSERT_EQ(stream.open("/dev/full", kWrite), 0);
    EXPECT_EQ(stream.write(&byte, 1), 1) << "the byte waits in the buffer";
    EXPECT_EQ(stream.error(), 0);
    errno = 0;
    EXPECT_EQ(stream.close(), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(stream.close(), 0) << "closed in spite of the failure";
}

TEST_F(FileStreamState, aFullMediumShowsInALargeWrite)
{
    std::vector<unsigned char> block(1 << 20);
    MdchUrlFile stream;
    ASSERT_EQ(stream.open("/dev/full", kWrite), 0);
    errno = 0;
    EXPECT_LT(stream.write(block.data(), static_cast<unsigned int>(block.size())),
              static_cast<int>(block.size()));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_NE(stream.error(), 0);
}

TEST_F(FileStreamState, failuresOfTheSystemPassThrough)
{
    const std::string path = dir.write("a", "hello");
    MdchUrlFile stream;
    ASSERT_EQ(stream.open(path.c_str(), kRead), 0);
    breakStream(path);
    errno = 0;
    EXPECT_EQ(stream.size(), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(stream.tell(), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(stream.seek(3, 0), -1);
    errno = 0;
    EXPECT_EQ(stream.read(&byte, 1), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_NE(stream.error(), 0);
    EXPECT_EQ(stream.getc(), -1);
    errno = 0;
    EXPECT_EQ(stream.close(), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(stream.close(), 0);
}

TEST_F(FileStreamState, aPipeHasNoPosition)
{
    MdchUrlFile stream;
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(stream.open(("/proc/self/fd/" + std::to_string(ends[0])).c_str(), kRead), 0);
    errno = 0;
    EXPECT_EQ(stream.tell(), -1);
    EXPECT_EQ(errno, ESPIPE);
    errno = 0;
    EXPECT_EQ(stream.seek(0, 0), -1);
    EXPECT_EQ(errno, ESPIPE);
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(FileStreamState, everyOperationTracesItsNameAtTheCallLevel)
{
    const std::string path = dir.write("a", "hello");
    const support::TraceCapture traces;
    {
        MdchUrlFile stream;
        stream.open(path.c_str(), kRead);
        stream.read(&byte, 1);
        stream.write(&byte, 0);
        stream.tell();
        stream.seek(0, 0);
        stream.getc();
        stream.eof();
        stream.error();
        stream.clearerr();
        stream.size();
        stream.close();
    }
    const Lines expected{
        "MdchUrlFile::MdchUrlFile()\n", "MdchUrlFile::open() in\n", "MdchUrlFile::read() in\n",
        "MdchUrlFile::write() in\n",    "MdchUrlFile::tell() in\n", "MdchUrlFile::seek() in\n",
        "MdchUrlFile::getc() in\n",     "MdchUrlFile::eof() in\n",  "MdchUrlFile::error() in\n",
        "MdchUrlFile::clearerr() in\n", "MdchUrlFile::size() in\n", "MdchUrlFile::close() in\n",
        "MdchUrlFile::~MdchUrlFile()\n"};
    EXPECT_EQ(traces.texts(), expected);
    for (const auto& line : traces.lines()) {
        EXPECT_EQ(line.level, 0x00681388U) << line.text; // module 0x68, severity 5000
    }
}

TEST_F(FileStreamState, refusedOperationsTraceTheirNameToo)
{
    MdchUrlFile stream;
    const support::TraceCapture traces;
    stream.open("", 7);
    stream.seek(0, 3);
    stream.read(&byte, 1);
    stream.close();
    EXPECT_EQ(traces.texts(), (Lines{"MdchUrlFile::open() in\n", "MdchUrlFile::seek() in\n",
                                     "MdchUrlFile::read() in\n", "MdchUrlFile::close() in\n"}));
}

TEST_F(FileStreamState, constantAnswersTraceNothing)
{
    MdchUrlFile stream;
    const support::TraceCapture traces;
    stream.isSeekable();
    stream.capability();
    stream.pause();
    stream.resume();
    stream.fcntl(0);
    EXPECT_EQ(traces.texts(), Lines{});
}

TEST_F(FileStreamState, seekTimeTracesThatItIsNotSupportedAsAFailure)
{
    MdchUrlFile stream;
    const support::TraceCapture traces;
    stream.seekTime(0);
    EXPECT_EQ(traces.texts(), Lines{"MdchUrlFile::seekTime() time seek not supported\n"});
    EXPECT_EQ(traces.severityOf("MdchUrlFile::seekTime() time seek not supported\n"), 3000U);
}

TEST_F(FileStreamState, destructorOfAnOpenStreamTracesTheClose)
{
    auto stream = std::make_unique<MdchUrlFile>();
    ASSERT_EQ(stream->open(dir.write("a", "").c_str(), kRead), 0);
    const support::TraceCapture traces;
    stream.reset();
    EXPECT_EQ(traces.texts(), (Lines{"MdchUrlFile::~MdchUrlFile()\n", "MdchUrlFile::close() in\n"}));
}
