// What players' frameworks do to a stream: reads, seeks and opens that are broken off from another thread, at any
// moment, and go on afterwards. No framework takes part, so that ThreadSanitizer sees every lock. No wait here has a
// time-out: what returns was interrupted, or has its bytes.
#include "interruptible_stream.h"

#include "mdc_hlp_http_access.h"
#include "support/http_server.h"
#include "support/random.h"
#include "support/temp_dir.h"
#include "support/udp_socket.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <future>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using player::InterruptibleStream;
using player::Outcome;
using player::StreamSettings;
using support::At;
using support::Gate;
using support::HttpServer;
using support::Media;
using support::Reply;

constexpr unsigned int kBlock = 8192;
constexpr std::uint64_t kSize = 1'000'000;

StreamSettings patient()
{
    StreamSettings settings;
    settings.timeoutSeconds = 0;
    return settings;
}

struct Piece
{
    Outcome outcome;
    std::string bytes;
};

Piece readSome(InterruptibleStream& stream, unsigned int size = kBlock)
{
    std::string bytes(size, '\0');
    unsigned int count = 0;
    const Outcome outcome = stream.read(reinterpret_cast<unsigned char*>(bytes.data()), size, count);
    bytes.resize(count);
    return {outcome, bytes};
}

// Up to size bytes, or what comes before something else than bytes does.
Piece readUpTo(InterruptibleStream& stream, std::uint64_t size)
{
    Piece all{Outcome::kDone, ""};
    while (all.bytes.size() < size && all.outcome == Outcome::kDone) {
        const std::uint64_t missing = size - all.bytes.size();
        const Piece piece =
            readSome(stream, static_cast<unsigned int>(std::min<std::uint64_t>(missing, kBlock)));
        all.outcome = piece.outcome;
        all.bytes += piece.bytes;
    }
    return all;
}

Piece readAll(InterruptibleStream& stream)
{
    return readUpTo(stream, UINT64_MAX);
}

template <class Action>
auto inBackground(Action action)
{
    return std::async(std::launch::async, action);
}

// The result of what was interrupted; a failure of the test when it goes on waiting.
template <class Result>
Result interrupted(InterruptibleStream& stream, std::future<Result>& waiting)
{
    stream.interrupt();
    const bool returned = waiting.wait_for(support::defaultDeadline) == std::future_status::ready;
    EXPECT_TRUE(returned);
    if (!returned) {
        std::abort(); // nothing else ends it
    }
    stream.proceed();
    return waiting.get();
}

// Interrupts each of the caller's calls at most once, at any time of it: one that is interrupted again and again
// never comes to an end.
class Interrupter
{
public:
    explicit Interrupter(InterruptibleStream& stream)
        : m_thread([this, &stream] {
              for (unsigned int seen = 0; !m_done;) {
                  std::this_thread::yield();
                  const unsigned int calls = m_calls;
                  if (calls != seen) {
                      seen = calls;
                      stream.interrupt();
                      stream.proceed();
                  }
              }
          })
    {
    }
    ~Interrupter()
    {
        m_done = true;
        m_thread.join();
    }
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

    void beginCall() { ++m_calls; }

private:
    std::atomic<bool> m_done{false};
    std::atomic<unsigned int> m_calls{0};
    std::thread m_thread;
};

class InterruptibleStreamTest : public testing::Test
{
protected:
    ~InterruptibleStreamTest() override { md::HttpAccess::shutdown(); }

    // Every byte of the resource comes, and the end.
    void expectWhole(InterruptibleStream& stream) const
    {
        const Piece all = readAll(stream);
        EXPECT_EQ(all.outcome, Outcome::kEnd) << stream.error();
        EXPECT_EQ(all.bytes.size(), kSize);
        EXPECT_TRUE(m_media.matches(0, all.bytes));
    }

    HttpServer m_server;
    const Media m_media{10};
};

TEST_F(InterruptibleStreamTest, GivesEveryByteAndTheEnd)
{
    m_server.on("/a", Reply::resource(m_media, kSize));
    InterruptibleStream stream(m_server.url("/a"), patient());
    ASSERT_EQ(stream.open(), Outcome::kDone);
    EXPECT_EQ(stream.facts().size, static_cast<long long>(kSize));
    EXPECT_TRUE(stream.facts().byteSeekable);
    EXPECT_FALSE(stream.facts().timeSeekable);
    EXPECT_EQ(stream.facts().httpStatus, 200);
    expectWhole(stream);
    EXPECT_EQ(m_server.requests().size(), 1U);
}

TEST_F(InterruptibleStreamTest, SettingsReachTheServer)
{
    m_server.on("/a", Reply().body("x"));
    StreamSettings settings = patient();
    settings.userAgent = "player/2";
    settings.cookies = {"a=1", "b=2"};
    settings.headerLines = {"X-Room: kitchen"};
    settings.wantsTitles = true;
    settings.transferMode = 1;
    InterruptibleStream stream(m_server.url("/a"), settings);
    ASSERT_EQ(readAll(stream).bytes, "x");
    const support::Request request = m_server.requests().at(0);
    EXPECT_EQ(request.header("User-Agent"), "player/2");
    EXPECT_EQ(request.header("Cookie"), "a=1;b=2");
    EXPECT_EQ(request.header("X-Room"), "kitchen");
    EXPECT_EQ(request.header("icy-metadata"), "1");
    EXPECT_EQ(request.header("transferMode.dlna.org"), "Streaming");
}

TEST_F(InterruptibleStreamTest, OpenThatWaitsForAHeaderIsInterruptedAndDoneAgain)
{
    Gate never;
    m_server.onSequence(
        "/a", {Reply::resource(m_media, kSize).wait(At::start(), never), Reply::resource(m_media, kSize)});
    InterruptibleStream stream(m_server.url("/a"), patient());
    auto opening = inBackground([&] { return stream.open(); });
    ASSERT_TRUE(never.waitForArrivals());
    EXPECT_EQ(interrupted(stream, opening), Outcome::kInterrupted);
    EXPECT_TRUE(m_media.matches(0, readUpTo(stream, kSize).bytes));
    EXPECT_EQ(m_server.requests().size(), 2U);
}

TEST_F(InterruptibleStreamTest, EachCallIsInterruptedUntilItMayProceed)
{
    m_server.on("/a", Reply::resource(m_media, kSize));
    InterruptibleStream stream(m_server.url("/a"), patient());
    stream.interrupt();
    EXPECT_EQ(stream.open(), Outcome::kInterrupted);
    EXPECT_EQ(readSome(stream).outcome, Outcome::kInterrupted);
    EXPECT_EQ(stream.seek(5), Outcome::kInterrupted);
    stream.proceed();
    EXPECT_EQ(stream.seek(5), Outcome::kDone);
    EXPECT_TRUE(m_media.matches(5, readSome(stream).bytes));
}

TEST_F(InterruptibleStreamTest, ReadThatWaitsIsInterruptedAndLosesNothing)
{
    Gate middle;
    m_server.on("/a", Reply::resource(m_media, kSize).wait(At::body(5000), middle));
    InterruptibleStream stream(m_server.url("/a"), patient());
    std::string bytes = readUpTo(stream, 5000).bytes;
    for (int i = 0; i < 3; ++i) {
        auto reading = inBackground([&] { return readSome(stream); });
        EXPECT_EQ(interrupted(stream, reading).outcome, Outcome::kInterrupted);
    }
    middle.open();
    bytes += readAll(stream).bytes;
    EXPECT_EQ(bytes.size(), kSize);
    EXPECT_TRUE(m_media.matches(0, bytes));
    EXPECT_EQ(m_server.requests().size(), 1U); // the same transfer all the while
}

TEST_F(InterruptibleStreamTest, SeekAwayFromAStallIsOneRequest)
{
    Gate never;
    m_server.onSequence(
        "/a", {Reply::resource(m_media, kSize).wait(At::body(5000), never), Reply::resource(m_media, kSize)});
    InterruptibleStream stream(m_server.url("/a"), patient());
    EXPECT_EQ(readUpTo(stream, 5000).bytes.size(), 5000U);
    auto reading = inBackground([&] { return readSome(stream); });
    EXPECT_EQ(interrupted(stream, reading).outcome, Outcome::kInterrupted);
    ASSERT_EQ(stream.seek(700'000), Outcome::kDone);
    const Piece rest = readAll(stream);
    EXPECT_EQ(rest.bytes.size(), 300'000U);
    EXPECT_TRUE(m_media.matches(700'000, rest.bytes));
    EXPECT_EQ(m_server.requests().size(), 2U);
}

TEST_F(InterruptibleStreamTest, SeekThatWaitsForAHeaderIsInterruptedAndTheNextOneAsksAtOnceWhereItWants)
{
    Gate never;
    m_server.onSequence("/a", {Reply::resource(m_media, kSize),
                               Reply::resource(m_media, kSize).wait(At::start(), never),
                               Reply::resource(m_media, kSize)});
    InterruptibleStream stream(m_server.url("/a"), patient());
    EXPECT_EQ(readUpTo(stream, 5000).bytes.size(), 5000U);
    auto seeking = inBackground([&] { return stream.seek(500'000); });
    ASSERT_TRUE(never.waitForArrivals());
    EXPECT_EQ(interrupted(stream, seeking), Outcome::kInterrupted);
    ASSERT_EQ(stream.seek(600'000), Outcome::kDone);
    EXPECT_EQ(stream.position(), 600'000);
    EXPECT_EQ(stream.facts().size, static_cast<long long>(kSize));
    EXPECT_TRUE(m_media.matches(600'000, readUpTo(stream, 100'000).bytes));
    ASSERT_EQ(m_server.requests().size(), 3U);
    EXPECT_EQ(m_server.requests().at(2).header("Range"), "bytes=600000-");
}

TEST_F(InterruptibleStreamTest, SeekToTheEndIsInterruptedAndDoneAgain)
{
    Gate never;
    m_server.onSequence("/a", {Reply::resource(m_media, kSize),
                               Reply::resource(m_media, kSize).wait(At::start(), never),
                               Reply::resource(m_media, kSize)});
    InterruptibleStream stream(m_server.url("/a"), patient());
    ASSERT_EQ(stream.open(), Outcome::kDone);
    auto seeking = inBackground([&] { return stream.seek(kSize); });
    ASSERT_TRUE(never.waitForArrivals());
    EXPECT_EQ(interrupted(stream, seeking), Outcome::kInterrupted);
    ASSERT_EQ(stream.seek(kSize), Outcome::kDone) << stream.error();
    EXPECT_EQ(readSome(stream).outcome, Outcome::kEnd);
}

TEST_F(InterruptibleStreamTest, ReadBehindInterruptedSeeksGoesOnWhereTheStreamWas)
{
    Gate never;
    m_server.onSequence(
        "/a", {Reply::resource(m_media, kSize), Reply::resource(m_media, kSize).wait(At::start(), never),
               Reply::resource(m_media, kSize).wait(At::start(), never), Reply::resource(m_media, kSize)});
    InterruptibleStream stream(m_server.url("/a"), patient());
    EXPECT_EQ(readUpTo(stream, 5000).bytes.size(), 5000U);
    for (int seeks = 1; seeks <= 2; ++seeks) {
        auto seeking = inBackground([&] { return stream.seek(500'000); });
        ASSERT_TRUE(never.waitForArrivals(seeks));
        EXPECT_EQ(interrupted(stream, seeking), Outcome::kInterrupted);
    }
    const Piece rest = readUpTo(stream, 1000);
    EXPECT_EQ(rest.bytes.size(), 1000U);
    EXPECT_TRUE(m_media.matches(5000, rest.bytes));
    EXPECT_EQ(stream.position(), 6000);
    EXPECT_EQ(stream.facts().size, static_cast<long long>(kSize));
    ASSERT_EQ(m_server.requests().size(), 4U);
    EXPECT_EQ(m_server.requests().at(3).header("Range"), "bytes=5000-");
}

// Reads and seeks of a decoder, on a slow stream that breaks off now and then, with interrupts that come whenever they
// like: every byte that is delivered stands where the stream says it is.
TEST_F(InterruptibleStreamTest, RandomInterruptsAndSeeksNeverMisplaceAByte)
{
    support::Random random;
    std::atomic<int> requests{0}; // handlers run side by side
    m_server.on("/a", [&](const support::Request& /*request*/) {
        Reply reply = Reply::resource(m_media, kSize).pieces(777);
        return ++requests % 7 == 0 ? reply.close(At::body(20'000)) : reply;
    });
    InterruptibleStream stream(m_server.url("/a"), patient());
    Interrupter other(stream);
    int delivered = 0;
    long long position = 0;
    for (int i = 0; i < support::randomRounds(1000); ++i) {
        if (random.below(4) == 0) {
            const auto target = static_cast<long long>(random.below(kSize));
            Outcome outcome = Outcome::kInterrupted;
            other.beginCall();
            while (outcome == Outcome::kInterrupted) {
                outcome = stream.seek(target);
            }
            ASSERT_EQ(outcome, Outcome::kDone) << stream.error();
            position = target;
        }
        other.beginCall();
        const Piece piece = readSome(stream, 1 + static_cast<unsigned int>(random.below(kBlock)));
        ASSERT_NE(piece.outcome, Outcome::kFailed) << stream.error();
        if (piece.outcome == Outcome::kEnd) {
            ASSERT_EQ(position, static_cast<long long>(kSize));
        }
        ASSERT_TRUE(m_media.matches(static_cast<std::uint64_t>(position), piece.bytes)) << position;
        position += static_cast<long long>(piece.bytes.size());
        delivered += piece.bytes.empty() ? 0 : 1;
    }
    EXPECT_GT(delivered, 0);
}

TEST_F(InterruptibleStreamTest, TransferThatBreaksOffGoesOnWhereItWas)
{
    m_server.onSequence("/a", {Reply::resource(m_media, kSize).close(At::body(300'000)),
                               Reply::resource(m_media, kSize).reset(At::header()), Reply::error(503),
                               Reply::resource(m_media, kSize)});
    InterruptibleStream stream(m_server.url("/a"), patient());
    expectWhole(stream);
    ASSERT_EQ(m_server.requests().size(), 4U);
    EXPECT_EQ(m_server.requests().at(3).header("Range"), "bytes=300000-");
}

TEST_F(InterruptibleStreamTest, AnotherVersionIsNotGoneOnWith)
{
    const Reply former = Reply::resource(m_media, kSize).header("ETag: \"1\"").close(At::body(300'000));
    for (const Reply& later : {Reply::resource(Media(11), kSize).header("ETag: \"2\""),
                               Reply::resource(Media(11), kSize + 1).header("ETag: \"1\"")}) {
        m_server.onSequence("/a", {former, later});
        InterruptibleStream stream(m_server.url("/a"), patient());
        const Piece all = readAll(stream);
        EXPECT_EQ(all.outcome, Outcome::kFailed);
        EXPECT_EQ(stream.error(), MDCH_HTTP_ETRANSFER);
        EXPECT_EQ(all.bytes.size(), 300'000U);
        EXPECT_TRUE(m_media.matches(0, all.bytes));
        EXPECT_EQ(readSome(stream).outcome, Outcome::kFailed) << "nor at the next try";
    }
}

TEST_F(InterruptibleStreamTest, AnAnswerWithoutTagIsGoneOnWith)
{
    m_server.onSequence("/a", {Reply::resource(m_media, kSize).header("ETag: \"1\"").close(At::body(300'000)),
                               Reply::resource(m_media, kSize)});
    InterruptibleStream stream(m_server.url("/a"), patient());
    expectWhole(stream);
}

TEST_F(InterruptibleStreamTest, AnotherVersionBehindAnInterruptedSeekIsNotGoneOnWith)
{
    Gate never;
    const Reply former = Reply::resource(m_media, kSize).header("ETag: \"1\"");
    m_server.onSequence("/a", {former, Reply(former).wait(At::start(), never),
                               Reply::resource(Media(11), kSize).header("ETag: \"2\"")});
    InterruptibleStream stream(m_server.url("/a"), patient());
    EXPECT_EQ(readUpTo(stream, 5000).bytes.size(), 5000U);
    auto seeking = inBackground([&] { return stream.seek(500'000); });
    ASSERT_TRUE(never.waitForArrivals());
    EXPECT_EQ(interrupted(stream, seeking), Outcome::kInterrupted);
    EXPECT_EQ(readSome(stream).outcome, Outcome::kFailed);
    EXPECT_EQ(stream.error(), MDCH_HTTP_ETRANSFER);
}

TEST_F(InterruptibleStreamTest, TriesEndAndTheReasonIsTold)
{
    m_server.onSequence("/a", {Reply::resource(m_media, kSize).close(At::body(300'000)), Reply::hangUp()});
    StreamSettings settings = patient();
    settings.retries = 1;
    InterruptibleStream stream(m_server.url("/a"), settings);
    const Piece all = readAll(stream);
    EXPECT_EQ(all.outcome, Outcome::kFailed);
    EXPECT_EQ(all.bytes.size(), 300'000U);
    EXPECT_EQ(stream.error(), MDCH_HTTP_EUNKNOWN);
    EXPECT_EQ(m_server.requests().size(), 2U);
}

TEST_F(InterruptibleStreamTest, WhatCannotBeSoughtIsNotTriedAgain)
{
    m_server.on("/a", Reply::resource(m_media, kSize).ignoreRanges().close(At::body(300'000)));
    InterruptibleStream stream(m_server.url("/a"), patient());
    const Piece all = readAll(stream);
    EXPECT_EQ(all.outcome, Outcome::kFailed);
    EXPECT_EQ(stream.error(), MDCH_HTTP_ETRANSFER);
    EXPECT_EQ(m_server.requests().size(), 1U);
    EXPECT_EQ(stream.seek(5), Outcome::kFailed);
    EXPECT_EQ(stream.error(), ESPIPE);
}

TEST_F(InterruptibleStreamTest, TimeSeekDuringAnInterruptedReadStartsAfresh)
{
    Gate never;
    m_server.onSequence("/a",
                        {Reply::timeSeekResource(m_media, 120'000, 2000)
                             .contentFeatures("DLNA.ORG_OP=11")
                             .wait(At::body(1000), never),
                         Reply::timeSeekResource(m_media, 120'000, 2000).contentFeatures("DLNA.ORG_OP=11")});
    StreamSettings settings = patient();
    settings.transferMode = 1;
    InterruptibleStream stream(m_server.url("/a"), settings);
    ASSERT_EQ(stream.open(), Outcome::kDone);
    EXPECT_TRUE(stream.facts().timeSeekable);
    EXPECT_EQ(readUpTo(stream, 1000).bytes.size(), 1000U);
    auto reading = inBackground([&] { return readSome(stream); });
    EXPECT_EQ(interrupted(stream, reading).outcome, Outcome::kInterrupted);
    ASSERT_EQ(stream.seekTime(5500), Outcome::kDone) << stream.error();
    EXPECT_EQ(stream.position(), 11'000);
    EXPECT_TRUE(m_media.matches(11'000, readUpTo(stream, 50'000).bytes));
    ASSERT_EQ(stream.seekTime(1000), Outcome::kDone) << stream.error();
    EXPECT_TRUE(m_media.matches(2000, readAll(stream).bytes));
}

TEST_F(InterruptibleStreamTest, HeldStreamGivesItsConnectionUpAndReadsOn)
{
    m_server.on("/a", Reply::resource(m_media, 5 * kSize));
    InterruptibleStream stream(m_server.url("/a"), patient());
    std::string bytes = readUpTo(stream, 5000).bytes;
    stream.hold(true);
    EXPECT_TRUE(m_server.waitForOpenConnections(0));
    bytes += readUpTo(stream, 2 * kSize).bytes; // a decoder that fills its queues
    stream.hold(true);
    EXPECT_TRUE(m_server.waitForOpenConnections(0));
    stream.hold(false);
    EXPECT_TRUE(m_server.waitForOpenConnections(1));
    bytes += readAll(stream).bytes;
    EXPECT_EQ(bytes.size(), 5 * kSize);
    EXPECT_TRUE(m_media.matches(0, bytes));
}

TEST_F(InterruptibleStreamTest, DatagramsComeOneByOneAndTheWaitForThemIsInterrupted)
{
    const std::string address = support::ownLoopbackAddress();
    const std::uint16_t port = support::UdpReceiver(address, 0).port();
    InterruptibleStream stream("udp://" + address + ":" + std::to_string(port), patient());
    ASSERT_EQ(stream.open(), Outcome::kDone);
    EXPECT_FALSE(stream.facts().byteSeekable);
    auto reading = inBackground([&] { return readSome(stream); });
    EXPECT_EQ(interrupted(stream, reading).outcome, Outcome::kInterrupted);
    const support::UdpSender sender(address, port);
    sender.send("first");
    sender.send("second");
    EXPECT_EQ(readSome(stream).bytes, "first");
    EXPECT_EQ(readSome(stream).bytes, "second");
}

TEST_F(InterruptibleStreamTest, FilesAreReadSoughtAndMissed)
{
    const support::TempDir folder;
    InterruptibleStream stream(folder.write("film", m_media.bytes(0, kSize)), patient());
    EXPECT_TRUE(m_media.matches(0, readUpTo(stream, 100'000).bytes));
    ASSERT_EQ(stream.seek(900'000), Outcome::kDone);
    const Piece rest = readAll(stream);
    EXPECT_EQ(rest.outcome, Outcome::kEnd);
    EXPECT_EQ(rest.bytes.size(), 100'000U);
    EXPECT_TRUE(m_media.matches(900'000, rest.bytes));
    InterruptibleStream none(folder.file("none"), patient());
    EXPECT_EQ(readSome(none).outcome, Outcome::kFailed);
    EXPECT_EQ(none.error(), -ENOENT);
}

// The system gives nothing, and cannot be called back.
TEST_F(InterruptibleStreamTest, FileThatHangsIsLeftBehind)
{
    const support::TempDir folder;
    const std::string path = folder.file("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), S_IRUSR | S_IWUSR), 0);
    const int writer = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(writer, 0);
    {
        InterruptibleStream stream(path, patient());
        auto reading = inBackground([&] { return readSome(stream); });
        EXPECT_EQ(interrupted(stream, reading).outcome, Outcome::kInterrupted);
    }
    EXPECT_EQ(write(writer, std::string(2 * kBlock, 'x').data(), 2 * kBlock),
              static_cast<ssize_t>(2 * kBlock));
    close(writer);
}

} // namespace
