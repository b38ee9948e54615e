#include "ffmpeg_player.h"

#include <array>
#include <cstdint>
#include <iomanip>
#include <sstream>
#include <stdexcept>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/md5.h>
}

namespace support {

namespace {

struct FreePacket
{
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FreeFrame
{
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct FreeCodec
{
    void operator()(AVCodecContext* codec) const { avcodec_free_context(&codec); }
};

void require(int result, const std::string& what)
{
    if (result < 0) {
        throw std::runtime_error(what + ": " + avText(result));
    }
}

void append(std::string& bytes, const std::uint8_t* from, std::size_t count)
{
    bytes.append(reinterpret_cast<const char*>(from), count);
}

std::string bytesOf(const AVFrame& frame)
{
    std::string bytes;
    if (frame.width > 0) {
        const auto format = static_cast<AVPixelFormat>(frame.format);
        bytes.resize(
            static_cast<std::size_t>(av_image_get_buffer_size(format, frame.width, frame.height, 1)));
        av_image_copy_to_buffer(reinterpret_cast<std::uint8_t*>(bytes.data()), static_cast<int>(bytes.size()),
                                frame.data, frame.linesize, format, frame.width, frame.height, 1);
        return bytes;
    }
    const auto format = static_cast<AVSampleFormat>(frame.format);
    const auto samples = static_cast<std::size_t>(frame.nb_samples) *
                         static_cast<std::size_t>(av_get_bytes_per_sample(format));
    const auto channels = static_cast<std::size_t>(frame.ch_layout.nb_channels);
    if (av_sample_fmt_is_planar(format) != 0) {
        for (std::size_t channel = 0; channel < channels; ++channel) {
            append(bytes, frame.extended_data[channel], samples);
        }
    } else {
        append(bytes, frame.data[0], samples * channels);
    }
    return bytes;
}

std::string lineOf(std::size_t stream, const AVFrame& frame)
{
    constexpr std::size_t kDigest = 16;
    const std::string bytes = bytesOf(frame);
    std::array<std::uint8_t, kDigest> digest{};
    av_md5_sum(digest.data(), reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    std::ostringstream line;
    line << stream << ' ' << frame.best_effort_timestamp << ' ' << bytes.size() << ' ' << std::hex
         << std::setfill('0');
    for (const std::uint8_t byte : digest) {
        line << std::setw(2) << static_cast<int>(byte);
    }
    return line.str();
}

} // namespace

std::string avText(int averror)
{
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(averror, text.data(), text.size());
    return text.data();
}

mdchAvioOptions avioOptions()
{
    mdchAvioOptions options = {};
    options.size = sizeof options;
    return options;
}

Avio openAvio(const std::string& url, const mdchAvioOptions* options)
{
    AVIOContext* context = nullptr;
    require(mdchAvioOpen(&context, url.c_str(), options, nullptr, 0), url);
    return Avio(context);
}

int openError(const std::string& url, const mdchAvioOptions* options)
{
    AVIOContext* context = nullptr;
    const int result = mdchAvioOpen(&context, url.c_str(), options, nullptr, 0);
    const Avio closed(context);
    return result;
}

class FfmpegPlayer::Decoder
{
public:
    Decoder(std::size_t number, const AVCodecParameters& parameters)
        : m_number(number), m_codec(avcodec_alloc_context3(avcodec_find_decoder(parameters.codec_id)))
    {
        require(avcodec_parameters_to_context(m_codec.get(), &parameters), "parameters");
        m_codec->thread_count = 1;
        require(avcodec_open2(m_codec.get(), nullptr, nullptr), "decoder");
    }

    // Null: what it still holds.
    void decode(const AVPacket* packet, std::vector<std::string>& frames)
    {
        avcodec_send_packet(m_codec.get(), packet); // a packet that it cannot use gives no frame
        while (avcodec_receive_frame(m_codec.get(), m_frame.get()) == 0) {
            frames.push_back(lineOf(m_number, *m_frame));
        }
    }

    void flush() { avcodec_flush_buffers(m_codec.get()); }

private:
    std::size_t m_number;
    std::unique_ptr<AVCodecContext, FreeCodec> m_codec;
    std::unique_ptr<AVFrame, FreeFrame> m_frame{av_frame_alloc()};
};

FfmpegPlayer::FfmpegPlayer(AVIOContext& context) : m_format(avformat_alloc_context())
{
    av_log_set_level(AV_LOG_FATAL);
    m_format->pb = &context;
    findStreams(avformat_open_input(&m_format, nullptr, nullptr, nullptr), "stream");
}

FfmpegPlayer::FfmpegPlayer(const std::string& url)
{
    av_log_set_level(AV_LOG_FATAL);
    findStreams(avformat_open_input(&m_format, url.c_str(), nullptr, nullptr), url);
}

FfmpegPlayer::~FfmpegPlayer()
{
    avformat_close_input(&m_format);
}

void FfmpegPlayer::findStreams(int opened, const std::string& name)
{
    require(opened, name);
    m_format->flags |= AVFMT_FLAG_BITEXACT;
    const int found = avformat_find_stream_info(m_format, nullptr);
    if (found < 0) {
        avformat_close_input(&m_format);
        require(found, name);
    }
    for (std::size_t i = 0; i < m_format->nb_streams; ++i) {
        m_decoders.push_back(std::make_unique<Decoder>(i, *m_format->streams[i]->codecpar));
    }
}

void FfmpegPlayer::flush()
{
    avformat_flush(m_format);
    for (const auto& decoder : m_decoders) {
        decoder->flush();
    }
}

Played FfmpegPlayer::play(std::size_t frames)
{
    Played played;
    const std::unique_ptr<AVPacket, FreePacket> packet(av_packet_alloc());
    while (played.frames.size() < frames) {
        const int result = av_read_frame(m_format, packet.get());
        if (result < 0) {
            // Demuxers may take an error for the end: the context knows.
            played.error = m_format->pb->error != 0 ? m_format->pb->error : result;
            break;
        }
        m_decoders.at(static_cast<std::size_t>(packet->stream_index))->decode(packet.get(), played.frames);
        av_packet_unref(packet.get());
    }
    if (played.error == AVERROR_EOF) {
        played.error = 0;
        for (const auto& decoder : m_decoders) {
            decoder->decode(nullptr, played.frames);
        }
    }
    return played;
}

Played FfmpegPlayer::seekAndPlay(int seeks)
{
    constexpr std::size_t kFramesEach = 8;
    constexpr std::int64_t kStep = 7; // coprime to the number of places: all of them, in no order
    constexpr std::int64_t kPlaces = 20;
    Played all;
    for (std::int64_t i = 0; i < seeks && all.error == 0; ++i) {
        const std::int64_t place = i * kStep % kPlaces;
        const int sought =
            av_seek_frame(m_format, -1, m_format->duration * place / kPlaces, AVSEEK_FLAG_BACKWARD);
        all.frames.push_back("seek " + std::to_string(sought));
        flush();
        const Played some = play(kFramesEach);
        all.frames.insert(all.frames.end(), some.frames.begin(), some.frames.end());
        all.error = some.error;
    }
    return all;
}

} // namespace support
