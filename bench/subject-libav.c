/*
 * libavformat's mp4 muxer, in the variants `plain` and `fragmented`: a
 * fragment a key frame, after an empty movie header. It is given the same
 * access units with start codes, and a buffer of the same size; it is not
 * asked to flush after each packet, and keeps no journal. It takes AAC frames
 * without ADTS headers alone, so that its filter for them stands before it.
 */
#include <string.h>

#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>

#include "subject.h"

enum { h264 = 0x101, video_timescale = 90000, video_rate = 30, audio_frame = 1024 };

static AVFormatContext *context;
static AVBSFContext *strip_adts;
static AVPacket *packet;
static int file;

static int write_file(void *opaque, uint8_t *data, int length)
{
    (void)opaque;
    return (int)write(file, data, (size_t)length);
}

static int64_t seek_file(void *opaque, int64_t offset, int whence)
{
    (void)opaque;
    return whence == AVSEEK_SIZE ? -1 : lseek(file, offset, whence);
}

static AVCodecParameters *add_stream(enum AVMediaType type, enum AVCodecID codec, int timescale, const void *extradata,
                                     size_t length)
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

static void begin(const char *variant, const struct work *work, int fd)
{
    static const uint8_t aac_lc_48000_stereo[] = {0x11, 0x90};
    file = fd;
    packet = av_packet_alloc();
    if (!packet || avformat_alloc_output_context2(&context, NULL, "mp4", NULL) < 0) fail("mp4");
    AVCodecParameters *video =
        add_stream(AVMEDIA_TYPE_VIDEO, work->header->codec == h264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC,
                   video_timescale, work_unit_at(work, 0).data, work->header->parameter_sets);
    video->width = work_width;
    video->height = work_height;
    AVCodecParameters *audio =
        add_stream(AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_AAC, work_rate, aac_lc_48000_stereo, sizeof aac_lc_48000_stereo);
    audio->sample_rate = work_rate;
    audio->frame_size = audio_frame;
    av_channel_layout_default(&audio->ch_layout, work_channels);

    if (av_bsf_alloc(av_bsf_get_by_name("aac_adtstoasc"), &strip_adts) < 0 ||
        avcodec_parameters_copy(strip_adts->par_in, audio) < 0 || av_bsf_init(strip_adts) < 0)
        fail("aac_adtstoasc");

    context->flush_packets = 0;
    context->pb = avio_alloc_context(av_malloc(subject_buffer), subject_buffer, 1, NULL, NULL, write_file, seek_file);
    AVDictionary *options = NULL;
    if (strcmp(variant, "fragmented") == 0) av_dict_set(&options, "movflags", "frag_keyframe+empty_moov", 0);
    if (!context->pb || avformat_write_header(context, &options) < 0) fail("header");
    if (context->streams[0]->time_base.den != video_timescale || context->streams[1]->time_base.den != work_rate)
        fail("time base");
}

static void add(const struct work_unit *unit)
{
    const uint64_t timescale = unit->track == 0 ? video_timescale : work_rate;
    packet->data = (uint8_t *)unit->data;
    packet->size = (int)unit->length;
    packet->stream_index = (int)unit->track;
    packet->flags = unit->key ? AV_PKT_FLAG_KEY : 0;
    packet->pts = packet->dts = (int64_t)((unit->time_ns * timescale + 500000000) / 1000000000);
    packet->duration = unit->track == 0 ? video_timescale / video_rate : audio_frame;
    if (unit->track == 1 &&
        (av_bsf_send_packet(strip_adts, packet) < 0 || av_bsf_receive_packet(strip_adts, packet) < 0))
        fail("aac_adtstoasc");
    if (av_write_frame(context, packet) < 0) fail("av_write_frame");
    av_packet_unref(packet);
}

static void end(void)
{
    if (av_write_trailer(context) < 0) fail("av_write_trailer");
    avio_flush(context->pb);
}

static void abandon(int journal_fd)
{
    (void)journal_fd;
    avio_flush(context->pb);
}

const struct subject subject = {begin, add, without_journal, end, abandon};
