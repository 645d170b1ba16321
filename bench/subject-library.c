/* This library, in the variants `journal` and `plain`. */
#include <string.h>

#include <mediafiles/builder.h>
#include <mediafiles/caretaker.h>
#include <mediafiles/movie.h>

#include "subject.h"

static mp4_builder *builder;
static mediafile_caretaker *journal;

static void begin(const char *variant, const struct work *work, int fd)
{
    const mp4_track_desc video = {.type = work->header->codec, .video = {work_width, work_height, 0}};
    const mp4_track_desc audio = {.type = MP4_TRACK_AAC, .audio = {work_channels, 16, work_rate}};
    builder = mp4_builder_create();
    journal = strcmp(variant, "journal") == 0 ? mediafile_caretaker_create() : NULL;
    if (!builder || builder->add_track(builder, &video) != 0 || builder->add_track(builder, &audio) != 1 ||
        builder->open(builder, fd, subject_buffer, journal) != 0)
        fail("open");
}

static void add(const struct work_unit *unit)
{
    const mp4_frame frame = {
        .track = (int32_t)unit->track,
        .data = unit->data,
        .len = unit->length,
        .timestamp = {(int32_t)(unit->time_ns / 1000000000), (int32_t)(unit->time_ns % 1000000000)},
        .key = (int32_t)unit->key,
    };
    if (builder->add_frame(builder, &frame) != 0) fail("add_frame");
}

static void drain(int journal_fd)
{
    if (!journal) return;
    uint32_t bytes;
    const void *records = mediafile_caretaker_read(journal, &bytes);
    if (mediafile_caretaker_errcode(journal) != 0) fail("journal");
    if (bytes > 0 && write(journal_fd, records, bytes) != (ssize_t)bytes) fail("journal file");
}

static void end(void)
{
    if (builder->close(builder) != 0) fail("close");
}

static void abandon(int journal_fd)
{
    if (builder->flush(builder) != 0) fail("flush");
    drain(journal_fd);
}

const struct subject subject = {begin, add, drain, end, abandon};
