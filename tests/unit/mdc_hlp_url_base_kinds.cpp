// The opening sequence on datagrams and media volumes, and what all kinds of URLs have in common.
#include "mdc_hlp_http_access.h"
#include "mdc_hlp_url.h"
#include "mdc_hlp_url_base.h"
#include "mdc_hlp_url_file.h"
#include "mdc_hlp_url_nvol2.h"
#include "mdc_hlp_url_udp.h"
#include "support/engine.h"
#include "support/http_server.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

#include <boost/shared_ptr.hpp>
#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

constexpr const char* kUuid = "1234-ABCD";
constexpr int kUntouched = -77;

class OpenKinds : public testing::Test
{
protected:
    OpenKinds()
    {
        ext.error = kUntouched;
        ext.icyMetaInt = kUntouched;
        folder = dir.path() + "/";
        EXPECT_GT(nvol2VolumeAdd(kUuid, folder.c_str()), 0);
    }
    ~OpenKinds() override { nvol2VolumeRemove(kUuid); }

    int open(const std::string& url, int mode = MDCH_MODE_READ)
    {
        return mdch_OpenUrl(url.c_str(), mode, &ext, stream);
    }

    bool isFile() const { return dynamic_cast<MdchUrlFile*>(stream.get()) != nullptr; }
    bool isVolume() const { return dynamic_cast<MdchUrlNvol2*>(stream.get()) != nullptr; }

    const support::EngineStopped engineStopped;
    const support::TempDir dir;
    std::string folder;
    mdch_UrlExtended_struct ext{};
    boost::shared_ptr<MdchUrlBase> stream;
};

} // namespace

TEST_F(OpenKinds, aVolumeUrlIsOpenedByTheVolumeStream)
{
    dir.write("a", "hello");
    EXPECT_EQ(open("nvl2://1234-abcd/a"), 0);
    EXPECT_TRUE(isVolume());
    EXPECT_EQ(support::readAll(*stream), "hello");
    EXPECT_EQ(ext.error, kUntouched);
    EXPECT_EQ(ext.icyMetaInt, kUntouched);
}

TEST_F(OpenKinds, withoutARecordAVolumeUrlIsNotTranslated)
{
    dir.write("a", "hello");
    EXPECT_EQ(mdch_OpenUrl("nvl2://1234-ABCD/a", 0, nullptr, stream), 0);
    EXPECT_TRUE(isVolume());
}

TEST_F(OpenKinds, flag8OpensTheNativeFileWhateverTheSchemesCase)
{
    dir.write("a", "hello");
    ext.flags = MDCH_URL_NATIVE_PATH;
    for (const char* url : {"nvl2://1234-ABCD/a", "NVL2://1234-ABCD/a", "Nvl2://1234-abcd//a"}) {
        EXPECT_EQ(open(url), 0) << url;
        EXPECT_TRUE(isFile()) << url;
        EXPECT_EQ(support::readAll(*stream), "hello") << url;
    }
}

TEST_F(OpenKinds, flag8WorksBesideTheOtherFlags)
{
    dir.write("a", "hello");
    ext.flags = 63;
    EXPECT_EQ(open("nvl2://1234-ABCD/a"), 0);
    EXPECT_TRUE(isFile());
}

TEST_F(OpenKinds, flag8WritesTheNativeFileToo)
{
    ext.flags = MDCH_URL_NATIVE_PATH;
    EXPECT_EQ(open("nvl2://1234-ABCD/new", MDCH_MODE_WRITE), 0);
    unsigned char text[] = "abc";
    EXPECT_EQ(stream->write(text, 3), 3);
    stream.reset();
    ext.flags = 0;
    EXPECT_EQ(open("nvl2://1234-ABCD/new"), 0);
    EXPECT_EQ(support::readAll(*stream), "abc");
}

TEST_F(OpenKinds, withoutATranslationTheVolumeStreamTellsTheError)
{
    ext.flags = MDCH_URL_NATIVE_PATH;
    const support::TraceCapture traces;
    EXPECT_EQ(open("nvl2://unknown/a"), -ENODEV);
    EXPECT_TRUE(isVolume());
    EXPECT_EQ(ext.error, -ENODEV);
    EXPECT_EQ(traces.count("MdchUrlNvol2::nvol2UrlToNative() Could not get mediaID for volumeID=unknown\n"),
              1U);
    EXPECT_EQ(traces.count("createInstance(nvl2://unknown/a) => NVL2\n"), 1U);
    EXPECT_EQ(
        traces.count("mdc_hlp_url_base.cpp:#:mdch_OpenUrl(): open returned error=-19 nvl2://unknown/a.\n"),
        1U);
    EXPECT_FALSE(traces.hasAnywhere("nvol2 translated"));
}

TEST_F(OpenKinds, aTranslationIsTracedBeforeTheChoice)
{
    dir.write("a", "hello");
    ext.flags = MDCH_URL_NATIVE_PATH;
    const support::TraceCapture traces;
    EXPECT_EQ(open("nvl2://1234-ABCD/a"), 0);
    const std::string native = folder + "a";
    const std::string translated = "mdch_OpenUrl() nvol2 translated name=" + native + "\n";
    EXPECT_EQ(traces.severityOf(translated), 5000U);
    const Texts texts = traces.texts();
    ASSERT_GE(texts.size(), 5U);
    const Texts last(texts.end() - 5, texts.end());
    EXPECT_EQ(last,
              (Texts{translated, "createInstance(" + native + ") => FILE\n", "MdchUrlFile::MdchUrlFile()\n",
                     "MdchUrlFile::open() in\n", "MdchUrlFile::error() in\n"}));
}

TEST_F(OpenKinds, errorsOfANativeFileNameItsPath)
{
    ext.flags = MDCH_URL_NATIVE_PATH;
    const support::TraceCapture traces;
    EXPECT_EQ(open("nvl2://1234-ABCD/missing"), -ENOENT);
    EXPECT_TRUE(isFile());
    EXPECT_EQ(ext.error, -ENOENT);
    EXPECT_EQ(traces.count("mdc_hlp_url_base.cpp:#:mdch_OpenUrl(): open returned error=-2 " + folder +
                           "missing.\n"),
              1U);
}

TEST_F(OpenKinds, aVolumesErrorsAreResultAndRecord)
{
    for (const auto& [url, error] : std::vector<std::pair<std::string, int>>{
             {"nvl2://1234-ABCD/missing", -ENOENT},
             {"nvl2://1234-ABCD/", -ENOENT},
             {"nvl2://1234-ABCD", -ENOENT},
             {"nvl2://", -ENODEV},
             {"nvl2:///a", -ENODEV},
             {"nvl2://1234-ABCD/../a", -EACCES},
             {"nvl2://1234-ABCD/" + std::string(5000, 'a'), -ENAMETOOLONG}}) {
        ext.error = kUntouched;
        EXPECT_EQ(open(url), error) << url;
        EXPECT_EQ(ext.error, error) << url;
        EXPECT_NE(stream, nullptr);
    }
}

TEST_F(OpenKinds, aDatagramUrlIsOpenedByTheDatagramStream)
{
    EXPECT_EQ(open("udp://127.0.0.1:0"), 0);
    ASSERT_NE(dynamic_cast<MdchUrlUdp*>(stream.get()), nullptr);
    EXPECT_EQ(ext.error, kUntouched);
    EXPECT_LT(stream->close(), 0) << "it was in no group";
}

TEST_F(OpenKinds, aMalformedDatagramUrlIsResultAndRecord)
{
    EXPECT_EQ(open("udp://127.0.0.1"), -EINVAL);
    EXPECT_EQ(ext.error, -EINVAL);
    EXPECT_NE(stream, nullptr);
}

TEST_F(OpenKinds, aDatagramSchemeInUpperCaseIsChosenAndThenRefused)
{
    EXPECT_EQ(open("UDP://127.0.0.1:0"), -EINVAL);
    EXPECT_NE(dynamic_cast<MdchUrlUdp*>(stream.get()), nullptr);
}

TEST_F(OpenKinds, onlyHttpStreamsKnowControlCommands)
{
    for (const char* url : {"udp://127.0.0.1:0", "nvl2://1234-ABCD/a", "a"}) {
        const std::unique_ptr<MdchUrlBase> made(MdchUrlBase::createInstance(url));
        for (int command = -1; command <= 11; ++command) {
            EXPECT_EQ(made->fcntl(command, 1), -ENOSYS) << url << ' ' << command;
        }
    }
}

TEST_F(OpenKinds, fixedAnswersOfTheBackEnds)
{
    struct Answers
    {
        const char* url;
        int seekTime;
        int pause;
        int resume;
        int isSeekable;
        unsigned int capability;
    };
    for (const Answers& wanted :
         {Answers{"udp://127.0.0.1:0", -1, -1, -1, 0, 0}, Answers{"nvl2://1234-ABCD/a", -1, 0, 0, 1, 5},
          Answers{"a", -1, 0, 0, 1, 5}}) {
        const std::unique_ptr<MdchUrlBase> made(MdchUrlBase::createInstance(wanted.url));
        EXPECT_EQ(made->seekTime(0), wanted.seekTime) << wanted.url;
        EXPECT_EQ(made->pause(), wanted.pause) << wanted.url;
        EXPECT_EQ(made->resume(), wanted.resume) << wanted.url;
        EXPECT_EQ(made->isSeekable(), wanted.isSeekable) << wanted.url;
        EXPECT_EQ(made->capability(), wanted.capability) << wanted.url;
    }
}

// What a caller gets who fills a record in part: every combination of what may stand in the other half.
TEST_F(OpenKinds, aHalfFilledRecordOpensOrFailsCleanly)
{
    support::HttpServer server;
    server.on("/a", support::Reply().body("hello"));
    dir.write("a", "hello");
    const std::string text = "x";
    for (const std::string& url : {server.url("/a"), folder + "a", std::string("nvl2://1234-ABCD/a")}) {
        for (unsigned int filled = 0; filled < 128; ++filled) {
            mdch_UrlExtended_struct record{};
            record.userAgent = (filled & 1U) != 0 ? text.c_str() : nullptr;
            record.cookie = (filled & 2U) != 0 ? text.c_str() : nullptr;
            record.clientCert = nullptr;
            record.certPasswd = (filled & 4U) != 0 ? text.c_str() : nullptr;
            record.flags = (filled & 8U) != 0 ? -1 : 0;
            record.bufferSize = (filled & 16U) != 0 ? -1 : ((filled & 32U) != 0 ? 0x7fffffff : 0);
            record.caCertPath = (filled & 64U) != 0 ? text.c_str() : nullptr;
            record.error = kUntouched;
            const unsigned int handle = mdch_UrlOpenExt(url.c_str(), MDCH_MODE_READ, &record);
            ASSERT_NE(handle, 0U) << url << ' ' << filled << " error " << record.error;
            unsigned char bytes[6] = {};
            EXPECT_EQ(mdch_UrlRead(handle, bytes, 5), 5) << url << ' ' << filled;
            EXPECT_STREQ(reinterpret_cast<const char*>(bytes), "hello");
            EXPECT_EQ(record.error, kUntouched);
            EXPECT_EQ(mdch_UrlClose(handle), 0);
        }
    }
}

TEST_F(OpenKinds, aNullUrlIsRefusedAtEveryEntry)
{
    EXPECT_EQ(mdch_UrlOpen(nullptr, MDCH_MODE_READ), 0U);
    EXPECT_EQ(mdch_UrlOpenExt(nullptr, MDCH_MODE_READ, nullptr), 0U);
    EXPECT_EQ(mdch_UrlOpenExt(nullptr, MDCH_MODE_READ, &ext), 0U);
    EXPECT_EQ(ext.error, -EINVAL);
    ext.flags = MDCH_URL_NATIVE_PATH;
    EXPECT_EQ(mdch_OpenUrl(nullptr, MDCH_MODE_READ, &ext, stream), -EINVAL);
    EXPECT_EQ(MdchUrlFile().open(nullptr, MDCH_MODE_READ), -EINVAL);
    EXPECT_EQ(MdchUrlUdp().open(nullptr, MDCH_MODE_READ), -EINVAL);
    EXPECT_EQ(MdchUrlNvol2().open(nullptr, MDCH_MODE_READ), -EINVAL);
    EXPECT_LT(md::HttpAccess().open(nullptr, MDCH_MODE_READ), 0);
}
