// A player of FFmpeg's parts, in the test's process: it demuxes and decodes, and writes down what comes out.
#pragma once

#include "mdch_avio.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

struct AVFormatContext;

namespace support {

struct CloseAvio
{
    void operator()(AVIOContext* context) const { mdchAvioClose(&context); }
};
using Avio = std::unique_ptr<AVIOContext, CloseAvio>;

// One that is open; throws with FFmpeg's words when it cannot be opened.
Avio openAvio(const std::string& url, const mdchAvioOptions* options = nullptr);

// What an open without success gives.
int openError(const std::string& url, const mdchAvioOptions* options = nullptr);

// A record with its size set.
mdchAvioOptions avioOptions();

std::string avText(int averror);

// What was decoded: a line for each frame, its stream, its time and the MD5 of its picture or sound.
struct Played
{
    std::vector<std::string> frames;
    int error = 0; // AVERROR; the end is none
};

class FfmpegPlayer
{
public:
    // Through the library; the context lives as long as the player.
    explicit FfmpegPlayer(AVIOContext& context);
    // By a protocol of FFmpeg's own.
    explicit FfmpegPlayer(const std::string& url);
    ~FfmpegPlayer();
    FfmpegPlayer(const FfmpegPlayer&) = delete;
    FfmpegPlayer& operator=(const FfmpegPlayer&) = delete;

    // To the end, or until so many frames are there.
    Played play(std::size_t frames = SIZE_MAX);

    // Seeks here and there and plays some frames from each place, as often as said.
    Played seekAndPlay(int seeks);

    // What has been read ahead of a seek by time is forgotten.
    void flush();

private:
    class Decoder;
    void findStreams(int opened, const std::string& name);

    AVFormatContext* m_format = nullptr;
    std::vector<std::unique_ptr<Decoder>> m_decoders;
};

} // namespace support
