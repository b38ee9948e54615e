// Debug output: what passes, where it goes, and that it arrives whole.
#include "mdp_debug.h"

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr unsigned int kModule = 0x68U << 16U;

// The state that the library starts with comes back at the end of every test.
class DebugOutput : public testing::Test
{
protected:
    ~DebugOutput() override
    {
        mdpDebugSetSeverity(1000);
        mdpDebugSetSink(nullptr, nullptr);
    }

    using Line = std::pair<unsigned int, std::string>;

    static void store(void* context, unsigned int level, const char* text)
    {
        static_cast<std::vector<Line>*>(context)->emplace_back(level, text);
    }

    void captureAll()
    {
        mdpDebugSetSink(store, &lines);
        mdpDebugSetSeverity(5000);
    }

    std::vector<Line> lines;
};

std::string numbersOf(std::size_t length)
{
    std::string text;
    for (std::size_t i = 0; i < length; ++i) {
        text += static_cast<char>('0' + i % 10);
    }
    return text;
}

} // namespace

TEST_F(DebugOutput, severityIs1000AtTheStart)
{
    EXPECT_EQ(mdpDebugCheck(1000), 1);
    EXPECT_EQ(mdpDebugCheck(1001), 0);
    EXPECT_EQ(mdpDebugCheck(3000), 0);
}

TEST_F(DebugOutput, aLinePassesWhenItsSeverityIsAtMostTheOneThatIsSet)
{
    for (const unsigned int severity : {1U, 1000U, 3000U, 4000U, 5000U, 65535U}) {
        mdpDebugSetSeverity(severity);
        EXPECT_EQ(mdpDebugCheck(severity - 1), 1) << severity;
        EXPECT_EQ(mdpDebugCheck(severity), 1) << severity;
        EXPECT_EQ(mdpDebugCheck(severity + 1), severity == 65535U ? 1 : 0) << severity;
    }
}

TEST_F(DebugOutput, onlyTheLow16BitsOfALevelAreItsSeverity)
{
    mdpDebugSetSeverity(3000);
    EXPECT_EQ(mdpDebugCheck(kModule | 3000U), 1);
    EXPECT_EQ(mdpDebugCheck(kModule | 3001U), 0);
    EXPECT_EQ(mdpDebugCheck(0xffff0000U | 3000U), 1);
    EXPECT_EQ(mdpDebugCheck(0xffff0000U | 3001U), 0);
}

TEST_F(DebugOutput, severityZeroIsSilence)
{
    captureAll();
    mdpDebugSetSeverity(0);
    for (const unsigned int level : {0U, kModule, 1U, 1000U, kModule | 1000U}) {
        EXPECT_EQ(mdpDebugCheck(level), 0) << level;
        mdpDebugPrintf(level, "no\n");
        mdpDebugHexDump(level, "no", 2);
    }
    EXPECT_TRUE(lines.empty());
}

TEST_F(DebugOutput, printfHandsLevelAndFormattedTextToTheSink)
{
    captureAll();
    mdpDebugPrintf(kModule | 3000U, "%s:%d:%s(): %lld %c %5.2f %%\n", "a.cpp", 12, "f", -5000000000LL, 'x',
                   1.5);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0], Line(kModule | 3000U, "a.cpp:12:f(): -5000000000 x  1.50 %\n"));
}

TEST_F(DebugOutput, aLineThatDoesNotPassNeverReachesTheSink)
{
    captureAll();
    mdpDebugSetSeverity(3000);
    mdpDebugPrintf(kModule | 3001U, "no\n");
    mdpDebugHexDump(kModule | 3001U, "no", 2);
    EXPECT_TRUE(lines.empty());
    mdpDebugPrintf(kModule | 3000U, "yes\n");
    EXPECT_EQ(lines.size(), 1U);
}

TEST_F(DebugOutput, textOfAnyLengthArrivesWhole)
{
    captureAll();
    for (const std::size_t length : {0U, 1U, 1022U, 1023U, 1024U, 1025U, 100000U}) {
        lines.clear();
        const std::string text = numbersOf(length);
        mdpDebugPrintf(1000, "%s|%d", text.c_str(), 7);
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].second, text + "|7") << "length " << length;
    }
}

TEST_F(DebugOutput, withoutASinkLinesGoToStandardError)
{
    testing::internal::CaptureStderr();
    mdpDebugPrintf(1000, "first %d\n", 1);
    mdpDebugPrintf(1001, "does not pass\n");
    captureAll();
    mdpDebugPrintf(1000, "to the sink\n");
    mdpDebugSetSink(nullptr, &lines);
    mdpDebugPrintf(1000, "second\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "first 1\nsecond\n");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].second, "to the sink\n");
}

TEST_F(DebugOutput, hexDumpWritesLinesOf16BytesInHexadecimalAndAscii)
{
    captureAll();
    const std::string data("GET / HTTP/1.1\r\n\0\x7f\xff~ ", 21);
    mdpDebugHexDump(kModule | 5000U, data.data(), data.size());
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0], Line(kModule | 5000U, "00000000  47 45 54 20 2f 20 48 54 54 50 2f 31 2e 31 0d 0a"
                                              "  |GET / HTTP/1.1..|\n"));
    EXPECT_EQ(lines[1], Line(kModule | 5000U, "00000010  00 7f ff 7e 20                                 "
                                              "  |...~ |\n"));
}

TEST_F(DebugOutput, hexDumpOfNothingWritesNothing)
{
    captureAll();
    mdpDebugHexDump(1000, nullptr, 16);
    mdpDebugHexDump(1000, "x", 0);
    EXPECT_TRUE(lines.empty());
}

TEST_F(DebugOutput, hexDumpOfExactly16BytesIsOneLine)
{
    captureAll();
    mdpDebugHexDump(1000, "0123456789abcdef", 16);
    EXPECT_EQ(lines.size(), 1U);
    mdpDebugHexDump(1000, "0123456789abcdef0", 17);
    EXPECT_EQ(lines.size(), 3U);
}

TEST_F(DebugOutput, aSinkMayTraceItself)
{
    static int depth = 0;
    depth = 0;
    const auto nested = [](void* context, unsigned int level, const char* text) {
        store(context, level, text);
        if (depth++ == 0) {
            mdpDebugPrintf(1000, "inner\n");
        }
    };
    mdpDebugSetSink(nested, &lines);
    mdpDebugPrintf(1000, "outer\n");
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].second, "outer\n");
    EXPECT_EQ(lines[1].second, "inner\n");
}

TEST_F(DebugOutput, callsOfTheSinkAreSerialised)
{
    constexpr int kThreads = 4;
    constexpr int kLines = 2000;
    struct Inside
    {
        std::atomic<int> now{0};
        std::atomic<bool> together{false};
        int total = 0; // plain on purpose: a sink needs no lock of its own
    } inside;
    mdpDebugSetSink(
        [](void* context, unsigned int, const char*) {
            auto& state = *static_cast<Inside*>(context);
            if (++state.now != 1) {
                state.together = true;
            }
            std::this_thread::yield(); // a chance for another to come in
            ++state.total;
            --state.now;
        },
        &inside);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            for (int line = 0; line < kLines; ++line) {
                mdpDebugPrintf(1000, "line %d\n", line);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    mdpDebugSetSink(nullptr, nullptr);
    EXPECT_FALSE(inside.together);
    EXPECT_EQ(inside.total, kThreads * kLines);
}

TEST_F(DebugOutput, theFormerSinkIsNotCalledAnyMoreWhenSetSinkReturns)
{
    std::atomic<bool> stop{false};
    std::atomic<long> calls{0};
    struct Context
    {
        std::atomic<long>* calls;
        bool alive = true;
    };
    const auto sink = [](void* context, unsigned int, const char*) {
        auto* own = static_cast<Context*>(context);
        // A context that was freed meanwhile shows as false here, and under the address sanitizer.
        *own->calls += own->alive ? 1 : 1000000000L;
    };
    mdpDebugSetSeverity(5000);
    auto current = std::make_unique<Context>(Context{&calls});
    mdpDebugSetSink(sink, current.get());
    std::thread tracer([&stop] {
        while (!stop) {
            mdpDebugPrintf(4000, "running\n");
        }
    });
    for (int i = 0; i < 1000; ++i) {
        auto next = std::make_unique<Context>(Context{&calls});
        mdpDebugSetSink(sink, next.get());
        current->alive = false;
        current = std::move(next);
    }
    stop = true;
    tracer.join();
    EXPECT_LT(calls, 1000000000L);
}

TEST_F(DebugOutput, linesOfOneHexDumpStayTogether)
{
    captureAll();
    constexpr std::size_t kDumps = 100;
    constexpr std::size_t kLinesEach = 64; // many, so that there are chances to come in between
    const auto dump = [](char fill) {
        const std::string data(16 * kLinesEach, fill);
        for (std::size_t i = 0; i < kDumps; ++i) {
            mdpDebugHexDump(5000, data.data(), data.size());
        }
    };
    std::thread other(dump, 'a');
    dump('b');
    other.join();
    mdpDebugSetSink(nullptr, nullptr);
    ASSERT_EQ(lines.size(), 2 * kDumps * kLinesEach);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string& first = lines[i - i % kLinesEach].second;
        char offset[16] = {};
        std::snprintf(offset, sizeof(offset), "%08zx", i % kLinesEach * 16);
        ASSERT_EQ(lines[i].second, offset + first.substr(8)) << "line " << i;
    }
}

TEST_F(DebugOutput, severityMayChangeWhileOthersTrace)
{
    captureAll();
    std::atomic<bool> stop{false};
    std::thread changer([&stop] {
        while (!stop) {
            mdpDebugSetSeverity(0);
            mdpDebugSetSeverity(5000);
        }
    });
    for (int i = 0; i < 20000; ++i) {
        mdpDebugPrintf(4000, "%d\n", i);
    }
    stop = true;
    changer.join();
    mdpDebugSetSink(nullptr, nullptr);
    int last = -1;
    for (const Line& line : lines) {
        const int number = std::stoi(line.second);
        ASSERT_GT(number, last) << "a line came twice or out of order";
        last = number;
    }
}
