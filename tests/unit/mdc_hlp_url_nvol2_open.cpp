// Media volumes in the opening sequence and behind the handles: as a stream of their own, or as native paths.
#include "mdc_hlp_url_nvol2.h"

#include "mdc_hlp_url.h"
#include "mdc_hlp_url_file.h"
#include "support/trace_capture.h"
#include "support/volume.h"

#include <boost/shared_ptr.hpp>
#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using support::TraceCapture;
using support::Volume;
using Texts = std::vector<std::string>;

class OpenVolumeUrl : public testing::Test
{
protected:
    static constexpr int kUntouched = -77;

    OpenVolumeUrl()
    {
        volume.dir().write("f", "content");
        ext.error = kUntouched;
    }

    int open(const std::string& url, int mode = MDCH_MODE_READ)
    {
        return mdch_OpenUrl(url.c_str(), mode, &ext, stream);
    }

    bool isVolumeStream() const { return dynamic_cast<MdchUrlNvol2*>(stream.get()) != nullptr; }
    bool isFileStream() const { return dynamic_cast<MdchUrlFile*>(stream.get()) != nullptr; }

    std::string content() const
    {
        std::string bytes;
        for (int byte = stream->getc(); byte >= 0; byte = stream->getc()) {
            bytes.push_back(static_cast<char>(byte));
        }
        return bytes;
    }

    Volume volume{"1234-ABCD"};
    mdch_UrlExtended_struct ext{};
    boost::shared_ptr<MdchUrlBase> stream;
};

TEST_F(OpenVolumeUrl, withoutTheFlagGivesTheVolumeStream)
{
    for (const std::string scheme : {"nvl2://", "NVL2://", "nVl2://"}) {
        for (const int flags : {0, 1, 2, 4, 16, 32, ~8}) {
            ext.flags = flags;
            EXPECT_EQ(open(scheme + "1234-abcd/f"), 0) << scheme << flags;
            EXPECT_TRUE(isVolumeStream());
            EXPECT_EQ(content(), "content");
        }
    }
    EXPECT_EQ(ext.error, kUntouched);
}

TEST_F(OpenVolumeUrl, withoutARecordGivesTheVolumeStream)
{
    EXPECT_EQ(mdch_OpenUrl(volume.url("f").c_str(), MDCH_MODE_READ, nullptr, stream), 0);
    EXPECT_TRUE(isVolumeStream());
    EXPECT_EQ(content(), "content");
}

TEST_F(OpenVolumeUrl, withTheFlagGivesTheFileStream)
{
    for (const std::string scheme : {"nvl2://", "NVL2://", "nVl2://"}) {
        for (const int flags : {8, 9, 63, ~0}) {
            ext.flags = flags;
            EXPECT_EQ(open(scheme + "1234-abcd/f"), 0) << scheme << flags;
            EXPECT_TRUE(isFileStream());
            EXPECT_EQ(content(), "content");
        }
    }
    EXPECT_EQ(ext.error, kUntouched);
}

TEST_F(OpenVolumeUrl, withTheFlagAnUnknownVolumeFallsToTheVolumeStream)
{
    ext.flags = MDCH_URL_NATIVE_PATH;
    EXPECT_EQ(open("nvl2://5678/f"), -ENODEV);
    EXPECT_EQ(ext.error, -ENODEV);
    EXPECT_TRUE(isVolumeStream());
}

TEST_F(OpenVolumeUrl, writesEitherWay)
{
    for (const int flags : {0, 8}) {
        ext.flags = flags;
        EXPECT_EQ(open(volume.url("new"), MDCH_MODE_WRITE), 0);
        unsigned char byte = 'x';
        EXPECT_EQ(stream->write(&byte, 1), 1);
        EXPECT_EQ(stream->close(), 0);
        EXPECT_EQ(volume.contentOf("new"), "x");
        stream.reset();
    }
}

TEST_F(OpenVolumeUrl, failuresAreTheResultAndTheRecordsError)
{
    volume.dir().makeDir("dir");
    EXPECT_EQ(open("nvl2://5678/f"), -ENODEV);
    EXPECT_EQ(ext.error, -ENODEV);
    ASSERT_NE(stream, nullptr) << "the object that did not open is handed out";
    EXPECT_EQ(open(volume.url("missing")), -ENOENT);
    EXPECT_EQ(ext.error, -ENOENT);
    EXPECT_EQ(open(volume.url("dir")), -EISDIR);
    EXPECT_EQ(ext.error, -EISDIR);
    EXPECT_EQ(open(volume.url("../f")), -EACCES);
    EXPECT_EQ(ext.error, -EACCES);
    EXPECT_EQ(open(volume.url("f"), 7), -EINVAL);
    EXPECT_EQ(ext.error, -EINVAL);
    ext.flags = MDCH_URL_NATIVE_PATH;
    EXPECT_EQ(open(volume.url("missing")), -ENOENT);
    EXPECT_EQ(ext.error, -ENOENT);
    EXPECT_EQ(open(volume.url("f"), 7), -1) << "the file stream's";
    EXPECT_EQ(ext.error, -1);
}

TEST_F(OpenVolumeUrl, onlyTheFirstSevenLettersMakeAVolumeUrl)
{
    ext.flags = MDCH_URL_NATIVE_PATH;
    for (const std::string url : {"nvl2:/1234-ABCD/f", "nvl2//1234-ABCD/f", " nvl2://1234-ABCD/f",
                                  "nvl2x://1234-ABCD/f", "xnvl2://1234-ABCD/f", "nvl2", "nvl2:/"}) {
        EXPECT_EQ(open(url), -ENOENT) << url;
        EXPECT_TRUE(isFileStream()) << url;
    }
}

TEST_F(OpenVolumeUrl, tracesTheTranslationAndTheChoice)
{
    ext.flags = MDCH_URL_NATIVE_PATH;
    const std::string native = volume.accessPath() + "f";
    const TraceCapture traces;
    EXPECT_EQ(open(volume.url("f")), 0);
    EXPECT_EQ(
        traces.severityOf("MdchUrlNvol2::nvol2UrlToNative() translate to file protocol: " + native + "\n"),
        4000U);
    EXPECT_EQ(traces.severityOf("mdch_OpenUrl() nvol2 translated name=" + native + "\n"), 5000U);
    EXPECT_EQ(traces.severityOf("createInstance(" + native + ") => FILE\n"), 5000U);
}

TEST_F(OpenVolumeUrl, tracesTheVolumeStreamAndItsFailure)
{
    ext.flags = MDCH_URL_NATIVE_PATH;
    const TraceCapture traces(4000);
    EXPECT_EQ(open("nvl2://5678/f"), -ENODEV);
    ASSERT_EQ(traces.texts().size(), 3U);
    EXPECT_EQ(traces.texts()[0],
              "MdchUrlNvol2::nvol2UrlToNative() Could not get mediaID for volumeID=5678\n");
    EXPECT_EQ(traces.texts()[1], "MdchUrlNvol2::open() Could not get mediaID for volumeID=5678\n");
    EXPECT_EQ(traces.count("mdc_hlp_url_base.cpp:#:mdch_OpenUrl(): open returned error=-19 nvl2://5678/f.\n"),
              1U);
}

TEST_F(OpenVolumeUrl, createInstanceTracesItsChoice)
{
    const TraceCapture traces;
    delete MdchUrlBase::createInstance("NVL2://1234/f");
    EXPECT_EQ(traces.texts(), Texts{"createInstance(NVL2://1234/f) => NVL2\n"});
}

class VolumeHandle : public OpenVolumeUrl
{
protected:
    std::string read(unsigned int handle) const
    {
        unsigned char buffer[100] = {};
        const int got = mdch_UrlRead(handle, buffer, sizeof(buffer));
        return got > 0 ? std::string(buffer, buffer + got) : std::string();
    }
};

TEST_F(VolumeHandle, readsEitherWay)
{
    unsigned int handle = mdch_UrlOpen(volume.url("f").c_str(), MDCH_MODE_READ);
    ASSERT_GT(handle, 0U);
    EXPECT_EQ(mdch_UrlSize(handle), 7);
    EXPECT_EQ(mdch_UrlCapability(handle), 5U);
    EXPECT_EQ(read(handle), "content");
    EXPECT_EQ(mdch_UrlClose(handle), 0);
    for (const int flags : {0, 8}) {
        ext.flags = flags;
        handle = mdch_UrlOpenExt(volume.url("f").c_str(), MDCH_MODE_READ, &ext);
        ASSERT_GT(handle, 0U) << flags;
        EXPECT_EQ(mdch_UrlSize(handle), 7);
        EXPECT_EQ(read(handle), "content");
        EXPECT_EQ(mdch_UrlSeek(handle, 3, 7), flags == 8 ? -1 : 0)
            << "the whence that only the volume stream takes";
        EXPECT_EQ(mdch_UrlClose(handle), 0);
    }
}

TEST_F(VolumeHandle, theReasonOfAFailureStandsInTheRecord)
{
    for (const int flags : {0, 8}) {
        ext.flags = flags;
        ext.error = kUntouched;
        EXPECT_EQ(mdch_UrlOpenExt("nvl2://5678/f", MDCH_MODE_READ, &ext), 0U);
        EXPECT_EQ(ext.error, -ENODEV);
        EXPECT_EQ(mdch_UrlOpenExt(volume.url("missing").c_str(), MDCH_MODE_READ, &ext), 0U);
        EXPECT_EQ(ext.error, -ENOENT);
    }
}

} // namespace
