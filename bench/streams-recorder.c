/* The recorder, with a round of syncs for each second of media. */
#include <mediafiles/recorder.h>

#include "streams.h"

static void *begin(const struct work *work, const char *directory, unsigned speed)
{
    const mp4_track_desc tracks[] = {
        {.type = work->header->codec, .video = {work_width, work_height, 0}},
        {.type = MP4_TRACK_AAC, .audio = {work_channels, 16, work_rate}},
    };
    const mediafiles_recorder_options options = {
        .size = sizeof options,
        .track_count = 2,
        .tracks = tracks,
        .directory = directory,
        .sync_ns = 1000000000 / speed,
        .segment_ns = segment_seconds * INT64_C(1000000000),
    };
    mediafiles_recorder *recorder = mediafiles_recorder_start(&options);
    if (!recorder) fail("mediafiles_recorder_start");
    return recorder;
}

static void add(void *stream, const struct work_unit *unit)
{
    if (mediafiles_recorder_push(stream, unit->track, unit->data, unit->length, (int64_t)unit->time_ns,
                                 unit->key ? MEDIAFILES_KEY : 0) != 0)
        fail("mediafiles_recorder_push");
}

const struct recording recording = {begin, add};
