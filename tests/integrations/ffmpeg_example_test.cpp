// The example of docs/players.md, built as a player in C is, plays what a player plays.
#include "ffmpeg_player.h"
#include "media_files.h"

#include "system/support_process.h"

#include "support/http_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

namespace {

using support::FfmpegPlayer;
using support::HttpServer;
using support::MediaFile;
using support::readFile;
using support::Reply;
using support::Result;
using support::runToEnd;
using testing::HasSubstr;

std::size_t framesOf(const MediaFile& file, const std::string& stream)
{
    FfmpegPlayer player("file:" + file.path);
    std::size_t count = 0;
    for (const std::string& line : player.play().frames) {
        count += line.rfind(stream + " ", 0) == 0 ? 1U : 0U;
    }
    return count;
}

TEST(FfmpegExample, showsWhatItDecodes)
{
    HttpServer server;
    const MediaFile& film = support::mediaFile("film.mkv");
    server.on("/film", Reply::resource(readFile(film.path)));
    const Result local = runToEnd({EXAMPLE_PROGRAM, film.path});
    const Result remote = runToEnd({EXAMPLE_PROGRAM, server.url("/film")});
    EXPECT_EQ(local.status, 0) << local.err;
    EXPECT_EQ(remote.status, 0) << remote.err;
    EXPECT_EQ(remote.out, local.out) << "checksums included";
    EXPECT_THAT(local.out, HasSubstr("stream 0: h264\nstream 1: vorbis\n"));
    for (const std::string stream : {"0", "1"}) {
        EXPECT_THAT(local.out, HasSubstr("stream " + stream + ": " + std::to_string(framesOf(film, stream)) +
                                         " frames, checksum "));
    }
}

TEST(FfmpegExample, saysWhyItFails)
{
    HttpServer server;
    server.on("/cut", Reply()
                          .body(readFile(support::mediaFile("song.mp3").path))
                          .closeDelimited()
                          .chunked()
                          .close(support::At::body(200000)));
    const Result none = runToEnd({EXAMPLE_PROGRAM, server.url("/none")});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.out, "");
    EXPECT_EQ(none.err, "failed: Server returned 404 Not Found\n");
    const Result cut = runToEnd({EXAMPLE_PROGRAM, server.url("/cut")});
    EXPECT_EQ(cut.status, 1) << "a song that breaks off is not taken for a shorter one";
    EXPECT_THAT(cut.out, HasSubstr(" frames, checksum "));
    EXPECT_THAT(cut.err, HasSubstr("failed: Input/output error\n"));
}

// The page shows these lines as they stand in the program.
TEST(FfmpegExample, itsHeartStandsInThePage)
{
    const std::string program = readFile(SOURCE_FOLDER "/examples/ffmpeg/probe_decode.c");
    const std::size_t begin = program.find("    const AVIOInterruptCB");
    const std::size_t end = program.find("    if (format != NULL && (result", begin);
    ASSERT_LT(begin, end);
    ASSERT_LT(end, program.size());
    std::string indented;
    std::istringstream lines(program.substr(begin, end - begin));
    for (std::string line; std::getline(lines, line);) {
        indented += "    " + line + "\n";
    }
    EXPECT_THAT(readFile(SOURCE_FOLDER "/docs/players.md"), HasSubstr(indented));
}

} // namespace
