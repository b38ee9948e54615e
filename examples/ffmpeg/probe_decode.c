/*
 * Shows the streams at a URL, decodes them, and prints the number of frames and a checksum of each.
 *
 *     gcc -std=c11 probe_decode.c $(pkg-config --cflags --libs mdchavio libavcodec libavutil) -o probe_decode
 */
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/adler32.h>
#include <mdch_avio.h>
#include <signal.h>
#include <stdio.h>

static volatile sig_atomic_t stop;
static void onSignal(int number)
{
    (void)number, stop = 1;
}
static int isStopped(void* opaque)
{
    return (void)opaque, stop;
} /* asked during every wait */

typedef struct Track
{
    AVCodecContext* codec;
    long frames;
    AVAdler sum;
} Track;

static void count(Track* track, AVFrame* frame)
{
    const int lines = frame->height > 0 ? 1 : 0; /* the first plane is enough for a checksum */
    const size_t bytes = lines ? (size_t)frame->linesize[0] * (size_t)frame->height
                               : (size_t)frame->nb_samples * (size_t)av_get_bytes_per_sample(frame->format);
    track->sum = av_adler32_update(track->sum, frame->data[0], bytes);
    ++track->frames;
}

static void decode(Track* track, AVFrame* frame,
                   const AVPacket* packet) /* null: what the decoder still holds */
{
    if (track->codec && avcodec_send_packet(track->codec, packet) == 0) {
        while (avcodec_receive_frame(track->codec, frame) == 0) {
            count(track, frame);
        }
    }
}

static int play(AVFormatContext* format)
{
    static Track tracks[16];
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    const unsigned number = format->nb_streams < 16 ? format->nb_streams : 16;
    for (unsigned i = 0; i < number; ++i) {
        const AVCodecParameters* form = format->streams[i]->codecpar;
        AVCodecContext* codec = avcodec_alloc_context3(NULL);
        if (avcodec_parameters_to_context(codec, form) < 0 ||
            avcodec_open2(codec, avcodec_find_decoder(form->codec_id), NULL) < 0) {
            avcodec_free_context(&codec); /* one that this FFmpeg cannot decode */
        }
        tracks[i].codec = codec;
        printf("stream %u: %s %s\n", i, av_get_media_type_string(form->codec_type),
               avcodec_get_name(form->codec_id));
    }
    int result;
    while ((result = av_read_frame(format, packet)) >= 0) {
        if ((unsigned)packet->stream_index < number) {
            decode(&tracks[packet->stream_index], frame, packet);
        }
        av_packet_unref(packet);
    }
    for (unsigned i = 0; i < number; ++i) {
        decode(&tracks[i], frame, NULL);
        printf("stream %u: %ld frames, checksum %08x\n", i, tracks[i].frames, (unsigned)tracks[i].sum);
        avcodec_free_context(&tracks[i].codec);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    return format->pb->error != 0 ? format->pb->error : result; /* a demuxer may take an error for the end */
}

int main(int argc, char** argv)
{
    const char* url = argc > 1 ? argv[1] : "";
    const AVIOInterruptCB interrupt = {isStopped, NULL};
    AVIOContext* io = NULL;
    signal(SIGINT, onSignal);
    int result = mdchAvioOpen(&io, url, NULL, &interrupt, 0);
    AVFormatContext* format = result == 0 ? avformat_alloc_context() : NULL;
    if (format) {
        format->pb = io;
        format->interrupt_callback = interrupt;
        if ((result = avformat_open_input(&format, url, NULL, NULL)) == 0) {
            result = avformat_find_stream_info(format, NULL) < 0 ? AVERROR_INVALIDDATA : play(format);
        }
    }
    avformat_close_input(&format);
    mdchAvioClose(&io);
    if (result != AVERROR_EOF) {
        fprintf(stderr, "%s: %s\n", url, av_err2str(result));
    }
    return result == AVERROR_EOF ? 0 : 1;
}
