// Connections that end while a stream moves: at every byte of the answer to a seek, and of the answer to a resume.

#include "support/fault_sweep.h"
#include "support/media.h"

#include <gtest/gtest.h>

namespace {

using support::At;
using support::End;
using support::FaultSweep;
using support::HttpStream;
using support::Reply;
using support::Request;
using support::Way;

const support::Media kMedia(34);
constexpr std::uint64_t kSize = 1000;
constexpr std::uint64_t kHeld = 300;  // bytes of the first answer that come before the stream moves
constexpr std::uint64_t kRead = 100;  // and how many of them are read
constexpr std::uint64_t kThere = 700; // where a seek goes

class MovedFaults : public FaultSweep
{
protected:
    // The answer to a Range: its size up to the body, as the server sends it.
    static std::size_t headSize(std::uint64_t from)
    {
        const std::string last = std::to_string(kSize - 1);
        return ("HTTP/1.1 206 Partial Content\r\nAccept-Ranges: bytes\r\nContent-Range: bytes " +
                std::to_string(from) + "-" + last + "/" + std::to_string(kSize) +
                "\r\nContent-Length: " + std::to_string(kSize - from) + "\r\n\r\n")
            .size();
    }
    static constexpr std::size_t kStatusLine = sizeof("HTTP/1.1 206 Partial Content\r\n") - 1;

    // A stream that has read kRead bytes of the kHeld that came, and whose next answer ends behind `count` bytes: when
    // the gate is open, if these bring the header.
    std::unique_ptr<HttpStream> open(std::size_t count, std::size_t head, End end)
    {
        const Reply all = Reply::resource(kMedia, kSize);
        Reply faulty = all;
        m_gate = support::Gate();
        if (count >= head) {
            faulty.wait(At::bytes(count), m_gate);
        }
        end == End::Closed ? faulty.close(At::bytes(count)) : faulty.reset(At::bytes(count));
        m_server->onSequence("/faulty", {Reply(all).stall(At::body(kHeld)), faulty, all});
        auto stream = std::make_unique<HttpStream>();
        prepare(*stream);
        stream->start(url("/faulty"));
        EXPECT_EQ(stream->readSome(kRead), kMedia.bytes(0, kRead));
        EXPECT_TRUE(
            support::waitForDescriptor(stream->number(), [](auto& desc) { return desc.writePos == kHeld; }));
        return stream;
    }

    // Behind the header, a reset comes when all bytes in front of it were taken in.
    void strikeAt(const HttpStream& stream, std::uint64_t position)
    {
        EXPECT_TRUE(support::waitForDescriptor(stream.number(), [position](auto& desc) {
            return desc.headerComplete != 0 && desc.writePos == static_cast<std::int64_t>(position);
        }));
        m_gate.open();
    }

    int errorAfter(std::size_t count, std::uint64_t from, End end) const
    {
        if (count == headSize(from) + (kSize - from)) {
            return 0;
        }
        if (end == End::Reset) {
            return 152;
        }
        return count < kStatusLine ? 156 : 153;
    }

    // A stream that failed can be moved again.
    static void expectHealed(HttpStream& stream)
    {
        EXPECT_EQ(stream.seek(5, SEEK_SET), 0);
        const std::string bytes = stream.readAll();
        EXPECT_EQ(bytes, kMedia.bytes(5, kSize - 5));
        EXPECT_EQ(stream.eof(), 1);
        EXPECT_EQ(stream.error(), 0);
    }

    void seekMeets(std::size_t count, End end)
    {
        SCOPED_TRACE("answer to a seek, after " + std::to_string(count) + " bytes");
        auto stream = open(count, headSize(kThere), end);
        const bool hasHead = count >= headSize(kThere);
        const int error = errorAfter(count, kThere, end);
        EXPECT_EQ(stream->seek(kThere, SEEK_SET), hasHead ? 0 : -29);
        if (hasHead) {
            strikeAt(*stream, kThere + count - headSize(kThere));
        }
        EXPECT_TRUE(stream->waitDone());
        EXPECT_EQ(stream->error(), error);
        EXPECT_EQ(stream->tell(), static_cast<long long>(kThere));
        const std::string bytes = stream->readAll();
        EXPECT_TRUE(kMedia.matches(kThere, bytes)) << "bytes of another place";
        EXPECT_EQ(bytes.size(), hasHead ? count - headSize(kThere) : 0U);
        EXPECT_EQ(stream->tell(), static_cast<long long>(kThere + bytes.size()));
        EXPECT_EQ(stream->eof(), 1);
        EXPECT_EQ(stream->error(), error);
        expectHealed(*stream);
        expectNextOpenWorks(std::move(stream));
    }

    void resumeMeets(std::size_t count, End end)
    {
        SCOPED_TRACE("answer to a resume, after " + std::to_string(count) + " bytes");
        auto stream = open(count, headSize(kHeld), end);
        const bool hasHead = count >= headSize(kHeld);
        EXPECT_EQ(stream->pause(), 0);
        EXPECT_EQ(stream->resume(), 0);
        if (hasHead) {
            strikeAt(*stream, kHeld + count - headSize(kHeld));
        }
        EXPECT_TRUE(stream->waitDone());
        const int error = errorAfter(count, kHeld, end);
        EXPECT_EQ(stream->error(), error);
        EXPECT_EQ(stream->eof(), 0) << "what came before the pause is still to be read";
        const std::string bytes = stream->readAll();
        EXPECT_TRUE(kMedia.matches(kRead, bytes));
        EXPECT_EQ(bytes.size(), kHeld - kRead + (hasHead ? count - headSize(kHeld) : 0U));
        EXPECT_EQ(stream->tell(), static_cast<long long>(kRead + bytes.size()));
        EXPECT_EQ(stream->eof(), 1);
        EXPECT_EQ(stream->error(), error);
        if (error != 0) { // a break heals as it came: by a pause and a resume, too
            EXPECT_EQ(stream->pause(), 0);
            EXPECT_EQ(stream->resume(), 0);
            EXPECT_EQ(stream->readAll(), kMedia.bytes(kRead + bytes.size(), kSize - kRead - bytes.size()));
            EXPECT_EQ(stream->error(), 0);
        }
        expectHealed(*stream);
        expectNextOpenWorks(std::move(stream));
    }

    void sweep(End end)
    {
        // Handshakes take their time.
        const std::size_t step = std::max<std::size_t>(isTls() ? 3 : 1, support::sweepStep());
        for (std::size_t count = 0; count < headSize(kThere) + 4; count += step) {
            seekMeets(count, end);
        }
        for (std::size_t count = 0; count < headSize(kHeld) + 4; count += step) {
            resumeMeets(count, end);
        }
        for (const std::size_t missing : {2U, 1U, 0U}) {
            seekMeets(static_cast<std::size_t>(headSize(kThere) + (kSize - kThere) - missing), end);
            resumeMeets(static_cast<std::size_t>(headSize(kHeld) + (kSize - kHeld) - missing), end);
        }
    }
};

TEST_P(MovedFaults, aConnectionClosedInTheAnswerToASeekOrAResumeKeepsThePosition)
{
    sweep(End::Closed);
}

TEST_P(MovedFaults, aConnectionResetInTheAnswerToASeekOrAResumeKeepsThePosition)
{
    sweep(End::Reset);
}

INSTANTIATE_TEST_SUITE_P(, MovedFaults, testing::Values(Way::Plain, Way::Tls), support::nameOf);

} // namespace
