// Random radio streams against the slow implementation: every read size, every piece in which a stream may come.
#include "mdc_hlp_icy.h"

#include "support/random_radio.h"
#include "support/rounds.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using support::below;
using support::icyBlock;
using support::icyTitleBlock;
using support::Listener;
using support::Random;
using support::ScriptedStream;
using support::SlowIcy;
using support::slowIcy;

// Every size; an eleventh of them where each takes long.
constexpr unsigned int kSizeStep = support::randomRounds(10) < 10 ? 11 : 1;

class RandomRadio : public testing::TestWithParam<int>
{
protected:
    // Printed with every failure; a number in its place runs the same streams again.
    const unsigned int m_seed = std::random_device{}();
    Random m_random{m_seed};
    testing::ScopedTrace m_trace{__FILE__, __LINE__, "seed " + std::to_string(m_seed)};
};

void hear(const std::string& bytes, int interval, std::vector<unsigned int> pieces,
          const std::function<unsigned int()>& nextSize)
{
    const auto stream = boost::make_shared<ScriptedStream>(bytes, std::move(pieces));
    md::IcyReader radio(stream, interval);
    Listener(radio, *stream, nextSize).listen(slowIcy(bytes, interval));
}

} // namespace

TEST_P(RandomRadio, isTheSlowReadersForEveryReadSize)
{
    const std::string bytes = support::randomRadio(m_random, GetParam());
    const SlowIcy expected = slowIcy(bytes, GetParam());
    for (unsigned int size = 1; size <= 400 && !HasFailure(); size += kSizeStep) {
        const testing::ScopedTrace trace(__FILE__, __LINE__, "read size " + std::to_string(size));
        const auto stream = boost::make_shared<ScriptedStream>(bytes);
        md::IcyReader radio(stream, GetParam());
        Listener(radio, *stream, [size] { return size; }).listen(expected);
    }
}

TEST_P(RandomRadio, isTheSlowReadersForMixedReadSizesAndPieces)
{
    for (int round = 0; round < support::randomRounds(100) && !HasFailure(); ++round) {
        const testing::ScopedTrace trace(__FILE__, __LINE__, "round " + std::to_string(round));
        std::vector<unsigned int> pieces(1 + below(m_random, 50));
        const unsigned int largest = below(m_random, 2) == 0 ? 20 : 5000;
        for (unsigned int& piece : pieces) {
            piece = below(m_random, 4) == 0 ? 0 : 1 + below(m_random, largest);
        }
        pieces.push_back(1); // something comes in the end
        const unsigned int most = below(m_random, 2) == 0 ? 70 : 70000;
        hear(support::randomRadio(m_random, GetParam()), GetParam(), pieces,
             [this, most] { return 1 + below(m_random, most); });
    }
}

INSTANTIATE_TEST_SUITE_P(Intervals, RandomRadio,
                         testing::Values(0, 1, 2, 3, 15, 16, 17, 255, 256, 1000, 8192, 16000),
                         testing::PrintToStringParamName());

TEST(ShortReads, atEveryByteLoseNothing)
{
    const std::string bytes = "abcd" + icyTitleBlock("Don't; stop") + "efgh" + icyBlock("") + "ijkl" +
                              icyBlock("StreamTitle='Two';StreamUrl='http://two/';") + "mnop" + icyBlock("");
    const SlowIcy expected = slowIcy(bytes, 4);
    ASSERT_EQ(expected.audio, "abcdefghijklmnop");
    ASSERT_EQ(expected.changes.size(), 2U);
    const auto length = static_cast<unsigned int>(bytes.size());
    for (unsigned int cut = 1; cut < length; ++cut) {
        for (const unsigned int size : {1U, 3U, 4U, 5U, 100U}) {
            const testing::ScopedTrace trace(
                __FILE__, __LINE__, "piece " + std::to_string(cut) + ", reads of " + std::to_string(size));
            // The stream has so many bytes at first, and more only after a read got nothing.
            const auto stream = boost::make_shared<ScriptedStream>(bytes.substr(0, cut));
            md::IcyReader radio(stream, 4);
            Listener listener(radio, *stream, [size] { return size; });
            listener.listen(slowIcy(bytes.substr(0, cut), 4));
            stream->append(bytes.substr(cut));
            listener.listen(expected);
            // All pieces of that size, with and without pauses between them.
            hear(bytes, 4, {cut}, [size] { return size; });
            hear(bytes, 4, {cut, 0}, [size] { return size; });
        }
    }
}

TEST(EndOfTheStream, atEveryByteGivesTheAudioBeforeIt)
{
    const std::string bytes = "abcd" + icyTitleBlock("One") + "efgh" + icyBlock("") + "ijkl" +
                              icyBlock("StreamTitle='Two';StreamUrl='http://two/';") + "mnop";
    for (std::size_t end = 0; end <= bytes.size(); ++end) {
        for (const unsigned int size : {1U, 4U, 7U, 100U}) {
            hear(bytes.substr(0, end), 4, {}, [size] { return size; });
        }
    }
}

TEST(LyingLengthBytes, areTakenAtTheirWord)
{
    const std::string text = "StreamTitle='One';";
    for (int units = 0; units < 256; ++units) {
        std::string bytes = "abcd" + std::string(1, static_cast<char>(units)) + text;
        for (int i = 0; i < 1000; ++i) {
            bytes += "efgh" + icyBlock("");
        }
        for (const unsigned int size : {1U, 4U, 64U, 10000U}) {
            hear(bytes, 4, {}, [size] { return size; });
        }
    }
}
