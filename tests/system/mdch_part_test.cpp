// Parts of a stream: --offset, --time, --length.
#include "support_mdch.h"

#include "support/http_server.h"
#include "support/media.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using support::HttpServer;
using support::mdch;
using support::Media;
using support::Reply;
using support::Result;

const Media kMedia(21);
constexpr std::uint64_t kSize = 1'000'000;

class MdchPart : public testing::Test
{
protected:
    HttpServer m_server;
    support::TempDir m_folder;

    std::string film()
    {
        m_server.on("/film", Reply::resource(kMedia, kSize));
        return m_server.url("/film");
    }
};

void expectBytes(const Result& result, std::uint64_t from, std::size_t count)
{
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    ASSERT_EQ(result.out.size(), count);
    EXPECT_TRUE(kMedia.matches(from, result.out));
}

TEST_F(MdchPart, OffsetStartsAtAByte)
{
    expectBytes(mdch({"cat", film(), "--offset", "999000"}), 999000, 1000);
    EXPECT_EQ(m_server.requests().back().header("Range"), "bytes=999000-");
}

TEST_F(MdchPart, NegativeOffsetCountsFromTheEnd)
{
    expectBytes(mdch({"cat", film(), "--offset", "-1500"}), kSize - 1500, 1500);
    expectBytes(mdch({"cat", film(), "--offset=-5"}), kSize - 5, 5);
}

TEST_F(MdchPart, OffsetAtTheEndGivesNothing)
{
    expectBytes(mdch({"cat", film(), "--offset", "1000000"}), kSize, 0);
}

TEST_F(MdchPart, LengthStopsAfterSoManyBytes)
{
    expectBytes(mdch({"cat", film(), "--length", "70000"}), 0, 70000);
    expectBytes(mdch({"cat", film(), "--offset", "300000", "--length", "1"}), 300000, 1);
    expectBytes(mdch({"cat", film(), "--length", "0"}), 0, 0);
    expectBytes(mdch({"cat", film(), "--offset", "999990", "--length", "5000"}), 999990, 10);
}

TEST_F(MdchPart, LengthEndsAStreamThatHasNoEnd)
{
    m_server.on("/live", Reply::endless(kMedia));
    expectBytes(mdch({"cat", m_server.url("/live"), "--length", "250000"}), 0, 250000);
}

TEST_F(MdchPart, PartsOfAFile)
{
    const std::string file = m_folder.write("film", kMedia.bytes(0, 5000));
    expectBytes(mdch({"cat", file, "--offset", "1000", "--length", "100"}), 1000, 100);
    expectBytes(mdch({"cat", file, "--offset", "-10"}), 4990, 10);
}

TEST_F(MdchPart, TimeStartsWhereTheServerSays)
{
    m_server.on("/film",
                Reply::timeSeekResource(kMedia, kSize, 10000)
                    .contentFeatures("DLNA.ORG_OP=11;DLNA.ORG_FLAGS=01700000000000000000000000000000"));
    expectBytes(mdch({"cat", m_server.url("/film"), "--dlna-mode", "streaming", "--time", "83.5"}), 835000,
                kSize - 835000);
    EXPECT_EQ(m_server.requests().back().header("TimeSeekRange.dlna.org"), "npt=83.500-");
}

TEST_F(MdchPart, OffsetBeyondTheEndIsAFailure)
{
    const std::string url = film();
    for (const std::string offset : {"1000001", "-1000001"}) {
        const Result result = mdch({"cat", url, "--offset", offset});
        EXPECT_EQ(result.status, 8);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "mdch: cannot start " + url + " at byte " + offset +
                                  ": it has 1000000 bytes. Name an offset within it.\n");
    }
}

TEST_F(MdchPart, OffsetInAStreamThatCannotSeekIsAFailure)
{
    m_server.on("/live", Reply::endless(kMedia));
    const std::string url = m_server.url("/live");
    const Result result = mdch({"cat", url, "--offset", "10"});
    EXPECT_EQ(result.status, 8);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "mdch: cannot start " + url +
                              " at byte 10: the server does not serve parts of it. Leave out --offset.\n");
}

TEST_F(MdchPart, TimeInAStreamWithoutTimeSeekIsAFailure)
{
    const std::string url = film();
    const Result result = mdch({"cat", url, "--time", "5"});
    EXPECT_EQ(result.status, 8);
    EXPECT_EQ(result.err,
              "mdch: cannot start " + url +
                  " at 5000 ms: the stream has no time seek. Ask with --dlna-mode, or name a byte "
                  "with --offset.\n");
}

TEST_F(MdchPart, OffsetAndTimeExcludeEachOther)
{
    const Result result = mdch({"cat", film(), "--time", "5", "--offset", "5"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(mdch({"cat", film(), "--length", "-1"}).status, 1);
    EXPECT_EQ(mdch({"cat", film(), "--time", "-1"}).status, 1);
    EXPECT_EQ(mdch({"cat", film(), "--offset", "ten"}).status, 1);
    EXPECT_EQ(mdch({"info", film(), "--offset", "10"}).status, 1) << "an option of cat";
}

} // namespace
