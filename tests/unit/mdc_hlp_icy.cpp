// Audio and titles taken apart: what a player relies on. Random streams stand in mdc_hlp_icy_random.cpp.
#include "mdc_hlp_icy.h"
#include "mdc_hlp_icy_impl.h"

#include "support/scripted_stream.h"
#include "support/slow_icy.h"
#include "support/trace_capture.h"

#include <array>
#include <boost/make_shared.hpp>
#include <cerrno>
#include <chrono>
#include <climits>
#include <gtest/gtest.h>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using support::icyBlock;
using support::icyTitleBlock;
using support::ScriptedStream;

using StreamPtr = boost::shared_ptr<ScriptedStream>;

StreamPtr streamOf(const std::string& bytes, std::vector<unsigned int> pieces = {})
{
    return boost::make_shared<ScriptedStream>(bytes, std::move(pieces));
}

template <class Reader>
std::string readText(Reader& radio, unsigned int size)
{
    std::string bytes(size, '?');
    const int count = radio.read(reinterpret_cast<unsigned char*>(bytes.data()), size);
    EXPECT_GE(count, 0);
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
}

void expectChange(const md::IcyTitle& change, long long position, const std::string& title,
                  const std::string& url = "")
{
    EXPECT_EQ(change.position, position);
    EXPECT_EQ(change.title, title);
    EXPECT_EQ(change.url, url);
}

// Two titles at an interval of four, an empty block between them.
const std::string kTwoTitles =
    "abcd" + icyTitleBlock("One") + "efgh" + icyBlock("") + "ijkl" + icyTitleBlock("Two") + "mnop";

// --- Audio ---

TEST(IcyReader, aReadSpansBlocksAndGivesAudioOnly)
{
    md::IcyReader radio(streamOf(kTwoTitles), 4);
    EXPECT_EQ(readText(radio, 100), "abcdefghijklmnop");
    EXPECT_EQ(radio.tell(), 16);
    EXPECT_EQ(readText(radio, 100), "");
}

TEST(IcyReader, withoutAnIntervalEveryByteIsAudio)
{
    for (const int interval : {0, -1, INT_MIN}) {
        md::IcyReader radio(streamOf(kTwoTitles), interval);
        EXPECT_EQ(readText(radio, 7), kTwoTitles.substr(0, 7));
        EXPECT_EQ(readText(radio, 1000), kTwoTitles.substr(7));
        EXPECT_EQ(radio.tell(), static_cast<long long>(kTwoTitles.size()));
        EXPECT_EQ(radio.title(), "");
        EXPECT_TRUE(radio.takeChanges().empty());
    }
}

TEST(IcyReader, theLargestIntervalIsOne)
{
    md::IcyReader radio(streamOf("abc"), INT_MAX);
    EXPECT_EQ(readText(radio, 100), "abc");
}

TEST(IcyReader, audioIsReadStraightIntoTheCallersBuffer)
{
    const StreamPtr stream = streamOf(kTwoTitles);
    md::IcyReader radio(stream, 4);
    std::array<unsigned char, 16> buffer{};
    ASSERT_EQ(radio.read(buffer.data(), 16), 16);
    std::vector<std::ptrdiff_t> places;
    for (const ScriptedStream::Request& request : stream->requests()) {
        if (request.buffer >= buffer.data() && request.buffer < buffer.data() + buffer.size()) {
            EXPECT_EQ(request.size, 4U);
            places.push_back(request.buffer - buffer.data());
        }
    }
    EXPECT_EQ(places, (std::vector<std::ptrdiff_t>{0, 4, 8, 12}));
}

TEST(IcyReader, nothingIsTakenBehindTheAudioAskedFor)
{
    const StreamPtr stream = streamOf(kTwoTitles);
    md::IcyReader radio(stream, 4);
    EXPECT_EQ(readText(radio, 4), "abcd");
    EXPECT_EQ(stream->taken(), 4U) << "the block comes with the audio behind it";
    EXPECT_EQ(readText(radio, 1), "e");
    EXPECT_EQ(stream->taken(), 4U + 1 + 32 + 1);
}

TEST(IcyReader, audioOfStreamsThatComeShortIsGivenAtOnce)
{
    const StreamPtr stream = streamOf(kTwoTitles, {3});
    md::IcyReader radio(stream, 4);
    EXPECT_EQ(readText(radio, 100), "abc");
    EXPECT_EQ(stream->requests().size(), 1U) << "waited once more";
}

TEST(IcyReader, aBlockThatComesInPiecesIsKept)
{
    // 4 of audio, the length byte, then two pieces of the text with nothing in time between them.
    const StreamPtr stream = streamOf(kTwoTitles, {4, 1, 20, 0, 12, 4});
    md::IcyReader radio(stream, 4);
    EXPECT_EQ(readText(radio, 8), "abcd");
    EXPECT_EQ(stream->taken(), 25U);
    EXPECT_EQ(radio.title(), "") << "half a block says nothing";
    EXPECT_EQ(readText(radio, 8), "");
    EXPECT_EQ(readText(radio, 4), "efgh");
    EXPECT_EQ(radio.title(), "One");
}

TEST(IcyReader, anEndInsideABlockGivesTheAudioBeforeItAndNoTitle)
{
    const std::string block = icyTitleBlock("One");
    for (std::size_t count = 0; count < block.size(); ++count) {
        md::IcyReader radio(streamOf("abcd" + block.substr(0, count)), 4);
        EXPECT_EQ(readText(radio, 8), "abcd");
        EXPECT_EQ(readText(radio, 8), "");
        EXPECT_EQ(readText(radio, 8), "");
        EXPECT_EQ(radio.tell(), 4);
        EXPECT_EQ(radio.title(), "");
        EXPECT_TRUE(radio.takeChanges().empty());
    }
}

TEST(IcyReader, aLengthByteThatSaysMoreThanFollowsEndsWithTheStream)
{
    const std::string block = '\xff' + std::string("StreamTitle='One';");
    const StreamPtr stream = streamOf("abcd" + block + "efgh");
    md::IcyReader radio(stream, 4);
    EXPECT_EQ(readText(radio, 100), "abcd");
    EXPECT_EQ(readText(radio, 100), "");
    EXPECT_EQ(stream->eof(), 1);
    EXPECT_EQ(radio.title(), "");
}

TEST(IcyReader, brokenTextsShiftNothing)
{
    for (const char* text :
         {"StreamTitle='One", "StreamTitle=One';", "StreamTitle=", "StreamTitle", "'", "';';';", "=", ";;;;",
          "StreamTitle='Rock 'n' Roll';StreamUrl='", "\xff\xfe\x80", "\x01\x02\x03"}) {
        md::IcyReader radio(streamOf("abcd" + icyBlock(text) + "efgh" + icyTitleBlock("Two") + "ijkl"), 4);
        EXPECT_EQ(readText(radio, 100), "abcdefghijkl") << text;
        EXPECT_EQ(radio.title(), "Two");
    }
}

// --- Titles and where they belong ---

TEST(IcyReader, aTitleIsKnownExactlyWhenTheAudioBehindItBegins)
{
    md::IcyReader radio(streamOf(kTwoTitles), 4);
    std::vector<std::string> titles;
    for (int i = 0; i < 16; ++i) {
        ASSERT_EQ(readText(radio, 1).size(), 1U);
        titles.push_back(radio.title());
    }
    std::vector<std::string> expected(4, "");
    expected.insert(expected.end(), 8, "One");
    expected.insert(expected.end(), 4, "Two");
    EXPECT_EQ(titles, expected);
}

TEST(IcyReader, changesTellTheirPositionsWithinALargeRead)
{
    md::IcyReader radio(streamOf(kTwoTitles), 4);
    EXPECT_TRUE(radio.takeChanges().empty());
    ASSERT_EQ(readText(radio, 100).size(), 16U);
    const std::vector<md::IcyTitle> changes = radio.takeChanges();
    ASSERT_EQ(changes.size(), 2U);
    expectChange(changes[0], 4, "One");
    expectChange(changes[1], 12, "Two");
    EXPECT_TRUE(radio.takeChanges().empty()) << "they are told once";
    EXPECT_EQ(radio.title(), "Two");
}

TEST(IcyReader, changesGatherOverReadsUntilTheyAreTaken)
{
    md::IcyReader radio(streamOf(kTwoTitles), 4);
    for (int i = 0; i < 8; ++i) {
        ASSERT_EQ(readText(radio, 2).size(), 2U);
    }
    EXPECT_EQ(radio.takeChanges().size(), 2U);
}

TEST(IcyReader, theLatestChangesAreKept)
{
    std::string bytes = "a";
    for (int i = 0; i < 100; ++i) {
        bytes += icyTitleBlock("Title " + std::to_string(i)) + "a";
    }
    md::IcyReader radio(streamOf(bytes), 1);
    ASSERT_EQ(readText(radio, 1000).size(), 101U);
    const std::vector<md::IcyTitle> changes = radio.takeChanges();
    ASSERT_EQ(changes.size(), 64U);
    expectChange(changes.front(), 37, "Title 36");
    expectChange(changes.back(), 100, "Title 99");
}

TEST(IcyReader, aRepeatedTitleIsNoChange)
{
    md::IcyReader radio(streamOf("ab" + icyTitleBlock("One") + "cd" + icyTitleBlock("One") + "ef"), 2);
    ASSERT_EQ(readText(radio, 6), "abcdef");
    const std::vector<md::IcyTitle> changes = radio.takeChanges();
    ASSERT_EQ(changes.size(), 1U);
    expectChange(changes[0], 2, "One");
}

TEST(IcyReader, anEmptyTitleClearsAndAnEmptyBlockDoesNot)
{
    const std::string zeros = '\x01' + std::string(16, '\0');
    md::IcyReader radio(streamOf("a" + icyTitleBlock("One") + "b" + icyBlock("") + "c" + zeros + "d" +
                                 icyBlock("unknown='x';") + "e" + icyTitleBlock("") + "f"),
                        1);
    ASSERT_EQ(readText(radio, 5), "abcde");
    EXPECT_EQ(radio.title(), "One");
    ASSERT_EQ(readText(radio, 1), "f");
    EXPECT_EQ(radio.title(), "");
    const std::vector<md::IcyTitle> changes = radio.takeChanges();
    ASSERT_EQ(changes.size(), 2U);
    expectChange(changes[1], 5, "");
}

TEST(IcyReader, aUrlGoesWithItsTitle)
{
    md::IcyReader radio(streamOf("a" + icyBlock("StreamTitle='One';StreamUrl='http://one/';") + "b" +
                                 icyTitleBlock("One") + "c" + icyTitleBlock("Two") + "d" +
                                 icyBlock("StreamUrl='http://two/';") + "e"),
                        1);
    ASSERT_EQ(readText(radio, 2), "ab");
    EXPECT_EQ(radio.url(), "http://one/");
    ASSERT_EQ(readText(radio, 1), "c");
    EXPECT_EQ(radio.url(), "http://one/") << "the same title, repeated without it";
    ASSERT_EQ(readText(radio, 1), "d");
    EXPECT_EQ(radio.title(), "Two");
    EXPECT_EQ(radio.url(), "") << "it was the former title's";
    ASSERT_EQ(readText(radio, 1), "e");
    const std::vector<md::IcyTitle> changes = radio.takeChanges();
    ASSERT_EQ(changes.size(), 3U);
    expectChange(changes[0], 1, "One", "http://one/");
    expectChange(changes[1], 3, "Two", "");
    expectChange(changes[2], 4, "Two", "http://two/");
}

// --- Results ---

TEST(IcyReader, whatAFailedReadOfTheStreamGivesIsGiven)
{
    const StreamPtr stream = streamOf("ab");
    stream->setResultAtEnd(-EINVAL);
    md::IcyReader radio(stream, 4);
    std::array<unsigned char, 8> buffer{};
    EXPECT_EQ(radio.read(buffer.data(), 8), 2);
    EXPECT_EQ(radio.read(buffer.data(), 8), -EINVAL);
    EXPECT_EQ(radio.tell(), 2);
}

TEST(IcyReader, aFailureInsideABlockIsGivenBehindTheAudio)
{
    for (const char* part : {"", "\x02", "\x02StreamTitle='O"}) {
        const StreamPtr stream = streamOf(std::string("abcd") + part);
        stream->setResultAtEnd(-EINVAL);
        md::IcyReader radio(stream, 4);
        std::array<unsigned char, 8> buffer{};
        EXPECT_EQ(radio.read(buffer.data(), 8), 4);
        EXPECT_EQ(radio.read(buffer.data(), 8), -EINVAL);
    }
}

TEST(IcyReader, readsOfNothingLeaveTheStreamAlone)
{
    const StreamPtr stream = streamOf(kTwoTitles);
    md::IcyReader radio(stream, 4);
    unsigned char byte = 'x';
    EXPECT_EQ(radio.read(&byte, 0), 0);
    EXPECT_EQ(radio.read(nullptr, 10), 0);
    EXPECT_EQ(byte, 'x');
    EXPECT_TRUE(stream->requests().empty());
}

TEST(IcyReader, withoutAStreamThereIsNothingToRead)
{
    md::IcyReader radio(nullptr, 4);
    unsigned char byte = 0;
    errno = 0;
    EXPECT_EQ(radio.read(&byte, 1), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(radio.tell(), 0);
    EXPECT_EQ(radio.title(), "");
    EXPECT_EQ(radio.url(), "");
    EXPECT_TRUE(radio.takeChanges().empty());
}

TEST(IcyReader, noMoreIsAskedForThanAResultCanTell)
{
    const StreamPtr stream = streamOf("abc");
    md::IcyReader radio(stream, 0);
    std::array<unsigned char, 8> buffer{};
    EXPECT_EQ(radio.read(buffer.data(), UINT_MAX), 3);
    EXPECT_EQ(stream->requests().at(0).size, static_cast<unsigned int>(INT_MAX));
}

TEST(IcyReader, holdsItsStream)
{
    StreamPtr stream = streamOf("abcd");
    md::IcyReader radio(stream, 4);
    EXPECT_EQ(stream.use_count(), 2);
    stream.reset();
    EXPECT_EQ(readText(radio, 4), "abcd");
}

TEST(IcyReader, exceptionsOfAStreamDoNotCross)
{
    const StreamPtr stream = streamOf(kTwoTitles);
    md::IcyReader radio(stream, 4);
    stream->setOnRead([&stream] {
        if (stream->requests().size() == 2) {
            throw std::runtime_error("trouble");
        }
        if (stream->requests().size() == 3) {
            throw std::bad_alloc();
        }
    });
    const support::TraceCapture traces;
    EXPECT_EQ(readText(radio, 8), "abcd");
    EXPECT_EQ(readText(radio, 8), "");
    EXPECT_EQ(readText(radio, 8), "efghijkl");
    EXPECT_EQ(traces.count("IcyReader::read() the stream failed: trouble\n"), 1U);
    EXPECT_EQ(traces.severityOf("IcyReader::read() the stream failed: trouble\n"), 3000U);
}

TEST(IcyReader, isNotCopied)
{
    EXPECT_FALSE(std::is_copy_constructible_v<md::IcyReader>);
    EXPECT_FALSE(std::is_copy_assignable_v<md::IcyReader>);
}

// --- How long a call takes ---

md::IcyReaderImpl::Clock::time_point theTime;

TEST(IcyReader, aCallThatHasAudioEndsWhenItHasTakenLong)
{
    using namespace std::chrono_literals;
    std::string bytes = "a";
    for (int i = 0; i < 1000; ++i) {
        bytes += icyBlock("") + "a";
    }
    const StreamPtr stream = streamOf(bytes);
    stream->setOnRead([] { theTime += 7s; }); // each read of the stream just in time, none of them short
    md::IcyReaderImpl radio(stream, 1, [] { return theTime; });
    EXPECT_EQ(readText(radio, 1000), "aaa"); // 5 reads in 35 s
    EXPECT_EQ(stream->requests().size(), 5U);
    std::size_t count = 3;
    while (!readText(radio, 1000).empty()) {
        count = static_cast<std::size_t>(radio.tell());
    }
    EXPECT_EQ(count, 1001U) << "nothing is lost between the calls";
}

TEST(IcyReader, aCallThatHasNoAudioYetGoesOn)
{
    using namespace std::chrono_literals;
    const StreamPtr stream = streamOf("a" + icyTitleBlock("One") + "b");
    md::IcyReaderImpl radio(stream, 1, [] { return theTime; });
    ASSERT_EQ(readText(radio, 1), "a");
    stream->setOnRead([] { theTime += 40s; });
    EXPECT_EQ(readText(radio, 1), "b");
    EXPECT_EQ(radio.title(), "One");
}

// --- Traces ---

TEST(IcyReader, tracesItsIntervalAndEachChangeAsCalls)
{
    const support::TraceCapture traces;
    md::IcyReader radio(streamOf(kTwoTitles), 4);
    readText(radio, 100);
    EXPECT_EQ(traces.texts(), (std::vector<std::string>{"IcyReader::IcyReader() interval=4\n",
                                                        "IcyReader::read() title at 4: One\n",
                                                        "IcyReader::read() title at 12: Two\n"}));
    EXPECT_EQ(traces.severityOf("IcyReader::IcyReader() interval=4\n"), 5000U);
    EXPECT_EQ(traces.severityOf("IcyReader::read() title at 4: One\n"), 5000U);
}

} // namespace
