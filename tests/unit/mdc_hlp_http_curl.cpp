// Descriptor, registry, wake-up pipe.

#include "mdc_hlp_http_curl.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_http_curl_engine.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using md::MdchCurlDescriptor_struct;
using support::HttpServer;
using support::Reply;
using support::TraceCapture;
using support::waitUntil;

md::MdchDescriptorPtr makeDescriptor(std::int32_t number)
{
    auto desc = boost::make_shared<MdchCurlDescriptor_struct>();
    desc->fd = number;
    return desc;
}

TEST(Descriptor, startsWithTheDocumentedValues)
{
    const MdchCurlDescriptor_struct desc;
    EXPECT_EQ(desc.url, "");
    EXPECT_EQ(desc.length, -11);
    EXPECT_EQ(desc.writePos, 0);
    EXPECT_EQ(desc.startPos, 0);
    EXPECT_EQ(desc.contentType, "");
    EXPECT_EQ(desc.dataTimeout, 330);
    EXPECT_EQ(desc.headerTimeout, 7);
    EXPECT_EQ(desc.done, 0);
    EXPECT_EQ(desc.error, 0);
    EXPECT_EQ(desc.paused, 0);
    EXPECT_EQ(desc.connected, 0);
    EXPECT_EQ(desc.inMulti, 0);
    EXPECT_EQ(desc.headerBlockEnded, 0);
    EXPECT_EQ(desc.headerComplete, 0);
    EXPECT_EQ(desc.easy, nullptr);
    EXPECT_EQ(desc.requestHeaders, nullptr);
    EXPECT_EQ(desc.http200Aliases, nullptr);
    EXPECT_EQ(desc.ringBuffer.usedBytes(), 0U);
    EXPECT_EQ(desc.backBuffer.usedBytes(), 0U);
    EXPECT_EQ(desc.userAgent, "");
    EXPECT_EQ(desc.receiveBufferSize, 196608);
    EXPECT_EQ(desc.receiveBufferMemory, nullptr);
    EXPECT_EQ(desc.backBufferMemory, nullptr);
    EXPECT_EQ(desc.lastDataTime, 0);
    EXPECT_TRUE(desc.selectWaiters.empty());
    EXPECT_EQ(desc.postData, nullptr);
    EXPECT_EQ(desc.postDataSize, 0);
    EXPECT_TRUE(desc.responseHeaders.empty());
    EXPECT_EQ(desc.state, 0);
    EXPECT_EQ(desc.cookies, "");
    EXPECT_TRUE(desc.requestHeaderLines.empty());
    EXPECT_EQ(desc.certificates, nullptr);
    EXPECT_EQ(desc.caPath, "");
    EXPECT_EQ(desc.clientCertificate, "");
    EXPECT_EQ(desc.keyPassword, "");
    EXPECT_FALSE(desc.headRequest);
    EXPECT_EQ(desc.followLocation, 1);
    EXPECT_EQ(desc.maxRedirects, 50);
    EXPECT_EQ(desc.capabilities, 0U);
    EXPECT_FALSE(desc.rebuildHeaders);
    EXPECT_STREQ(desc.rangeText, "");
    EXPECT_EQ(sizeof(desc.rangeText), 128U);
    EXPECT_FALSE(desc.forceRange);
    EXPECT_EQ(desc.dlnaTransferMode, 0);
    EXPECT_FALSE(desc.pauseBuffering);
    EXPECT_FALSE(desc.pausePending);
    EXPECT_FALSE(desc.closedInPause);
    EXPECT_EQ(desc.skipBytes, 0);
    EXPECT_EQ(desc.instanceLength, -1);
    EXPECT_EQ(desc.httpStatus, -1);
    EXPECT_TRUE(desc.verifyHost);
    EXPECT_FALSE(desc.acceptAfterDone);
}

TEST(Descriptor, hasARecursiveMutex)
{
    MdchCurlDescriptor_struct desc;
    EXPECT_EQ(pthread_mutex_lock(&desc.mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(&desc.mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&desc.mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&desc.mutex), 0);
}

TEST(ErrorCodes, followLibcurlsResults)
{
    const std::vector<std::pair<int, int>> expected = {
        {0, 0},    {60, 150}, {35, 151}, {5, 152},  {6, 152},  {7, 152},  {28, 152}, {47, 152},
        {55, 152}, {56, 152}, {18, 153}, {22, 153}, {61, 153}, {63, 153}, {1, 154},
    };
    for (int result = 0; result < CURL_LAST; ++result) {
        const auto named = std::find_if(expected.begin(), expected.end(),
                                        [result](const auto& pair) { return pair.first == result; });
        const int code = named != expected.end() ? named->second : 156;
        EXPECT_EQ(mdchHttpCurl_errorFromResult(static_cast<CURLcode>(result)), code)
            << "libcurl result " << result;
    }
}

TEST(Registry, findsWhatWasAdded)
{
    const auto desc = makeDescriptor(5001);
    mdchHttpCurl_addDescriptor(desc);
    EXPECT_EQ(mdchHttpCurl_getContext(5001), desc);
    md::unregisterDescriptor(*desc);
    TraceCapture trace(3000);
    EXPECT_EQ(mdchHttpCurl_getContext(5001), nullptr);
    EXPECT_EQ(trace.count("mdchHttpCurl_getContext(): requested unknown descriptor 5001\n"), 1U);
}

TEST(Registry, tracesALookupWhileEmpty)
{
    TraceCapture trace(3000);
    EXPECT_EQ(mdchHttpCurl_getContext(100), nullptr);
    EXPECT_EQ(trace.texts(),
              std::vector<std::string>{"mdchHttpCurl_getContext(): requested unknown descriptor 100\n"});
}

TEST(Registry, replacesADescriptorOfTheSameNumberWhichLivesOnWithItsReader)
{
    auto first = makeDescriptor(5002);
    first->url = "first";
    const auto second = makeDescriptor(5002);
    mdchHttpCurl_addDescriptor(first);
    mdchHttpCurl_addDescriptor(second);
    EXPECT_EQ(mdchHttpCurl_getContext(5002), second);
    EXPECT_EQ(first->url, "first");
    const boost::weak_ptr<MdchCurlDescriptor_struct> watched(first);
    first.reset();
    EXPECT_TRUE(watched.expired()) << "the registry kept the replaced one";
    md::unregisterDescriptor(*second);
}

TEST(Registry, unregisteringLeavesALaterOwnerOfTheNumberAlone)
{
    const auto first = makeDescriptor(5003);
    const auto second = makeDescriptor(5003);
    mdchHttpCurl_addDescriptor(first);
    mdchHttpCurl_addDescriptor(second);
    md::unregisterDescriptor(*first);
    EXPECT_EQ(mdchHttpCurl_getContext(5003), second);
    md::unregisterDescriptor(*second);
}

TEST(Registry, ignoresANullDescriptor)
{
    mdchHttpCurl_addDescriptor({});
    EXPECT_EQ(md::nextDescriptor(md::kBeforeAll), nullptr);
}

TEST(Wakeup, doesNothingWithoutAPipe)
{
    TraceCapture trace;
    mdchHttpCurl_wakeupWorkerThread();
    EXPECT_TRUE(trace.texts().empty());
}

TEST(Wakeup, writesOneLetterPerCall)
{
    mdchHttpCurl_initWakeup();
    mdchHttpCurl_wakeupWorkerThread();
    mdchHttpCurl_wakeupWorkerThread();
    char letters[8] = {};
    EXPECT_EQ(::read(md::httpEngine().wakeupPipe->readEnd(), letters, sizeof(letters)), 2);
    EXPECT_STREQ(letters, "aa");
    md::closeWakeup();
}

TEST(Wakeup, notesWhatTheWorkerIsToLookAt)
{
    mdchHttpCurl_initWakeup();
    const auto wakeFor = [](std::int32_t number) { mdchHttpCurl_wakeupWorkerFor(*makeDescriptor(number)); };
    const auto take = [] {
        const md::ChangedTransfers changed = md::takeWakeups(md::httpEngine().wakeupPipe->readEnd());
        return changed.isAll() ? std::vector<std::int32_t>{-1}
                               : std::vector<std::int32_t>(changed.begin(), changed.end());
    };
    wakeFor(7);
    wakeFor(5);
    wakeFor(7);
    EXPECT_EQ(take(), (std::vector<std::int32_t>{7, 5}));
    char letter = 0;
    EXPECT_EQ(::read(md::httpEngine().wakeupPipe->readEnd(), &letter, 1), -1) << "the pipe is empty";
    EXPECT_EQ(take(), std::vector<std::int32_t>{});
    wakeFor(7);
    mdchHttpCurl_wakeupWorkerThread();
    EXPECT_EQ(take(), std::vector<std::int32_t>{-1}) << "at all";
    EXPECT_EQ(take(), std::vector<std::int32_t>{});
    constexpr std::int32_t kMoreThanAreNoted = 1000;
    for (std::int32_t number = 0; number < kMoreThanAreNoted; ++number) {
        wakeFor(number);
    }
    EXPECT_EQ(take(), std::vector<std::int32_t>{-1}) << "none is forgotten";
    wakeFor(7);
    md::closeWakeup();
    wakeFor(8);
    mdchHttpCurl_initWakeup();
    EXPECT_EQ(take(), std::vector<std::int32_t>{})
        << "neither what an earlier engine was woken for, nor none";
    md::closeWakeup();
}

TEST(Wakeup, hasNonBlockingEndsThatAreClosedOnExec)
{
    mdchHttpCurl_initWakeup();
    for (const int end : {md::httpEngine().wakeupPipe->readEnd(), md::httpEngine().wakeupPipe->writeEnd()}) {
        EXPECT_NE(::fcntl(end, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_NE(::fcntl(end, F_GETFD) & FD_CLOEXEC, 0);
    }
    md::closeWakeup();
}

TEST(Wakeup, takesAFullPipeAsWoken)
{
    mdchHttpCurl_initWakeup();
    TraceCapture trace;
    constexpr int kMoreThanAPipeHolds = 70000;
    for (int i = 0; i < kMoreThanAPipeHolds; ++i) {
        mdchHttpCurl_wakeupWorkerThread();
    }
    EXPECT_TRUE(trace.texts().empty());
    md::closeWakeup();
}

TEST(Wakeup, tracesAPipeThatCannotBeMade)
{
    rlimit former{};
    getrlimit(RLIMIT_NOFILE, &former);
    const rlimit none{0, former.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    TraceCapture trace;
    mdchHttpCurl_initWakeup();
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_EQ(trace.texts(),
              std::vector<std::string>{
                  "mdchHttpCurl_initWakeup(): cannot create wakeup pipe: Too many open files\n"});
    EXPECT_EQ(trace.lines().front().level, 0x680000U | 3000U);
}

// A late wake-up must not write into whoever got the pipe's numbers.
TEST(Wakeup, afterAShutdownWritesIntoNobodysFile)
{
    {
        md::HttpAccess stream;
    }
    md::HttpAccess::shutdown();
    int ends[2] = {};
    ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    for (int i = 0; i < 10; ++i) {
        mdchHttpCurl_wakeupWorkerThread();
    }
    char letter = 0;
    EXPECT_EQ(::read(ends[0], &letter, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(Transfer, thatEndsWithoutALengthReportsMinusOne)
{
    HttpServer server;
    server.on("/live", Reply().closeDelimited().body("some bytes"));
    md::HttpAccess stream;
    const int number = stream.open(server.url("/live").c_str(), 0);
    EXPECT_EQ(mdchHttpCurl_getContext(number)->fd, number);
    unsigned char buffer[64];
    EXPECT_EQ(stream.read(buffer, sizeof(buffer)), 10);
    EXPECT_TRUE(waitUntil([&] { return stream.eof() == 1; }));
    EXPECT_EQ(stream.size(), -1);
}

TEST(Transfer, thatFailsBeforeAHeaderReportsMinusOne)
{
    HttpServer server;
    server.on("/gone", Reply::hangUp());
    md::HttpAccess stream;
    const int number = stream.open(server.url("/gone").c_str(), 0);
    EXPECT_EQ(stream.error(), 156);
    const auto desc = mdchHttpCurl_getContext(number);
    const MdpLock lock = md::lockDescriptor(*desc);
    EXPECT_EQ(desc->length, -1);
    EXPECT_EQ(desc->done, 1);
}

} // namespace
