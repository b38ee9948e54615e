// The stream interface, the choice of a back-end, and the opening sequence on local files.
// How each other kind of URL is opened stands in mdc_hlp_url_base_*.cpp.
#include "mdc_hlp_url_base.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_url_file.h"
#include "mdc_hlp_url_nvol2.h"
#include "mdc_hlp_url_udp.h"
#include "support/engine.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

#include <boost/shared_ptr.hpp>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <deque>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

// Index of a virtual operation in its class's table, as a pointer to member holds it in the platform's C++
// binary interface. The destructor takes the two entries 0 and 1, so that it counts as slot 1.
template <class Pointer>
std::size_t slotOf(Pointer member)
{
    std::ptrdiff_t parts[2] = {};
    static_assert(sizeof(member) == sizeof(parts), "a pointer to member is two words");
    std::memcpy(parts, &member, sizeof(parts));
#if defined(__arm__) || defined(__aarch64__)
    EXPECT_EQ(parts[1], 1) << "virtual, and no other base in front";
    return static_cast<std::size_t>(parts[0]) / sizeof(void*);
#else
    EXPECT_EQ(parts[0] % 2, 1) << "virtual";
    EXPECT_EQ(parts[1], 0) << "no other base in front";
    return static_cast<std::size_t>(parts[0] - 1) / sizeof(void*);
#endif
}

template <class Stream>
void expectSlots()
{
    EXPECT_EQ(slotOf(static_cast<int (Stream::*)(const char*, int)>(&Stream::open)), 2U);
    EXPECT_EQ(slotOf(&Stream::close), 3U);
    EXPECT_EQ(slotOf(static_cast<int (Stream::*)(unsigned char*, unsigned int)>(&Stream::read)), 4U);
    EXPECT_EQ(slotOf(static_cast<int (Stream::*)(unsigned char*, unsigned int)>(&Stream::write)), 5U);
    EXPECT_EQ(slotOf(static_cast<long long (Stream::*)()>(&Stream::tell)), 6U);
    EXPECT_EQ(slotOf(static_cast<int (Stream::*)(long long, int)>(&Stream::seek)), 7U);
    EXPECT_EQ(slotOf(static_cast<int (Stream::*)(unsigned int)>(&Stream::seekTime)), 8U);
    EXPECT_EQ(slotOf(static_cast<int (Stream::*)()>(&Stream::getc)), 9U);
    EXPECT_EQ(slotOf(static_cast<int (Stream::*)()>(&Stream::eof)), 10U);
    EXPECT_EQ(slotOf(static_cast<int (Stream::*)()>(&Stream::error)), 11U);
    EXPECT_EQ(slotOf(static_cast<void (Stream::*)()>(&Stream::clearerr)), 12U);
    EXPECT_EQ(slotOf(static_cast<int (Stream::*)()>(&Stream::isSeekable)), 13U);
    EXPECT_EQ(slotOf(static_cast<unsigned int (Stream::*)()>(&Stream::capability)), 14U);
    EXPECT_EQ(slotOf(static_cast<long long (Stream::*)()>(&Stream::size)), 15U);
    EXPECT_EQ(slotOf(static_cast<int (Stream::*)()>(&Stream::pause)), 16U);
    EXPECT_EQ(slotOf(static_cast<int (Stream::*)()>(&Stream::resume)), 17U);
    EXPECT_EQ(slotOf(static_cast<int (Stream::*)(int, ...)>(&Stream::fcntl)), 18U);
}

// The least that a back-end of another library is.
class SilentStream : public MdchUrlBase
{
public:
    explicit SilentStream(int* destroyed = nullptr) : m_destroyed(destroyed) {}
    ~SilentStream() override
    {
        if (m_destroyed != nullptr) {
            ++*m_destroyed;
        }
    }
    int open(const char*, int) override { return 0; }
    int close() override { return 0; }
    int read(unsigned char*, unsigned int) override { return 0; }
    int write(unsigned char*, unsigned int) override { return 0; }
    long long tell() override { return 0; }
    int seek(long long, int) override { return 0; }
    int seekTime(unsigned int) override { return 0; }
    int getc() override { return 0; }
    int eof() override { return 0; }
    int error() override { return 0; }
    void clearerr() override {}
    int isSeekable() override { return 0; }
    unsigned int capability() override { return 0; }
    long long size() override { return 0; }
    int pause() override { return 0; }
    int resume() override { return 0; }

private:
    int* m_destroyed;
};

const char* backEndOf(const char* url)
{
    const std::unique_ptr<MdchUrlBase> stream(MdchUrlBase::createInstance(url));
    if (dynamic_cast<md::HttpAccess*>(stream.get()) != nullptr) {
        return "HTTP";
    }
    if (dynamic_cast<MdchUrlUdp*>(stream.get()) != nullptr) {
        return "UDP";
    }
    if (dynamic_cast<MdchUrlNvol2*>(stream.get()) != nullptr) {
        return "NVL2";
    }
    return dynamic_cast<MdchUrlFile*>(stream.get()) != nullptr ? "FILE" : "?";
}

class OpenFile : public testing::Test
{
protected:
    static constexpr int kUntouched = -77;

    OpenFile()
    {
        ext.error = kUntouched;
        ext.icyMetaInt = kUntouched;
    }

    support::TempDir dir;
    mdch_UrlExtended_struct ext{};
    boost::shared_ptr<MdchUrlBase> stream;
};

} // namespace

TEST(StreamInterface, operationsOfTheBaseStandInTheirSlots)
{
    expectSlots<MdchUrlBase>();
}

TEST(StreamInterface, everyBackEndKeepsTheSlots)
{
    expectSlots<MdchUrlFile>();
    expectSlots<MdchUrlUdp>();
    expectSlots<MdchUrlNvol2>();
    expectSlots<md::HttpAccess>();
    expectSlots<SilentStream>();
}

TEST(StreamInterface, headerListOfTheHttpStreamIsSlot19)
{
    EXPECT_EQ(slotOf(&md::HttpAccess::getHeaderList), 19U);
}

TEST(StreamInterface, destructorIsTheFirstSlot)
{
    int destroyed = 0;
    alignas(SilentStream) unsigned char memory[sizeof(SilentStream)];
    MdchUrlBase* stream = new (memory) SilentStream(&destroyed);
    void** table = nullptr;
    std::memcpy(&table, memory, sizeof(table));
    // Entry 0 destroys, entry 1 destroys and deletes.
    reinterpret_cast<void (*)(MdchUrlBase*)>(table[0])(stream);
    EXPECT_EQ(destroyed, 1);
}

TEST(StreamInterface, theBaseHasNoDataOfItsOwn)
{
    EXPECT_EQ(sizeof(MdchUrlBase), sizeof(void*));
    static_assert(std::is_abstract_v<MdchUrlBase> && std::has_virtual_destructor_v<MdchUrlBase>);
}

TEST(StreamInterface, fcntlOfTheBaseKnowsNoCommand)
{
    SilentStream stream;
    for (int command = -1; command <= 11; ++command) {
        EXPECT_EQ(stream.fcntl(command), -ENOSYS) << command;
        EXPECT_EQ(stream.fcntl(command, 1), -ENOSYS) << command;
    }
}

TEST(StreamInterface, numbersOfTheRecordsAreFixed)
{
    EXPECT_EQ(MDCH_MODE_READ, 0);
    EXPECT_EQ(MDCH_MODE_WRITE, 1);
    EXPECT_EQ(MDCH_CAPABILITY_BYTE_SEEK, 1);
    EXPECT_EQ(MDCH_CAPABILITY_TIME_SEEK, 2);
    EXPECT_EQ(MDCH_CAPABILITY_STALLING, 4);
    EXPECT_EQ(MDCH_FCNTL_BLOCKING, 0);
    EXPECT_EQ(MDCH_FCNTL_NONBLOCKING, 1);
    EXPECT_EQ(MDCH_FCNTL_BUFFER_SIZE, 2);
    EXPECT_EQ(MDCH_FCNTL_DATA_TIMEOUT, 3);
    EXPECT_EQ(MDCH_FCNTL_HEADER_TIMEOUT, 4);
    EXPECT_EQ(MDCH_FCNTL_FOLLOW_REDIRECTS, 5);
    EXPECT_EQ(MDCH_FCNTL_FORCE_RANGE, 6);
    EXPECT_EQ(MDCH_FCNTL_PAUSE_BUFFERING, 7);
    EXPECT_EQ(MDCH_FCNTL_DLNA_MODE, 8);
    EXPECT_EQ(MDCH_FCNTL_MAX_REDIRECTS, 9);
    EXPECT_EQ(MDCH_FCNTL_ACCEPT_AFTER_DONE, 10);
    EXPECT_EQ(MDCH_HTTP_ENETWORK, 152);
    EXPECT_EQ(MDCH_URL_ICY_METADATA, 1);
    EXPECT_EQ(MDCH_URL_FORCE_RANGE, 2);
    EXPECT_EQ(MDCH_URL_PAUSE_BUFFERING, 4);
    EXPECT_EQ(MDCH_URL_NATIVE_PATH, 8);
    EXPECT_EQ(MDCH_URL_DLNA_STREAMING, 16);
    EXPECT_EQ(MDCH_URL_DLNA_INTERACTIVE, 32);
}

TEST(StreamInterface, fieldsOfTheExtendedRecordStandInTheirOrder)
{
    using Record = mdch_UrlExtended_struct;
    const std::vector<std::size_t> offsets{
        offsetof(Record, userAgent),  offsetof(Record, flags),      offsetof(Record, icyMetaInt),
        offsetof(Record, cookie),     offsetof(Record, caCertPath), offsetof(Record, clientCert),
        offsetof(Record, certPasswd), offsetof(Record, error),      offsetof(Record, bufferSize)};
    for (std::size_t i = 1; i < offsets.size(); ++i) {
        EXPECT_LT(offsets[i - 1], offsets[i]) << i;
    }
    static_assert(std::is_same_v<decltype(Record::flags), std::int32_t> &&
                  std::is_same_v<decltype(Record::icyMetaInt), std::int32_t> &&
                  std::is_same_v<decltype(Record::error), std::int32_t> &&
                  std::is_same_v<decltype(Record::bufferSize), std::int32_t>);
}

TEST(CreateInstance, httpAndHttpsGiveTheHttpStreamWhateverTheirCase)
{
    const support::EngineStopped engineStopped;
    for (const char* url :
         {"http://host/a", "https://host/a", "HTTPS://host/a", "Http://h", "hTTp://", "https://"}) {
        EXPECT_STREQ(backEndOf(url), "HTTP") << url;
    }
}

TEST(CreateInstance, udpGivesTheDatagramStreamWhateverItsCase)
{
    for (const char* url : {"udp://239.0.0.1:1234", "Udp://x", "UDP://", "udp://"}) {
        EXPECT_STREQ(backEndOf(url), "UDP") << url;
    }
}

TEST(CreateInstance, nvl2GivesTheVolumeStreamWhateverItsCase)
{
    for (const char* url : {"nvl2://1234-ABCD/a", "NVL2://x", "Nvl2://", "nvl2://"}) {
        EXPECT_STREQ(backEndOf(url), "NVL2") << url;
    }
}

TEST(CreateInstance, anythingElseGivesTheFileStream)
{
    for (const char* url : {"",
                            "/tmp/a",
                            "file:///tmp/a",
                            "ftp://host/a",
                            "http:/host",
                            "http:",
                            "https:/host",
                            "httpx://host",
                            " http://host",
                            "htt",
                            "rtsp://host",
                            "a/http://host",
                            "udp:/x",
                            "udp:",
                            "udp",
                            "udpx://x",
                            " udp://x",
                            "nvl2:/x",
                            "nvl2:",
                            "nvl://x",
                            "nvl22://x",
                            "a/nvl2://x"}) {
        EXPECT_STREQ(backEndOf(url), "FILE") << url;
    }
    EXPECT_STREQ(backEndOf(nullptr), "FILE");
}

TEST(CreateInstance, tracesUrlAndChoiceAtTheCallLevel)
{
    const support::EngineStopped engineStopped;
    const support::TraceCapture traces;
    for (const std::string url :
         {"HTTP://host/a?b", "https://host", "Udp://%n", "nvl2://a/b", "/tmp/%s", ""}) {
        backEndOf(url.c_str());
    }
    for (const std::string expected :
         {"createInstance(HTTP://host/a?b) => HTTP\n", "createInstance(https://host) => HTTP\n",
          "createInstance(Udp://%n) => UDP\n", "createInstance(nvl2://a/b) => NVL2\n",
          "createInstance(/tmp/%s) => FILE\n", "createInstance() => FILE\n"}) {
        EXPECT_EQ(traces.count(expected), 1U) << expected;
        EXPECT_EQ(traces.severityOf(expected), 5000U);
    }
}

TEST(CreateInstance, theStreamIsNotOpenYet)
{
    const support::TempDir dir;
    const std::string path = dir.write("a", "hello");
    const std::unique_ptr<MdchUrlBase> stream(MdchUrlBase::createInstance(path.c_str()));
    EXPECT_EQ(stream->getc(), -1);
    EXPECT_EQ(stream->open(path.c_str(), 0), 0);
    EXPECT_EQ(stream->getc(), 'h');
}

TEST_F(OpenFile, opensForReading)
{
    EXPECT_EQ(mdch_OpenUrl(dir.write("a", "hello").c_str(), 0, &ext, stream), 0);
    ASSERT_NE(dynamic_cast<MdchUrlFile*>(stream.get()), nullptr);
    EXPECT_EQ(support::readAll(*stream), "hello");
    EXPECT_EQ(ext.error, kUntouched);
    EXPECT_EQ(ext.icyMetaInt, kUntouched);
}

TEST_F(OpenFile, passesTheModeOn)
{
    const std::string path = dir.write("a", "former");
    EXPECT_EQ(mdch_OpenUrl(path.c_str(), 1, &ext, stream), 0);
    unsigned char byte = 'x';
    EXPECT_EQ(stream->write(&byte, 1), 1);
    stream.reset();
    std::string content;
    std::getline(std::ifstream(path), content);
    EXPECT_EQ(content, "x");
    EXPECT_EQ(mdch_OpenUrl(path.c_str(), 2, &ext, stream), -1);
    EXPECT_EQ(ext.error, -1);
}

TEST_F(OpenFile, worksWithoutARecord)
{
    EXPECT_EQ(mdch_OpenUrl(dir.write("a", "hello").c_str(), 0, nullptr, stream), 0);
    EXPECT_EQ(support::readAll(*stream), "hello");
    EXPECT_EQ(mdch_OpenUrl(dir.file("missing").c_str(), 0, nullptr, stream), -2);
}

TEST_F(OpenFile, settingsOfHttpStreamsDoNotMatter)
{
    ext.userAgent = "agent";
    ext.flags = 63;
    ext.cookie = "a=b";
    ext.caCertPath = "/nowhere";
    ext.clientCert = "/nowhere";
    ext.certPasswd = "secret";
    ext.bufferSize = 5;
    EXPECT_EQ(mdch_OpenUrl(dir.write("a", "hello").c_str(), 0, &ext, stream), 0);
    EXPECT_EQ(support::readAll(*stream), "hello");
}

TEST_F(OpenFile, aMissingFileIsTheResultAndTheRecordsError)
{
    const std::string path = dir.file("missing");
    const support::TraceCapture traces;
    EXPECT_EQ(mdch_OpenUrl(path.c_str(), 0, &ext, stream), -2);
    EXPECT_EQ(ext.error, -2);
    ASSERT_NE(stream, nullptr) << "the object that did not open is handed out";
    EXPECT_EQ(stream->getc(), -1);
    const std::string expected =
        "mdc_hlp_url_base.cpp:#:mdch_OpenUrl(): open returned error=-2 " + path + ".\n";
    EXPECT_EQ(traces.count(expected), 1U);
    EXPECT_EQ(traces.severityOf(expected), 3000U);
}

TEST_F(OpenFile, tracesChoiceOpenAndErrorCheckAndNoHeaderScan)
{
    const std::string path = dir.write("a", "");
    const support::TraceCapture traces;
    EXPECT_EQ(mdch_OpenUrl(path.c_str(), 0, &ext, stream), 0);
    EXPECT_EQ(traces.texts(), (Texts{"createInstance(" + path + ") => FILE\n", "MdchUrlFile::MdchUrlFile()\n",
                                     "MdchUrlFile::open() in\n", "MdchUrlFile::error() in\n"}));
}

TEST_F(OpenFile, replacesWhatTheStreamPointerHeld)
{
    ASSERT_EQ(mdch_OpenUrl(dir.write("a", "first").c_str(), 0, &ext, stream), 0);
    const boost::shared_ptr<MdchUrlBase> former = stream;
    ASSERT_EQ(mdch_OpenUrl(dir.write("b", "second").c_str(), 0, &ext, stream), 0);
    EXPECT_NE(former, stream);
    EXPECT_EQ(former.use_count(), 1);
    EXPECT_EQ(stream.use_count(), 1) << "the caller is the only owner";
    EXPECT_EQ(support::readAll(*former), "first");
    EXPECT_EQ(support::readAll(*stream), "second");
}

TEST_F(OpenFile, nullUrlIsInvalid)
{
    EXPECT_EQ(mdch_OpenUrl(nullptr, 0, &ext, stream), -EINVAL);
    EXPECT_EQ(ext.error, -EINVAL);
    EXPECT_EQ(mdch_OpenUrl(nullptr, 0, nullptr, stream), -EINVAL);
    EXPECT_EQ(stream, nullptr);
}

TEST_F(OpenFile, anEmptyUrlIsAPathThatDoesNotExist)
{
    EXPECT_EQ(mdch_OpenUrl("", 0, &ext, stream), -ENOENT);
    EXPECT_EQ(ext.error, -ENOENT);
    EXPECT_NE(stream, nullptr);
}
