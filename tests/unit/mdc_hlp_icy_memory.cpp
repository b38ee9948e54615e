// A title for which there is no memory: it is lost, the audio is not.
#include "mdc_hlp_icy.h"

#include "mdp_debug.h"
#include "support/own_allocator.h"
#include "support/scripted_stream.h"
#include "support/slow_icy.h"

#include <array>
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using support::icyBlock;

const std::string kFirst = "Artist - a title beyond any small text";
const std::string kSecond = "Another artist - another title beyond any small text";
const std::string kUrl = "http://radio.example/a/url/beyond/any/small/text";

TEST(WithoutMemory, aTitleIsLostAndTheAudioGoesOn)
{
    const std::string bytes =
        "abcd" + icyBlock("StreamTitle='" + kFirst + "';StreamUrl='" + kUrl + "';") + "efgh" +
        icyBlock("StreamTitle='" + kSecond + "\xe9';StreamUrl='" + kUrl + "';") + "ijkl";
    bool failed = true;
    std::size_t allocations = 0;
    for (; failed; ++allocations) {
        const auto stream = boost::make_shared<support::ScriptedStream>(bytes);
        stream->reserveRequests(16);
        md::IcyReader radio(stream, 4);
        std::array<unsigned char, 16> buffer{};
        ASSERT_EQ(radio.read(buffer.data(), 5), 5);
        ASSERT_EQ(radio.title(), kFirst);
        int count = 0;
        {
            const support::ScarceMemory scarce(allocations);
            count = radio.read(buffer.data() + 5, 11);
            failed = scarce.wasMissed();
        }
        EXPECT_EQ(count, 7);
        EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + 12), "abcdefghijkl");
        EXPECT_EQ(radio.tell(), 12);
        const std::vector<md::IcyTitle> changes = radio.takeChanges();
        EXPECT_EQ(changes.size(), failed ? 1U : 2U);
        EXPECT_EQ(changes.back().title, radio.title()) << "allocation " << allocations << " failed";
        EXPECT_EQ(radio.title(), failed ? kFirst : kSecond + "\xc3\xa9");
        EXPECT_EQ(radio.url(), kUrl);
    }
    EXPECT_GT(allocations, 5U) << "nothing ever failed";
}

TEST(WithoutMemory, theLossIsTraced)
{
    const auto stream =
        boost::make_shared<support::ScriptedStream>("a" + icyBlock("StreamTitle='" + kFirst + "';") + "b");
    stream->reserveRequests(16);
    md::IcyReader radio(stream, 1);
    unsigned int level = 0;
    mdpDebugSetSink(
        [](void* seen, unsigned int code, const char*) { *static_cast<unsigned int*>(seen) = code; }, &level);
    mdpDebugSetSeverity(3000);
    std::array<unsigned char, 2> buffer{};
    int count = 0;
    {
        const support::ScarceMemory none;
        count = radio.read(buffer.data(), 2);
    }
    mdpDebugSetSeverity(1000);
    mdpDebugSetSink(nullptr, nullptr);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(level & 0xffffU, 3000U);
    EXPECT_EQ(radio.title(), "");
}

} // namespace
