// FTP servers, to which files are sent.
#include "matrix.h"

#include "../support_ftp.h"

#include "mdc_hlp_upload.h"
#include "support/ftp_upload.h"
#include "support/media.h"
#include "support/sockets.h"

#include <filesystem>
#include <future>
#include <gtest/gtest.h>

namespace matrix {

namespace {

using support::FtpHost;
using support::Media;

constexpr std::size_t kSize = 20'000'003;

class UploadServer : public Server
{
public:
    explicit UploadServer(std::unique_ptr<FtpHost> server) : host(std::move(server)) {}

    std::unique_ptr<FtpHost> host;
    support::TempDir folder;
};

UploadServer& ftp(Server& server)
{
    return dynamic_cast<UploadServer&>(server);
}

template <typename Host>
std::unique_ptr<Server> startHost()
{
    return std::make_unique<UploadServer>(std::make_unique<Host>());
}

md::FtpAccess upload(UploadServer& server, const std::string& content, const std::string& name = "a.bin")
{
    md::FtpAccess access;
    access.setServerUrl(server.host->host());
    access.setServerPath("in");
    access.setUserName(server.host->user());
    access.setUserPassword(server.host->password());
    access.setSourceFile(server.folder.write(name, content));
    access.setUploadedFile(name);
    return access;
}

void expectStored(const UploadServer& server, const std::string& content, const std::string& name = "a.bin")
{
    const std::string stored = support::readFile(server.host->stored(name));
    EXPECT_EQ(stored.size(), content.size());
    EXPECT_TRUE(stored == content) << "the bytes differ";
}

void checkOpen(Server& server)
{
    EXPECT_EQ(upload(ftp(server), "hello").upload(), 0);
    expectStored(ftp(server), "hello");
}

void checkLength(Server& server)
{
    const std::string content = Media(4).bytes(0, 3'000'000);
    for (const std::string& part : {content, std::string("a"), std::string()}) {
        md::FtpAccess access = upload(ftp(server), part);
        ASSERT_EQ(access.upload(), 0);
        double total = 0;
        double actual = 0;
        access.getProgress(total, actual);
        EXPECT_EQ(actual, static_cast<double>(part.size()));
        EXPECT_EQ(total, actual);
        expectStored(ftp(server), part);
    }
}

void checkWhole(Server& server)
{
    const std::string content = Media(4).bytes(0, kSize);
    ASSERT_EQ(upload(ftp(server), content).upload(), 0);
    expectStored(ftp(server), content);
}

void checkReopen(Server& server)
{
    for (const std::string& content : {std::string("a long first content"), std::string("short")}) {
        md::FtpAccess access = upload(ftp(server), content);
        EXPECT_EQ(access.upload(), 0);
        EXPECT_EQ(access.upload(), 0); // the same one again
        expectStored(ftp(server), content);
    }
}

void checkTwoAtOnce(Server& server)
{
    const std::string one = Media(5).bytes(0, kSize);
    const std::string two = Media(6).bytes(0, kSize);
    support::RunningUpload other(upload(ftp(server), two, "b.bin"));
    EXPECT_EQ(upload(ftp(server), one).upload(), 0);
    EXPECT_EQ(other.result(std::chrono::seconds(60)), 0);
    expectStored(ftp(server), one);
    expectStored(ftp(server), two, "b.bin");
}

void checkErrors(Server& server)
{
    static const support::LoopbackPort nobody = support::closedPort();
    const auto expectResult = [](md::FtpAccess access, int result, int code) {
        EXPECT_EQ(access.upload(), result);
        EXPECT_EQ(access.getCurlCode(), code);
    };
    md::FtpAccess stranger = upload(ftp(server), "hello", "c.bin");
    stranger.setUserPassword("wrong");
    expectResult(stranger, -2, 67);
    md::FtpAccess refused = upload(ftp(server), "hello", "c.bin");
    refused.setServerPath("readonly");
    expectResult(refused, -4, 25);
    md::FtpAccess alone = upload(ftp(server), "hello", "c.bin");
    alone.setServerUrl("127.0.0.1:" + std::to_string(nobody.port()));
    expectResult(alone, -2, 7);
    EXPECT_FALSE(std::filesystem::exists(ftp(server).host->stored("c.bin")));
    EXPECT_EQ(upload(ftp(server), "hello").upload(), 0);
}

// Holds an upload in its middle.
struct Middle
{
    std::promise<void> reached;
    std::promise<void> left;
    bool isPassed = false;

    static void progress(void* user, long long /*total*/, long long now)
    {
        auto& middle = *static_cast<Middle*>(user);
        if (now > 0 && !middle.isPassed) {
            middle.isPassed = true;
            middle.reached.set_value();
            middle.left.get_future().wait();
        }
    }
};

// Killed in the middle of a file.
void checkCrash(Server& server)
{
    Middle middle;
    md::FtpAccess access = upload(ftp(server), Media(4).bytes(0, 2 * kSize));
    access.setProgressCallback(&middle, Middle::progress);
    support::RunningUpload running(access);
    const std::future_status status = middle.reached.get_future().wait_for(std::chrono::seconds(60));
    ftp(server).host.reset();
    middle.left.set_value();
    ASSERT_EQ(status, std::future_status::ready);
    EXPECT_LT(running.result(std::chrono::seconds(60)).value_or(0), 0);
}

std::vector<Cell> uploadCells(const Cell& crash)
{
    return {{"Open", checkOpen, {}},
            {"Length", checkLength, {}},
            {"Whole", checkWhole, {}},
            {"Reopen", checkReopen, {}},
            {"TwoAtOnce", checkTwoAtOnce, {}},
            {"Errors", checkErrors, {}},
            crash};
}

} // namespace

std::vector<Column> uploadColumns()
{
    return {{"Uploads",
             "Vsftpd",
             "vsftpd",
             {support::serverProgram("vsftpd"), "-v"},
             startHost<support::Vsftpd>,
             uploadCells(noCell("Crash", "each log-in is a process of its own, which outlives the server"))},
            {"Uploads",
             "Proftpd",
             "ProFTPD",
             {support::serverProgram("proftpd"), "-v"},
             startHost<support::Proftpd>,
             uploadCells({"Crash", checkCrash, {}})}};
}

} // namespace matrix
