// Encoding and decoding of random texts against a second, slow implementation.
#include "mdc_hlp_url_encode.h"

#include "support/random.h"
#include "support/slow_url.h"

#include <gtest/gtest.h>
#include <string>

using support::Random;
using support::randomRounds;
using support::randomSeed;

namespace {

std::string randomText(Random& random)
{
    static const std::string rich = "%%%%0123456789abcdefABCDEFgG /?@[]+&";
    std::string text = random.below(10) == 0 ? "nVl2:" : "";
    const std::size_t length = random.below(24);
    for (std::size_t i = 0; i < length; ++i) {
        text += random.below(3) == 0 ? random.byte() : random.oneOf(rich);
    }
    return text;
}

} // namespace

TEST(UrlEncodeRandom, encodesAndDecodesLikeTheSlowImplementation)
{
    Random random;
    const int rounds = randomRounds(1000000);
    for (int round = 0; round < rounds; ++round) {
        const std::string text = randomText(random);
        ASSERT_EQ(md::urlEncode(text), support::slowUrlEncode(text))
            << "MDC_TEST_SEED=" << randomSeed() << ", " << testing::PrintToString(text);
        ASSERT_EQ(md::urlDecode(text), support::slowUrlDecode(text))
            << "MDC_TEST_SEED=" << randomSeed() << ", " << testing::PrintToString(text);
    }
}

TEST(UrlEncodeRandom, decodingUndoesEncodingUpToTheFirstNul)
{
    Random random;
    const int rounds = randomRounds(200000);
    for (int round = 0; round < rounds; ++round) {
        const std::string text = "x" + support::upToNul(randomText(random)); // no media-volume URL
        ASSERT_EQ(md::urlDecode(md::urlEncode(text)), text)
            << "MDC_TEST_SEED=" << randomSeed() << ", " << testing::PrintToString(text);
    }
}
