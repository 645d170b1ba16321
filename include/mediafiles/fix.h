/**
 * Repair: a recording that was cut off gets its movie header back, from its
 * journal. The media is neither read nor moved.
 *
 * Nothing may write to the file or the journal meanwhile. Both functions print
 * what they cut to standard output.
 *
 * Both believe the journal. With one that is empty, or that belongs to another
 * recording, they cut the media off and return 0; with a stale one they shorten
 * a finished file. What must be checked first: that nobody records the file
 * (its lock), that it is not finished, that the journal names samples, and that
 * they are where it says. mediafiles_recover and mediafiles_plan_create of
 * <mediafiles/recovery.h> do that, and repair what these functions refuse.
 */
#ifndef MEDIAFILES_FIX_H
#define MEDIAFILES_FIX_H

#include <stdint.h>

#include <mediafiles/movie.h>
#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/** Receives every MEMENTO_USER record, in the journal's order; valid during the call. */
typedef void (*mp4_fix_callback)(const memento *);

struct mp4_fix_track {
    mp4_track_desc desc; /* as the journal holds it */
    mp4_time timespan;   /* the time that its frames reached */
    uint32_t frameCount; /* frames restored */
};

struct mp4_fix_info {
    mp4_time timespan; /* the latest time that any track reached */
    uint32_t fileSize; /* bytes, of the repaired file */
    uint32_t trackCount;
    mp4_fix_track tracks[8]; /* those from trackCount on are zero */
};

/**
 * Restores every sample of the journal that begins inside the file: cuts the
 * file after the last of them, patches the size of mdat and appends
 * moov. A last sample that reaches beyond the end of the file is kept, and its
 * missing bytes are zeros.
 *
 * @param mp4_path  the file; NULL replays the journal alone, without a limit,
 *                  and writes nothing
 * @param callback  or NULL
 * @param info      filled on success, and where only the final fsync failed; or NULL
 * @return 0, the file on the medium; -1 with errno. The file's head may be
 *         rewritten then; unless cutting or writing its end has failed, the
 *         repair can be repeated
 *           EBADMSG  the journal is damaged or contradicts itself
 *           ENOBUFS, ENOSYS, EINVAL, EFBIG  a track, parameter set or frame of
 *                    the journal is refused by the movie
 *           other    from opening, reading or writing
 */
MEDIAFILES_API int mp4_fix(const char *mp4_path, const char *journal_path, mp4_fix_callback callback,
                           mp4_fix_info *info);

/**
 * As mp4_fix, but leaves out the last video sample that begins inside the
 * file, which may be incomplete, and every sample that the journal lists from
 * the first one on that has its time. Video is the journal's first track.
 *
 * @return 0; also for a file with a single video sample, which gets no moov
 *         and an info of zeros. -1 with the errno of opening or of the final
 *         fsync, and with errno -1 for everything else
 */
MEDIAFILES_API int mp4_fix2(const char *mp4_path, const char *journal_path, mp4_fix_callback callback,
                            mp4_fix_info *info);

MEDIAFILES_END_DECLS

#endif
