/* libavformat's segment muxer: files of a minute, a fragment a key frame. It never syncs. */
#include "libav.h"
#include "streams.h"

static void *begin(const struct work *work, const char *directory, unsigned speed)
{
    (void)speed;
    char pattern[4096];
    snprintf(pattern, sizeof pattern, "%s/%%05d.mp4", directory);
    struct libav_output *const output = malloc(sizeof *output);
    if (!output) fail("malloc");
    *output = libav_open(work, "segment", pattern);
    AVDictionary *options = NULL;
    av_dict_set_int(&options, "segment_time", segment_seconds, 0);
    av_dict_set(&options, "segment_format_options", "movflags=frag_keyframe+empty_moov", 0);
    if (avformat_write_header(output->context, &options) < 0) fail("header");
    return output;
}

static void add(void *stream, const struct work_unit *unit)
{
    libav_add(stream, unit);
}

const struct recording recording = {begin, add};
