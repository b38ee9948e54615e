// Streams on media volumes, with the service as it is: opening, reading, writing, positions, size, closing.
#include "mdc_hlp_url_nvol2.h"

#include "support/descriptors.h"
#include "support/trace_capture.h"
#include "support/volume.h"

#include <boost/shared_ptr.hpp>
#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace {

using support::TraceCapture;
using support::Volume;
using Texts = std::vector<std::string>;

constexpr int kRead = 0;
constexpr int kWrite = 1;

class VolumeStream : public testing::Test
{
protected:
    int open(const std::string& path, int mode = kRead)
    {
        return stream.open(volume.url(path).c_str(), mode);
    }

    std::string read(unsigned int count)
    {
        std::string bytes(count, '\0');
        const int got = stream.read(reinterpret_cast<unsigned char*>(&bytes[0]), count);
        bytes.resize(static_cast<std::size_t>(got));
        return bytes;
    }

    int write(std::string bytes)
    {
        return stream.write(reinterpret_cast<unsigned char*>(&bytes[0]),
                            static_cast<unsigned int>(bytes.size()));
    }

    // Each operation on a stream that is not open.
    void expectClosed()
    {
        unsigned char buffer[4] = {1, 2, 3, 4};
        const auto fails = [](long long result, long long expected) {
            EXPECT_EQ(result, expected);
            EXPECT_EQ(errno, EBADF);
            errno = 0;
        };
        errno = 0;
        fails(stream.read(buffer, 4), 0);
        fails(stream.write(buffer, 4), 0);
        EXPECT_EQ(buffer[0], 1);
        fails(stream.tell(), -1);
        for (const int whence : {0, 1, 2, 7}) {
            fails(stream.seek(0, whence), -1);
        }
        fails(stream.size(), -1);
        fails(stream.getc(), -1);
        fails(stream.eof(), 1);
        fails(stream.error(), 1);
        stream.clearerr();
        fails(stream.close(), -1);
        EXPECT_EQ(stream.isSeekable(), 1);
        EXPECT_EQ(stream.capability(), 5U);
    }

    std::string placeOf(const std::string& name) const
    {
        return std::filesystem::canonical(volume.dir().path()).string() + "/" + name;
    }

    Volume volume{"1234-ABCD"};
    MdchUrlNvol2 stream;
};

TEST_F(VolumeStream, readsAFile)
{
    volume.dir().write("music/a.mp3", "0123456789");
    EXPECT_EQ(open("music/a.mp3"), 0);
    EXPECT_EQ(read(4), "0123");
    EXPECT_EQ(stream.getc(), '4');
    EXPECT_EQ(stream.tell(), 5);
    EXPECT_EQ(stream.eof(), 0);
    EXPECT_EQ(read(100), "56789");
    EXPECT_NE(stream.eof(), 0);
    EXPECT_EQ(read(1), "");
    EXPECT_EQ(stream.getc(), -1);
    EXPECT_EQ(stream.error(), 0);
    stream.clearerr();
    EXPECT_EQ(stream.eof(), 0);
    EXPECT_EQ(stream.close(), 0);
}

TEST_F(VolumeStream, writesAFile)
{
    volume.dir().write("f", "a former content");
    EXPECT_EQ(open("f", kWrite), 0);
    EXPECT_EQ(write("written"), 7);
    EXPECT_EQ(stream.tell(), 7);
    EXPECT_EQ(stream.size(), 7);
    EXPECT_EQ(stream.seek(-2, 1), 0);
    EXPECT_EQ(write("EN"), 2);
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(volume.contentOf("f"), "writtEN");
    EXPECT_EQ(open("new", kWrite), 0);
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(volume.contentOf("new"), "");
}

TEST_F(VolumeStream, seeksFromEachWhence)
{
    volume.dir().write("f", "0123456789abcdef");
    ASSERT_EQ(open("f"), 0);
    EXPECT_EQ(stream.seek(10, 7), 0) << "an unknown whence counts from the start";
    EXPECT_EQ(stream.tell(), 10);
    EXPECT_EQ(stream.seek(2, 0), 0);
    EXPECT_EQ(read(1), "2");
    EXPECT_EQ(stream.seek(3, 1), 0);
    EXPECT_EQ(read(1), "6");
    EXPECT_EQ(stream.seek(-1, 2), 0);
    EXPECT_EQ(read(1), "f");
    EXPECT_EQ(stream.seek(5, -1), 0);
    EXPECT_EQ(stream.tell(), 5);
    EXPECT_EQ(stream.seek(1, std::numeric_limits<int>::max()), 0);
    EXPECT_EQ(stream.tell(), 1);
    EXPECT_LT(stream.seek(-1, 0), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LT(stream.seek(-100, 2), 0);
    EXPECT_EQ(stream.tell(), 1);
    EXPECT_EQ(stream.seek(100, 0), 0);
    EXPECT_EQ(read(1), "");
}

TEST_F(VolumeStream, tellsItsSizeAndKeepsItsPosition)
{
    volume.dir().write("f", std::string(100000, 'x'));
    ASSERT_EQ(open("f"), 0);
    EXPECT_EQ(stream.size(), 100000);
    EXPECT_EQ(stream.tell(), 0);
    ASSERT_EQ(stream.seek(54321, 0), 0);
    EXPECT_EQ(stream.size(), 100000);
    EXPECT_EQ(stream.tell(), 54321);
    ASSERT_EQ(stream.seek(200000, 0), 0);
    EXPECT_EQ(stream.size(), 100000);
    EXPECT_EQ(stream.tell(), 200000);
}

TEST_F(VolumeStream, worksBehind4GiB)
{
    constexpr long long kFar = 5LL << 30;
    {
        ASSERT_EQ(open("f", kWrite), 0);
        ASSERT_EQ(stream.seek(kFar, 0), 0);
        ASSERT_EQ(write("end"), 3);
        if (stream.close() != 0) {
            GTEST_SKIP() << "the file system for temporary files keeps none of this size";
        }
    }
    ASSERT_EQ(open("f"), 0);
    EXPECT_EQ(stream.size(), kFar + 3);
    EXPECT_EQ(stream.seek(-3, 2), 0);
    EXPECT_EQ(stream.tell(), kFar);
    EXPECT_EQ(read(10), "end");
}

TEST_F(VolumeStream, sizeOfAFileWhoseDescriptorIsGoneIsNegative)
{
    volume.dir().write("f", "content");
    ASSERT_EQ(open("f"), 0);
    const int descriptor = support::descriptorOf(placeOf("f"));
    ASSERT_GE(descriptor, 0);
    ASSERT_EQ(::close(descriptor), 0);
    errno = 0;
    EXPECT_LT(stream.size(), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_LT(stream.seek(1, 0), 0);
    EXPECT_EQ(read(1), "");
    EXPECT_NE(stream.error(), 0);
    EXPECT_EQ(stream.close(), -1);
}

TEST_F(VolumeStream, anUnknownVolumeIsTheResultAndErrno)
{
    for (const std::string url : {"nvl2://5678/f", "nvl2://", "nvl2:///f", "", "/", "f", "1234-ABCD-/f"}) {
        errno = 0;
        EXPECT_EQ(stream.open(url.c_str(), kRead), -ENODEV) << url;
        EXPECT_EQ(errno, ENODEV);
    }
    EXPECT_EQ(stream.open("nvl2://5678/f", 7), -ENODEV) << "before the mode";
}

TEST_F(VolumeStream, theVolumeCountsWhateverTheScheme)
{
    volume.dir().write("f", "content");
    for (const std::string url :
         {"nvl2://1234-ABCD/f", "NVL2://1234-abcd/f", "http://1234-ABCD/f", "1234-ABCD/f", "://1234-ABCD/f",
          "nvl2://1234-ABCD//f", "nvl2://1234-ABCD/./f"}) {
        EXPECT_EQ(stream.open(url.c_str(), kRead), 0) << url;
        EXPECT_EQ(read(10), "content") << url;
    }
}

TEST_F(VolumeStream, modesOtherThanReadAndWriteAreInvalid)
{
    volume.dir().write("f", "content");
    for (const int mode : {2, 3, -1, 256, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        errno = 0;
        EXPECT_EQ(open("f", mode), -EINVAL) << mode;
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(open("new", mode), -EINVAL) << mode;
    }
    EXPECT_EQ(volume.contentOf("f"), "content");
    EXPECT_FALSE(std::filesystem::exists(volume.dir().file("new")));
}

TEST_F(VolumeStream, aNullUrlIsInvalid)
{
    errno = 0;
    EXPECT_EQ(stream.open(nullptr, kRead), -EINVAL);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(VolumeStream, reasonsOfTheServiceAreTheResult)
{
    volume.dir().makeDir("dir");
    volume.dir().write("f", "");
    EXPECT_EQ(open("missing"), -ENOENT);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(open(""), -ENOENT);
    EXPECT_EQ(open("/"), -ENOENT);
    EXPECT_EQ(stream.open("nvl2://1234-ABCD", kRead), -ENOENT);
    EXPECT_EQ(open("dir"), -EISDIR);
    EXPECT_EQ(open("dir", kWrite), -EISDIR);
    EXPECT_EQ(open("nowhere/new", kWrite), -ENOENT);
    EXPECT_EQ(open("f/f"), -ENOTDIR);
    EXPECT_EQ(open("../f"), -EACCES);
    EXPECT_EQ(open("dir/../../etc/passwd"), -EACCES);
    EXPECT_EQ(open(std::string(300, 'n')), -ENAMETOOLONG);
    EXPECT_EQ(open(std::string(1000000, 'n'), kWrite), -ENAMETOOLONG);
}

// Whatever a locator says, the stream does with volume and path what the service does.
TEST_F(VolumeStream, hundredsOfLocatorsGiveWhatTheServiceGives)
{
    volume.dir().write("f", "content");
    volume.dir().write("dir/f", "content");
    std::filesystem::create_symlink("..", volume.dir().file("out"));
    int opened = 0;
    for (const std::string start :
         {"nvl2://", "NVL2://", "://", "", "x://", "nvl2:", "nvl2:/", "nvl2:///", "/"}) {
        for (const std::string uuid :
             {"1234-ABCD", "1234-abcd", "1234", "", "..", "1234-ABCD:", "%31234-ABCD"}) {
            for (const std::string path :
                 {"",        "/",         "//",    "/f",     "//f",      "/f/", "/dir", "/dir/f",
                  "/dir//f", "/dir/../f", "/../f", "/out/f", "/missing", "?f",  "/f?",  "/%66",
                  "\\f",     "/dir\\f",   "/f ",   "/ f",    "/\xff",    "/f#1"}) {
                std::string url = start;
                url.append(uuid).append(path);
                std::string protocol;
                std::string volumeId;
                std::string name;
                ASSERT_TRUE(md::parseNvol2Url(url, protocol, volumeId, name));
                int expected = nvol2MediaIDGetByUUID(volumeId.c_str());
                if (expected >= 0) {
                    nvol2File* file = nvol2_fopen(expected, name.c_str(), "r");
                    expected = file != nullptr ? nvol2_fclose(file) : -errno;
                }
                EXPECT_EQ(stream.open(url.c_str(), kRead), expected) << url;
                opened += expected == 0 ? 1 : 0;
            }
        }
    }
    EXPECT_GT(opened, 10);
}

TEST_F(VolumeStream, answersAsClosedUntilItIsOpenAndAfterwards)
{
    expectClosed();
    EXPECT_EQ(open("missing"), -ENOENT);
    expectClosed();
    volume.dir().write("f", "content");
    ASSERT_EQ(open("f"), 0);
    EXPECT_EQ(stream.close(), 0);
    expectClosed();
}

TEST_F(VolumeStream, closingTwiceFailsTheSecondTime)
{
    volume.dir().write("f", "content");
    ASSERT_EQ(open("f"), 0);
    EXPECT_EQ(stream.close(), 0);
    EXPECT_EQ(support::descriptorOf(placeOf("f")), -1);
    errno = 0;
    EXPECT_EQ(stream.close(), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(VolumeStream, opensAgainAfterClose)
{
    volume.dir().write("a", "a");
    volume.dir().write("b", "b");
    ASSERT_EQ(open("a"), 0);
    EXPECT_EQ(read(10), "a");
    ASSERT_EQ(stream.close(), 0);
    ASSERT_EQ(open("b"), 0);
    EXPECT_EQ(stream.eof(), 0);
    EXPECT_EQ(read(10), "b");
}

TEST_F(VolumeStream, aSecondOpenReplacesTheFileAndClosesItAfterwards)
{
    volume.dir().write("a", "first");
    volume.dir().write("b", "second");
    ASSERT_EQ(open("a"), 0);
    ASSERT_EQ(open("b"), 0);
    EXPECT_EQ(read(10), "second");
    EXPECT_EQ(support::descriptorOf(placeOf("a")), -1) << "the earlier file is lost for ever";
    ASSERT_EQ(open("missing"), -ENOENT);
    EXPECT_EQ(support::descriptorOf(placeOf("b")), -1);
    expectClosed();
}

TEST_F(VolumeStream, aSecondOpenOnAnUnknownVolumeLeavesTheFileOpen)
{
    volume.dir().write("a", "first");
    ASSERT_EQ(open("a"), 0);
    EXPECT_EQ(stream.open("nvl2://5678/f", kRead), -ENODEV);
    EXPECT_EQ(read(10), "first") << "no handle was stored";
}

TEST_F(VolumeStream, theLastOwnerOfTheBaseCloses)
{
    volume.dir().write("a", "first");
    boost::shared_ptr<MdchUrlBase> base(new MdchUrlNvol2);
    ASSERT_EQ(base->open(volume.url("a").c_str(), kRead), 0);
    boost::shared_ptr<MdchUrlBase> copy = base;
    base.reset();
    EXPECT_GE(support::descriptorOf(placeOf("a")), 0);
    copy.reset();
    EXPECT_EQ(support::descriptorOf(placeOf("a")), -1);
}

TEST_F(VolumeStream, theDestructorWritesWhatWaitsInTheBuffer)
{
    {
        MdchUrlNvol2 other;
        ASSERT_EQ(other.open(volume.url("new").c_str(), kWrite), 0);
        unsigned char byte = 'x';
        EXPECT_EQ(other.write(&byte, 1), 1);
    }
    EXPECT_EQ(volume.contentOf("new"), "x");
}

TEST_F(VolumeStream, constantsHoldInEachState)
{
    volume.dir().write("f", "content");
    for (const bool isOpen : {false, true}) {
        if (isOpen) {
            ASSERT_EQ(open("f"), 0);
        }
        EXPECT_EQ(stream.isSeekable(), 1);
        EXPECT_EQ(stream.capability(), 5U);
        EXPECT_EQ(stream.pause(), 0);
        EXPECT_EQ(stream.resume(), 0);
        EXPECT_EQ(stream.seekTime(0), -1);
        EXPECT_EQ(stream.seekTime(std::numeric_limits<unsigned int>::max()), -1);
        for (int command = -1; command <= 11; ++command) {
            EXPECT_EQ(stream.fcntl(command, 1), -ENOSYS) << command;
        }
    }
    EXPECT_EQ(stream.tell(), 0);
}

TEST_F(VolumeStream, readingFromAStreamForWritingFailsAndTheOtherWayRound)
{
    ASSERT_EQ(open("f", kWrite), 0);
    EXPECT_EQ(read(1), "");
    EXPECT_NE(stream.error(), 0);
    stream.clearerr();
    EXPECT_EQ(stream.error(), 0);
    ASSERT_EQ(open("f", kRead), 0);
    EXPECT_EQ(write("x"), 0);
    EXPECT_NE(stream.error(), 0);
}

TEST_F(VolumeStream, goesOnWhenTheVolumeIsRemoved)
{
    volume.dir().write("f", "0123456789");
    ASSERT_EQ(open("f"), 0);
    EXPECT_EQ(read(2), "01");
    ASSERT_EQ(volume.remove(), 0);
    EXPECT_EQ(read(10), "23456789");
    EXPECT_EQ(stream.seek(0, 0), 0);
    EXPECT_EQ(stream.size(), 10);
    MdchUrlNvol2 other;
    EXPECT_EQ(other.open(volume.url("f").c_str(), kRead), -ENODEV);
}

TEST_F(VolumeStream, openTracesWhatTheParserTracesAndNoMore)
{
    volume.dir().write("f", "");
    const TraceCapture traces;
    ASSERT_EQ(open("f"), 0);
    EXPECT_EQ(traces.texts(),
              (Texts{"parseNvol2Url() uri=nvl2://1234-ABCD/f\n",
                     "MdchUrlNvol2::parseNvol2Url() protocol=nvl2 posProtocolSeparator=4 readPos=7\n",
                     "MdchUrlNvol2::parseNvol2Url() volumeID=1234-ABCD posSlash=16 readPos=7\n",
                     "MdchUrlNvol2::parseNvol2Url() fullpath=f\n"}));
}

TEST_F(VolumeStream, anUnknownVolumeIsANotice)
{
    const TraceCapture traces;
    EXPECT_EQ(stream.open("5678", kRead), -ENODEV);
    EXPECT_EQ(traces.texts(), (Texts{"parseNvol2Url() uri=5678\n",
                                     "MdchUrlNvol2::parseNvol2Url() volumeID=5678 posSlash=4 readPos=0\n",
                                     "MdchUrlNvol2::parseNvol2Url() fullpath=\n",
                                     "MdchUrlNvol2::open() Could not get mediaID for volumeID=5678\n"}));
    EXPECT_EQ(traces.lines().back().level, 0x00680fa0U);
}

TEST_F(VolumeStream, timeSeekIsAFailureAndTheOtherOperationsTraceNothing)
{
    volume.dir().write("f", "content");
    ASSERT_EQ(open("f"), 0);
    const TraceCapture traces;
    read(1);
    write("x");
    stream.tell();
    stream.seek(0, 0);
    stream.getc();
    stream.eof();
    stream.error();
    stream.clearerr();
    stream.size();
    stream.isSeekable();
    stream.capability();
    stream.pause();
    stream.resume();
    stream.fcntl(0);
    EXPECT_EQ(traces.texts(), Texts{});
    stream.seekTime(5000);
    stream.close();
    EXPECT_EQ(traces.texts(), Texts{"MdchUrlNvol2::seekTime() time seek not supported\n"});
    EXPECT_EQ(traces.lines().back().level, 0x00680bb8U);
}

} // namespace
