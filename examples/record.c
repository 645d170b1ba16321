/*
 * Records elementary streams into an MP4 file, with a journal beside it from
 * which the recording is repaired after a power cut.
 *
 *     record OUT.mp4 video.h26X video.units.tsv WIDTH HEIGHT [audio.aac audio.units.tsv CHANNELS RATE]
 *
 * A .units.tsv lists the frames of a stream, as an encoder would deliver them:
 * index, offset, length, capture time in nanoseconds, key flag. The video is
 * H.264, or H.265 where its name ends in .h265.
 */
#define _GNU_SOURCE
#define _FILE_OFFSET_BITS 64 /* recordings pass 2 GB */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <mediafiles/builder.h>
#include <mediafiles/caretaker.h>
#include <mediafiles/movie.h>

struct recording {
    mp4_builder *builder;
    mediafile_caretaker *journal;
    int media_fd, journal_fd, directory_fd;
    char pending[1 << 20]; /* journal bytes on their way to the file; the rest of a short write goes first */
    size_t pending_len;
};

/*
 * Makes what was recorded so far safe. The order matters: a sample is on the
 * medium before the journal file names it, and no record is ever cut in the
 * middle of the journal file.
 */
static int make_durable(struct recording *r)
{
    if (r->builder->flush(r->builder) != 0 || fdatasync(r->media_fd) != 0) return -1;

    uint32_t count;
    const void *records = mediafile_caretaker_read(r->journal, &count);
    if (count > sizeof r->pending - r->pending_len) return -1;
    memcpy(r->pending + r->pending_len, records, count);
    r->pending_len += count;

    ssize_t written = write(r->journal_fd, r->pending, r->pending_len);
    if (written < 0) return 0; /* the recording goes on; they are written next time */
    r->pending_len -= (size_t)written;
    memmove(r->pending, r->pending + written, r->pending_len);
    return fdatasync(r->journal_fd);
}

/* One elementary stream with the list of its frames. */
struct source {
    FILE *bytes, *units;
    char *data; /* of the next frame */
    mp4_frame next;
    int ended;
};

static void read_next(struct source *s)
{
    unsigned long index, offset, length;
    unsigned long long time_ns;
    int key;
    if (fscanf(s->units, "%lu %lu %lu %llu %d %*s", &index, &offset, &length, &time_ns, &key) != 5) {
        s->ended = 1;
        return;
    }
    char *data = realloc(s->data, length);
    if (data) s->data = data;
    if (!data || fseek(s->bytes, (long)offset, SEEK_SET) != 0 || fread(data, 1, length, s->bytes) != length) {
        perror("frame");
        s->ended = 1;
        return;
    }
    s->next.data = data;
    s->next.len = (uint32_t)length;
    s->next.timestamp.seconds = (int32_t)(time_ns / 1000000000);
    s->next.timestamp.nanoseconds = (int32_t)(time_ns % 1000000000);
    s->next.key = key;
}

static int open_source(struct source *s, int track, const char *stream, const char *units)
{
    char header[256];
    s->bytes = fopen(stream, "rb");
    s->units = fopen(units, "r");
    if (!s->bytes || !s->units || !fgets(header, sizeof header, s->units)) return -1;
    s->next.track = track;
    read_next(s);
    return 0;
}

static int earlier(const mp4_frame *a, const mp4_frame *b)
{
    if (a->timestamp.seconds != b->timestamp.seconds) return a->timestamp.seconds < b->timestamp.seconds;
    return a->timestamp.nanoseconds < b->timestamp.nanoseconds;
}

static int record(struct recording *r, struct source *sources, int count)
{
    int32_t durable_second = 0;
    for (;;) {
        struct source *first = NULL;
        for (int i = 0; i < count; i++)
            if (!sources[i].ended && (!first || earlier(&sources[i].next, &first->next))) first = &sources[i];
        if (!first) return 0;

        if (r->builder->add_frame(r->builder, &first->next) != 0) return -1;
        if (first->next.timestamp.seconds > durable_second) {
            durable_second = first->next.timestamp.seconds;
            if (make_durable(r) != 0) return -1;
        }
        read_next(first);
    }
}

int main(int argc, char **argv)
{
    if (argc != 6 && argc != 10) {
        fprintf(stderr,
                "usage: %s OUT.mp4 video.h26X video.units.tsv WIDTH HEIGHT"
                " [audio.aac audio.units.tsv CHANNELS RATE]\n",
                argv[0]);
        return 2;
    }
    char journal_path[4096];
    snprintf(journal_path, sizeof journal_path, "%s.journal", argv[1]);

    static struct recording r;
    r.builder = mp4_builder_create();
    r.journal = mediafile_caretaker_create();
    struct source sources[2] = {{0}};
    int count = argc == 10 ? 2 : 1;
    mp4_track_desc video = {.type = strstr(argv[2], ".h265") ? MP4_TRACK_H265 : MP4_TRACK_H264,
                            .video = {(uint32_t)atoi(argv[4]), (uint32_t)atoi(argv[5]), 0}};
    if (!r.builder || !r.journal || r.builder->add_track(r.builder, &video) < 0 ||
        open_source(&sources[0], 0, argv[2], argv[3]) != 0)
        goto failed;
    if (count == 2) {
        mp4_track_desc audio = {.type = MP4_TRACK_AAC, .audio = {(uint32_t)atoi(argv[8]), 16, (uint32_t)atoi(argv[9])}};
        if (r.builder->add_track(r.builder, &audio) < 0 || open_source(&sources[1], 1, argv[6], argv[7]) != 0)
            goto failed;
    }

    /* Both names are on the medium before anything is recorded. */
    char directory[4096];
    snprintf(directory, sizeof directory, "%s", argv[1]);
    char *slash = strrchr(directory, '/');
    strcpy(slash ? slash + 1 : directory, slash ? "" : ".");
    r.media_fd = open(argv[1], O_RDWR | O_CREAT | O_TRUNC, 0644);
    r.journal_fd = open(journal_path, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
    r.directory_fd = open(directory, O_RDONLY | O_DIRECTORY);
    if (r.media_fd < 0 || r.journal_fd < 0 || r.directory_fd < 0 || fsync(r.directory_fd) != 0) goto failed;

    if (r.builder->open(r.builder, r.media_fd, 65536, r.journal) != 0) goto failed;
    int recorded = record(&r, sources, count) == 0 && make_durable(&r) == 0;
    if (r.builder->close(r.builder) != 0 || !recorded || fdatasync(r.media_fd) != 0) goto failed;

    unlink(journal_path); /* the file is complete without it */
    for (int i = 0; i < count; i++) {
        fclose(sources[i].bytes);
        fclose(sources[i].units);
        free(sources[i].data);
    }
    r.builder->destroy(r.builder);
    mediafile_caretaker_destroy(r.journal);
    return 0;

failed:
    perror(argv[1]);
    return 1; /* what was recorded stays, and its journal with it */
}
