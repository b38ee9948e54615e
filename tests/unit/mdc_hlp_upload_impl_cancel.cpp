// Cancelling, and looking on from other threads: in every place where an upload can get stuck.
#include "mdc_hlp_upload.h"

#include "support/ftp_upload.h"
#include "support/media.h"
#include "support/slow_names.h"
#include "support/sockets.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace {

using support::FtpServer;
using support::Media;
using support::RunningUpload;
using support::TraceCapture;
using support::uploadTo;
using support::waitUntil;

const std::string kHere = "mdc_hlp_upload_impl.cpp:#:";

// Counts progress calls.
struct Watch
{
    std::atomic<int> calls{0};

    static void count(void* user, long long /*total*/, long long /*now*/)
    {
        ++static_cast<Watch*>(user)->calls;
    }
    // Whether the calls go on, though nothing else does.
    bool goesOn() const
    {
        const int seen = calls;
        return waitUntil([this, seen] { return calls >= seen + 3; });
    }
};

class Cancel : public testing::Test
{
protected:
    // Larger than what connections hold, so that a stalled one stops the upload.
    const std::string m_content = Media(3).bytes(0, 20000000);
    support::TempDir m_folder;
    const std::string m_file = m_folder.write("a.bin", m_content);
    TraceCapture m_trace;
};

void expectCancelled(RunningUpload& upload, const TraceCapture& trace)
{
    EXPECT_TRUE(upload.isRunning());
    upload.access().cancel();
    EXPECT_EQ(upload.result(), -5);
    EXPECT_EQ(upload.access().getCurlCode(), 42);
    double total = 0;
    double actual = 0;
    EXPECT_EQ(upload.access().getProgress(total, actual), 3);
    EXPECT_EQ(trace.count(kHere + "cancel(): abort initialized\n"), 1U);
    EXPECT_EQ(trace.count(kHere + "reportProgress(): upload aborted after: " +
                          std::to_string(static_cast<long long>(actual)) + "\n"),
              1U);
    EXPECT_EQ(trace.count(kHere + "upload(): curl_easy_perform() failed:  errorCode: 42    "
                                  "Operation was aborted by an application callback\n"),
              1U);
}

class CancelAt : public testing::TestWithParam<const char*>
{
};

} // namespace

TEST_P(CancelAt, endsTheUploadAndItsConnections)
{
    const support::TempDir folder;
    const std::string file = folder.write("a.bin", Media(3).bytes(0, 20000000));
    const TraceCapture trace;
    FtpServer server;
    server.dataPoint(100000);
    server.stall(GetParam());
    Watch watch;
    md::FtpAccess access = uploadTo(server, file);
    access.setProgressCallback(&watch, &Watch::count);
    RunningUpload upload(access);
    ASSERT_TRUE(server.waitForPoint(GetParam()));
    EXPECT_TRUE(watch.goesOn());
    expectCancelled(upload, trace);
    EXPECT_TRUE(server.waitForOpenConnections(0));
}

INSTANTIATE_TEST_SUITE_P(Stalls, CancelAt,
                         testing::Values(FtpServer::greeting, "USER", "PASS", "PWD", "CWD", "MKD", "EPSV",
                                         "TYPE", "STOR", FtpServer::dataConnect, FtpServer::data,
                                         FtpServer::finalReply));

TEST_F(Cancel, aNameThatIsNotResolved)
{
    support::SlowNames::instance().hold(true);
    {
        Watch watch;
        md::FtpAccess access;
        access.setServerUrl("slow.test");
        access.setSourceFile(m_file);
        access.setUploadedFile("a.bin");
        access.setProgressCallback(&watch, &Watch::count);
        RunningUpload upload(access);
        EXPECT_TRUE(support::SlowNames::instance().waitForLookUps(true));
        EXPECT_TRUE(watch.goesOn());
        expectCancelled(upload, m_trace);
    }
    support::SlowNames::instance().hold(false);
    EXPECT_TRUE(support::SlowNames::instance().waitForLookUps(false));
}

TEST_F(Cancel, aConnectionThatIsNotAccepted)
{
    // A listener with room for one connection, which is taken: the kernel lets further ones wait.
    const support::UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* plain = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(bind(listener.get(), plain, size), 0);
    ASSERT_EQ(listen(listener.get(), 0), 0);
    ASSERT_EQ(getsockname(listener.get(), plain, &size), 0);
    std::vector<support::UniqueFd> taken;
    bool isFull = false;
    constexpr int kAtMost = 10;
    for (int i = 0; i < kAtMost && !isFull; ++i) {
        taken.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        connect(taken.back().get(), plain, size);
        constexpr int kMilliseconds = 200;
        pollfd entry{taken.back().get(), POLLOUT, 0};
        isFull = poll(&entry, 1, kMilliseconds) == 0;
    }
    ASSERT_TRUE(isFull);

    Watch watch;
    md::FtpAccess access;
    access.setServerUrl("127.0.0.1:" + std::to_string(ntohs(address.sin_port)));
    access.setSourceFile(m_file);
    access.setUploadedFile("a.bin");
    access.setProgressCallback(&watch, &Watch::count);
    RunningUpload upload(access);
    EXPECT_TRUE(watch.goesOn());
    expectCancelled(upload, m_trace);
}

TEST_F(Cancel, whatWasCancelledStaysCancelled)
{
    const FtpServer server;
    md::FtpAccess access = uploadTo(server, m_file);
    access.cancel();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(access.upload(), -5);
        double total = 0;
        double actual = 0;
        EXPECT_EQ(access.getProgress(total, actual), 3);
    }
    EXPECT_EQ(m_trace.count(kHere + "reportProgress(): upload aborted after: 0\n"), 2U);
    EXPECT_TRUE(server.uploads().empty());
}

TEST_F(Cancel, fromWithinTheCallback)
{
    const FtpServer server;
    md::FtpAccess access = uploadTo(server, m_file);
    struct Seen
    {
        md::FtpAccess* access;
        int callsAfter = 0;
        int state = 0;
        bool cancelled = false;
    } seen{&access};
    access.setProgressCallback(&seen, [](void* user, long long total, long long now) {
        auto& record = *static_cast<Seen*>(user);
        record.callsAfter += record.cancelled ? 1 : 0;
        if (now > 0 && !record.cancelled) {
            double seenTotal = 0;
            double seenNow = 0;
            record.state = record.access->getProgress(seenTotal, seenNow);
            EXPECT_EQ(seenTotal, static_cast<double>(total));
            EXPECT_EQ(seenNow, static_cast<double>(now));
            record.access->cancel();
            record.cancelled = true;
        }
    });
    EXPECT_EQ(access.upload(), -5);
    EXPECT_EQ(seen.state, 1);
    EXPECT_GE(seen.callsAfter, 1); // the call that stops the transfer
}

TEST_F(Cancel, anExceptionOutOfTheCallbackEndsTheUpload)
{
    const FtpServer server;
    md::FtpAccess access = uploadTo(server, m_file);
    access.setProgressCallback(nullptr, [](void*, long long, long long now) {
        if (now > 0) {
            throw std::runtime_error("no more");
        }
    });
    EXPECT_EQ(access.upload(), -5);
    double total = 0;
    double actual = 0;
    EXPECT_EQ(access.getProgress(total, actual), 1); // nobody cancelled
    EXPECT_TRUE(server.waitForOpenConnections(0));
}

TEST_F(Cancel, otherThreadsSeeTheProgressGrow)
{
    support::Gate gate;
    FtpServer server;
    server.dataPoint(1);
    server.wait(FtpServer::data, gate);
    md::FtpAccess access = uploadTo(server, m_file);
    double total = -1;
    double actual = -1;
    EXPECT_EQ(access.getProgress(total, actual), 0);
    RunningUpload upload(access);
    ASSERT_TRUE(server.waitForPoint(FtpServer::data));
    EXPECT_TRUE(waitUntil([&] { return access.getProgress(total, actual) == 1 && actual > 0; }));
    EXPECT_EQ(total, static_cast<double>(m_content.size()));
    EXPECT_LT(actual, total);

    std::array<std::thread, 4> others;
    std::atomic<bool> orderly{true};
    for (std::thread& other : others) {
        other = std::thread([&access, &orderly] {
            double last = 0;
            for (int state = 1; state == 1;) {
                double whole = 0;
                double part = 0;
                state = access.getProgress(whole, part);
                if (part < last || part > whole) {
                    orderly = false;
                }
                last = part;
            }
        });
    }
    gate.open();
    EXPECT_EQ(upload.result(), 0);
    for (std::thread& other : others) {
        other.join();
    }
    EXPECT_TRUE(orderly);
    EXPECT_EQ(access.getProgress(total, actual), 2);
    EXPECT_EQ(actual, total);
    EXPECT_EQ(server.uploads().at(0).sha256, support::sha256Of(m_content));
}

// In the last of them libcurl leaves the data connection open, whose end the server waits for.
TEST_F(Cancel, inAnyProgressCall)
{
    const std::string small = m_folder.write("b.bin", "hello");
    const FtpServer server;
    constexpr int kAtLeast = 10;
    EXPECT_GT(support::stopInEachCall([&] { return uploadTo(server, small); }).value_or(0), kAtLeast);
    EXPECT_TRUE(server.waitForOpenConnections(0));
}

TEST_F(Cancel, atAnyStepOfTheWay)
{
    const std::string small = m_folder.write("b.bin", Media(3).bytes(0, 200000));
    constexpr int kRounds = 40;
    const FtpServer server;
    EXPECT_EQ(support::cancelAfterEachCall([&] { return uploadTo(server, small); }, kRounds), 0);
    EXPECT_TRUE(server.waitForOpenConnections(0));
}
