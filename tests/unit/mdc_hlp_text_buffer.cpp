// The rules by which the C functions on texts use their caller's buffer, the same for all of them.
#include "mdc_hlp_text_buffer.h"

#include "mdc_hlp_url_encode.h"
#include "mdc_hlp_url_patch.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <vector>

namespace {

struct Row
{
    const char* name;
    int (*function)(const char*, char*, int);
    const char* input;
    const char* result;
};

void PrintTo(const Row& row, std::ostream* out)
{
    *out << row.name;
}

// A buffer that shows every byte written to it, or beside it.
class GuardedBuffer
{
public:
    explicit GuardedBuffer(std::size_t size) : m_bytes(size + 2 * kGuard, kMark), m_size(size) {}

    char* data() { return m_bytes.data() + kGuard; }
    bool isUntouched() const { return isMarked(0, m_bytes.size()); }

    // Whether it holds the text and its NUL, and nothing else was written.
    bool holdsJust(const std::string& text) const
    {
        const std::size_t end = kGuard + text.size() + 1;
        return text.size() < m_size && text == m_bytes.data() + kGuard && isMarked(0, kGuard) &&
               isMarked(end, m_bytes.size());
    }

private:
    static constexpr std::size_t kGuard = 32;
    static constexpr char kMark = '\x5a';

    bool isMarked(std::size_t first, std::size_t end) const
    {
        return std::all_of(m_bytes.begin() + static_cast<std::ptrdiff_t>(first),
                           m_bytes.begin() + static_cast<std::ptrdiff_t>(end),
                           [](char byte) { return byte == kMark; });
    }

    std::vector<char> m_bytes;
    std::size_t m_size;
};

class TextForC : public testing::TestWithParam<Row>
{
protected:
    int call(const char* input, char* buffer, int size) const
    {
        return GetParam().function(input, buffer, size);
    }
    std::string result() const { return GetParam().result; }
    int length() const { return static_cast<int>(result().size()); }
};

TEST_P(TextForC, nullPointersAreRefusedAndNothingIsWritten)
{
    GuardedBuffer buffer(100);
    EXPECT_EQ(call(nullptr, buffer.data(), 100), -22);
    EXPECT_TRUE(buffer.isUntouched());
    EXPECT_EQ(call(GetParam().input, nullptr, 100), -22);
    EXPECT_EQ(call(GetParam().input, nullptr, 0), -22);
    EXPECT_EQ(call(nullptr, nullptr, 100), -22);
    EXPECT_EQ(call(nullptr, buffer.data(), 0), -22);
}

TEST_P(TextForC, aResultThatFitsWithItsNulIsCopied)
{
    for (const int size : {length() + 1, length() + 2, length() + 100}) {
        GuardedBuffer buffer(static_cast<std::size_t>(size));
        EXPECT_EQ(call(GetParam().input, buffer.data(), size), 0);
        EXPECT_TRUE(buffer.holdsJust(result())) << size;
    }
    GuardedBuffer buffer(static_cast<std::size_t>(length()) + 1);
    EXPECT_EQ(call(GetParam().input, buffer.data(), INT_MAX), 0);
    EXPECT_TRUE(buffer.holdsJust(result()));
}

TEST_P(TextForC, aResultThatDoesNotFitWithItsNulLeavesTheBufferUntouched)
{
    for (int size = -3; size <= length(); ++size) {
        GuardedBuffer buffer(100);
        EXPECT_EQ(call(GetParam().input, buffer.data(), size), -12) << size;
        EXPECT_TRUE(buffer.isUntouched()) << size;
    }
    GuardedBuffer buffer(100);
    EXPECT_EQ(call(GetParam().input, buffer.data(), INT_MIN), -12);
    EXPECT_TRUE(buffer.isUntouched());
}

TEST_P(TextForC, theEmptyTextNeedsRoomForItsNul)
{
    GuardedBuffer none(0);
    EXPECT_EQ(call("", none.data(), 0), -12);
    EXPECT_TRUE(none.isUntouched());
    GuardedBuffer one(1);
    EXPECT_EQ(call("", one.data(), 1), 0);
    EXPECT_TRUE(one.holdsJust(""));
}

TEST_P(TextForC, inputAndBufferMayBeTheSameMemory)
{
    std::array<char, 100> text{};
    std::snprintf(text.data(), text.size(), "%s", GetParam().input);
    EXPECT_EQ(call(text.data(), text.data(), 100), 0);
    EXPECT_STREQ(text.data(), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
    AllFunctions, TextForC,
    testing::Values(Row{"urlEncode", mdc_httphelper_urlEncode, "http://u@h/a b", "http://u%40h/a%20b"},
                    Row{"urlDecode", mdc_httphelper_urlDecode, "a%41%zz%20b", "aA%zz b"},
                    Row{"urlPatch", mdc_httphelper_urlPatch, "http://h/a b\xe9", "http://h/a%20b%C3%A9"}),
    [](const testing::TestParamInfo<Row>& row) { return std::string(row.param.name); });

TEST(TextBuffer, onlyTheTextUpToItsFirstNulHasToFit)
{
    GuardedBuffer buffer(3);
    EXPECT_EQ(md::copyToBuffer(std::string("ab\0cdef", 7), buffer.data(), 3), 0);
    EXPECT_TRUE(buffer.holdsJust("ab"));
}

} // namespace
