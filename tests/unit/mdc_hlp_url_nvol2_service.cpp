// Streams on media volumes and the translations of their URLs: what they ask of the media file-system service, and what
// they make of each of its answers. The linker puts the functions below into the service's place.
#include "mdc_hlp_url_nvol2.h"

#include "support/trace_capture.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

// The service: writes down what it is asked, and answers what it is told to.
struct FakeService
{
    Texts calls;
    std::map<std::string, std::vector<long long>> answers; // by function, in order; the last one stays
    int errorNumber = 0;                                   // errno behind a call, unless 0
    bool isOutOfMemory = false;
    nvol2Media_struct record{};
    bool opens = true;

    long long answer(const std::string& function, const std::string& arguments = "")
    {
        calls.push_back(function + "(" + arguments + ")");
        if (errorNumber != 0) {
            errno = errorNumber;
        }
        std::vector<long long>& left = answers[function];
        const long long result = left.empty() ? 0 : left.front();
        if (left.size() > 1) {
            left.erase(left.begin());
        }
        return result;
    }
};

FakeService* service = nullptr;
constexpr int kHandle = 0; // its address stands for an open file

nvol2File* handle()
{
    return reinterpret_cast<nvol2File*>(const_cast<int*>(&kHandle));
}

std::string nameOf(const nvol2File* file)
{
    return file == nullptr ? "null" : file == handle() ? "file" : "something else";
}

} // namespace

// The linker wants these names.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __wrap_nvol2MediaIDGetByUUID(const char* uuid)
{
    if (service->isOutOfMemory) {
        throw std::bad_alloc();
    }
    return static_cast<int>(service->answer("MediaIDGetByUUID", uuid));
}

int __wrap_nvol2MediaGet(int mediaId, nvol2Media_struct* record)
{
    *record = service->record;
    return static_cast<int>(service->answer("MediaGet", std::to_string(mediaId)));
}

nvol2File* __wrap_nvol2_fopen(int mediaId, const char* path, const char* mode)
{
    service->answer("fopen", std::to_string(mediaId) + ", " + path + ", " + mode);
    return service->opens ? handle() : nullptr;
}

int __wrap_nvol2_fclose(nvol2File* file)
{
    return static_cast<int>(service->answer("fclose", nameOf(file)));
}

size_t __wrap_nvol2_fread(void*, size_t size, size_t count, nvol2File* file)
{
    return static_cast<size_t>(
        service->answer("fread", std::to_string(size) + ", " + std::to_string(count) + ", " + nameOf(file)));
}

size_t __wrap_nvol2_fwrite(const void*, size_t size, size_t count, nvol2File* file)
{
    return static_cast<size_t>(
        service->answer("fwrite", std::to_string(size) + ", " + std::to_string(count) + ", " + nameOf(file)));
}

int __wrap_nvol2_fseek(nvol2File* file, int64_t offset, int whence)
{
    return static_cast<int>(service->answer("fseek", nameOf(file) + ", " + std::to_string(offset) + ", " +
                                                         std::to_string(whence)));
}

int64_t __wrap_nvol2_ftell(nvol2File* file)
{
    return service->answer("ftell", nameOf(file));
}

int __wrap_nvol2_fgetc(nvol2File* file)
{
    return static_cast<int>(service->answer("fgetc", nameOf(file)));
}

int __wrap_nvol2_feof(nvol2File* file)
{
    return static_cast<int>(service->answer("feof", nameOf(file)));
}

int __wrap_nvol2_ferror(nvol2File* file)
{
    return static_cast<int>(service->answer("ferror", nameOf(file)));
}

void __wrap_nvol2_clearerr(nvol2File* file)
{
    service->answer("clearerr", nameOf(file));
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace {

class VolumeStreamAndService : public testing::Test
{
protected:
    VolumeStreamAndService()
    {
        service = &fake;
        fake.answers["MediaIDGetByUUID"] = {7};
    }
    // The stream first: its end calls the service.
    ~VolumeStreamAndService() override
    {
        stream.reset();
        service = nullptr;
    }

    void open()
    {
        ASSERT_EQ(stream->open("nvl2://1234-ABCD/f", 0), 0);
        fake.calls.clear();
    }

    FakeService fake;
    std::unique_ptr<MdchUrlNvol2> stream = std::make_unique<MdchUrlNvol2>();
    unsigned char byte = 'x';
};

TEST_F(VolumeStreamAndService, openAsksForTheVolumeAndThenForTheFile)
{
    EXPECT_EQ(stream->open("nvl2://1234-ABCD/music/a.mp3", 0), 0);
    EXPECT_EQ(fake.calls, (Texts{"MediaIDGetByUUID(1234-ABCD)", "fopen(7, music/a.mp3, r)"}));
}

TEST_F(VolumeStreamAndService, mediaIdZeroIsAVolume)
{
    fake.answers["MediaIDGetByUUID"] = {0};
    EXPECT_EQ(stream->open("nvl2://1234-ABCD/f", 0), 0);
    EXPECT_EQ(fake.calls.back(), "fopen(0, f, r)");
}

TEST_F(VolumeStreamAndService, modesBecomeTheServicesAndOthersAnEmptyText)
{
    const std::map<int, std::string> modes{{0, "r"},
                                           {1, "w"},
                                           {2, ""},
                                           {3, ""},
                                           {-1, ""},
                                           {std::numeric_limits<int>::max(), ""},
                                           {std::numeric_limits<int>::min(), ""}};
    for (const auto& [mode, text] : modes) {
        fake.calls.clear();
        MdchUrlNvol2 other;
        EXPECT_EQ(other.open("nvl2://v/f", mode), 0) << "the service decides";
        EXPECT_EQ(fake.calls.back(), "fopen(7, f, " + text + ")") << mode;
    }
}

TEST_F(VolumeStreamAndService, theSchemeAndTheResultOfParsingAreNotChecked)
{
    for (const std::string url : {"http://v/f", "://v/f", "v/f", "x://v/f", "NVL2://v/f"}) {
        fake.calls.clear();
        MdchUrlNvol2 other;
        EXPECT_EQ(other.open(url.c_str(), 0), 0) << url;
        EXPECT_EQ(fake.calls, (Texts{"MediaIDGetByUUID(v)", "fopen(7, f, r)"})) << url;
    }
}

TEST_F(VolumeStreamAndService, aNegativeMediaIdIsTheResultAndErrno)
{
    for (const int code : {ENODEV, EINVAL, ENOMEM, 1, 4711}) {
        fake.answers["MediaIDGetByUUID"] = {-code};
        fake.calls.clear();
        errno = 0;
        EXPECT_EQ(stream->open("nvl2://1234-ABCD/f", 0), -code);
        EXPECT_EQ(errno, code);
        EXPECT_EQ(fake.calls, Texts{"MediaIDGetByUUID(1234-ABCD)"});
    }
}

TEST_F(VolumeStreamAndService, theReasonOfAFailedOpenIsTheResult)
{
    fake.opens = false;
    for (const int code : {ENOENT, EACCES, EINVAL, EISDIR}) {
        fake.errorNumber = code;
        EXPECT_EQ(stream->open("nvl2://1234-ABCD/f", 0), -code);
        EXPECT_EQ(errno, code);
    }
}

TEST_F(VolumeStreamAndService, closeAlwaysCallsTheServiceAndGivesItsResult)
{
    fake.answers["fclose"] = {-5};
    EXPECT_EQ(stream->close(), -5);
    EXPECT_EQ(fake.calls, Texts{"fclose(null)"});
    open();
    EXPECT_EQ(stream->close(), -5);
    EXPECT_EQ(stream->close(), -5);
    EXPECT_EQ(fake.calls, (Texts{"fclose(file)", "fclose(null)"}));
}

TEST_F(VolumeStreamAndService, theDestructorClosesAnOpenFileOnly)
{
    stream = std::make_unique<MdchUrlNvol2>();
    EXPECT_EQ(fake.calls, Texts{});
    open();
    stream.reset();
    EXPECT_EQ(fake.calls, Texts{"fclose(file)"});
    fake.calls.clear();
    stream = std::make_unique<MdchUrlNvol2>();
    open();
    stream->close();
    fake.calls.clear();
    stream.reset();
    EXPECT_EQ(fake.calls, Texts{});
}

TEST_F(VolumeStreamAndService, readAndWriteTransferItemsOfOneByte)
{
    open();
    fake.answers["fread"] = {17};
    fake.answers["fwrite"] = {19};
    EXPECT_EQ(stream->read(&byte, 100), 17);
    EXPECT_EQ(stream->write(&byte, 200), 19);
    EXPECT_EQ(stream->read(&byte, 0), 17);
    EXPECT_EQ(fake.calls, (Texts{"fread(1, 100, file)", "fwrite(1, 200, file)", "fread(1, 0, file)"}));
}

TEST_F(VolumeStreamAndService, noMoreIsAskedForThanTheResultCanTell)
{
    open();
    stream->read(&byte, std::numeric_limits<unsigned int>::max());
    stream->write(&byte, 0x80000000U);
    EXPECT_EQ(fake.calls, (Texts{"fread(1, 2147483647, file)", "fwrite(1, 2147483647, file)"}));
}

TEST_F(VolumeStreamAndService, anyWhenceButCurrentAndEndCountsFromTheStart)
{
    open();
    fake.answers["fseek"] = {0, -1, -2, 3};
    EXPECT_EQ(stream->seek(10, 0), 0);
    EXPECT_EQ(stream->seek(10, 1), -1);
    EXPECT_EQ(stream->seek(10, 2), -2);
    EXPECT_EQ(stream->seek(10, 7), 3);
    stream->seek(10, 3);
    stream->seek(-10, -1);
    stream->seek(std::numeric_limits<long long>::max(), std::numeric_limits<int>::min());
    EXPECT_EQ(fake.calls,
              (Texts{"fseek(file, 10, 0)", "fseek(file, 10, 1)", "fseek(file, 10, 2)", "fseek(file, 10, 0)",
                     "fseek(file, 10, 0)", "fseek(file, -10, 0)", "fseek(file, 9223372036854775807, 0)"}));
}

TEST_F(VolumeStreamAndService, theOtherOperationsAreTheServices)
{
    open();
    fake.answers = {{"ftell", {5'000'000'000}}, {"fgetc", {200}}, {"feof", {3}}, {"ferror", {4}}};
    EXPECT_EQ(stream->tell(), 5'000'000'000);
    EXPECT_EQ(stream->getc(), 200);
    EXPECT_EQ(stream->eof(), 3);
    EXPECT_EQ(stream->error(), 4);
    stream->clearerr();
    EXPECT_EQ(fake.calls,
              (Texts{"ftell(file)", "fgetc(file)", "feof(file)", "ferror(file)", "clearerr(file)"}));
}

TEST_F(VolumeStreamAndService, aClosedStreamAsksTheServiceToo)
{
    stream->read(&byte, 1);
    stream->write(&byte, 1);
    stream->tell();
    stream->seek(0, 0);
    stream->getc();
    stream->eof();
    stream->error();
    stream->clearerr();
    EXPECT_EQ(fake.calls,
              (Texts{"fread(1, 1, null)", "fwrite(1, 1, null)", "ftell(null)", "fseek(null, 0, 0)",
                     "fgetc(null)", "feof(null)", "ferror(null)", "clearerr(null)"}));
}

TEST_F(VolumeStreamAndService, constantsDoNotAskTheService)
{
    open();
    EXPECT_EQ(stream->isSeekable(), 1);
    EXPECT_EQ(stream->capability(), 5U);
    EXPECT_EQ(stream->pause(), 0);
    EXPECT_EQ(stream->resume(), 0);
    EXPECT_EQ(stream->seekTime(1000), -1);
    EXPECT_EQ(stream->fcntl(2, 1000), -ENOSYS);
    EXPECT_EQ(fake.calls, Texts{});
}

TEST_F(VolumeStreamAndService, sizeGoesToTheEndAndBack)
{
    open();
    fake.answers["ftell"] = {100, 6'000'000'000};
    EXPECT_EQ(stream->size(), 6'000'000'000);
    EXPECT_EQ(fake.calls, (Texts{"ftell(file)", "fseek(file, 0, 2)", "ftell(file)", "fseek(file, 100, 0)"}));
}

TEST_F(VolumeStreamAndService, sizeFailsWithTheFirstOfItsCallsThatFails)
{
    open();
    fake.answers["ftell"] = {-11, 1000};
    EXPECT_EQ(stream->size(), -11);
    EXPECT_EQ(fake.calls.size(), 1U);

    fake.calls.clear();
    fake.answers = {{"ftell", {100, 1000}}, {"fseek", {-12, 0}}};
    EXPECT_EQ(stream->size(), -12);
    EXPECT_EQ(fake.calls.size(), 2U);

    fake.calls.clear();
    fake.answers = {{"ftell", {100, -13}}, {"fseek", {0, 0}}};
    EXPECT_EQ(stream->size(), -13);
    EXPECT_EQ(fake.calls.size(), 3U);

    fake.calls.clear();
    fake.answers = {{"ftell", {100, 1000}}, {"fseek", {0, -14}}};
    EXPECT_EQ(stream->size(), -14) << "although the size is known";
    EXPECT_EQ(fake.calls.size(), 4U);
}

class VolumeUrlAndService : public VolumeStreamAndService
{
protected:
    VolumeUrlAndService() { setRecord("/media/stick/"); }

    void setRecord(const char* accessPath)
    {
        fake.record.mediaType = 1;
        fake.record.connectType = 2;
        fake.record.functions = 3;
        std::strncpy(fake.record.accessPath, accessPath, sizeof(fake.record.accessPath) - 1);
        std::strncpy(fake.record.deviceName, "/dev/sda1", sizeof(fake.record.deviceName) - 1);
    }

    std::string native = "untouched";
    int mediaId = -77;
    std::string name = "untouched";
};

TEST_F(VolumeUrlAndService, theNativePathIsAccessPathAndPath)
{
    EXPECT_TRUE(md::nvol2UrlToNative("nvl2://1234-ABCD/music/a.mp3", native));
    EXPECT_EQ(native, "/media/stick/music/a.mp3");
    EXPECT_EQ(fake.calls, (Texts{"MediaIDGetByUUID(1234-ABCD)", "MediaGet(7)"}));
}

TEST_F(VolumeUrlAndService, noSeparatorIsInsertedAndOneSlashTakenAway)
{
    setRecord("/media/stick");
    EXPECT_TRUE(md::nvol2UrlToNative("nvl2://v/a", native));
    EXPECT_EQ(native, "/media/sticka");
    EXPECT_TRUE(md::nvol2UrlToNative("nvl2://v//a", native));
    EXPECT_EQ(native, "/media/sticka");
    EXPECT_TRUE(md::nvol2UrlToNative("nvl2://v///a", native));
    EXPECT_EQ(native, "/media/stick/a");
    EXPECT_TRUE(md::nvol2UrlToNative("nvl2://v", native));
    EXPECT_EQ(native, "/media/stick");
    EXPECT_TRUE(md::nvol2UrlToNative("nvl2://v/", native));
    EXPECT_EQ(native, "/media/stick");
}

TEST_F(VolumeUrlAndService, theRecordIsTracedWithFourHexDigits)
{
    fake.record.mediaType = -1;
    fake.record.connectType = 4;
    for (const auto& [functions, text] : std::map<std::uint32_t, std::string>{
             {0, "0x0000"}, {3, "0x0003"}, {0xabcd, "0xabcd"}, {0xffffffff, "0xffffffff"}}) {
        fake.record.functions = functions;
        const support::TraceCapture traces;
        EXPECT_TRUE(md::nvol2UrlToNative("nvl2://v/a", native));
        const std::string expected =
            "MdchUrlNvol2::nvol2UrlToNative() media record: mediaType=-1, connectType4, functions=" + text +
            ", accessPath=/media/stick/, devName=/dev/sda1\n";
        EXPECT_EQ(traces.count(expected), 1U);
        EXPECT_EQ(traces.severityOf(expected), 5000U);
    }
}

TEST_F(VolumeUrlAndService, withoutARecordThereIsNoNativePath)
{
    for (const int result : {-ENODEV, -1, 1}) {
        fake.answers["MediaGet"] = {result};
        const support::TraceCapture traces;
        EXPECT_FALSE(md::nvol2UrlToNative("nvl2://v/a", native));
        EXPECT_EQ(native, "untouched");
        const std::string expected = "MdchUrlNvol2::nvol2UrlToNative() No media record for mediaID=7\n";
        EXPECT_EQ(traces.lines().back().text, expected);
        EXPECT_EQ(traces.severityOf(expected), 4000U);
    }
}

TEST_F(VolumeUrlAndService, withoutAnAccessPathThereIsNoNativePath)
{
    setRecord("");
    fake.record.accessPath[0] = '\0';
    const support::TraceCapture traces;
    EXPECT_FALSE(md::nvol2UrlToNative("nvl2://v/a", native));
    EXPECT_EQ(native, "untouched");
    EXPECT_EQ(traces.lines().back().text, "MdchUrlNvol2::nvol2UrlToNative() media record: mediaType=1, "
                                          "connectType2, functions=0x0003, accessPath=, devName=/dev/sda1\n");
}

TEST_F(VolumeUrlAndService, mediaIdZeroIsAVolumeToo)
{
    fake.answers["MediaIDGetByUUID"] = {0};
    EXPECT_TRUE(md::nvol2UrlToNative("nvl2://v/a", native));
    EXPECT_EQ(fake.calls.back(), "MediaGet(0)");
    EXPECT_TRUE(md::nvol2UrlToMediaIdAndName("nvl2://v/a", mediaId, name));
    EXPECT_EQ(mediaId, 0);
}

TEST_F(VolumeUrlAndService, mediaIdAndNameNeedNoRecord)
{
    EXPECT_TRUE(md::nvol2UrlToMediaIdAndName("nvl2://1234-ABCD//music/a.mp3", mediaId, name));
    EXPECT_EQ(mediaId, 7);
    EXPECT_EQ(name, "/music/a.mp3");
    EXPECT_EQ(fake.calls, Texts{"MediaIDGetByUUID(1234-ABCD)"});
}

TEST_F(VolumeUrlAndService, aForeignSchemeDoesNotReachTheService)
{
    EXPECT_FALSE(md::nvol2UrlToNative("file:///x", native));
    EXPECT_FALSE(md::nvol2UrlToMediaIdAndName("file:///x", mediaId, name));
    EXPECT_EQ(fake.calls, Texts{});
}

TEST_F(VolumeUrlAndService, exceptionsOnTheWayAreFailures)
{
    fake.isOutOfMemory = true;
    const support::TraceCapture traces;
    EXPECT_FALSE(md::nvol2UrlToNative("nvl2://v/a", native));
    EXPECT_FALSE(md::nvol2UrlToMediaIdAndName("nvl2://v/a", mediaId, name));
    EXPECT_EQ(native, "untouched");
    EXPECT_EQ(mediaId, -77);
    EXPECT_EQ(name, "untouched");
    EXPECT_EQ(traces.count("MdchUrlNvol2::nvol2UrlToNative() exception: std::bad_alloc\n"), 1U);
    EXPECT_EQ(traces.count("MdchUrlNvol2::nvol2UrlToMediaIdAndName() exception: std::bad_alloc\n"), 1U);
}

} // namespace
