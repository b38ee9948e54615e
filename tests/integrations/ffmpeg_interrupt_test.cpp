// An interrupt ends whatever FFmpeg's context waits for, and the context goes on behind it.
#include "ffmpeg_bytes.h"
#include "ffmpeg_player.h"

#include "support/http_server.h"
#include "support/wait.h"

#include <atomic>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

namespace {

using support::At;
using support::Avio;
using support::avioOptions;
using support::avText;
using support::expectBytes;
using support::Gate;
using support::goOnBehindAnError;
using support::HttpServer;
using support::kMedia;
using support::kSize;
using support::readBytes;
using support::Reply;
using support::waitUntil;

// An interrupt callback, its flag, and who asked.
struct Interrupt
{
    std::atomic<bool> raised{false};
    std::atomic<int> asked{0};
    std::atomic<std::thread::id> asker; // several contexts may share one

    AVIOInterruptCB callback()
    {
        return {[](void* opaque) {
                    auto& self = *static_cast<Interrupt*>(opaque);
                    self.asker = std::this_thread::get_id();
                    ++self.asked;
                    return self.raised ? 1 : 0;
                },
                this};
    }
};

Avio openWith(const std::string& url, Interrupt& interrupt, const mdchAvioOptions* options = nullptr)
{
    const AVIOInterruptCB callback = interrupt.callback();
    AVIOContext* context = nullptr;
    EXPECT_EQ(avText(mdchAvioOpen(&context, url.c_str(), options, &callback, 0)), avText(0));
    return Avio(context);
}

// Streams that wait for long when nobody interrupts them: then the test is ended by its time limit.
mdchAvioOptions patient()
{
    mdchAvioOptions options = avioOptions();
    options.headerTimeout = 1000;
    options.dataTimeout = 1000;
    return options;
}

TEST(FfmpegInterrupt, endsAnOpenThatWaits)
{
    HttpServer server;
    server.on("/a", Reply::silence());
    Interrupt interrupt;
    const mdchAvioOptions options = patient();
    const AVIOInterruptCB callback = interrupt.callback();
    AVIOContext* context = nullptr;
    auto opening = std::async(std::launch::async, [&] {
        const int result = mdchAvioOpen(&context, server.url("/a").c_str(), &options, &callback, 0);
        EXPECT_EQ(interrupt.asker, std::this_thread::get_id());
        return result;
    });
    EXPECT_TRUE(server.waitForRequests(1));
    interrupt.raised = true;
    EXPECT_EQ(opening.get(), AVERROR_EXIT);
    EXPECT_EQ(context, nullptr);
    EXPECT_TRUE(server.waitForOpenConnections(0)) << "nothing stays behind";
}

TEST(FfmpegInterrupt, endsAReadThatWaitsAndTheStreamGoesOn)
{
    HttpServer server;
    Gate gate;
    server.on("/a", Reply::resource(kMedia, kSize).wait(At::body(1000), gate));
    Interrupt interrupt;
    const mdchAvioOptions options = patient();
    const Avio context = openWith(server.url("/a"), interrupt, &options);
    expectBytes(*context, 0, 1000);
    int result = 0;
    auto reading = std::async(std::launch::async, [&] { readBytes(*context, 1, result); });
    const int asked = interrupt.asked;
    EXPECT_TRUE(waitUntil([&] { return interrupt.asked > asked + 2; })) << "it waits";
    interrupt.raised = true;
    reading.get();
    EXPECT_EQ(avText(result), avText(AVERROR_EXIT));
    EXPECT_EQ(context->seek(context->opaque, 5, SEEK_SET), AVERROR_EXIT) << "so is everything";
    gate.open();
    interrupt.raised = false;
    goOnBehindAnError(*context);
    expectBytes(*context, 1000, kSize - 1000);
}

TEST(FfmpegInterrupt, aSeekBehindItDoesNotWaitForTheReadThatWasInterrupted)
{
    HttpServer server;
    server.on("/a", [](const support::Request& request) {
        Reply reply = Reply::resource(kMedia, kSize);
        return request.hasHeader("Range") ? reply : reply.stall(At::body(1000));
    });
    Interrupt interrupt;
    const mdchAvioOptions options = patient();
    const Avio context = openWith(server.url("/a"), interrupt, &options);
    expectBytes(*context, 0, 1000);
    auto reading = std::async(std::launch::async, [&] { return avio_r8(context.get()); });
    const int asked = interrupt.asked;
    EXPECT_TRUE(waitUntil([&] { return interrupt.asked > asked + 2; })) << "it waits";
    interrupt.raised = true;
    EXPECT_EQ(reading.get(), 0);
    interrupt.raised = false;
    ASSERT_EQ(avio_seek(context.get(), 350000, SEEK_SET), 350000);
    expectBytes(*context, 350000, 50000);
}

TEST(FfmpegInterrupt, endsASeekThatWaitsAndReadingGoesOnAtTheOldPlace)
{
    HttpServer server;
    Gate gate;
    server.on("/a", [gate](const support::Request& request) {
        Reply reply = Reply::resource(kMedia, kSize);
        return request.header("Range").rfind("bytes=300000", 0) == 0 ? reply.wait(At::start(), gate) : reply;
    });
    Interrupt interrupt;
    const Avio context = openWith(server.url("/a"), interrupt);
    expectBytes(*context, 0, 1000);
    auto seeking = std::async(std::launch::async, [&] { return avio_seek(context.get(), 300000, SEEK_SET); });
    EXPECT_TRUE(gate.waitForArrivals());
    interrupt.raised = true;
    EXPECT_EQ(seeking.get(), AVERROR_EXIT);
    gate.open();
    interrupt.raised = false;
    expectBytes(*context, 1000, kSize - 1000);
    ASSERT_EQ(avio_seek(context.get(), 300000, SEEK_SET), 300000);
    expectBytes(*context, 300000, 100000);
}

TEST(FfmpegInterrupt, aCloseBehindItWaitsForNothing)
{
    HttpServer server;
    server.on("/stalls", Reply::resource(kMedia, kSize).stall(At::body(1000)));
    server.on("/seekStalls", [](const support::Request& request) {
        Reply reply = Reply::resource(kMedia, kSize);
        return request.hasHeader("Range") ? reply.stall(At::start()) : reply;
    });
    const mdchAvioOptions options = patient();
    Interrupt interrupt;
    Avio stalled = openWith(server.url("/stalls"), interrupt, &options);
    Avio seeking = openWith(server.url("/seekStalls"), interrupt, &options);
    Avio datagrams = openWith("udp://127.0.0.1:0", interrupt, &options);
    expectBytes(*stalled, 0, 1000);
    std::vector<std::future<void>> waiting;
    waiting.push_back(std::async(std::launch::async, [&] { EXPECT_EQ(avio_r8(stalled.get()), 0); }));
    waiting.push_back(std::async(
        std::launch::async, [&] { EXPECT_EQ(avio_seek(seeking.get(), 390000, SEEK_SET), AVERROR_EXIT); }));
    EXPECT_TRUE(server.waitForRequests(3)) << "the seek is under way";
    interrupt.raised = true;
    for (std::future<void>& one : waiting) {
        one.get();
    }
    EXPECT_EQ(avio_r8(datagrams.get()), 0);
    EXPECT_EQ(avText(datagrams->error), avText(AVERROR_EXIT));
    stalled.reset();
    seeking.reset();
    datagrams.reset();
    EXPECT_TRUE(server.waitForOpenConnections(0));
}

// A named pipe whose other end nobody opens keeps fopen waiting: the nearest thing to a disc that does not answer.
TEST(FfmpegInterrupt, endsAnOpenThatAFileSystemKeepsWaiting)
{
    const support::TempDir folder;
    const std::string pipe = folder.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), S_IRUSR | S_IWUSR), 0);
    Interrupt interrupt;
    const AVIOInterruptCB callback = interrupt.callback();
    AVIOContext* context = nullptr;
    auto opening = std::async(std::launch::async,
                              [&] { return mdchAvioOpen(&context, pipe.c_str(), nullptr, &callback, 0); });
    EXPECT_TRUE(waitUntil([&] { return interrupt.asked > 2; }));
    interrupt.raised = true;
    EXPECT_EQ(opening.get(), AVERROR_EXIT);
    // The thread that was left behind ends as soon as it can.
    int writer = -1;
    EXPECT_TRUE(
        waitUntil([&] { return (writer = open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; }));
    pollfd reader{writer, 0, 0};
    EXPECT_TRUE(waitUntil([&] { return poll(&reader, 1, 0) == 1 && (reader.revents & POLLERR) != 0; }))
        << "nobody reads";
    close(writer);
}

} // namespace
