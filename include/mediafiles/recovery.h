/**
 * Recovery: recordings that were cut off become files that play, and nothing
 * that was recorded is lost on the way.
 *
 * Deciding and doing are two things. A *plan* is made from the bytes of a
 * journal, the size of the media and a way to read a few bytes of it; it opens
 * nothing and writes nothing. It says what kind of find this is, what is kept,
 * and which bytes begin and end the file. Applying a plan writes them, in the
 * file's place or into a copy. mediafiles_recover does all of it for a
 * directory: it is what a device calls at boot.
 *
 * A file that is finished is never changed, whatever journal lies beside it.
 * Of a file that is recorded or recovered meanwhile nothing is touched: a
 * recorder holds flock(LOCK_EX) on the media file for as long as it records.
 * Writers that do not lock are found by a read lease, where the kernel grants
 * one (same machine, owner of the file or CAP_LEASE).
 *
 * Functions that return int give -1 with errno on failure. Different plans may
 * be used in different threads; one plan, by one thread at a time. While a plan
 * is made the core prints a line to standard output for each H.264 and H.265
 * track.
 *
 * Every record that a caller fills or receives begins with its size, which the
 * caller sets with sizeof. The library neither reads nor writes beyond it; what
 * an older caller does not have counts as 0.
 */
#ifndef MEDIAFILES_RECOVERY_H
#define MEDIAFILES_RECOVERY_H

#include <stddef.h>
#include <stdint.h>

#include <mediafiles/fix.h>
#include <mediafiles/movie.h>
#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/* ---- Records of a journal --------------------------------------------- */

/**
 * Bytes to read from: a file, a Blob, an object in a store.
 *
 * read fetches up to count bytes at an offset and gives how many it got: fewer
 * only at the end of what can be read, 0 beyond it, -1 when reading fails.
 */
typedef struct mediafiles_source {
    void *context;
    uint64_t size; /* bytes */
    int64_t (*read)(void *context, uint64_t offset, void *to, uint32_t count);
} mediafiles_source;

/** How a journal's records end. */
enum {
    MEDIAFILES_JOURNAL_WHOLE = 0, /* with the last record */
    MEDIAFILES_JOURNAL_CUT,       /* inside a record, at the end of the journal */
    MEDIAFILES_JOURNAL_TORN,      /* in what was written after the last whole round of syncs */
    MEDIAFILES_JOURNAL_DAMAGED,   /* earlier: by the medium, or it is another file */
};

typedef struct mediafiles_journal mediafiles_journal; /* opaque: an iterator of records */

typedef struct mediafiles_journal_record {
    uint32_t size;
    uint8_t kind, track;    /* MEMENTO_, index */
    uint16_t length;        /* bytes of payload */
    uint64_t offset, end;   /* in the journal: of the header; after the padding */
    const uint8_t *payload; /* until the next call */
} mediafiles_journal_record;

/** What is known after the last record. */
typedef struct mediafiles_journal_summary {
    uint32_t size;
    uint32_t ending;                      /* MEDIAFILES_JOURNAL_ */
    uint64_t end, lost;                   /* bytes of valid records; bytes after them */
    const char *damage;                   /* what is wrong with the first invalid record; NULL when nothing is */
    uint32_t tracks;                      /* tracks[0] to tracks[tracks - 1] are set */
    uint32_t rounds;                      /* the number of the last whole round of syncs; 0 without marks */
    uint64_t samples, media_end;          /* samples; where the last of them ends in the media, 32 without samples */
    mp4_track_desc track[MP4_MAX_TRACKS]; /* without MP4_TRACK_RAW */
} mediafiles_journal_summary;

/**
 * Begins with the journal's first record. Records are checked as recovery
 * checks them: kinds, lengths, tracks, samples without gaps.
 *
 * @param journal  copied; its context stays the caller's
 * @param media    for the last record alone, which a power cut may have torn; or NULL
 * @return released by mediafiles_journal_close; NULL with errno ENOMEM, or EIO when the journal cannot be read
 */
MEDIAFILES_API mediafiles_journal *mediafiles_journal_open(const mediafiles_source *journal,
                                                           const mediafiles_source *media);
/** 1 with a record; 0 after the last valid one. */
MEDIAFILES_API int mediafiles_journal_next(mediafiles_journal *, mediafiles_journal_record *record);
/** What the records before the current position amount to; complete after next has given 0. */
MEDIAFILES_API void mediafiles_journal_get_summary(const mediafiles_journal *, mediafiles_journal_summary *summary);
MEDIAFILES_API void mediafiles_journal_close(mediafiles_journal *);

/** Whether bytes from the beginning of a file (up to 64 KiB are looked at) begin a journal. */
MEDIAFILES_API int mediafiles_is_journal(const void *begin, size_t size);

/** Bytes of the record that mediafiles_round_mark makes. */
#define MEDIAFILES_ROUND_MARK_SIZE 64

/**
 * Makes the record that ends a round of syncs. A recorder appends it to the
 * journal file together with the records of the round: after a power cut it
 * tells which part of the journal is whole.
 *
 * @param mark        receives MEDIAFILES_ROUND_MARK_SIZE bytes
 * @param number      of the round, from 1 on
 * @param media_size  bytes of the media file that were synced before
 * @param records     the journal bytes since the previous mark, that is those of this round
 * @param length      of records, bytes
 */
MEDIAFILES_API void mediafiles_round_mark(void *mark, uint32_t number, uint64_t media_size, const void *records,
                                          size_t length);

/* ---- Plans ------------------------------------------------------------- */

/** What a find is, or what came of it. */
enum {
    MEDIAFILES_REPAIRED = 1,  /* all that the journal names is kept */
    MEDIAFILES_SALVAGED,      /* likewise, but for what is damaged: see the ranges */
    MEDIAFILES_FINISHED,      /* it is whole and stays as it is */
    MEDIAFILES_EMPTY_REMOVED, /* no frame was ever safe: file and journal go */
    MEDIAFILES_NOT_OURS,      /* no recording of this library; it is not touched */
    MEDIAFILES_REFUSED,       /* it is not touched, and reason says what would help */
    MEDIAFILES_FAILED,        /* while reading or writing; it can be repeated */
};

/** Why a file was refused, or could not be recovered. */
enum {
    MEDIAFILES_REASON_NONE = 0,
    MEDIAFILES_REASON_NO_JOURNAL,      /* cut off, and no journal names its samples */
    MEDIAFILES_REASON_NO_SAMPLES,      /* the journal names none, but the media may hold some */
    MEDIAFILES_REASON_JOURNAL_DAMAGED, /* before its last round; MEDIAFILES_SALVAGE uses what stands before that */
    MEDIAFILES_REASON_MEDIA_DAMAGED,   /* MEDIAFILES_SALVAGE keeps what stands before, MEDIAFILES_KEEP_DAMAGED all */
    MEDIAFILES_REASON_FOREIGN_JOURNAL, /* not even the first frame is where the journal says */
    MEDIAFILES_REASON_LARGE_CUT,       /* over 64 MiB and more than half of the media would go; MEDIAFILES_FORCE */
    MEDIAFILES_REASON_LARGE_GROWTH,    /* as much would be added; MEDIAFILES_FORCE */
    MEDIAFILES_REASON_NO_FRAME_LEFT,   /* without the last frame nothing would be left */
    MEDIAFILES_REASON_TOO_LARGE,       /* above 4 GiB */
    MEDIAFILES_REASON_CANNOT_REPLAY,   /* the movie refuses the journal's samples: see error */
    MEDIAFILES_REASON_IN_USE,          /* another process records or recovers it */
    MEDIAFILES_REASON_EXISTS,          /* the output has a file of that name */
    MEDIAFILES_REASON_NO_MEDIA,        /* a journal without its media file */
    MEDIAFILES_REASON_NOT_REGULAR,     /* a link, several links, a device, another file system ... */
    MEDIAFILES_REASON_SYSTEM,          /* a system call failed: see error */
    MEDIAFILES_REASON_CHANGED,         /* it changed while it was read */
    MEDIAFILES_REASON_STOPPED,         /* by options.stop */
};

/** One sentence fragment in English, such as "there is no journal"; static. */
MEDIAFILES_API const char *mediafiles_reason_text(uint32_t reason);

/* Options of a plan */
#define MEDIAFILES_DROP_LAST_FRAME 1u /* leave out the last video frame and what was recorded after it */
#define MEDIAFILES_SALVAGE 2u         /* keep what stands before damage, of the journal or of the media */
#define MEDIAFILES_KEEP_DAMAGED 4u    /* keep all samples that the journal names, damaged ones included */
#define MEDIAFILES_FORCE 8u           /* cut or add even more than 64 MiB and half of the media */
#define MEDIAFILES_CHECK_ALL 16u      /* look into every video sample, not only into 256 */

/** Bytes of the media file. */
typedef struct mediafiles_range {
    uint64_t begin, end;
} mediafiles_range;

/* What happens to the journal when the plan is applied in place */
enum { MEDIAFILES_JOURNAL_NONE = 0, MEDIAFILES_JOURNAL_REMOVED, MEDIAFILES_JOURNAL_KEPT };

typedef struct mediafiles_plan_info {
    uint32_t size;
    uint32_t result;       /* MEDIAFILES_REPAIRED to MEDIAFILES_REFUSED */
    uint32_t reason;       /* MEDIAFILES_REASON_, when refused or not ours */
    uint32_t help;         /* options that would help: MEDIAFILES_SALVAGE | ... */
    int32_t error;         /* errno behind the reason, or 0 */
    uint32_t journal;      /* what becomes of it: MEDIAFILES_JOURNAL_ */
    uint32_t foreign;      /* 1: the journal beside a finished file is not its own, or is damaged */
    uint32_t ranges;       /* of media that are damaged or not kept: mediafiles_plan_range */
    uint64_t media_end;    /* media is kept up to here, or would be with MEDIAFILES_FORCE */
    uint64_t file_size;    /* of the result, bytes */
    uint64_t cut, added;   /* bytes of media that are left out; bytes of zeros that a last sample lacks */
    uint64_t journal_end;  /* bytes of the journal that are used */
    uint64_t journal_lost; /* bytes of the journal that could not be used */
    const char *damage;    /* what is wrong with the journal after them; NULL for nothing; static */
    uint64_t samples;      /* that are kept */
    mp4_fix_info info;     /* of a repaired or salvaged file: tracks, frames, time spans */
    uint32_t is_protected; /* 1: by a record of its journal; the file, or its copy, loses its write permission */
} mediafiles_plan_info;

typedef struct mediafiles_plan mediafiles_plan; /* opaque */

/**
 * Decides about one recording. At most 40 bytes a sample and 1 MiB of memory
 * are used. Of the media at most 5 bytes for each NAL unit of 256 samples are
 * read (of every sample with MEDIAFILES_CHECK_ALL, or once damage was found),
 * its movie header where it has one, and, when a size is missing, what lies
 * after the journal's last sample.
 *
 * @param media    copied; its context must live as long as the plan
 * @param journal  likewise; NULL: there is none
 * @param options  MEDIAFILES_DROP_LAST_FRAME | ...
 * @return released by mediafiles_plan_destroy; NULL with errno ENOMEM
 */
MEDIAFILES_API mediafiles_plan *mediafiles_plan_create(const mediafiles_source *media, const mediafiles_source *journal,
                                                       uint32_t options);
MEDIAFILES_API void mediafiles_plan_destroy(mediafiles_plan *);
MEDIAFILES_API void mediafiles_plan_get(const mediafiles_plan *, mediafiles_plan_info *info);
/** The range with that index, from 0 on; EINVAL beyond the last. */
MEDIAFILES_API int mediafiles_plan_range(const mediafiles_plan *, uint32_t index, mediafiles_range *range);

/** Bytes of the file's head: ftyp and the header of mdat. The media follows. */
#define MEDIAFILES_HEAD_SIZE 32

/** The head of a repaired or salvaged file; else EINVAL. */
MEDIAFILES_API int mediafiles_plan_head(const mediafiles_plan *, uint8_t head[MEDIAFILES_HEAD_SIZE]);

/** Takes the next bytes; anything but 0 ends the call that hands them out, which then fails with errno as it is. */
typedef int (*mediafiles_sink)(void *context, const void *bytes, size_t count);

/**
 * Hands out what follows media_end in the result: zeros that a last sample
 * lacks are not part of it, the movie header is. Can be called repeatedly.
 *
 * @return 0; -1 with errno: EINVAL the plan keeps nothing, or as the sink left it
 */
MEDIAFILES_API int mediafiles_plan_tail(const mediafiles_plan *, mediafiles_sink sink, void *context);

/* ---- Applying ---------------------------------------------------------- */

/** Follows what happens; anything but 0 stops at the next safe moment (ECANCELED). done and total in bytes. */
typedef int (*mediafiles_progress)(void *context, uint64_t done, uint64_t total);

/**
 * Carries a plan out in the file's place: the new journal durably in place of
 * the old one, then the media, then the journal goes. A power cut in between
 * does no harm: making a plan and applying it again ends in the same bytes.
 * Does what the result asks for: also removes an empty leftover, or the journal
 * of a finished file. The caller holds the lock of the media file.
 *
 * @param directory  descriptor of the directory of both files
 * @param media      name of the media file in it, as it was opened for the plan
 * @param journal    name of the journal; NULL where the plan had none
 * @param keep       keep the journal of a repaired file
 * @return 0; -1 with errno. The media may be written then; a new plan can be made and applied
 *           EINVAL  the plan keeps and removes nothing, or a name is none of a file in the directory
 *           ESTALE  a file is not as long as it was for the plan
 */
MEDIAFILES_API int mediafiles_apply_in_place(const mediafiles_plan *, int directory, const char *media,
                                             const char *journal, int keep);

/**
 * Writes the result to a sink: head, media as it is kept, tail. Applies to repaired and salvaged files (else EINVAL);
 * ESTALE when the media has become shorter.
 *
 * @param progress  or NULL
 */
MEDIAFILES_API int mediafiles_apply_to_sink(const mediafiles_plan *, mediafiles_sink sink, void *context,
                                            mediafiles_progress progress, void *progress_context);

/* ---- A whole directory ------------------------------------------------- */

/* Further options of mediafiles_recover, beside those of a plan */
#define MEDIAFILES_DRY_RUN 0x100u      /* report what would be done, and change nothing */
#define MEDIAFILES_KEEP_JOURNAL 0x200u /* of repaired files */
#define MEDIAFILES_HASH 0x400u         /* SHA-256 of the media that was read and of the file that was made */

typedef struct mediafiles_recover_options {
    uint32_t size;
    uint32_t flags;               /* of a plan, and MEDIAFILES_DRY_RUN | ... */
    const char *journal;          /* path of the journal of the one file; NULL: beside it, NAME.journal */
    const char *output;           /* path of a directory that receives the results; NULL: in place */
    mediafiles_progress progress; /* or NULL; called a few times a second while a copy is made or hashed; and while
                                     files are searched: done is the names seen then, total is 0 */
    void *progress_context;
} mediafiles_recover_options;

/** What became of one file. Strings are valid during the callback. */
typedef struct mediafiles_report {
    uint32_t size;
    uint32_t result;                   /* MEDIAFILES_REPAIRED to MEDIAFILES_FAILED */
    uint32_t reason;                   /* MEDIAFILES_REASON_ */
    int32_t error;                     /* errno behind it, or 0 */
    uint32_t lease_unknown;            /* 1: writers that do not lock could not be looked for */
    uint32_t journal_kept;             /* 1: a journal is there afterwards */
    const char *path;                  /* of the media file, as found; of a journal without one; of a directory that
                                          was not searched */
    const char *journal;               /* path; NULL: there is none */
    const char *output;                /* path of the result; NULL when none was made */
    const char *problem_path;          /* the file that reason speaks of; NULL: path */
    const mediafiles_plan_info *plan;  /* NULL when it did not come to a plan */
    const mediafiles_range *ranges;    /* plan->ranges of them */
    const char *hash_read, *hash_made; /* 64 hexadecimal digits; NULL unless asked for and there is such a file */
} mediafiles_report;

/** Gets the report of each file, newest first; anything but 0 ends the run (ECANCELED). */
typedef int (*mediafiles_report_callback)(void *context, const mediafiles_report *report);

/**
 * Recovers recordings: files, and directories with everything below them, at
 * most 8 deep. Links are not followed, file systems not crossed, files that
 * are no recordings not touched; one file's trouble does not stop the others.
 *
 * @param paths    count of them: directories, media files, or journals, which stand for their media files
 * @param options  or NULL
 * @param report   called for each media file that was found, in the caller's thread; before them for paths and
 *                 directories that could not be searched (FAILED), and those that are left out on purpose, since they
 *                 are deeper or on another file system (NOT_OURS with ENAMETOOLONG, EXDEV)
 * @return 0, also when files were refused; -1 with errno, after the other paths were gone through:
 *         from opening a path or reading a directory; ENOMEM; ECANCELED
 */
MEDIAFILES_API int mediafiles_recover(const char *const *paths, size_t count, const mediafiles_recover_options *options,
                                      mediafiles_report_callback report, void *context);

MEDIAFILES_END_DECLS

#endif
