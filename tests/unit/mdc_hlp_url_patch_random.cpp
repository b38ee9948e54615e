// Repair of random URLs against a second, slow implementation.
#include "mdc_hlp_url_patch.h"

#include "support/random.h"
#include "support/slow_url.h"
#include "support/trace_capture.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using support::Random;
using support::randomRounds;
using support::randomSeed;

namespace {

// A few bytes: plain, to be repaired, UTF-8, nearly UTF-8, or any.
std::string randomPiece(Random& random)
{
    static const std::vector<std::string> sequences{"\xc3\xa9",     "\xc2\x80",         "\xdf\xbf",
                                                    "\xe2\x82\xac", "\xed\xa0\x80",     "\xef\xbf\xbf",
                                                    "\xf0\x9f\x8e", "\xf4\xbf\xbf\xbf", "\xf0\x90\x80\x80"};
    const std::string& sequence = sequences[random.below(sequences.size())];
    switch (random.below(16)) {
    case 0:
        return std::string(1, random.byte());
    case 1:
        return sequence.substr(0, random.below(sequence.size()));
    case 2:
        return std::string(1, random.oneOf("\xc1\xc2\xe0\xf4\xf5\x80\xbf\xff"));
    case 3:
    case 4:
    case 5:
    case 6:
        return sequence;
    case 7:
    case 8:
        return std::string(1, random.oneOf(" \"{|}\x7f\x01\n"));
    default:
        return std::string(1, random.oneOf("abc/%:?&~!z"));
    }
}

std::string randomUrl(Random& random, std::size_t pieces)
{
    // Some are UTF-8 throughout, so that the assumption does not always break.
    const bool clean = random.below(3) == 0;
    std::string url;
    for (std::size_t i = 0; i < pieces; ++i) {
        const std::string piece = randomPiece(random);
        if (!clean || support::slowUtf8Length(piece, 0) == piece.size()) {
            url += piece;
        }
    }
    return url;
}

// A URL in which a limit, of input or of result, falls among pieces that need repair.
std::string randomLongUrl(Random& random)
{
    const std::string tail = randomUrl(random, 1 + random.below(30));
    const std::string head = random.below(2) == 0 ? randomUrl(random, random.below(20)) : "";
    const std::string repaired = support::slowUrlPatch(head + tail).text;
    const std::size_t ends[] = {8191 - std::min<std::size_t>(random.below(repaired.size() + 12), 8191),
                                8191 - head.size() - random.below(tail.size() + 4), 8191 / 6};
    const std::size_t filler = ends[random.below(3)];
    return head + std::string(filler, 'a') + tail + (random.below(2) == 0 ? randomUrl(random, 5000) : "");
}

std::string shown(const std::string& url)
{
    return "MDC_TEST_SEED=" + std::to_string(randomSeed()) + ", " + testing::PrintToString(url);
}

void compare(const std::string& url)
{
    const std::string expected = support::slowUrlPatch(url).text;
    const std::string result = md::urlPatch(url);
    ASSERT_EQ(result, expected) << shown(url);
    ASSERT_EQ(md::urlPatch(result), result) << "not the same when repaired again, " << shown(url);
}

} // namespace

TEST(UrlPatchRandom, repairsLikeTheSlowImplementation)
{
    Random random;
    const int rounds = randomRounds(1000000);
    for (int round = 0; round < rounds; ++round) {
        ASSERT_NO_FATAL_FAILURE(compare(randomUrl(random, random.below(12))));
    }
}

TEST(UrlPatchRandom, repairsLongUrlsLikeTheSlowImplementation)
{
    Random random;
    const int rounds = randomRounds(2000);
    for (int round = 0; round < rounds; ++round) {
        ASSERT_NO_FATAL_FAILURE(compare(randomLongUrl(random)));
    }
}

TEST(UrlPatchRandom, saysWhatTheSlowImplementationSays)
{
    Random random;
    support::TraceCapture traces;
    const int rounds = randomRounds(20000);
    for (int round = 0; round < rounds; ++round) {
        const std::string url =
            round % 200 == 0 ? randomLongUrl(random) : randomUrl(random, 1 + random.below(12));
        const support::SlowPatch expected = support::slowUrlPatch(url);
        traces.clear();
        md::urlPatch(url);
        std::vector<std::string> errors;
        for (const support::TraceCapture::Line& line : traces.lines()) {
            if ((line.level & 0xffffU) == 3000) {
                errors.push_back(line.text);
            }
        }
        ASSERT_EQ(errors, expected.errors) << shown(url);
        ASSERT_EQ(traces.has("urlPatch(): assume: " + expected.charset + "\n"), !expected.charset.empty())
            << shown(url);
        ASSERT_EQ(traces.has("urlPatch(): output: " + expected.text + "\n"), !expected.charset.empty())
            << shown(url);
    }
}

TEST(UrlPatchRandom, sequencesAreTheSlowImplementations)
{
    Random random;
    const int rounds = randomRounds(1000000);
    for (int round = 0; round < rounds; ++round) {
        std::string text;
        const std::size_t length = 1 + random.below(5);
        for (std::size_t i = 0; i < length; ++i) {
            text += random.below(2) == 0 ? random.byte() : random.oneOf("\x80\xbf\xc2\xe1\xf1");
        }
        const std::vector<unsigned char> bytes(text.begin(), text.end());
        ASSERT_EQ(static_cast<std::size_t>(md::validUtf8Char(bytes.data(), static_cast<int>(length) - 1)),
                  support::slowUtf8Length(text, 0))
            << shown(text);
    }
}
