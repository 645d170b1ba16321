/*
 * libavformat's mp4 muxer, in the variants `plain` and `fragmented`: a
 * fragment a key frame, after an empty movie header. It is given the same
 * access units with start codes, and a buffer of the same size; it is not
 * asked to flush after each packet, and keeps no journal.
 */
#include <string.h>

#include "libav.h"
#include "subject.h"

static struct libav_output output;
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

static void begin(const char *variant, const struct work *work, int fd)
{
    file = fd;
    output = libav_open(work, "mp4", NULL);
    AVFormatContext *const context = output.context;
    context->flush_packets = 0;
    context->pb = avio_alloc_context(av_malloc(subject_buffer), subject_buffer, 1, NULL, NULL, write_file, seek_file);
    AVDictionary *options = NULL;
    if (strcmp(variant, "fragmented") == 0) av_dict_set(&options, "movflags", "frag_keyframe+empty_moov", 0);
    if (!context->pb || avformat_write_header(context, &options) < 0) fail("header");
}

static void add(const struct work_unit *unit)
{
    libav_add(&output, unit);
}

static void end(void)
{
    if (av_write_trailer(output.context) < 0) fail("av_write_trailer");
    avio_flush(output.context->pb);
}

static void abandon(int journal_fd)
{
    (void)journal_fd;
    avio_flush(output.context->pb);
}

const struct subject subject = {begin, add, without_journal, end, abandon};
