// Radio streams taken apart, against the slow implementation. The input is
//
//   INTERVAL , SIZE , PIECE LF BYTES
//
// the interval, the size of the first read, the most that the stream gives at once, all decimal; a line feed ends
// them (so that seeds can be read) and begins the stream. Numbers that are not there are 0; a stream piece of 0 has
// no limit. Read sizes go on from the first in a fixed way, and a stream with a limit gives nothing now and then.
#include "harness.h"
#include "mdc_hlp_icy.h"
#include "mdc_hlp_icy_block.h"
#include "support/scripted_stream.h"
#include "support/slow_icy.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr unsigned int kLargestRead = 5000;
constexpr std::size_t kMostChanges = 64;

struct Input
{
    int interval = 0;
    unsigned int size = 0;
    unsigned int piece = 0;
    std::string bytes;
};

// Takes a number, and the character behind it.
unsigned int takeNumber(std::string& text)
{
    constexpr unsigned int kMost = 99999;
    unsigned int value = 0;
    std::size_t at = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        value = std::min(value * 10 + static_cast<unsigned int>(text[at] - '0'), kMost);
    }
    text.erase(0, at + 1);
    return value;
}

Input parse(const std::string& text)
{
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string line = text.substr(0, end);
    Input input;
    input.interval = static_cast<int>(takeNumber(line));
    input.size = takeNumber(line);
    input.piece = takeNumber(line);
    input.bytes = text.substr(std::min(end + 1, text.size()));
    return input;
}

// Holds a reader to what the slow implementation heard.
class Pair
{
public:
    explicit Pair(const Input& input)
        : m_input(input), m_expected(support::slowIcy(input.bytes, input.interval)),
          m_stream(boost::make_shared<support::ScriptedStream>(input.bytes, pieces(input.piece))),
          m_reader(m_stream, input.interval)
    {
    }

    void run()
    {
        unsigned int size = 1 + m_input.size % kLargestRead;
        while (read(size) || m_stream->eof() == 0) {
            size = 1 + (size * 7 + m_input.size) % (1 + m_input.size % kLargestRead);
        }
        fuzz::require(m_heard == m_expected.audio.size(), "all of the audio, and nothing else");
        fuzz::require(m_next == m_expected.changes.size(), "all changes");
    }

private:
    static std::vector<unsigned int> pieces(unsigned int most)
    {
        return most > 0 ? std::vector<unsigned int>{most, 1, 0, most} : std::vector<unsigned int>{};
    }

    bool read(unsigned int size)
    {
        // A block of exactly that size on the heap, so that a sanitizer sees a byte too many.
        const std::unique_ptr<unsigned char[]> buffer(new unsigned char[size]);
        const int count = m_reader.read(buffer.get(), size);
        fuzz::require(count >= 0 && static_cast<unsigned int>(count) <= size, "as much as was asked for");
        const std::string piece(buffer.get(), buffer.get() + count);
        fuzz::require(m_expected.audio.compare(m_heard, piece.size(), piece) == 0, "the audio in its order");
        m_heard += piece.size();
        fuzz::require(m_reader.tell() == static_cast<long long>(m_heard), "a position in the audio");
        fuzz::require(m_input.piece > 0 || static_cast<unsigned int>(count) == size || m_stream->eof() != 0,
                      "all that was asked for while the stream gives all");
        compareTitles();
        return count > 0;
    }

    void compareTitles()
    {
        const std::vector<md::IcyTitle> taken = m_reader.takeChanges();
        fuzz::require(taken.size() <= kMostChanges, "a list that does not grow");
        if (taken.size() == kMostChanges) { // older ones were dropped
            while (m_next < m_expected.changes.size() &&
                   m_expected.changes[m_next].position < taken.front().position) {
                ++m_next;
            }
        }
        for (const md::IcyTitle& change : taken) {
            fuzz::require(m_next < m_expected.changes.size(), "no change that is none");
            const support::SlowIcyChange& expected = m_expected.changes[m_next++];
            fuzz::require(change.position == expected.position, "a change stands where it belongs");
            fuzz::require(change.title == expected.title && change.url == expected.url,
                          "titles and URLs as the slow implementation reads them");
            checkText(change.title);
            checkText(change.url);
        }
        const long long position = m_reader.tell();
        fuzz::require(m_next == 0 || m_expected.changes[m_next - 1].position <= position,
                      "no title before its audio");
        fuzz::require(m_next == m_expected.changes.size() || m_expected.changes[m_next].position >= position,
                      "no title behind its audio");
        const support::SlowIcyChange none{0, "", ""};
        const support::SlowIcyChange& now = m_next > 0 ? m_expected.changes[m_next - 1] : none;
        fuzz::require(m_reader.title() == now.title && m_reader.url() == now.url,
                      "the title of the position");
    }

    static void checkText(const std::string& text)
    {
        fuzz::require(support::slowIsUtf8(text), "UTF-8");
        fuzz::require(std::none_of(text.begin(), text.end(),
                                   [](char character) {
                                       const auto byte = static_cast<unsigned char>(character);
                                       return byte < 0x20 || byte == 0x7f;
                                   }),
                      "no control characters");
    }

    const Input& m_input;
    support::SlowIcy m_expected;
    boost::shared_ptr<support::ScriptedStream> m_stream;
    md::IcyReader m_reader;
    std::size_t m_heard = 0; // bytes of audio
    std::size_t m_next = 0;  // of the expected changes
};

// The bytes as one block, of any length.
void checkBlock(const std::string& text)
{
    const std::vector<char> bytes(text.begin(), text.end()); // exact size and no NUL behind it
    const md::IcyFields fields = md::parseIcyBlock({bytes.data(), bytes.size()});
    const support::SlowIcyFields expected = support::slowIcyFields(text);
    fuzz::require(fields.title.has_value() == expected.hasTitle && fields.url.has_value() == expected.hasUrl,
                  "the values of a block");
    fuzz::require(fields.title.value_or("") == expected.title && fields.url.value_or("") == expected.url,
                  "a block as the slow implementation reads it");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const fuzz::TracesFormatted traces;
    const Input input = parse(fuzz::textOf(data, size));
    Pair(input).run();
    checkBlock(input.bytes);
    return 0;
}
