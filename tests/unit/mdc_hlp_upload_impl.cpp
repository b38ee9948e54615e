// An upload's settings, URL, codes and what other threads see of it. No server is needed here.
#include "mdc_hlp_upload_impl.h"

#include "support/temp_dir.h"
#include "support/trace_capture.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

// What the next calls of the C library and of libcurl do.
std::atomic<bool> g_fstatFails{false};
std::atomic<bool> g_noHandles{false};
std::atomic<int> g_performed{0};

template <typename Function>
Function* real(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// In place of the libraries' own, which they call.
extern "C" int fstat64(int descriptor, struct stat64* facts) noexcept
{
    if (g_fstatFails) {
        errno = EOVERFLOW;
        return -1;
    }
    return real<int(int, struct stat64*)>("fstat64")(descriptor, facts);
}

extern "C" CURL* curl_easy_init()
{
    return g_noHandles ? nullptr : real<CURL*()>("curl_easy_init")();
}

#undef curl_easy_perform
extern "C" CURLcode curl_easy_perform(CURL* easy)
{
    ++g_performed;
    return real<CURLcode(CURL*)>("curl_easy_perform")(easy);
}

namespace {

using Impl = md::FtpAccess::Impl;
using support::TraceCapture;

const std::string kFile = "mdc_hlp_upload_impl.cpp:#:";

class Upload : public testing::Test
{
protected:
    ~Upload() override
    {
        g_fstatFails = false;
        g_noHandles = false;
    }

    support::TempDir m_folder;
    std::string m_source = m_folder.write("a.bin", "hello");
    TraceCapture m_trace;
    Impl m_impl;
};

void setNames(Impl& impl)
{
    impl.serverUrl = "host:21";
    impl.serverPath = "in";
    impl.uploadedFile = "a.bin";
    impl.sourceFile = "/tmp/a.bin";
}

} // namespace

TEST_F(Upload, anEmptyProtocolBecomesFtp)
{
    setNames(m_impl);
    EXPECT_EQ(m_impl.checkUploadSettings(), 0);
    EXPECT_EQ(m_impl.protocol, "ftp");
    EXPECT_EQ(m_trace.texts().size(), 1U);
    EXPECT_EQ(m_trace.count(kFile + "checkUploadSettings(): protocol set to: FTP \n"), 1U);
    m_trace.clear();
    m_impl.protocol = "ftps";
    EXPECT_EQ(m_impl.checkUploadSettings(), 0);
    EXPECT_EQ(m_impl.protocol, "ftps");
    EXPECT_TRUE(m_trace.lines().empty());
}

TEST_F(Upload, eachMissingSettingIsTracedAndRefused)
{
    const struct
    {
        std::string Impl::*setting;
        const char* text;
    } cases[] = {{&Impl::serverUrl, "serverUrl not set: abort ftp upload\n"},
                 {&Impl::uploadedFile, "uploadedFile not set: abort ftp upload\n"},
                 {&Impl::sourceFile, "sourceFile not set: abort ftp upload\n"}};
    for (const auto& one : cases) {
        Impl impl;
        setNames(impl);
        impl.protocol = "ftp";
        (impl.*one.setting).clear();
        m_trace.clear();
        EXPECT_EQ(impl.checkUploadSettings(), -1);
        ASSERT_EQ(m_trace.lines().size(), 1U);
        EXPECT_EQ(m_trace.count(kFile + "checkUploadSettings(): " + one.text), 1U) << one.text;
    }
}

TEST_F(Upload, everyCheckRunsInItsOrderThoughOneFails)
{
    m_impl.userPassword = "secret";
    EXPECT_EQ(m_impl.checkUploadSettings(), -1);
    std::vector<std::string> texts;
    for (const std::string& text : m_trace.texts()) {
        texts.push_back(TraceCapture::withoutLineNumber(text));
    }
    const std::string here = kFile + "checkUploadSettings(): ";
    EXPECT_EQ(texts, (std::vector<std::string>{here + "protocol set to: FTP \n",
                                               here + "serverUrl not set: abort ftp upload\n",
                                               here + "uploadedFile not set: abort ftp upload\n",
                                               here + "sourceFile not set: abort ftp upload\n",
                                               here + "userPassword set, but userName not set\n"}));
}

TEST_F(Upload, aPasswordWithoutANameIsOnlyAWarning)
{
    setNames(m_impl);
    m_impl.userPassword = "secret";
    EXPECT_EQ(m_impl.checkUploadSettings(), 0);
    EXPECT_EQ(m_trace.count(kFile + "checkUploadSettings(): userPassword set, but userName not set\n"), 1U);
    m_trace.clear();
    m_impl.userName = "user";
    EXPECT_EQ(m_impl.checkUploadSettings(), 0);
    EXPECT_TRUE(m_trace.lines().empty());
}

TEST_F(Upload, aLineEndInANameOrPasswordIsRefused)
{
    for (const std::string& end : {std::string("\r"), std::string("\n"), std::string(1, '\0')}) {
        for (std::string Impl::*setting : {&Impl::userName, &Impl::userPassword}) {
            Impl impl;
            setNames(impl);
            impl.userName = "user";
            impl.*setting = "x" + end + "DELE y";
            EXPECT_EQ(impl.checkUploadSettings(), -1);
        }
    }
    EXPECT_EQ(m_trace.count(kFile + "checkUploadSettings(): "
                                    "line end in userName or userPassword: abort ftp upload\n"),
              6U);
    EXPECT_FALSE(m_trace.hasAnywhere("DELE"));
}

TEST_F(Upload, theUrlIsPutTogetherWithoutEscaping)
{
    setNames(m_impl);
    m_impl.checkUploadSettings();
    EXPECT_EQ(m_impl.generateURL(), "ftp://host:21/in/a.bin");
    m_impl.serverPath.clear();
    EXPECT_EQ(m_impl.generateURL(), "ftp://host:21/a.bin");
    m_impl.protocol = "ftps";
    m_impl.serverPath = "/a b/%41";
    m_impl.uploadedFile = "c#d?e;type=a";
    EXPECT_EQ(m_impl.generateURL(), "ftps://host:21//a b/%41/c#d?e;type=a");
}

TEST_F(Upload, everyCodeOfLibcurlHasItsResult)
{
    const std::set<int> network = {1, 2, 3, 5, 6, 7, 8, 14, 15, 22, 28, 30, 55, 56, 67};
    const std::set<int> refused = {23, 25, 63};
    for (int code = 0; code <= 67; ++code) {
        const int expected = code == 0                  ? 0
                             : network.count(code) != 0 ? -2
                             : code == 18               ? -3
                             : refused.count(code) != 0 ? -4
                             : code == 42               ? -5
                                                        : -6;
        EXPECT_EQ(Impl::convertErrorCode(static_cast<CURLcode>(code)), expected) << code;
    }
    for (int code = 68; code < 128; ++code) { // what the type can hold
        EXPECT_EQ(Impl::convertErrorCode(static_cast<CURLcode>(code)), -6) << code;
    }
}

TEST_F(Upload, withoutSettingsItFailsAtTheOpen)
{
    EXPECT_EQ(m_impl.upload(), -1);
    std::vector<std::string> texts;
    for (const std::string& text : m_trace.texts()) {
        texts.push_back(TraceCapture::withoutLineNumber(text));
    }
    const std::string here = kFile + "upload(): ";
    EXPECT_EQ(texts, (std::vector<std::string>{
                         here + "called with parameters: serverUrl:    serverPath: \n",
                         here + "called with parameters: sourceFile:   uploadedFile: \n",
                         here + "upload failed: Couldn't open '': No such file or directory\n"}));
    EXPECT_EQ(m_trace.severityOf(texts[0]), 5000U);
    EXPECT_EQ(m_trace.severityOf(texts[2]), 3000U);
}

TEST_F(Upload, aSourceThatIsNotThereFailsAtTheOpen)
{
    m_impl.sourceFile = m_folder.file("none");
    EXPECT_EQ(m_impl.upload(), -1);
    EXPECT_EQ(m_trace.count(kFile + "upload(): upload failed: Couldn't open '" + m_impl.sourceFile +
                            "': No such file or directory\n"),
              1U);
}

TEST_F(Upload, aSizeThatCannotBeToldHasAMessageOfItsOwn)
{
    setNames(m_impl);
    m_impl.sourceFile = m_source;
    g_fstatFails = true;
    EXPECT_EQ(m_impl.upload(), -1);
    g_fstatFails = false;
    EXPECT_EQ(m_trace.count(kFile + "upload(): upload failed: Couldnt open '" + m_source +
                            "': Value too large for defined data type\n"),
              1U);
}

TEST_F(Upload, withAReadableSourceAloneBothOthersAreTracedAndNothingIsSent)
{
    const int before = g_performed;
    m_impl.sourceFile = m_source;
    EXPECT_EQ(m_impl.upload(), -1);
    EXPECT_EQ(m_trace.count(kFile + "upload(): Local file size: 5 bytes.\n"), 1U);
    EXPECT_EQ(m_trace.count(kFile + "checkUploadSettings(): serverUrl not set: abort ftp upload\n"), 1U);
    EXPECT_EQ(m_trace.count(kFile + "checkUploadSettings(): uploadedFile not set: abort ftp upload\n"), 1U);
    EXPECT_EQ(m_trace.count(kFile + "upload(): if( checkUploadSettings() < 0 ) aborted\n"), 1U);
    EXPECT_EQ(m_impl.url, "");
    EXPECT_EQ(g_performed, before);
}

TEST_F(Upload, aHandleThatCannotBeMadeCountsAsSuccess)
{
    const int before = g_performed;
    setNames(m_impl);
    m_impl.sourceFile = m_source;
    g_noHandles = true;
    EXPECT_EQ(m_impl.upload(), 0);
    EXPECT_EQ(m_trace.count(kFile + "upload(): URL generated: ftp://host:21/in/a.bin\n"), 1U);
    EXPECT_FALSE(m_trace.hasAnywhere("curl_easy_perform()"));
    EXPECT_EQ(g_performed, before);
}

TEST_F(Upload, aSettingTooLongForLibcurlFailsInsteadOfBeingLeftOut)
{
    setNames(m_impl);
    m_impl.serverUrl = "127.0.0.1:1";
    m_impl.sourceFile = m_source;
    constexpr std::size_t kBeyondAnyLimit = 9000000;
    m_impl.userName = std::string(kBeyondAnyLimit, 'u');
    const int before = g_performed;
    EXPECT_EQ(m_impl.upload(), -6);
    EXPECT_EQ(m_impl.getCurlCode(), CURLE_BAD_FUNCTION_ARGUMENT);
    EXPECT_EQ(g_performed, before); // not even an anonymous log-in
}

TEST_F(Upload, beforeAnyTransferNothingIsKnown)
{
    double total = -1;
    double actual = -1;
    EXPECT_EQ(m_impl.getProgress(total, actual), 0);
    EXPECT_EQ(total, 0);
    EXPECT_EQ(actual, 0);
    EXPECT_EQ(m_impl.getCurlCode(), 0);
}

TEST_F(Upload, progressIsNotedTracedAndHandedOn)
{
    struct Seen
    {
        Impl* impl;
        std::vector<std::pair<long long, long long>> calls;
    } seen{&m_impl, {}};
    EXPECT_EQ(m_impl.reportProgress(0, 0), 0); // without a callback
    m_impl.userData = &seen;
    m_impl.progressCallback = [](void* user, long long total, long long now) {
        auto& record = *static_cast<Seen*>(user);
        double seenTotal = 0;
        double seenNow = 0;
        record.impl->getProgress(seenTotal, seenNow); // would lock up, were it called with the lock held
        EXPECT_EQ(seenTotal, static_cast<double>(total));
        EXPECT_EQ(seenNow, static_cast<double>(now));
        record.calls.emplace_back(total, now);
    };
    EXPECT_EQ(m_impl.reportProgress(1000000, 250), 0);
    double total = 0;
    double actual = 0;
    EXPECT_EQ(m_impl.getProgress(total, actual), 1);
    EXPECT_EQ(total, 1000000);
    EXPECT_EQ(actual, 250);
    EXPECT_EQ(m_impl.reportProgress(6000000000, 6000000000), 0);
    EXPECT_EQ(m_impl.getProgress(total, actual), 2);
    EXPECT_EQ(actual, 6e9);
    EXPECT_EQ(seen.calls,
              (std::vector<std::pair<long long, long long>>{{1000000, 250}, {6000000000, 6000000000}}));
    const std::string here = kFile + "reportProgress(): ";
    EXPECT_EQ(m_trace.count(here + "uploadActual: 0   uploadTotal: 0 \n"), 1U);
    EXPECT_EQ(m_trace.count(here + "uploadActual: 250   uploadTotal: 1e+06 \n"), 1U);
    EXPECT_EQ(m_trace.count(here + "uploadActual: 6e+09   uploadTotal: 6e+09 \n"), 1U);
    EXPECT_EQ(m_trace.count(here + "call user callback\n"), 2U);
    EXPECT_EQ(m_trace.severityOf(here + "call user callback\n"), 5000U);
}

TEST_F(Upload, cancelStopsAtTheNextProgressCallForGood)
{
    EXPECT_EQ(m_impl.reportProgress(10, 3), 0);
    m_impl.cancel();
    EXPECT_EQ(m_trace.count(kFile + "cancel(): abort initialized\n"), 1U);
    double total = 0;
    double actual = 0;
    EXPECT_EQ(m_impl.getProgress(total, actual), 3);
    EXPECT_EQ(total, 10);
    EXPECT_EQ(actual, 3);
    EXPECT_EQ(m_impl.reportProgress(10, 4), 1);
    EXPECT_EQ(m_impl.reportProgress(10, 10), 1);
    EXPECT_EQ(m_trace.count(kFile + "reportProgress(): upload aborted after: 4\n"), 1U);
    EXPECT_EQ(m_impl.getProgress(total, actual), 3); // though complete
}

TEST_F(Upload, aCancelWithinTheCallbackCountsFromTheNextCall)
{
    m_impl.userData = &m_impl;
    m_impl.progressCallback = [](void* user, long long, long long) { static_cast<Impl*>(user)->cancel(); };
    EXPECT_EQ(m_impl.reportProgress(10, 3), 0);
    EXPECT_EQ(m_impl.reportProgress(10, 4), 1);
}

TEST_F(Upload, anExceptionOutOfTheCallbackStopsTheUpload)
{
    m_impl.progressCallback = [](void*, long long, long long) { throw 5; };
    EXPECT_EQ(Impl::transferInfo(&m_impl, 0, 0, 10, 3), 1);
    EXPECT_EQ(m_trace.count(kFile + "reportProgress(): upload aborted after: 3\n"), 1U);
}

TEST_F(Upload, theTrampolineStopsWithoutAnObject)
{
    EXPECT_EQ(Impl::transferInfo(nullptr, 1, 2, 3, 4), 1);
    EXPECT_EQ(Impl::transferInfo(&m_impl, 1, 2, 30, 4), 0);
    EXPECT_EQ(m_impl.uploadTotal, 30);
    EXPECT_EQ(m_impl.uploadActual, 4);
}

TEST_F(Upload, withoutItsImplementationEveryOperationReturnsAtOnce)
{
    md::FtpAccess access;
    const md::FtpAccess taken = std::move(access);
    access.setServerUrl("host"); // NOLINT(bugprone-use-after-move): that is the case
    access.setServerPath("in");
    access.setUserName("user");
    access.setUserPassword("secret");
    access.setSourceFile(m_source);
    access.setUploadedFile("a.bin");
    access.setProtocol("ftp");
    access.setProgressCallback(nullptr, nullptr);
    access.cancel();
    EXPECT_EQ(access.upload(), -5);
    double total = 7;
    double actual = 8;
    EXPECT_EQ(access.getProgress(total, actual), 3);
    EXPECT_EQ(total, 7);
    EXPECT_EQ(actual, 8);
    EXPECT_EQ(access.getCurlCode(), 0);
    EXPECT_TRUE(m_trace.lines().empty());
}
