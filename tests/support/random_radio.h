/*
 * Random radio streams for tests of md::IcyReader, and a listener that holds what it hears against the slow
 * implementation.
 */
#ifndef SUPPORT_RANDOM_RADIO_H
#define SUPPORT_RANDOM_RADIO_H

#include "mdc_hlp_icy.h"
#include "support/scripted_stream.h"
#include "support/slow_icy.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace support {

using Random = std::mt19937;

inline unsigned int below(Random& random, unsigned int limit)
{
    return static_cast<unsigned int>(random() % limit);
}

inline std::string randomBytes(Random& random, std::size_t count)
{
    std::string bytes(count, '\0');
    std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<char>(random()); });
    return bytes;
}

// Texts of blocks: pieces of right ones in any order, so that right, odd and broken ones come out.
inline std::string randomBlockText(Random& random)
{
    static const std::array<std::string, 24> kPieces = {"StreamTitle='",
                                                        "StreamUrl='",
                                                        "streamtitle='",
                                                        "StreamUrl=",
                                                        "';",
                                                        "';",
                                                        "';",
                                                        "'",
                                                        ";",
                                                        "=",
                                                        " ",
                                                        "adw_ad='",
                                                        "key=",
                                                        "Artist - Title",
                                                        "Don't",
                                                        "http://radio.example/a?b=1;c=2",
                                                        "\xc3\xa9",
                                                        "\xe9",
                                                        "\xe2\x80\x99",
                                                        "\xed\xa0\x80",
                                                        "\xc0\xaf",
                                                        "\x1b[2J\t\x7f",
                                                        "\r\n",
                                                        std::string(1, '\0')};
    std::string text;
    for (unsigned int count = below(random, 12); count > 0; --count) {
        text += kPieces[below(random, kPieces.size())];
    }
    return text;
}

inline std::string randomBlock(Random& random)
{
    switch (below(random, 8)) {
    case 0: // says more or less than is meant: what follows is taken for text, or the other way round
        return static_cast<char>(below(random, 4)) + randomBlockText(random);
    case 1:
        return icyBlock(randomBytes(random, below(random, 100)));
    case 2:
        return icyTitleBlock(std::string(below(random, 4100), 'x') + randomBlockText(random));
    case 3:
        return icyTitleBlock("Artist " + std::to_string(below(random, 3)));
    case 4:
    case 5:
        return icyBlock(randomBlockText(random));
    default:
        return icyBlock("");
    }
}

// Audio with random blocks; ends anywhere.
inline std::string randomRadio(Random& random, int interval)
{
    const unsigned int blocks = interval < 100 ? 200 : 4;
    std::string bytes;
    for (unsigned int i = 0; i < blocks; ++i) {
        bytes += randomBytes(random, static_cast<std::size_t>(interval)) + randomBlock(random);
    }
    bytes.resize(bytes.size() -
                 below(random, static_cast<unsigned int>(std::min<std::size_t>(bytes.size(), 500))));
    return bytes;
}

/* Reads a radio to the end of what its stream has, and compares it with what the slow implementation heard. */
class Listener
{
public:
    Listener(md::IcyReader& radio, ScriptedStream& stream, std::function<unsigned int()> nextSize)
        : m_radio(radio), m_stream(stream), m_nextSize(std::move(nextSize))
    {
    }

    void listen(const SlowIcy& expected)
    {
        m_expected = expected;
        while (step() || m_stream.eof() == 0) {
            if (testing::Test::HasFailure()) {
                return;
            }
        }
        EXPECT_TRUE(m_audio == expected.audio) << m_audio.size() << " bytes, not " << expected.audio.size();
        EXPECT_EQ(m_changes, expected.changes.size());
    }

private:
    static constexpr std::size_t kMostChanges = 64;

    // One read; false when it gave nothing.
    bool step()
    {
        constexpr unsigned char kMark = 0x5a;
        const unsigned int size = m_nextSize();
        std::vector<unsigned char> buffer(size + 1, kMark);
        const int result = m_radio.read(buffer.data(), size);
        EXPECT_GE(result, 0);
        EXPECT_LE(result, static_cast<int>(size));
        EXPECT_EQ(buffer.back(), kMark);
        m_audio.append(buffer.begin(), buffer.begin() + result);
        EXPECT_EQ(m_radio.tell(), static_cast<long long>(m_audio.size()));
        checkTitles();
        return result > 0;
    }

    void checkTitles()
    {
        const std::vector<md::IcyTitle> taken = m_radio.takeChanges();
        EXPECT_LE(taken.size(), kMostChanges);
        if (taken.size() == kMostChanges) { // earlier ones were dropped
            while (m_changes < m_expected.changes.size() &&
                   m_expected.changes[m_changes].position < taken.front().position) {
                ++m_changes;
            }
        }
        for (const md::IcyTitle& change : taken) {
            ASSERT_LT(m_changes, m_expected.changes.size());
            const SlowIcyChange& expected = m_expected.changes[m_changes++];
            EXPECT_EQ(change.position, expected.position);
            EXPECT_EQ(change.title, expected.title);
            EXPECT_EQ(change.url, expected.url);
        }
        // What stands behind the position must be unknown, what stands before it known.
        EXPECT_TRUE(m_changes == 0 || m_expected.changes[m_changes - 1].position <= m_radio.tell());
        EXPECT_TRUE(m_changes == m_expected.changes.size() ||
                    m_expected.changes[m_changes].position >= m_radio.tell());
        EXPECT_EQ(m_radio.title(), m_changes > 0 ? m_expected.changes[m_changes - 1].title : "");
        EXPECT_EQ(m_radio.url(), m_changes > 0 ? m_expected.changes[m_changes - 1].url : "");
    }

    md::IcyReader& m_radio;
    ScriptedStream& m_stream;
    std::function<unsigned int()> m_nextSize;
    SlowIcy m_expected;
    std::string m_audio;
    std::size_t m_changes = 0; // seen so far
};

} // namespace support

#endif
