// The process-wide User-Agent of the handle interface.
#include "mdc_hlp_url.h"

#include "support/trace_capture.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

// An allocation that fails is a result, not the end of the program.
extern "C" {
const char* __asan_default_options();
const char* __tsan_default_options();
const char* __asan_default_options()
{
    return "allocator_may_return_null=1";
}
const char* __tsan_default_options()
{
    return "allocator_may_return_null=1";
}
}

namespace {

std::string line(const std::string& function, const std::string& text)
{
    return "mdc_hlp_url.cpp:#:" + function + "(): " + text + "\n";
}

// Starts without a text, as a process does, and frees what the test has set.
class UserAgent : public testing::Test
{
protected:
    UserAgent() { userAgent = nullptr; }
    ~UserAgent() override
    {
        std::free(userAgent);
        userAgent = nullptr;
        for (char* text : replaced) {
            std::free(text);
        }
    }

    static int init(const char* text)
    {
        const mdch_UrlInit_struct record{text};
        return mdch_UrlInit(&record);
    }

    std::vector<char*> replaced; // texts that a later call took the place of
};

// Leaves the process room for so many more bytes.
class AddressSpaceLimit
{
public:
    explicit AddressSpaceLimit(std::size_t more)
    {
        std::size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        EXPECT_EQ(getrlimit(RLIMIT_AS, &m_former), 0);
        rlimit limit = m_former;
        limit.rlim_cur = pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) + more;
        EXPECT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
    }
    ~AddressSpaceLimit() { EXPECT_EQ(setrlimit(RLIMIT_AS, &m_former), 0); }
    AddressSpaceLimit(const AddressSpaceLimit&) = delete;
    AddressSpaceLimit& operator=(const AddressSpaceLimit&) = delete;

private:
    rlimit m_former{};
};

} // namespace

TEST_F(UserAgent, isAnEmptyTextBeforeInit)
{
    const support::TraceCapture traces;
    const char* text = mdch_getUserAgent();
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "");
    const std::string expected =
        line("mdch_getUserAgent", "user agent string not set, returning empty string");
    EXPECT_EQ(traces.count(line("mdch_getUserAgent", "Called.")), 1U);
    EXPECT_EQ(traces.count(expected), 1U);
    EXPECT_EQ(traces.severityOf(expected), 3000U);
    EXPECT_EQ(mdch_getUserAgent(), text) << "one static text";
}

TEST_F(UserAgent, initWithoutARecordChangesNothing)
{
    EXPECT_EQ(mdch_UrlInit(nullptr), 0);
    EXPECT_EQ(userAgent, nullptr);
    ASSERT_EQ(init("Player/1"), 0);
    const char* before = userAgent;
    EXPECT_EQ(mdch_UrlInit(nullptr), 0);
    EXPECT_EQ(userAgent, before);
    EXPECT_STREQ(mdch_getUserAgent(), "Player/1");
}

TEST_F(UserAgent, initWithoutATextIsInvalid)
{
    const support::TraceCapture traces;
    EXPECT_EQ(init(nullptr), -EINVAL);
    EXPECT_EQ(userAgent, nullptr);
    const std::string expected = line("mdch_UrlInit", "missing user agent string");
    EXPECT_EQ(traces.count(expected), 1U);
    EXPECT_EQ(traces.severityOf(expected), 3000U);
    EXPECT_EQ(traces.count(line("mdch_UrlInit", "Called.")), 1U);
    EXPECT_EQ(traces.severityOf(line("mdch_UrlInit", "Called.")), 5000U);

    ASSERT_EQ(init("Player/1"), 0);
    EXPECT_EQ(init(nullptr), -EINVAL);
    EXPECT_STREQ(mdch_getUserAgent(), "Player/1") << "the former text stays";
}

TEST_F(UserAgent, initStoresACopy)
{
    char text[] = "Player/1";
    ASSERT_EQ(init(text), 0);
    text[0] = 'X';
    const support::TraceCapture traces;
    EXPECT_STREQ(mdch_getUserAgent(), "Player/1");
    EXPECT_EQ(mdch_getUserAgent(), userAgent);
    EXPECT_NE(userAgent, text);
    EXPECT_EQ(traces.lines().size(), 2U) << "two calls, no failure";
}

TEST_F(UserAgent, anEmptyTextIsAText)
{
    ASSERT_EQ(init(""), 0);
    EXPECT_NE(userAgent, nullptr);
    const support::TraceCapture traces;
    EXPECT_STREQ(mdch_getUserAgent(), "");
    EXPECT_FALSE(traces.hasAnywhere("not set"));
}

TEST_F(UserAgent, aSecondInitReplacesThePointerAndKeepsTheFormerText)
{
    ASSERT_EQ(init("Player/1"), 0);
    replaced.push_back(userAgent);
    ASSERT_EQ(init("Another player, version 2"), 0);
    EXPECT_STREQ(mdch_getUserAgent(), "Another player, version 2");
    EXPECT_STREQ(replaced[0], "Player/1") << "a stream may still be using it";
}

TEST_F(UserAgent, aLongTextIsKeptWhole)
{
    const std::string text(100000, 'a');
    ASSERT_EQ(init(text.c_str()), 0);
    EXPECT_EQ(mdch_getUserAgent(), text);
}

TEST_F(UserAgent, initWithoutMemoryFailsAndLeavesNoText)
{
    ASSERT_EQ(init("Player/1"), 0);
    replaced.push_back(userAgent);
    constexpr std::size_t kLength = std::size_t{64} << 20U;
    const std::string text(kLength, 'a');
    const support::TraceCapture traces;
    int result = 0;
    {
        const AddressSpaceLimit limit(kLength / 4);
        result = init(text.c_str());
    }
    EXPECT_EQ(result, -ENOMEM);
    EXPECT_EQ(userAgent, nullptr);
    const std::string expected = line("mdch_UrlInit", "Failed to alloc 67108865 bytes for user agent");
    EXPECT_EQ(traces.count(expected), 1U);
    EXPECT_EQ(traces.severityOf(expected), 3000U);
    EXPECT_STREQ(mdch_getUserAgent(), "");
}
