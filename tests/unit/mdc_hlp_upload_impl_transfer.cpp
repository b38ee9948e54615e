// Uploads to a scripted server: what arrives, which commands it takes, and what each refusal and each broken
// connection comes out as.
#include "mdc_hlp_upload.h"

#include "support/ftp_upload.h"
#include "support/media.h"
#include "support/sockets.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <set>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using support::FtpServer;
using support::FtpUpload;
using support::Media;
using support::RunningUpload;
using support::TraceCapture;
using support::uploadTo;

const std::string kHere = "mdc_hlp_upload_impl.cpp:#:";

class Transfer : public testing::Test
{
protected:
    support::TempDir m_folder;
    FtpServer m_server;
};

class TransferSizes : public testing::TestWithParam<std::size_t>
{
};

// The trace lines of the upload itself, without those of the progress.
std::vector<std::string> outline(const TraceCapture& trace)
{
    std::vector<std::string> lines;
    for (const std::string& text : trace.texts()) {
        if (text.find("uploadActual") == std::string::npos) {
            lines.push_back(TraceCapture::withoutLineNumber(text));
        }
    }
    return lines;
}

// How many bytes and which; the content is compared by its digest.
void expectArrived(const FtpServer& server, const std::string& path, const std::string& content)
{
    const std::vector<FtpUpload> uploads = server.uploads();
    ASSERT_EQ(uploads.size(), 1U);
    EXPECT_EQ(uploads[0].path, path);
    EXPECT_EQ(uploads[0].bytes, content.size());
    EXPECT_EQ(uploads[0].sha256, support::sha256Of(content));
    EXPECT_TRUE(uploads[0].atEnd);
    EXPECT_EQ(uploads[0].textTransfer, "I");
}

// What libcurl's code, and so the result, of an upload to this server is.
void expectFailure(const FtpServer& server, const std::string& file, int result, int code,
                   const std::string& words)
{
    const TraceCapture trace;
    md::FtpAccess access = uploadTo(server, file);
    EXPECT_EQ(access.upload(), result);
    EXPECT_EQ(access.getCurlCode(), code);
    EXPECT_EQ(trace.count(kHere + "upload(): curl_easy_perform() failed:  errorCode: " +
                          std::to_string(code) + "    " + words + "\n"),
              1U);
    EXPECT_FALSE(trace.hasAnywhere("succeed"));
    double total = 0;
    double actual = 0;
    EXPECT_NE(access.getProgress(total, actual), 3);
}

bool isConnection(int descriptor)
{
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    return getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
           peer.sin_family == AF_INET;
}

} // namespace

TEST_P(TransferSizes, everyByteArrives)
{
    const std::string content = Media(11).bytes(0, GetParam());
    const support::TempDir folder;
    const FtpServer server;
    md::FtpAccess access = uploadTo(server, folder.write("a.bin", content));
    EXPECT_EQ(access.upload(), 0);
    expectArrived(server, "/in/a.bin", content);
    double total = 0;
    double actual = 0;
    EXPECT_EQ(access.getProgress(total, actual), content.empty() ? 0 : 2);
    EXPECT_EQ(total, static_cast<double>(content.size()));
    EXPECT_EQ(actual, total);
}

INSTANTIATE_TEST_SUITE_P(Sizes, TransferSizes,
                         testing::Values(0U, 1U, 65535U, 65536U, 65537U, 131072U, 3000001U));

TEST_F(Transfer, theTraceTellsTheStory)
{
    const TraceCapture trace;
    const std::string file = m_folder.write("a.bin", "hello");
    md::FtpAccess access = uploadTo(m_server, file);
    access.setUserName("user");
    access.setUserPassword("a secret");
    EXPECT_EQ(access.upload(), 0);
    EXPECT_EQ(
        outline(trace),
        (std::vector<std::string>{
            kHere + "upload(): called with parameters: serverUrl: " + m_server.host() + "   serverPath: in\n",
            kHere + "upload(): called with parameters: sourceFile: " + file + "  uploadedFile: a.bin\n",
            kHere + "upload(): Local file size: 5 bytes.\n",
            kHere + "checkUploadSettings(): protocol set to: FTP \n",
            kHere + "upload(): URL generated: ftp://" + m_server.host() + "/in/a.bin\n",
            kHere + "upload(): curl_easy_perform() succeed: errorCode: 0\n"}));
    EXPECT_TRUE(trace.has(kHere + "reportProgress(): uploadActual: 5   uploadTotal: 5 \n"));
    EXPECT_FALSE(trace.hasAnywhere("call user callback"));
    EXPECT_FALSE(trace.hasAnywhere("secret"));
}

TEST_F(Transfer, missingDirectoriesAreMadeOnceAndExistingOnesEntered)
{
    m_server.directory("/in");
    md::FtpAccess access = uploadTo(m_server, m_folder.write("a.bin", "hello"));
    access.setServerPath("in/deep/deeper");
    EXPECT_EQ(access.upload(), 0);
    EXPECT_EQ(m_server.directories(), (std::vector<std::string>{"/in/deep", "/in/deep/deeper"}));
    expectArrived(m_server, "/in/deep/deeper/a.bin", "hello");
}

TEST_F(Transfer, withoutADirectoryTheFileGoesWhereTheLogInEnds)
{
    md::FtpAccess access = uploadTo(m_server, m_folder.write("a.bin", "hello"));
    access.setServerPath("");
    EXPECT_EQ(access.upload(), 0);
    expectArrived(m_server, "/a.bin", "hello");
    EXPECT_TRUE(m_server.directories().empty());
}

TEST_F(Transfer, nameAndPasswordAreSentAsTheyAre)
{
    m_server.account("an:odd@user%41", "p@ss:w/rd %41#");
    md::FtpAccess access = uploadTo(m_server, m_folder.write("a.bin", "hello"));
    access.setUserName("an:odd@user%41");
    access.setUserPassword("p@ss:w/rd %41#");
    EXPECT_EQ(access.upload(), 0);
    expectArrived(m_server, "/in/a.bin", "hello");
}

TEST_F(Transfer, aNameWithoutAPasswordSendsAnEmptyOne)
{
    m_server.account("user", "");
    md::FtpAccess access = uploadTo(m_server, m_folder.write("a.bin", "hello"));
    access.setUserName("user");
    EXPECT_EQ(access.upload(), 0);
    EXPECT_TRUE(m_server.hasCommand("PASS "));
}

TEST_F(Transfer, withoutANameTheLogInIsAnonymousAndThePasswordStaysHere)
{
    md::FtpAccess access = uploadTo(m_server, m_folder.write("a.bin", "hello"));
    access.setUserPassword("secret");
    EXPECT_EQ(access.upload(), 0);
    EXPECT_EQ(m_server.commands().at(0), "USER anonymous");
    EXPECT_FALSE(m_server.hasCommand("PASS secret"));
}

TEST_F(Transfer, namesMeanWhatTheyMeanInAUrl)
{
    const std::string file = m_folder.write("a.bin", "hello");
    const struct
    {
        const char* name;
        const char* stored;
        const char* type;
    } cases[] = {{"x#y", "/in/x", "I"},        {"x?y", "/in/x", "I"},     {"x%41", "/in/xA", "I"},
                 {"x;type=a", "/in/x", "A"},   {"x%23y", "/in/x#y", "I"}, {"x%3Fy", "/in/x?y", "I"},
                 {"x%20y", "/in/x y", "I"},    {"x%25y", "/in/x%y", "I"}, {"x%3Btype=a", "/in/x;type=a", "I"},
                 {"deep/x", "/in/deep/x", "I"}};
    for (const auto& one : cases) {
        const FtpServer server;
        md::FtpAccess access = uploadTo(server, file);
        access.setUploadedFile(one.name);
        EXPECT_EQ(access.upload(), 0) << one.name;
        ASSERT_EQ(server.uploads().size(), 1U) << one.name;
        EXPECT_EQ(server.uploads()[0].path, one.stored);
        EXPECT_EQ(server.uploads()[0].textTransfer, one.type) << one.name;
    }
    for (const char* name : {"x y", "x\ny", "x%0d%0aDELE y", "x/"}) {
        const FtpServer server;
        const TraceCapture trace;
        md::FtpAccess access = uploadTo(server, file);
        access.setUploadedFile(name);
        EXPECT_EQ(access.upload(), -2) << name;
        EXPECT_EQ(access.getCurlCode(), 3) << name;
        EXPECT_TRUE(
            trace.hasAnywhere("curl_easy_perform() failed:  errorCode: 3    URL using bad/illegal format"));
        EXPECT_TRUE(server.uploads().empty());
    }
}

TEST_F(Transfer, aPathThatBeginsWithASlashIsAbsolute)
{
    m_server.answer("PWD", "257 \"/home/user\"");
    md::FtpAccess access = uploadTo(m_server, m_folder.write("a.bin", "hello"));
    access.setServerPath("/srv");
    EXPECT_EQ(access.upload(), 0);
    EXPECT_TRUE(m_server.hasCommand("CWD /"));
    expectArrived(m_server, "/srv/a.bin", "hello");
}

TEST_F(Transfer, otherProtocolsAreRefused)
{
    for (const char* protocol : {"http", "https", "sftp", "tftp", "gopher", "none"}) {
        md::FtpAccess access = uploadTo(m_server, m_folder.write("a.bin", "hello"));
        access.setProtocol(protocol);
        EXPECT_EQ(access.upload(), -2) << protocol;
        EXPECT_EQ(access.getCurlCode(), 1) << protocol;
    }
    EXPECT_TRUE(m_server.connections().empty());
    md::FtpAccess access = uploadTo(m_server, m_folder.write("a.bin", "hello"));
    access.setProtocol("FTP");
    EXPECT_EQ(access.upload(), 0);
}

TEST_F(Transfer, environmentVariablesHaveNoEffect)
{
    struct Variable
    {
        explicit Variable(const char* name, const std::string& value) : m_name(name)
        {
            setenv(name, value.c_str(), 1);
        }
        ~Variable() { unsetenv(m_name); }
        const char* m_name;
    };
    const support::LoopbackPort nobody = support::closedPort();
    const Variable ftp("ftp_proxy", nobody.url());
    const Variable all("all_proxy", nobody.url());
    const Variable upper("ALL_PROXY", nobody.url());
    const Variable none("no_proxy", "");
    const support::TempDir home;
    const Variable folder("HOME", home.path());
    home.write(".netrc", "machine 127.0.0.1 login other password other\n");
    m_server.account("user", "secret");
    md::FtpAccess access = uploadTo(m_server, m_folder.write("a.bin", "hello"));
    access.setUserName("user");
    access.setUserPassword("secret");
    EXPECT_EQ(access.upload(), 0);
    expectArrived(m_server, "/in/a.bin", "hello");
}

TEST_F(Transfer, theServersRefusals)
{
    const std::string file = m_folder.write("a.bin", "hello");
    const struct
    {
        const char* point;
        const char* reply;
        int result;
        int code;
        const char* words;
    } cases[] = {
        {FtpServer::greeting, "421 too many", -2, 28, "Timeout was reached"},
        {"USER", "530 no", -2, 67, "Login denied"},
        {"PASS", "530 no", -2, 67, "Login denied"},
        {"MKD", "550 no", -6, 9, "Access denied to remote resource"},
        {"TYPE", "500 no", -6, 17, "FTP: couldn't set file type"},
        {"STOR", "550 read only", -4, 25, "Upload failed (at start/before it took off)"},
        {"STOR", "552 quota exceeded", -4, 25, "Upload failed (at start/before it took off)"},
        {FtpServer::finalReply, "552 quota exceeded", -6, 70, "Disk full or allocation exceeded"},
        {FtpServer::finalReply, "451 disk broken", -3, 18, "Transferred a partial file"},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(std::string(one.point) + ": " + one.reply);
        FtpServer server;
        server.answer(one.point, one.reply);
        expectFailure(server, file, one.result, one.code, one.words);
    }
}

TEST_F(Transfer, aConnectionThatEndsAtAnyPointIsANetworkFailure)
{
    const std::string file = m_folder.write("a.bin", Media(3).bytes(0, 8000000));
    for (const char* point : {FtpServer::greeting, "USER", "PASS", "PWD", "CWD", "MKD", "EPSV", "TYPE",
                              "STOR", FtpServer::dataConnect, FtpServer::data, FtpServer::finalReply}) {
        for (const bool withReset : {false, true}) {
            SCOPED_TRACE(std::string(point) + (withReset ? " reset" : " closed"));
            FtpServer server;
            server.dataPoint(100000);
            if (withReset) {
                server.reset(point);
            } else {
                server.close(point);
            }
            md::FtpAccess access = uploadTo(server, file);
            EXPECT_EQ(access.upload(), -2);
            const int code = access.getCurlCode();
            // One that is reset before anybody looked was never made.
            const bool wasUnseen = code == 7 && point == FtpServer::greeting && withReset;
            EXPECT_TRUE(code == 55 || code == 56 || wasUnseen) << code;
        }
    }
}

TEST_F(Transfer, nobodyThere)
{
    const std::string file = m_folder.write("a.bin", "hello");
    const support::LoopbackPort refusing = support::closedPort();
    md::FtpAccess access = uploadTo(m_server, file);
    access.setServerUrl("127.0.0.1:" + std::to_string(refusing.port()));
    EXPECT_EQ(access.upload(), -2);
    EXPECT_EQ(access.getCurlCode(), 7);
    access.setServerUrl("no-such-host.invalid");
    EXPECT_EQ(access.upload(), -2);
    EXPECT_EQ(access.getCurlCode(), 6);
    EXPECT_TRUE(m_server.connections().empty());
}

TEST_F(Transfer, anOlderServerWithoutEpsvIsServed)
{
    m_server.answer("EPSV", "500 unknown");
    md::FtpAccess access = uploadTo(m_server, m_folder.write("a.bin", "hello"));
    EXPECT_EQ(access.upload(), 0);
    EXPECT_TRUE(m_server.hasCommand("PASV"));
    expectArrived(m_server, "/in/a.bin", "hello");
}

TEST_F(Transfer, aFileOfMoreThan4GiBIsAnnouncedWhole)
{
    constexpr std::int64_t kSize = (std::int64_t{5} << 30) + 3;
    const std::string file = m_folder.write("a.bin", "start");
    ASSERT_EQ(truncate64(file.c_str(), kSize), 0); // sparse
    md::FtpAccess access = uploadTo(m_server, file);
    struct Seen
    {
        md::FtpAccess& access;
        long long total = 0;
    } seen{access};
    access.setProgressCallback(&seen, [](void* user, long long total, long long now) {
        auto& record = *static_cast<Seen*>(user);
        if (now > 0) {
            record.total = total;
            record.access.cancel(); // the rest is not worth the time
        }
    });
    EXPECT_EQ(access.upload(), -5);
    EXPECT_EQ(seen.total, kSize);
}

TEST_F(Transfer, nobodyWaitsForTheAnswerToTheGoodBye)
{
    m_server.stall("QUIT");
    RunningUpload upload(uploadTo(m_server, m_folder.write("a.bin", "hello")));
    EXPECT_EQ(upload.result(), 0);
    EXPECT_TRUE(m_server.waitForPoint("QUIT"));
    EXPECT_TRUE(m_server.waitForOpenConnections(0));
}

TEST_F(Transfer, nothingStaysOpenAfterwards)
{
    const std::string file = m_folder.write("a.bin", Media(3).bytes(0, 1000000));
    const auto round = [&file](const char* point) {
        FtpServer server;
        server.reset(point);
        uploadTo(server, file).upload();
    };
    round("none"); // what libraries open once and keep
    const auto before = support::openDescriptors();
    for (const char* point :
         {"none", FtpServer::greeting, "PASS", "STOR", FtpServer::data, FtpServer::finalReply}) {
        round(point);
        EXPECT_EQ(support::openDescriptors(), before) << point;
    }
}

TEST_F(Transfer, aChildProcessInheritsNothing)
{
    support::Gate gate;
    m_server.wait(FtpServer::data, gate);
    const std::string file = m_folder.write("a.bin", Media(3).bytes(0, 8000000));
    struct Seen
    {
        std::string file;
        std::set<int> connections;
        bool source = false;
        bool inherited = false;
    } seen{file, {}};
    md::FtpAccess access = uploadTo(m_server, file);
    access.setProgressCallback(&seen, [](void* user, long long, long long now) {
        auto& record = *static_cast<Seen*>(user);
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            const bool isSource = std::filesystem::read_symlink(entry.path(), gone) == record.file;
            const int descriptor = std::stoi(entry.path().filename().string());
            // Not libcurl's own pair of sockets, which leads nowhere.
            if (now > 0 && (isSource || isConnection(descriptor))) {
                const int flags = fcntl(descriptor, F_GETFD);
                record.inherited = record.inherited || (flags >= 0 && (flags & FD_CLOEXEC) == 0);
                record.source = record.source || isSource;
                if (!isSource) {
                    record.connections.insert(descriptor);
                }
            }
        }
    });
    RunningUpload upload(access);
    EXPECT_TRUE(m_server.waitForPoint(FtpServer::data));
    gate.open();
    EXPECT_EQ(upload.result(), 0);
    EXPECT_TRUE(seen.source);
    EXPECT_GE(seen.connections.size(), 4U); // both ends of both
    EXPECT_FALSE(seen.inherited);
}

TEST_F(Transfer, manyObjectsUploadAtTheSameTime)
{
    constexpr std::size_t kCount = 8;
    const std::string content = Media(3).bytes(0, 700000);
    const std::string file = m_folder.write("a.bin", content);
    std::vector<std::unique_ptr<RunningUpload>> running;
    for (std::size_t i = 0; i < kCount; ++i) {
        md::FtpAccess access = uploadTo(m_server, file);
        access.setUploadedFile(std::to_string(i));
        running.push_back(std::make_unique<RunningUpload>(access));
    }
    for (const auto& one : running) {
        EXPECT_EQ(one->result(), 0);
    }
    std::vector<std::string> paths;
    for (const FtpUpload& upload : m_server.uploads()) {
        EXPECT_EQ(upload.sha256, support::sha256Of(content));
        paths.push_back(upload.path);
    }
    std::sort(paths.begin(), paths.end());
    EXPECT_EQ(paths, (std::vector<std::string>{"/in/0", "/in/1", "/in/2", "/in/3", "/in/4", "/in/5", "/in/6",
                                               "/in/7"}));
}
