// The handle interface on local files: numbers, forwarding, invalid handles.
#include "mdc_hlp_url.h"

#include "support/temp_dir.h"
#include "support/trace_capture.h"

#include <cerrno>
#include <climits>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

constexpr int kUnset = 7777; // an errno that nobody sets

// Every successful open of this program goes through here, so that the next number is known.
class Handles : public testing::Test
{
protected:
    static unsigned int open(const std::string& url, int mode = 0)
    {
        return expectNext(mdch_UrlOpen(url.c_str(), mode));
    }
    static unsigned int openExt(const std::string& url, int mode, mdch_UrlExtended_struct* ext)
    {
        return expectNext(mdch_UrlOpenExt(url.c_str(), mode, ext));
    }
    static unsigned int lastHandle() { return s_last; }

    static std::string readText(unsigned int handle, unsigned int size)
    {
        std::string text(size, '\0');
        const int count = mdch_UrlRead(handle, reinterpret_cast<unsigned char*>(text.data()), size);
        text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return text;
    }

    support::TempDir dir;

private:
    static unsigned int expectNext(unsigned int handle)
    {
        if (handle != 0) {
            EXPECT_EQ(handle, s_last + 1);
            s_last = handle;
        }
        return handle;
    }

    static inline unsigned int s_last = 0;
};

// What one function answers to a handle that does not exist.
struct InvalidAnswer
{
    const char* function;
    std::function<long long(unsigned int)> call;
    long long result;
    int error; // errno afterwards; kUnset: left alone
};

unsigned char g_byte = 'x';

const std::vector<InvalidAnswer>& invalidAnswers()
{
    static const std::vector<InvalidAnswer> answers{
        {"mdch_UrlClose", [](unsigned int h) { return mdch_UrlClose(h); }, -1, EBADF},
        {"mdch_UrlRead", [](unsigned int h) { return mdch_UrlRead(h, &g_byte, 1); }, 0, kUnset},
        {"mdch_UrlWrite", [](unsigned int h) { return mdch_UrlWrite(h, &g_byte, 1); }, 0, kUnset},
        {"mdch_UrlTell", [](unsigned int h) { return mdch_UrlTell(h); }, -1, EBADF},
        {"mdch_UrlSeek", [](unsigned int h) { return mdch_UrlSeek(h, 0, 0); }, -1, EBADF},
        {"mdch_UrlSeekTime", [](unsigned int h) { return mdch_UrlSeekTime(h, 0); }, -1, EBADF},
        {"mdch_UrlGetc", [](unsigned int h) { return mdch_UrlGetc(h); }, -1, kUnset},
        {"mdch_UrlEof", [](unsigned int h) { return mdch_UrlEof(h); }, 1, kUnset},
        {"mdch_UrlError", [](unsigned int h) { return mdch_UrlError(h); }, 1, kUnset},
        {"mdch_UrlClearerr", [](unsigned int h) { return mdch_UrlClearerr(h), 0; }, 0, kUnset},
        {"mdch_UrlSize", [](unsigned int h) { return mdch_UrlSize(h); }, -1, EBADF},
        {"mdch_UrlIsSeekable", [](unsigned int h) { return mdch_UrlIsSeekable(h); }, 0, EBADF},
        {"mdch_UrlCapability", [](unsigned int h) { return mdch_UrlCapability(h); }, 0, EBADF},
        {"mdch_UrlPause", [](unsigned int h) { return mdch_UrlPause(h); }, 1, kUnset},
        {"mdch_UrlResume", [](unsigned int h) { return mdch_UrlResume(h); }, 1, kUnset}};
    return answers;
}

std::string line(const std::string& function, const std::string& text)
{
    return "mdc_hlp_url.cpp:#:" + function + "(): " + text + "\n";
}

void expectInvalid(unsigned int handle, const std::string& asTraced)
{
    for (const InvalidAnswer& answer : invalidAnswers()) {
        const support::TraceCapture traces;
        errno = kUnset;
        const long long result = answer.call(handle);
        const int error = errno;
        EXPECT_EQ(result, answer.result) << answer.function;
        EXPECT_EQ(error, answer.error) << answer.function;
        const std::string called = line(answer.function, "Called.");
        const std::string invalid = line(answer.function, "Invalid handle " + asTraced + ".");
        ASSERT_EQ(traces.lines().size(), 2U) << answer.function;
        EXPECT_EQ(support::TraceCapture::withoutLineNumber(traces.texts()[0]), called);
        EXPECT_EQ(support::TraceCapture::withoutLineNumber(traces.texts()[1]), invalid);
        EXPECT_EQ(traces.severityOf(called), 5000U);
        EXPECT_EQ(traces.severityOf(invalid), 3000U);
    }
    // The same without anybody who listens to the traces.
    for (const InvalidAnswer& answer : invalidAnswers()) {
        errno = kUnset;
        const long long result = answer.call(handle);
        const int error = errno;
        EXPECT_EQ(result, answer.result) << answer.function;
        EXPECT_EQ(error, answer.error) << answer.function;
    }
}

} // namespace

TEST_F(Handles, countFromOneAndAreNeverReused)
{
    const std::string path = dir.write("a", "hello");
    const unsigned int before = lastHandle(); // 0 in a process of its own
    const unsigned int first = open(path);
    EXPECT_EQ(first, before + 1);
    const unsigned int second = open(path);
    EXPECT_EQ(second, before + 2);
    EXPECT_EQ(mdch_UrlClose(first), 0);
    const unsigned int third = open(path);
    EXPECT_EQ(third, before + 3);
    EXPECT_EQ(mdch_UrlClose(third), 0);
    EXPECT_EQ(mdch_UrlClose(second), 0);
    EXPECT_EQ(mdch_UrlClose(open(path)), 0);
}

TEST_F(Handles, aFailedOpenGivesZeroAndTakesNoNumber)
{
    const std::string path = dir.write("a", "hello");
    const unsigned int first = open(path);
    EXPECT_EQ(open(dir.file("missing")), 0U);
    EXPECT_EQ(open(path, 2), 0U);
    EXPECT_EQ(openExt("", 0, nullptr), 0U);
    EXPECT_EQ(mdch_UrlOpen(nullptr, 0), 0U);
    const unsigned int second = open(path);
    EXPECT_EQ(second, first + 1);
    mdch_UrlClose(first);
    mdch_UrlClose(second);
}

TEST_F(Handles, theRecordTellsWhyAnOpenFailed)
{
    mdch_UrlExtended_struct ext{};
    EXPECT_EQ(openExt(dir.file("missing"), 0, &ext), 0U);
    EXPECT_EQ(ext.error, -2);
    EXPECT_EQ(openExt(dir.file("missing"), 5, &ext), 0U);
    EXPECT_EQ(ext.error, -1);
    EXPECT_EQ(openExt(dir.file("missing"), 0, nullptr), 0U);
}

TEST_F(Handles, zeroIsInvalid)
{
    expectInvalid(0, "0");
}

TEST_F(Handles, numbersThatWereNeverGivenAreInvalid)
{
    expectInvalid(lastHandle() + 1000, std::to_string(lastHandle() + 1000));
    expectInvalid(UINT_MAX, "-1");
}

TEST_F(Handles, aClosedHandleIsInvalid)
{
    const unsigned int handle = open(dir.write("a", "hello"));
    ASSERT_EQ(mdch_UrlClose(handle), 0);
    expectInvalid(handle, std::to_string(handle));
}

TEST_F(Handles, closingTwiceGivesMinusOneWithEbadf)
{
    const unsigned int handle = open(dir.write("a", "hello"));
    EXPECT_EQ(mdch_UrlClose(handle), 0);
    errno = kUnset;
    EXPECT_EQ(mdch_UrlClose(handle), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Handles, readingOperationsReachTheirStream)
{
    const unsigned int handle = open(dir.write("a", "0123456789"));
    EXPECT_EQ(mdch_UrlSize(handle), 10);
    EXPECT_EQ(mdch_UrlIsSeekable(handle), 1);
    EXPECT_EQ(mdch_UrlCapability(handle), 5U);
    EXPECT_EQ(readText(handle, 4), "0123");
    EXPECT_EQ(mdch_UrlTell(handle), 4);
    EXPECT_EQ(mdch_UrlGetc(handle), '4');
    EXPECT_EQ(mdch_UrlSeek(handle, -1, 2), 0);
    EXPECT_EQ(mdch_UrlTell(handle), 9);
    EXPECT_EQ(mdch_UrlGetc(handle), '9');
    EXPECT_EQ(mdch_UrlEof(handle), 0);
    EXPECT_EQ(mdch_UrlGetc(handle), -1);
    EXPECT_NE(mdch_UrlEof(handle), 0);
    mdch_UrlClearerr(handle);
    EXPECT_EQ(mdch_UrlEof(handle), 0);
    EXPECT_EQ(mdch_UrlError(handle), 0);
    EXPECT_EQ(mdch_UrlPause(handle), 0);
    EXPECT_EQ(mdch_UrlResume(handle), 0);
    EXPECT_EQ(mdch_UrlWrite(handle, &g_byte, 1), 0);
    EXPECT_NE(mdch_UrlError(handle), 0);
    EXPECT_EQ(mdch_UrlClose(handle), 0);
}

TEST_F(Handles, writingReachesTheStream)
{
    const std::string path = dir.file("new");
    const unsigned int handle = open("file://" + path, 1);
    unsigned char text[] = {'n', 'e', 'w'};
    EXPECT_EQ(mdch_UrlWrite(handle, text, 3), 3);
    EXPECT_EQ(mdch_UrlTell(handle), 3);
    EXPECT_EQ(mdch_UrlClose(handle), 0);
    std::string content;
    std::getline(std::ifstream(path), content);
    EXPECT_EQ(content, "new");
}

TEST_F(Handles, positionsBeyond32BitsPass)
{
    const unsigned int handle = open(dir.file("sparse"), 1);
    EXPECT_EQ(mdch_UrlSeek(handle, 5LL << 32, 0), 0);
    EXPECT_EQ(mdch_UrlTell(handle), 5LL << 32);
    EXPECT_EQ(mdch_UrlWrite(handle, &g_byte, 1), 1);
    EXPECT_EQ(mdch_UrlSeek(handle, 0, 1), 0);
    EXPECT_EQ(mdch_UrlSize(handle), (5LL << 32) + 1);
    EXPECT_EQ(mdch_UrlClose(handle), 0);
}

TEST_F(Handles, handlesAreIndependent)
{
    const std::string path = dir.write("a", "hello");
    const unsigned int one = open(path);
    const unsigned int another = open(path);
    EXPECT_EQ(readText(one, 5), "hello");
    EXPECT_EQ(mdch_UrlTell(another), 0);
    EXPECT_EQ(mdch_UrlClose(one), 0);
    EXPECT_EQ(readText(another, 5), "hello");
    EXPECT_EQ(mdch_UrlClose(another), 0);
}

TEST_F(Handles, aFailedSeekIsMinusOneAndTracedAndErrnoStays)
{
    const unsigned int handle = open(dir.write("a", "hello"));
    const std::string expected = line("mdch_UrlSeek", "return -1 instead of -1.");
    {
        const support::TraceCapture traces;
        errno = kUnset;
        EXPECT_EQ(mdch_UrlSeek(handle, 0, 3), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(traces.count(expected), 1U);
        EXPECT_EQ(traces.severityOf(expected), 5000U);
    }
    {
        const support::TraceCapture traces;
        EXPECT_EQ(mdch_UrlSeek(handle, 2, 0), 0);
        EXPECT_FALSE(traces.hasAnywhere("instead of"));
    }
    mdch_UrlClose(handle);
}

TEST_F(Handles, timeSeekOnAFileIsMinusOneAndTraced)
{
    const unsigned int handle = open(dir.write("a", "hello"));
    const support::TraceCapture traces;
    EXPECT_EQ(mdch_UrlSeekTime(handle, 0), -1);
    const std::string expected = line("mdch_UrlSeekTime", "return -1 instead of -1.");
    EXPECT_EQ(traces.count(expected), 1U);
    EXPECT_EQ(traces.severityOf(expected), 5000U);
    mdch_UrlClose(handle);
}

TEST_F(Handles, closeReturnsTheStreamsResultAndGivesTheHandleUpAllTheSame)
{
    const unsigned int handle = open("/dev/full", 1);
    ASSERT_NE(handle, 0U);
    EXPECT_EQ(mdch_UrlWrite(handle, &g_byte, 1), 1);
    errno = kUnset;
    EXPECT_EQ(mdch_UrlClose(handle), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(mdch_UrlEof(handle), 1);
    errno = kUnset;
    EXPECT_EQ(mdch_UrlClose(handle), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Handles, everyFunctionTracesItsCallOnce)
{
    const unsigned int handle = open(dir.write("a", "hello"));
    for (const InvalidAnswer& answer : invalidAnswers()) {
        if (std::string(answer.function) == "mdch_UrlClose") {
            continue;
        }
        const support::TraceCapture traces;
        answer.call(handle);
        EXPECT_EQ(traces.count(line(answer.function, "Called.")), 1U) << answer.function;
        EXPECT_FALSE(traces.hasAnywhere("Invalid handle"));
    }
    const support::TraceCapture traces;
    mdch_UrlClose(handle);
    EXPECT_EQ(traces.count(line("mdch_UrlClose", "Called.")), 1U);
}

TEST_F(Handles, openTracesItsCallAndThatOfTheExtendedForm)
{
    const std::string path = dir.write("a", "hello");
    const support::TraceCapture traces;
    mdch_UrlClose(open(path));
    EXPECT_EQ(traces.count(line("mdch_UrlOpen", "Called.")), 1U);
    EXPECT_EQ(traces.count(line("mdch_UrlOpenExt", "Called.")), 1U);
    EXPECT_EQ(support::TraceCapture::withoutLineNumber(traces.texts().at(0)),
              line("mdch_UrlOpen", "Called."));
    mdch_UrlClose(openExt(path, 0, nullptr));
    EXPECT_EQ(traces.count(line("mdch_UrlOpen", "Called.")), 1U);
    EXPECT_EQ(traces.count(line("mdch_UrlOpenExt", "Called.")), 2U);
}

TEST_F(Handles, aFailedOpenReleasesItsStream)
{
    const support::TraceCapture traces;
    EXPECT_EQ(open(dir.file("missing")), 0U);
    EXPECT_EQ(traces.count("MdchUrlFile::~MdchUrlFile()\n"), 1U);
}

TEST_F(Handles, closeDestroysTheStream)
{
    const unsigned int handle = open(dir.write("a", "hello"));
    const support::TraceCapture traces;
    mdch_UrlClose(handle);
    EXPECT_EQ(traces.count("MdchUrlFile::close() in\n"), 1U);
    EXPECT_EQ(traces.count("MdchUrlFile::~MdchUrlFile()\n"), 1U);
}
