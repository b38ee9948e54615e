/*
 * Shows the streams at a URL, decodes them, and prints number and checksum of their frames.
 *
 *     gcc -std=c11 probe_decode.c $(pkg-config --cflags --libs mdchavio libavcodec libavutil) -o probe_decode
 */
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/adler32.h>
#include <mdch_avio.h>
#include <stdio.h>

static AVCodecContext* decoders[16];
static long frames[16];
static AVAdler sums[16];

static int
isCancelled(void* opaque) /* asked during every wait; a player looks whether its user wants to go on */
{
    return opaque != NULL;
}

static void decode(int i, const AVPacket* packet, AVFrame* frame) /* null: what the decoder still holds */
{
    if (decoders[i] == NULL || avcodec_send_packet(decoders[i], packet) < 0) {
        return;
    }
    while (avcodec_receive_frame(decoders[i], frame) == 0) {
        const int bytes = frame->width > 0 ? frame->linesize[0] * frame->height
                                           : frame->nb_samples * av_get_bytes_per_sample(frame->format);
        sums[i] = av_adler32_update(sums[i], frame->data[0], (size_t)bytes); /* of the first plane */
        ++frames[i];
    }
}

static int play(AVFormatContext* format)
{
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    const int count = format->nb_streams < 16 ? (int)format->nb_streams : 16;
    for (int i = 0; i < count; ++i) {
        const AVCodecParameters* form = format->streams[i]->codecpar;
        printf("stream %d: %s\n", i, avcodec_get_name(form->codec_id));
        decoders[i] = avcodec_alloc_context3(avcodec_find_decoder(form->codec_id));
        if (avcodec_parameters_to_context(decoders[i], form) < 0 ||
            avcodec_open2(decoders[i], NULL, NULL) < 0) {
            avcodec_free_context(&decoders[i]);
        }
    }
    int result;
    for (; (result = av_read_frame(format, packet)) >= 0; av_packet_unref(packet)) {
        if (packet->stream_index < count) {
            decode(packet->stream_index, packet, frame);
        }
    }
    for (int i = 0; i < count; ++i) {
        decode(i, NULL, frame);
        printf("stream %d: %ld frames, checksum %08x\n", i, frames[i], (unsigned)sums[i]);
        avcodec_free_context(&decoders[i]);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    return format->pb->error != 0 ? format->pb->error : result; /* demuxers may take an error for the end */
}

int main(int argc, char** argv)
{
    const AVIOInterruptCB interrupt = {isCancelled, NULL};
    AVFormatContext* format = NULL;
    AVIOContext* io = NULL;
    int result = mdchAvioOpen(&io, argc > 1 ? argv[1] : "", NULL, &interrupt, 0);
    if (result == 0 && (format = avformat_alloc_context()) != NULL) {
        format->pb = io;
        result = avformat_open_input(&format, NULL, NULL, NULL); /* frees the format when it fails */
    }
    if (format != NULL && (result = avformat_find_stream_info(format, NULL)) >= 0) {
        result = play(format);
    }
    avformat_close_input(&format);
    mdchAvioClose(&io);
    if (result != AVERROR_EOF) {
        fprintf(stderr, "failed: %s\n", av_err2str(result));
    }
    return result == AVERROR_EOF ? 0 : 1;
}
