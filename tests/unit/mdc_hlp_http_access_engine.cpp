// Shutdown, exit, dlclose, fork: streams that outlive their engine.

#include "mdc_hlp_http_access.h"

#include "mdc_hlp_url.h"
#include "support/certificates.h"
#include "support/engine.h"
#include "support/http_server.h"
#include "support/trace_capture.h"

#include <atomic>
#include <cstdlib>
#include <dlfcn.h>
#include <future>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using md::HttpAccess;
using support::At;
using support::HttpServer;
using support::inspect;
using support::Reply;
using support::TraceCapture;

class Shutdown : public testing::Test
{
protected:
    support::EngineStopped m_stopped;
    HttpServer m_server;

    int open(HttpAccess& stream, const std::string& path) const
    {
        return stream.open(m_server.url(path).c_str(), 0);
    }
};

TEST_F(Shutdown, releasesAReaderThatWaitsForData)
{
    m_server.on("/", Reply().body("abc").contentLength(9).stall(At::body(3)));
    TraceCapture trace;
    HttpAccess stream;
    open(stream, "/");
    auto reader = std::async(std::launch::async, [&stream] { return support::readSome(stream, 9); });
    ASSERT_TRUE(trace.waitFor("read(): wait for data on fd 100 (bufSize = 0; missing = 6\n"));
    HttpAccess::shutdown();
    EXPECT_EQ(reader.get(), "abc");
}

TEST_F(Shutdown, releasesAThreadThatWaitsForTheHeader)
{
    m_server.on("/", Reply::silence());
    TraceCapture trace;
    HttpAccess stream;
    stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 1000);
    open(stream, "/");
    auto waiter = std::async(std::launch::async, [&stream] { return stream.size(); });
    ASSERT_TRUE(trace.waitFor("waitForHeader(): wait for header on fd 100\n"));
    HttpAccess::shutdown();
    waiter.get();
}

TEST_F(Shutdown, releasesASelectWithoutTimeout)
{
    m_server.on("/", Reply::silence());
    HttpAccess stream;
    const int number = open(stream, "/");
    auto waiter = std::async(std::launch::async, [number] {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(number, &set);
        return HttpAccess::select(number + 1, &set, nullptr, nullptr, nullptr);
    });
    ASSERT_TRUE(support::waitForDescriptor(number, [](auto& desc) { return !desc.selectWaiters.empty(); }));
    HttpAccess::shutdown();
    EXPECT_EQ(waiter.get(), 1);
}

TEST_F(Shutdown, closesAllConnectionsAndEmptiesTheRegistry)
{
    m_server.on("/", Reply::endless());
    HttpAccess first;
    HttpAccess second;
    open(first, "/");
    open(second, "/");
    EXPECT_EQ(support::readSome(first, 10).size(), 10U);
    EXPECT_EQ(support::readSome(second, 10).size(), 10U);
    HttpAccess::shutdown();
    EXPECT_EQ(support::registeredCount(), 0U);
    EXPECT_TRUE(m_server.waitForOpenConnections(0));
}

// Numbers start over: the outlived stream and the new one share theirs.
TEST_F(Shutdown, keepsAnOutlivedStreamAwayFromTheNewOneOfItsNumber)
{
    m_server.on("/old", Reply::endless());
    m_server.on("/new", Reply().body("new bytes"));
    HttpAccess outlived;
    ASSERT_EQ(open(outlived, "/old"), 100);
    HttpAccess::shutdown();
    HttpAccess fresh;
    ASSERT_EQ(open(fresh, "/new"), 100);

    unsigned char byte = 0;
    std::deque<std::string> lines;
    EXPECT_EQ(outlived.read(&byte, 1), 0);
    EXPECT_EQ(outlived.seek(5, 0), 0);
    EXPECT_EQ(outlived.seekTime(5), 0);
    EXPECT_EQ(outlived.tell(), 0);
    EXPECT_EQ(outlived.eof(), 0);
    EXPECT_EQ(outlived.error(), 0);
    EXPECT_EQ(outlived.pause(), -EINVAL);
    EXPECT_EQ(outlived.resume(), -EINVAL);
    EXPECT_EQ(outlived.getHeaderList(lines), 0);
    EXPECT_EQ(outlived.getResponseCode(), -ENOSYS);
    EXPECT_EQ(outlived.fcntl(MDCH_FCNTL_NONBLOCKING), -EINVAL);
    EXPECT_EQ(outlived.fcntl(MDCH_FCNTL_FORCE_RANGE), -ENOSYS);
    outlived.setHeaderLine("X-Stray: 1");
    outlived.setCookie("stray=1");
    outlived.clearerr();
    EXPECT_EQ(outlived.close(), -EINVAL);

    EXPECT_EQ(support::readAll(fresh), "new bytes");
    EXPECT_EQ(fresh.error(), 0);
    EXPECT_TRUE(inspect(100, [](auto& desc) { return desc.requestHeaderLines.empty(); }));
}

TEST_F(Shutdown, canBeFollowedByNewStreamsManyTimes)
{
    m_server.on("/", Reply().body("again"));
    constexpr int kTimes = 50;
    for (int i = 0; i < kTimes; ++i) {
        HttpAccess stream;
        ASSERT_EQ(open(stream, "/"), 100);
        ASSERT_EQ(support::readAll(stream), "again");
        HttpAccess::shutdown();
    }
}

TEST_F(Shutdown, racesWithStreamsThatOpenReadAndClose)
{
    m_server.on("/", Reply().body("short"));
    constexpr int kStreams = 200;
    std::atomic<int> streams{0};
    std::vector<std::thread> users;
    for (int i = 0; i < 4; ++i) {
        users.emplace_back([this, &streams] {
            while (streams++ < kStreams) {
                HttpAccess stream;
                stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT, 1);
                open(stream, "/");
                const std::string bytes = support::readAll(stream);
                EXPECT_TRUE(bytes == "short" || bytes.empty()) << bytes;
            }
        });
    }
    while (streams < kStreams) {
        HttpAccess::shutdown();
        std::this_thread::yield();
    }
    for (std::thread& user : users) {
        user.join();
    }
    HttpAccess::shutdown();
    EXPECT_EQ(support::registeredCount(), 0U);
}

// --- The process ends ---

class ProcessEnd : public testing::Test
{
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// Made before the first stream, so that it dies when the engine has been stopped by the exit.
struct LateObjects
{
    explicit LateObjects(support::Tls tls) : server(std::move(tls)) {}
    ~LateObjects()
    {
        for (std::thread& reader : readers) {
            reader.join();
        }
    }
    LateObjects(const LateObjects&) = delete;
    LateObjects& operator=(const LateObjects&) = delete;

    HttpServer server;
    std::vector<std::unique_ptr<HttpAccess>> streams;
    std::vector<std::thread> readers;
    std::atomic<int> blocks{0}; // that the readers have got
};

[[noreturn]] void exitWhileStreaming()
{
    static LateObjects late{support::Tls()};
    late.server.on("/", Reply::endless());
    constexpr int kStreams = 8;
    for (int i = 0; i < kStreams; ++i) {
        late.streams.push_back(std::make_unique<HttpAccess>());
        HttpAccess& stream = *late.streams.back();
        stream.setVerifyHost(false);
        stream.fcntl(MDCH_FCNTL_HEADER_TIMEOUT,
                     100); // a slow processor takes long for a handshake beside the others
        stream.open(late.server.url("/").c_str(), 0);
        if (support::readSome(stream, 1000).size() != 1000) {
            std::_Exit(2);
        }
    }
    // Readers that keep the worker busy while the process ends. Not before all streams are open: on a slow processor
    // they would leave the later ones no time for their handshake.
    for (const auto& stream : late.streams) {
        late.readers.emplace_back([&stream = *stream] {
            std::vector<unsigned char> buffer(32768);
            while (stream.read(buffer.data(), 32768) > 0) {
                ++late.blocks;
            }
        });
    }
    if (!support::waitUntil([] { return late.blocks >= kStreams; })) {
        std::_Exit(3);
    }
    std::exit(0);
}

TEST_F(ProcessEnd, withStreamsThatAreReadDoesNotCrash)
{
    EXPECT_EXIT(exitWhileStreaming(), testing::ExitedWithCode(0), "");
}

[[noreturn]] void exitInForkedChild()
{
    auto* server = new HttpServer;
    server->on("/", Reply::endless());
    HttpAccess stream;
    stream.open(server->url("/").c_str(), 0);
    if (support::readSome(stream, 10).size() != 10) {
        std::_Exit(2);
    }
    const pid_t child = fork();
    if (child == 0) {
        execl("/bin/true", "true", static_cast<char*>(nullptr));
        std::_Exit(3);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0) {
        std::_Exit(4);
    }
    // The parent's stream has not noticed anything.
    std::_Exit(support::readSome(stream, 100000).size() == 100000 ? 0 : 5);
}

TEST_F(ProcessEnd, ofAChildThatExecsDoesNotTouchTheParentsStream)
{
    EXPECT_EXIT(exitInForkedChild(), testing::ExitedWithCode(0), "");
}

[[noreturn]] void exitAfterFork()
{
    auto* server = new HttpServer;
    server->on("/", Reply::silence());
    auto* stream = new HttpAccess;
    stream->open(server->url("/").c_str(), 0);
    const pid_t child = fork();
    if (child == 0) {
        std::exit(0); // runs the exit handlers, without a worker to wait for
    }
    int status = 0;
    const bool ended = support::waitUntil([&] { return waitpid(child, &status, WNOHANG) == child; });
    std::_Exit(ended && status == 0 ? 0 : 6);
}

TEST_F(ProcessEnd, ofAForkedChildDoesNotWaitForAWorker)
{
#if defined(MDC_SANITIZED_ADDRESS)
    setenv("LSAN_OPTIONS", "detect_leaks=0",
           1); // the child's exit counts the parent's threads' memory as lost
#endif
    EXPECT_EXIT(exitAfterFork(), testing::ExitedWithCode(0), "");
}

template <class Function>
Function* symbol(void* library, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(library, name));
}

[[noreturn]] void unloadWhileStreaming()
{
    auto* server = new HttpServer;
    server->on("/", Reply::endless());
    void* library = dlopen(MDC_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::_Exit(2);
    }
    auto* openUrl = symbol<unsigned int(const char*, int)>(library, "mdch_UrlOpen");
    auto* readUrl = symbol<int(unsigned int, unsigned char*, unsigned int)>(library, "mdch_UrlRead");
    if (openUrl == nullptr || readUrl == nullptr) {
        std::_Exit(3);
    }
    const unsigned int handle = openUrl(server->url("/").c_str(), 0);
    unsigned char buffer[1000];
    if (handle == 0 || readUrl(handle, buffer, sizeof(buffer)) != sizeof(buffer)) {
        std::_Exit(4);
    }
    const std::uint64_t before = server->bodyBytesSent("/");
    dlclose(library);
    // The worker still runs: it takes what the server sends until the buffer is full, and then rests.
    std::_Exit(server->waitForBodyBytes("/", std::max<std::uint64_t>(before, 100000)) ? 0 : 5);
}

TEST_F(ProcessEnd, dlcloseWithAStreamOpenDoesNotCrash)
{
    EXPECT_EXIT(unloadWhileStreaming(), testing::ExitedWithCode(0), "");
}

} // namespace
