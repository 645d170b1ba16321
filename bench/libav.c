#include <string.h>

#include "libav.h"

enum { h264 = 0x101, video_timescale = 90000, video_rate = 30, audio_frame = 1024 };

static AVCodecParameters *add_stream(AVFormatContext *context, enum AVMediaType type, enum AVCodecID codec,
                                     int timescale, const void *extradata, size_t length)
{
    AVStream *stream = avformat_new_stream(context, NULL);
    stream->time_base = (AVRational){1, timescale};
    stream->codecpar->codec_type = type;
    stream->codecpar->codec_id = codec;
    stream->codecpar->extradata = av_mallocz(length + AV_INPUT_BUFFER_PADDING_SIZE);
    stream->codecpar->extradata_size = (int)length;
    memcpy(stream->codecpar->extradata, extradata, length);
    return stream->codecpar;
}

struct libav_output libav_open(const struct work *work, const char *format, const char *path)
{
    static const uint8_t aac_lc_48000_stereo[] = {0x11, 0x90};
    struct libav_output output = {.packet = av_packet_alloc()};
    if (!output.packet || avformat_alloc_output_context2(&output.context, NULL, format, path) < 0) fail(format);
    AVCodecParameters *video = add_stream(output.context, AVMEDIA_TYPE_VIDEO,
                                          work->header->codec == h264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC,
                                          video_timescale, work_unit_at(work, 0).data, work->header->parameter_sets);
    video->width = work_width;
    video->height = work_height;
    AVCodecParameters *audio = add_stream(output.context, AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_AAC, work_rate,
                                          aac_lc_48000_stereo, sizeof aac_lc_48000_stereo);
    audio->sample_rate = work_rate;
    audio->frame_size = audio_frame;
    av_channel_layout_default(&audio->ch_layout, work_channels);

    if (av_bsf_alloc(av_bsf_get_by_name("aac_adtstoasc"), &output.strip_adts) < 0 ||
        avcodec_parameters_copy(output.strip_adts->par_in, audio) < 0 || av_bsf_init(output.strip_adts) < 0)
        fail("aac_adtstoasc");
    return output;
}

void libav_add(struct libav_output *output, const struct work_unit *unit)
{
    AVPacket *const packet = output->packet;
    const uint64_t timescale = (uint64_t)output->context->streams[unit->track]->time_base.den;
    packet->data = (uint8_t *)unit->data;
    packet->size = (int)unit->length;
    packet->stream_index = (int)unit->track;
    packet->flags = unit->key ? AV_PKT_FLAG_KEY : 0;
    packet->pts = packet->dts = (int64_t)((unit->time_ns * timescale + 500000000) / 1000000000);
    packet->duration = unit->track == 0 ? (int64_t)timescale / video_rate : audio_frame;
    if (unit->track == 1 &&
        (av_bsf_send_packet(output->strip_adts, packet) < 0 || av_bsf_receive_packet(output->strip_adts, packet) < 0))
        fail("aac_adtstoasc");
    if (av_write_frame(output->context, packet) < 0) fail("av_write_frame");
    av_packet_unref(packet);
}
