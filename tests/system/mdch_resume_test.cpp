// mdch cat --resume: goes on where a file ends, and only when it is the same.
#include "support_mdch.h"

#include "support/http_server.h"
#include "support/media.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace {

using support::At;
using support::HttpServer;
using support::mdch;
using support::Media;
using support::Reply;
using support::Result;
using support::waitUntil;

constexpr std::size_t kSize = 500000;

class MdchResume : public testing::Test
{
protected:
    Result resume(const std::string& path = "/song") const
    {
        return mdch({"cat", m_server.url(path), "-o", m_copy, "--resume"});
    }
    std::string copied() const { return support::readFile(m_copy); }
    void expectRefused(const Result& result, const std::string& path, const std::string& reason) const
    {
        EXPECT_EQ(result.status, 8);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "mdch: cannot go on with " + m_copy + " from " + m_server.url(path) + ": " +
                                  reason + ". Start anew without --resume.\n");
    }

    HttpServer m_server;
    support::TempDir m_folder;
    const std::string m_content = Media(5).bytes(0, kSize);
    const std::string m_copy = m_folder.file("copy");
};

TEST_F(MdchResume, GoesOnWhereTheFileEnds)
{
    m_server.on("/song", Reply::resource(Media(5), kSize));
    for (const std::size_t have : {std::size_t{1}, std::size_t{100}, std::size_t{200000}, kSize - 1}) {
        m_folder.write("copy", m_content.substr(0, have));
        const Result result = resume();
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out + result.err, "");
        EXPECT_TRUE(copied() == m_content) << have;
    }
    // Not everything was fetched once more.
    EXPECT_EQ(m_server.requests("/song").back().header("Range"),
              "bytes=" + std::to_string(kSize - 1 - 16384) + "-");
}

TEST_F(MdchResume, WithoutAFileItStartsAtTheBeginning)
{
    m_server.on("/song", Reply::resource(Media(5), kSize));
    EXPECT_EQ(resume().status, 0);
    EXPECT_TRUE(copied() == m_content);
    m_folder.write("copy", "");
    EXPECT_EQ(resume().status, 0);
    EXPECT_TRUE(copied() == m_content);
}

TEST_F(MdchResume, AWholeFileStaysAsItIs)
{
    m_server.on("/song", Reply::resource(Media(5), kSize));
    m_folder.write("copy", m_content);
    EXPECT_EQ(resume().status, 0);
    EXPECT_TRUE(copied() == m_content);
}

TEST_F(MdchResume, ALocalFileToo)
{
    const std::string source = m_folder.write("source", m_content);
    m_folder.write("copy", m_content.substr(0, 1234));
    EXPECT_EQ(mdch({"cat", source, "-o", m_copy, "--resume"}).status, 0);
    EXPECT_TRUE(copied() == m_content);
}

TEST_F(MdchResume, AnInterruptedCopyIsKeptAndFinished)
{
    m_server.onSequence("/song", {Reply::resource(Media(5), kSize).stall(At::body(300000)),
                                  Reply::resource(Media(5), kSize)});
    {
        support::Process process({MDCH_BINARY, "cat", m_server.url("/song"), "-o", m_copy, "--resume"});
        ASSERT_TRUE(waitUntil([&] { return copied().size() >= 280000; }));
        process.signal(SIGINT);
        EXPECT_EQ(process.wait(), 130);
    }
    EXPECT_LT(copied().size(), kSize);
    EXPECT_TRUE(copied() == m_content.substr(0, copied().size()));
    EXPECT_EQ(resume().status, 0);
    EXPECT_TRUE(copied() == m_content);
}

TEST_F(MdchResume, ABrokenTransferTellsTheWholeCountAndCanBeGoneOnWith)
{
    m_folder.write("copy", m_content.substr(0, 400000));
    m_server.onSequence("/song", {Reply::resource(Media(5), kSize),
                                  Reply::resource(Media(5), kSize).close(At::body(50000)),
                                  Reply::resource(Media(5), kSize)});
    const Result broken = resume();
    EXPECT_EQ(broken.status, 7);
    EXPECT_EQ(broken.err, "mdch: cannot read " + m_server.url("/song") +
                              " after 433616 of 500000 bytes: the transfer broke off before its end. "
                              "Go on with --resume.\n");
    EXPECT_TRUE(copied() == m_content.substr(0, 433616));
    EXPECT_EQ(resume().status, 0);
    EXPECT_TRUE(copied() == m_content);
}

TEST_F(MdchResume, AFileThatIsLongerIsNotTheSame)
{
    m_server.on("/song", Reply::resource(Media(5), kSize));
    m_folder.write("copy", m_content + "x");
    expectRefused(resume(), "/song", "it is not the same: the file has 500001 bytes, the stream 500000");
    EXPECT_TRUE(copied() == m_content + "x");
}

TEST_F(MdchResume, AFileWithOtherBytesIsNotTheSame)
{
    m_server.on("/song", Reply::resource(Media(5), kSize));
    std::string other = m_content.substr(0, 200000);
    other[199999] ^= 1;
    m_folder.write("copy", other);
    expectRefused(resume(), "/song", "it is not the same: the file's last bytes differ from the stream's");
    EXPECT_TRUE(copied() == other);
}

TEST_F(MdchResume, AStreamThatChangesItsLengthMeanwhileIsNotTheSame)
{
    m_server.onSequence("/song", {Reply::resource(Media(5), kSize), Reply::resource(Media(5), kSize + 1000)});
    m_folder.write("copy", m_content.substr(0, 400000));
    expectRefused(resume(), "/song", "the stream's length has changed meanwhile");
    EXPECT_EQ(copied().size(), 400000U);
}

TEST_F(MdchResume, AStreamWithoutLengthOrPartsCannotBeGoneOnWith)
{
    m_server.on("/live", Reply::endless(Media(5)).header("Accept-Ranges: none"));
    m_server.on("/whole", Reply::resource(Media(5), kSize).ignoreRanges());
    m_folder.write("copy", m_content.substr(0, 100));
    expectRefused(resume("/live"), "/live", "the stream's length is not known");
    m_server.on("/whole", Reply::resource(Media(5), kSize).ignoreRanges().acceptRanges("none"));
    expectRefused(resume("/whole"), "/whole", "the server does not serve parts of it");
    EXPECT_EQ(copied(), m_content.substr(0, 100));
}

TEST_F(MdchResume, NeedsAFileAndNoOtherPlaceToStart)
{
    m_server.on("/song", Reply::resource(Media(5), kSize));
    const std::string url = m_server.url("/song");
    EXPECT_EQ(mdch({"cat", url, "--resume"}).status, 1);
    for (const char* other : {"--offset", "--length", "--time"}) {
        EXPECT_EQ(mdch({"cat", url, "-o", m_copy, "--resume", other, "5"}).status, 1) << other;
    }
    EXPECT_EQ(m_server.requests().size(), 0U);
}

} // namespace
