// The local file of an upload: what cannot be read, and what changes its size while it is sent.
#include "mdc_hlp_upload_impl_source.h"

#include "support/ftp_upload.h"
#include "support/media.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using md::UploadSource;
using support::FtpServer;
using support::Gate;
using support::Media;
using support::RunningUpload;
using support::TraceCapture;
using support::uploadTo;

const std::string kHere = "mdc_hlp_upload_impl.cpp:#:upload(): ";
constexpr std::size_t kSize = 20000000;
constexpr std::size_t kPoint = 100000;

class Source : public testing::Test
{
protected:
    // The upload comes to a stop in the middle of the data; `change` happens then.
    template <typename Change>
    int uploadWhile(const Change& change)
    {
        Gate gate;
        m_server.dataPoint(kPoint);
        m_server.wait(FtpServer::data, gate);
        RunningUpload upload(uploadTo(m_server, m_file));
        EXPECT_TRUE(m_server.waitForPoint(FtpServer::data));
        change();
        gate.open();
        const int result = upload.result().value_or(1);
        m_code = upload.access().getCurlCode();
        return result;
    }

    support::TempDir m_folder;
    const std::string m_content = Media(5).bytes(0, kSize);
    const std::string m_file = m_folder.write("a.bin", m_content);
    FtpServer m_server;
    TraceCapture m_trace;
    int m_code = 0;
};

std::string readAll(FILE* stream)
{
    std::string content(100000, '\0');
    content.resize(fread(content.data(), 1, content.size(), stream));
    return content;
}

} // namespace

TEST_F(Source, theStreamEndsAtTheSizeThatWasMeasured)
{
    const std::string file = m_folder.write("b.bin", "hello");
    UploadSource source;
    ASSERT_EQ(source.open(file), 0);
    ASSERT_EQ(source.measure(), 0);
    std::ofstream(file, std::ios::app) << " and more";
    EXPECT_EQ(source.size(), 5);
    EXPECT_EQ(source.taken(), 0);
    EXPECT_EQ(readAll(source.stream()), "hello");
    EXPECT_EQ(source.taken(), 5);
    EXPECT_EQ(source.error(), 0);
    EXPECT_NE(feof(source.stream()), 0);
}

TEST_F(Source, aFailedReadIsRemembered)
{
    UploadSource source;
    ASSERT_EQ(source.open(m_folder.path()), 0); // a directory can be opened
    ASSERT_EQ(source.measure(), 0);
    EXPECT_EQ(readAll(source.stream()), "");
    EXPECT_NE(ferror(source.stream()), 0);
    EXPECT_EQ(source.error(), EISDIR);
}

TEST_F(Source, nothingStaysOpenBehindACloseAndANewOpenStartsAfresh)
{
    const auto before = support::openDescriptors();
    UploadSource source;
    EXPECT_EQ(source.open(m_folder.file("none")), ENOENT);
    ASSERT_EQ(source.open(m_file), 0);
    ASSERT_EQ(source.measure(), 0);
    ASSERT_EQ(source.open(m_file), 0);
    ASSERT_EQ(source.measure(), 0);
    EXPECT_EQ(support::openDescriptors().size(), before.size() + 1);
    source.close();
    EXPECT_EQ(support::openDescriptors(), before);
}

TEST_F(Source, aFileThatGrowsIsSentAsItWas)
{
    EXPECT_EQ(uploadWhile([this] { std::ofstream(m_file, std::ios::app) << std::string(kSize, 'x'); }), 0);
    const std::vector<support::FtpUpload> uploads = m_server.uploads();
    ASSERT_EQ(uploads.size(), 1U);
    EXPECT_EQ(uploads[0].bytes, kSize);
    EXPECT_EQ(uploads[0].sha256, support::sha256Of(m_content));
}

TEST_F(Source, aFileThatShrinksIsAPartialUploadAndTheTraceSaysWhy)
{
    constexpr std::size_t kLess = kSize - 1;
    EXPECT_EQ(uploadWhile([this] { ASSERT_EQ(truncate(m_file.c_str(), kLess), 0); }), -3);
    EXPECT_EQ(m_code, 18);
    ASSERT_EQ(m_server.uploads().size(), 1U);
    EXPECT_EQ(m_server.uploads()[0].bytes, kLess);
    EXPECT_EQ(
        m_trace.count(kHere + "curl_easy_perform() failed:  errorCode: 18    Transferred a partial file\n"),
        1U);
    EXPECT_EQ(
        m_trace.count(kHere + "upload failed: '" + m_file + "' ended after 19999999 of 20000000 bytes\n"),
        1U);
}

TEST_F(Source, aFileThatIsEmptiedEndsTheUpload)
{
    EXPECT_EQ(uploadWhile([this] { ASSERT_EQ(truncate(m_file.c_str(), 0), 0); }), -3);
    EXPECT_LT(m_server.uploads().at(0).bytes, kSize);
    EXPECT_TRUE(m_trace.hasAnywhere("upload failed: '" + m_file + "' ended after "));
}

TEST_F(Source, aFileThatIsDeletedOrReplacedIsSentAsItWas)
{
    EXPECT_EQ(uploadWhile([this] {
                  ASSERT_EQ(unlink(m_file.c_str()), 0);
                  m_folder.write("a.bin", "something else");
              }),
              0);
    EXPECT_EQ(m_server.uploads().at(0).sha256, support::sha256Of(m_content));
}

TEST_F(Source, aDirectoryIsAPartialUploadAndTheTraceSaysWhy)
{
    md::FtpAccess access = uploadTo(m_server, m_folder.path());
    EXPECT_EQ(access.upload(), -3);
    EXPECT_EQ(access.getCurlCode(), 18);
    EXPECT_EQ(
        m_trace.count(kHere + "upload failed: Couldn't read '" + m_folder.path() + "': Is a directory\n"),
        1U);
    EXPECT_FALSE(m_trace.hasAnywhere("ended after"));
}

TEST_F(Source, nothingStaysOpenWhateverTheSource)
{
    const auto round = [](const std::string& source) {
        const FtpServer server;
        uploadTo(server, source).upload();
    };
    round(m_file); // what libraries open once and keep
    const auto before = support::openDescriptors();
    for (const std::string& source :
         {m_file, m_folder.path(), m_folder.file("none"), std::string("/dev/null")}) {
        round(source);
        EXPECT_EQ(support::openDescriptors(), before) << source;
    }
}

TEST_F(Source, aFileThatMayNotBeReadFailsAtTheOpen)
{
    ASSERT_EQ(chmod(m_file.c_str(), 0), 0);
    // Root reads everything: for this thread's files, be somebody else.
    constexpr uid_t kNobody = 65534;
    ASSERT_EQ(chmod(m_folder.path().c_str(), 0755), 0);
    const int former = setfsuid(kNobody);
    md::FtpAccess access = uploadTo(m_server, m_file);
    EXPECT_EQ(access.upload(), -1);
    setfsuid(static_cast<uid_t>(former));
    EXPECT_EQ(m_trace.count(kHere + "upload failed: Couldn't open '" + m_file + "': Permission denied\n"),
              1U);
    EXPECT_TRUE(m_server.connections().empty());
}

TEST_F(Source, aFileThatTellsNoSizeIsSentAsAnEmptyOne)
{
    md::FtpAccess access = uploadTo(m_server, "/dev/zero"); // never ends
    EXPECT_EQ(access.upload(), 0);
    EXPECT_EQ(m_server.uploads().at(0).bytes, 0U);
}
