/*
 * Records elementary streams into an MP4 file, with a journal beside it from
 * which the recording is repaired after a power cut. It shows what the core
 * asks of an application: the lock, the order of a round of syncs, the errors.
 *
 *     record OUT.mp4 video.h26X video.units.tsv WIDTH HEIGHT [audio.aac audio.units.tsv CHANNELS RATE]
 *
 * A .units.tsv lists the frames of a stream, as an encoder would deliver them:
 * index, offset, length, capture time in nanoseconds, key flag. The video is
 * H.264, or H.265 where its name ends in .h265.
 */
#define _GNU_SOURCE
#define _FILE_OFFSET_BITS 64 /* recordings pass 2 GB, and a 32-bit device must open them */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mediafiles/builder.h>
#include <mediafiles/caretaker.h>
#include <mediafiles/h265-parser.h>
#include <mediafiles/movie.h>

struct recording {
    mp4_builder *builder;
    mediafile_caretaker *journal;
    int media_fd, journal_fd, directory_fd;
    uint32_t rounds;
    char pending[1 << 20]; /* journal bytes on their way to the file; the rest of a short write goes first */
    size_t pending_len;
};

#define MARK_SIZE 64 /* a user record: its header, and 60 characters */

/*
 * Ends the records of a round in the journal file, so that recovery knows what a power cut may have torn: the number
 * of the round, the size of the media that is safe with it, and the CRC-32 of the records since the last mark.
 * libmediafiles-recorder has it as mediafiles_round_mark; this example needs the core alone.
 */
static void write_mark(char *mark, uint32_t round, off_t media_size, const unsigned char *records, uint32_t count)
{
    uint32_t crc = UINT32_MAX;
    for (uint32_t i = 0; i < count; i++) {
        crc ^= records[i];
        for (int bit = 0; bit < 8; bit++) crc = crc & 1 ? crc >> 1 ^ 0xEDB88320u : crc >> 1;
    }
    const memento header = {MEMENTO_USER, 0, MARK_SIZE - sizeof(memento)};
    char text[MARK_SIZE];
    snprintf(text, sizeof text, "mediafiles round %010u of %012llu bytes %08x..", round, (unsigned long long)media_size,
             ~crc);
    memcpy(mark, &header, sizeof header);
    memcpy(mark + sizeof header, text, header.length);
}

/* What the journal file gets at the end of this round: the records since the last one, and the round's mark. */
static int take_records(struct recording *r, off_t media_size)
{
    uint32_t count;
    const void *records = mediafile_caretaker_read(r->journal, &count);
    if (count == 0) return 0;
    if (count + MARK_SIZE > sizeof r->pending - r->pending_len) {
        errno = ENOBUFS;
        return -1;
    }
    memcpy(r->pending + r->pending_len, records, count);
    r->pending_len += count;
    write_mark(r->pending + r->pending_len, ++r->rounds, media_size, records, count);
    r->pending_len += MARK_SIZE;
    return 0;
}

/*
 * A round of syncs makes what was recorded so far safe. The order matters: the
 * records are taken directly after the flush, so that they name nothing that
 * is recorded while the sync waits; the media is on the medium before the
 * journal file names it; no record is ever cut in the middle of the file. With
 * a thread for the syncs, flush and take_records share a lock with add_frame.
 */
static int make_durable(struct recording *r)
{
    struct stat media;
    if (r->builder->flush(r->builder) != 0 || fstat(r->media_fd, &media) != 0) return -1;
    if (take_records(r, media.st_size) != 0 || fdatasync(r->media_fd) != 0) return -1;

    ssize_t written = write(r->journal_fd, r->pending, r->pending_len);
    if (written < 0) return 0; /* the recording goes on; they are written next time */
    r->pending_len -= (size_t)written;
    memmove(r->pending, r->pending + written, r->pending_len);
    return fdatasync(r->journal_fd);
}

/*
 * The journal of an H.265 track holds its first prefix SEI unit (type 39), and no record is larger than 512 bytes: a
 * larger unit would end the journal. Encoders send their settings so; no decoder needs them. They are taken out.
 */
static uint32_t without_long_sei(uint8_t *data, uint32_t len)
{
    uint32_t begin, code, offset, next, kept = 0;
    if (!h265_parser_find_start_code(data, len, &begin, &code)) return len;
    for (uint32_t end = 0; end < len; begin = end, code = next) { /* a unit with its start code each time */
        const uint32_t unit = begin + code;
        const int more = h265_parser_find_start_code(data + unit, len - unit, &offset, &next);
        end = more ? unit + offset : len;
        if (unit < len && (data[unit] >> 1 & 0x3F) == 39 && end - unit > MEMENTO_MAX_SIZE - sizeof(memento)) continue;
        memmove(data + kept, data + begin, end - begin);
        kept += end - begin;
    }
    return kept;
}

/* One elementary stream with the list of its frames. */
struct source {
    int is_h265;
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
    s->next.len = s->is_h265 ? without_long_sei((uint8_t *)data, (uint32_t)length) : (uint32_t)length;
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
    s->is_h265 = strstr(stream, ".h265") != NULL;
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
        /* A journal that has ended names nothing more: what follows would be lost, and no call would fail. */
        if ((errno = mediafile_caretaker_errcode(r->journal)) != 0) return -1;
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
    r.directory_fd = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    r.media_fd = open(argv[1], O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    /* The lock tells a repair that this file is being recorded. Only who has it may empty the files. */
    if (r.directory_fd < 0 || r.media_fd < 0 || flock(r.media_fd, LOCK_EX | LOCK_NB) != 0) goto failed;
    struct stat media;
    if (fstat(r.media_fd, &media) != 0 || media.st_nlink == 0) { /* until then, a repair could remove it */
        errno = ESTALE;
        goto failed;
    }
    r.journal_fd = open(journal_path, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (r.journal_fd < 0 || ftruncate(r.media_fd, 0) != 0 || fsync(r.directory_fd) != 0) goto failed;

    if (r.builder->open(r.builder, r.media_fd, 65536, r.journal) != 0) goto failed;
    int recorded = record(&r, sources, count) == 0 && make_durable(&r) == 0;
    int error = errno;
    int closed = r.builder->close(r.builder) == 0 && fdatasync(r.media_fd) == 0;
    if (!recorded) errno = error;
    if (!recorded || !closed) goto failed;

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
