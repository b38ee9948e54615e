// Memory of the URL text functions: how much is taken, and what becomes of them when there is none.
#include "mdc_hlp_url_encode.h"
#include "mdc_hlp_url_patch.h"

#include "support/own_allocator.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

std::string repeated(const std::string& text, std::size_t count)
{
    std::string result;
    for (std::size_t i = 0; i < count; ++i) {
        result += text;
    }
    return result;
}

} // namespace

TEST(UrlTextMemory, repairAllocatesTheResultAndNothingElse)
{
    const std::array<std::string, 4> urls{repeated("\xc3\xa9", 1000), repeated("\xc3\xa9 ", 500) + "\xe9",
                                          repeated(" ", 3000), std::string(5000, 'a')};
    for (const std::string& url : urls) {
        const std::size_t before = support::allocationCount();
        const std::string result = md::urlPatch(url);
        EXPECT_EQ(support::allocationCount() - before, 1U) << url.substr(0, 10);
        EXPECT_GE(result.size(), url.size());
    }
    const std::size_t before = support::allocationCount();
    const std::string small = md::urlPatch("a b");
    EXPECT_EQ(support::allocationCount() - before, 0U) << "a small string has memory of its own";
    EXPECT_EQ(small, "a%20b");
}

TEST(UrlTextMemory, wantOfMemoryIsAResultOfTheCFunctionsNotAnException)
{
    for (const auto function :
         {mdc_httphelper_urlEncode, mdc_httphelper_urlDecode, mdc_httphelper_urlPatch}) {
        const std::string input = std::string(1000, 'a') + " %41";
        std::vector<char> buffer(10000, 'x');
        int returned = 0;
        {
            const support::ScarceMemory none;
            returned = function(input.c_str(), buffer.data(), 10000);
        }
        EXPECT_EQ(returned, -12);
        EXPECT_TRUE(std::all_of(buffer.begin(), buffer.end(), [](char byte) { return byte == 'x'; }));
        EXPECT_EQ(function(input.c_str(), buffer.data(), 10000), 0);
    }
}
