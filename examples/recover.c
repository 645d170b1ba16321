/*
 * What a device does at boot: completes the recordings that a power cut has
 * interrupted, so that they play.
 *
 *     recover DIRECTORY...
 *
 * A recording was interrupted when its journal, X.mp4.journal, is still beside
 * X.mp4. Power may fail here as well: a recovery that is repeated gives the same
 * file. A file that cannot be recovered is left alone, for the command
 * `mediafiles repair`, which can do more (damaged journals, copies).
 */
#define _GNU_SOURCE
#define _FILE_OFFSET_BITS 64 /* recordings pass 2 GB */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mediafiles/caretaker.h>
#include <mediafiles/fix.h>

/*
 * How many bytes of the journal name samples that are whole in the file; -1
 * with errno when the journal is damaged before that or names none.
 */
static off_t usable_bytes(const char *journal_path, uint64_t media_size)
{
    mediafile_caretaker *journal = mediafile_caretaker_load(journal_path);
    if (!journal) return -1;
    const uint64_t media_begin = 32; /* after ftyp and the header of mdat */
    off_t end = 0, previous_end = 0;
    uint64_t media_end = media_begin, previous_media_end = media_begin;
    int error = 0;
    for (const memento *record; error == 0 && (record = mediafile_caretaker_pop(journal));) {
        if (record->kind == MEMENTO_USER && record->length == 0) {
            /* Four zero bytes, which no recorder writes: a power cut left them, perhaps in the last record, too. */
            end = previous_end;
            media_end = previous_media_end;
            break;
        }
        previous_end = end;
        previous_media_end = media_end;
        if (record->kind == MEMENTO_SAMPLE) {
            uint32_t place[2]; /* offset, length */
            memcpy(place, record + 1, sizeof place);
            if ((uint64_t)place[0] + place[1] > media_size) break;
            if (place[0] != media_end) error = EBADMSG; /* samples follow each other */
            media_end += place[1];
        }
        end += (off_t)sizeof *record + ((record->length + 3) & ~3);
    }
    if (error == 0) error = mediafile_caretaker_errcode(journal);
    if (error == 0 && media_end == media_begin) error = ENODATA;
    mediafile_caretaker_destroy(journal);
    if (error == 0) return end;
    errno = error;
    return -1;
}

/*
 * mp4_fix goes by the size of the file. Once moov follows the media, a sample that
 * the journal names and that never reached the file could lie inside moov. So
 * before the file is touched the journal is cut to the samples that are whole,
 * and synced: then a repair that was interrupted can be repeated.
 */
static int recover(const char *media_path, const char *journal_path, int directory_fd)
{
    struct stat media;
    if (stat(media_path, &media) != 0) return -1;
    if (media.st_size > UINT32_MAX) { /* larger than any recording */
        errno = EFBIG;
        return -1;
    }
    const off_t usable = usable_bytes(journal_path, (uint64_t)media.st_size);
    const int journal_fd = usable < 0 ? -1 : open(journal_path, O_WRONLY);
    if (journal_fd < 0) return -1;
    const int cut = ftruncate(journal_fd, usable) == 0 && fsync(journal_fd) == 0;
    close(journal_fd);

    mp4_fix_info info; /* mp4_fix syncs the file: only then the journal can go */
    if (!cut || mp4_fix(media_path, journal_path, NULL, &info) != 0) return -1;
    if (unlink(journal_path) != 0 || fsync(directory_fd) != 0) return -1;
    printf("%s: %d.%03d s\n", media_path, info.timespan.seconds, info.timespan.nanoseconds / 1000000);
    return 0;
}

static int recover_all(const char *path)
{
    DIR *directory = opendir(path);
    if (!directory) {
        perror(path);
        return -1;
    }
    int result = 0;
    for (struct dirent *entry; (entry = readdir(directory));) {
        const size_t length = strlen(entry->d_name), tail = strlen(".mp4.journal");
        if (length <= tail || strcmp(entry->d_name + length - tail, ".mp4.journal") != 0) continue;
        char journal[PATH_MAX], media[PATH_MAX];
        const int end = snprintf(journal, sizeof journal, "%s/%s", path, entry->d_name) - (int)strlen(".journal");
        snprintf(media, sizeof media, "%.*s", end, journal);
        if (recover(media, journal, dirfd(directory)) == 0) continue;
        perror(media);
        result = -1;
    }
    closedir(directory);
    return result;
}

int main(int argc, char **argv)
{
    if (argc < 2) fprintf(stderr, "usage: %s DIRECTORY...\n", argv[0]);
    int failed = argc < 2;
    for (int i = 1; i < argc; i++)
        if (recover_all(argv[i]) != 0) failed = 1;
    return failed;
}
