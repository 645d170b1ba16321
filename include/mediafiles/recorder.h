/**
 * The recorder: frames in, a directory of MP4 files out, each of them safe up
 * to its last round of syncs.
 *
 * One recorder has one directory and two threads, which alone touch the
 * medium: one writes, the other syncs and finishes files. No call here waits
 * for the medium, except start (it opens and locks the directory) and stop.
 * Any thread may call anything at any time until destroy; frames of one track
 * come in their order. Nothing here calls back: what happens is taken as
 * events. Not async-signal-safe; not to be used after fork.
 *
 *     mediafiles_recorder *recorder = mediafiles_recorder_start(&options);
 *     mediafiles_recorder_push(recorder, 0, data, len, time, 0);    for each frame
 *     mediafiles_recorder_stop(recorder, patience);
 *     mediafiles_recorder_destroy(recorder);
 *
 * All times are nanoseconds. Strings given are copied. Functions that return
 * int give -1 with errno on failure.
 *
 * Every record that a caller fills or receives begins with its size, which the
 * caller sets with sizeof. The library neither reads nor writes beyond it; what
 * an older caller does not have counts as 0.
 *
 * A file begins with a frame where decoding can begin, of the first video track
 * where there is one: nothing is stored before that track's first key frame. The
 * first two samples of a track in a file begin at the same time: the format
 * gives the first sample no duration. All others begin at their capture times,
 * rounded to a tick of their track.
 *
 * One frame of each track is held back until the next one says how long it
 * lasts, at most for the time between two rounds of syncs, a second where its
 * slices come one by one: what is held back is not safe yet. When a file is
 * finished, and when a track of H.265 is made for one, the core prints lines to
 * standard output.
 *
 * A file has the first video track, all sound, and the other video that has
 * frames in it. What its header has no place for of a video track's parameter
 * sets stands before the track's first sample, where that sample lacks it.
 */
#ifndef MEDIAFILES_RECORDER_H
#define MEDIAFILES_RECORDER_H

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#include <mediafiles/movie.h>
#include <mediafiles/recovery.h>

MEDIAFILES_BEGIN_DECLS

typedef struct mediafiles_recorder mediafiles_recorder; /* opaque */

/* Flags of the options, beside MEDIAFILES_KEEP_JOURNAL (mediafiles/recovery.h): keep the journals of finished files */
#define MEDIAFILES_ANY_START 1u  /* where no key frame comes, begin a file at a recovery point (intra refresh) */
#define MEDIAFILES_OVERWRITE 2u  /* a pattern without {number}: replace the recording that is there */
#define MEDIAFILES_JOIN_STEPS 4u /* where capture times step, join the times on instead of beginning a file */
#define MEDIAFILES_PLAIN_NAME 8u /* the pattern is the name of one file as it is, whatever its bytes and its end */

/**
 * In the numbers 0 is the default, which stands with each, and -1 is "never" or
 * "without limit".
 *
 * A pattern without {number}, and a plain name, is one recording. Its files are
 * NAME.mp4, NAME-2.mp4, NAME-3.mp4 ...; what was recorded before is neither
 * recovered nor deleted, so quota_bytes and protected_bytes are refused. Where
 * NAME.mp4 or its journal exists, start refuses; a name after the first that is
 * taken is left out. With MEDIAFILES_OVERWRITE each
 * of these names gets the new file, and its journal's name the new journal, once
 * both have been made and are locked: until then the old recording stays. A file
 * that somebody else records, one without write permission, and what is no
 * regular file are never replaced. Files of an older recording whose numbers the
 * new one does not reach stay.
 *
 * To keep to quota_bytes and keep_free_bytes the oldest finished files of the
 * pattern are deleted, by their number; those without write permission are
 * protected. When none can go, or where others fill the file system so far that
 * all of them would not be enough, the running file is finished, and recording
 * goes on when there is room. Once the protected files together take more than
 * protected_bytes, the oldest of them are deleted: as soon as one more is
 * protected, or when room is to be made. The one with the highest number stays.
 *
 * Room for the next rounds and for the movie header is kept ahead of the media,
 * so that the running file can be finished when others fill the file system:
 * by blocks beyond the file's end, or, where the file system has no such blocks,
 * by a hidden file. Recording goes on as soon as there is room again.
 *
 * The medium is missing when the directory cannot be used, or when its path
 * leads to another directory than the one that was opened. The running files
 * are given up then, nothing is written, and what is pushed stays in the queue
 * as long as there is room. Each second the directory is looked for. It counts
 * as back when it is on a file system that is mounted in the same place: what
 * the path leads to while nothing is mounted there is left alone. Then numbers
 * go on from the highest that is found, and what was interrupted is completed.
 *
 * After a write error the file is given up, and the next frame with which
 * decoding can begin, of the first video track where there is one, begins a
 * file. When a second file fails before anything in it was safe, the medium
 * counts as missing.
 *
 * Event mode: what is pushed stays in memory until trigger is called. There
 * whole groups of pictures of the first video track (of sound alone: frames)
 * go, with what belongs to the same time, once those that follow them last
 * pre_event_ns (-1: no limit), or pre_event_bytes are used; a group that is
 * larger goes whole. They are counted in frames_let_go.
 */
typedef struct mediafiles_recorder_options {
    uint32_t size;
    uint32_t track_count;         /* 1 to 8 */
    const mp4_track_desc *tracks; /* video of width 0: taken from its parameter sets. Copied */
    const char *directory;        /* exists and is no link */
    const char *pattern;          /* with {number} and %Y %m %d %H %M %S (UTC); NULL: "{number}.mp4" */
    int64_t sync_ns;              /* between two rounds of syncs; 1 s */
    int64_t segment_ns;           /* length of a file; 0: up to the format's limit */
    int64_t segment_bytes;        /* likewise */
    int64_t longest_gap_ns;       /* between two frames of a track; a longer one begins a file; 10 s */
    int64_t quota_bytes;          /* for all files of the pattern, which has {number}; 0: no quota */
    int64_t keep_free_bytes;      /* of the file system; 64 MiB */
    int64_t protected_bytes;      /* beyond it the oldest protected files go, too; 0: never */
    int64_t queue_bytes;          /* allocated at start; 8 MiB. The largest frame; in event mode twice that */
    int64_t pre_event_ns;         /* above 0: event mode, files are made by trigger alone */
    int64_t pre_event_bytes;      /* allocated at start, beside the queue; needed in event mode */
    uint32_t file_mode;           /* of new files, before umask; 0640 */
    uint32_t flags;               /* MEDIAFILES_ANY_START | ... */
} mediafiles_recorder_options;

/* Flags of a frame */
#define MEDIAFILES_KEY 1u  /* decoding can begin with it; without the flag the recorder looks at the NAL units */
#define MEDIAFILES_DISC 2u /* its time does not continue those before: a new file */

/**
 * Allocates everything, locks the directory, starts the threads and returns.
 * Recordings that were interrupted are completed beside the new one, newest
 * first.
 *
 * @return owned by the caller, released by destroy; NULL with errno
 *           EINVAL   an option out of range; a pattern with other fields, or one that leaves the directory
 *           EBUSY    another recorder numbers files in this directory; or a recording that is to be replaced is
 *                    recorded or recovered
 *           EEXIST   a pattern without {number}, and the file or its journal is there; to be replaced, it is no regular
 *                    file or has no write permission
 *           ELOOP    likewise, and it is a symbolic link
 *           ENOTSUP  a codec, rate or size that no track can hold
 *           other    from opening the directory, ENOMEM or EAGAIN
 */
MEDIAFILES_API mediafiles_recorder *mediafiles_recorder_start(const mediafiles_recorder_options *options);

/**
 * Takes a frame: an Annex-B access unit or a part of one, or an AAC frame with
 * or without ADTS header. It is copied. Parts of an access unit have the same
 * time. No system call is made but to wake a thread.
 *
 * @param time  capture time on a monotonic clock that all tracks share
 * @param flags MEDIAFILES_KEY | MEDIAFILES_DISC
 * @return 0 taken; 1 not stored, counted in stats and reported by an event; -1 with errno
 *           EINVAL     no such track, no bytes, unknown flag
 *           EMSGSIZE   larger than the queue
 *           ESHUTDOWN  after stop
 */
MEDIAFILES_API int mediafiles_recorder_push(mediafiles_recorder *, uint32_t track, const void *data, size_t len,
                                            int64_t time, uint32_t flags);
/** The same for a frame in pieces, at least one. */
MEDIAFILES_API int mediafiles_recorder_pushv(mediafiles_recorder *, uint32_t track, const struct iovec *pieces,
                                             int count, int64_t time, uint32_t flags);

/**
 * For sources that can wait, like files: waits until no more than half of the
 * queue is used and it has room for a frame of that many bytes. What a single
 * thread pushes then is not dropped for want of room.
 *
 * @param timeout  0: do not wait; -1: wait for ever
 * @return 1; 0 when it does not come to that in time; -1 with errno
 *           EMSGSIZE   larger than the queue
 *           ESHUTDOWN  after stop
 */
MEDIAFILES_API int mediafiles_recorder_await_room(mediafiles_recorder *, size_t len, int64_t timeout);

/** The next key frame begins a file. ESHUTDOWN after stop. */
MEDIAFILES_API int mediafiles_recorder_split(mediafiles_recorder *);

/**
 * Keeps what is recorded from `before` ago until `after` from now: every file
 * of this recorder that holds any of it, of those that are finished the latest
 * 256. The capture time of the latest frame of the first video track is now.
 * Before the first frame it begins with that; a step of the capture times
 * counts as no time. Files that begin until then are covered, too; while what
 * was pushed waits in the queue, so is the file that is recorded, whatever it
 * holds.
 *
 * A file that is recorded says so in its journal, which is synced at once, and
 * loses its write permission when it is finished or recovered. On FAT that is
 * the read-only attribute. MEDIAFILES_EVENT_PROTECTED comes when a power cut
 * can not undo it any more.
 *
 * @param before,after  0 or more
 * @return 0; -1 with errno
 *           EINVAL     a negative time
 *           ESHUTDOWN  after stop
 */
MEDIAFILES_API int mediafiles_recorder_protect(mediafiles_recorder *, int64_t before, int64_t after);

/**
 * Event mode: begins a file with the first key frame that the memory holds. It
 * goes on until the first key frame that comes `after` from now or later, at
 * most longest_gap_ns longer; further files begin in it as usual. Again:
 * prolongs it. Frames from that key frame on are in the memory again, so that
 * files of events which follow each other at once have all frames.
 *
 * @param after  0 or more
 * @return 0; -1 with errno
 *           EINVAL     a negative time
 *           ENOTSUP    there is no event mode: pre_event_ns is 0
 *           ESHUTDOWN  after stop
 */
MEDIAFILES_API int mediafiles_recorder_trigger(mediafiles_recorder *, int64_t after);

/** Of one track. */
typedef struct mediafiles_recorder_track_stats {
    uint64_t frames;     /* samples that were stored */
    uint64_t key_frames; /* of these */
    uint64_t bytes;      /* of these */
    uint64_t refused;    /* frames that no file can hold, or before the first key frame */
} mediafiles_recorder_track_stats;

/** What has happened since start. */
typedef struct mediafiles_recorder_stats {
    uint32_t size;
    uint32_t files;                  /* begun */
    uint64_t frames_in;              /* pushed */
    uint64_t frames_out;             /* samples that were stored; the parts of an access unit are one */
    uint64_t frames_dropped;         /* for want of room in the queue or on the medium, or after an error */
    uint64_t frames_refused;         /* that no file can hold, or before the first key frame */
    uint64_t frames_let_go;          /* event mode: that no file was made of */
    uint64_t bytes_in, bytes_out;    /* out: given to the kernel */
    uint64_t safe[MP4_MAX_TRACKS];   /* samples of each track, its first ones, that survive a power cut now */
    int64_t unsafe_ns;               /* of media that would be lost now, what is queued included */
    int64_t made_up_ns;              /* in sum: successors that came late begin as much earlier or later than assumed */
    uint64_t queue_used, queue_most; /* bytes; in event mode with those that are kept for an event */
    int64_t worst_push, worst_write, worst_sync;
    int64_t free_bytes; /* of the file system, at the last round of syncs */
    mediafiles_recorder_track_stats tracks[MP4_MAX_TRACKS];
} mediafiles_recorder_stats;

/** @param stats  its size is set */
MEDIAFILES_API int mediafiles_recorder_get_stats(mediafiles_recorder *, mediafiles_recorder_stats *stats);

/** Why a frame was refused. */
enum {
    MEDIAFILES_REFUSED_EMPTY = 1,        /* sound of one byte, which has no samples */
    MEDIAFILES_REFUSED_TOO_LARGE,        /* its sample would have 2^31 bytes or more */
    MEDIAFILES_REFUSED_NO_START_CODE,    /* video that does not begin with a start code */
    MEDIAFILES_REFUSED_TRUNCATED_HEADER, /* a start code, and then less than a NAL unit's header */
    MEDIAFILES_REFUSED_BAD_SET,          /* a parameter set whose number cannot be read */
    MEDIAFILES_REFUSED_BAD_ADTS,         /* an ADTS header that is cut, or has another length than the frame */
    MEDIAFILES_REFUSED_OTHER_FORMAT,     /* an ADTS header of another profile, rate or channel count than the track's */
    MEDIAFILES_REFUSED_BEFORE_KEY,       /* no file has begun for it: the first key frame is awaited */
    MEDIAFILES_REFUSED_NO_SETS,          /* a key frame before the parameter sets that say its size */
    MEDIAFILES_REFUSED_TIME              /* more than 146 years from 0 */
};

/** Kinds of events; callers pass over those that they do not know. Fields that are not named are 0. */
enum {
    MEDIAFILES_EVENT_BEGUN = 1,     /* number, path; from: its first capture time */
    MEDIAFILES_EVENT_FINISHED,      /* number, path; from, to: its capture times; count: its bytes */
    MEDIAFILES_EVENT_RECOVERED,     /* path, result: MEDIAFILES_REPAIRED ...; count: its samples */
    MEDIAFILES_EVENT_NOT_RECOVERED, /* path, result, reason: MEDIAFILES_REASON_, error */
    MEDIAFILES_EVENT_DELETED,       /* number, path; count: its bytes */
    MEDIAFILES_EVENT_STALLED,       /* the medium does not keep up: half of the queue is used */
    MEDIAFILES_EVENT_DROPPED,       /* track; count: frames; from, to: their times. Reported when the gap ends */
    MEDIAFILES_EVENT_REFUSED,       /* track, reason: MEDIAFILES_REFUSED_; once for each track and reason */
    MEDIAFILES_EVENT_FULL,          /* nothing can be recorded for want of room */
    MEDIAFILES_EVENT_NO_MEDIUM,     /* the directory cannot be used: error */
    MEDIAFILES_EVENT_WRITE_ERROR,   /* number, path, error: the file is given up, recovery completes it. Without a path:
                                       the next file could not be begun, the one before goes on meanwhile */
    MEDIAFILES_EVENT_GOES_ON,       /* after STALLED, FULL, NO_MEDIUM */
    MEDIAFILES_EVENT_CLOCK,         /* track; from, to: the capture times before and after a step */
    MEDIAFILES_EVENT_KEY_WANTED,    /* track: a file waits for a key frame */
    MEDIAFILES_EVENT_LOST,          /* count: events that nobody took; the latest ones are kept */
    MEDIAFILES_EVENT_PROTECTED      /* number, path; error: its write permission could not be taken away */
};

/** The kind in English, such as "finished", for a log; static. */
MEDIAFILES_API const char *mediafiles_event_text(uint32_t kind);
/** Why a frame was refused in English, such as "it is empty", for a log; static. */
MEDIAFILES_API const char *mediafiles_refused_text(uint32_t reason);

typedef struct mediafiles_recorder_event {
    uint32_t size, kind;
    uint32_t track;
    uint32_t result; /* MEDIAFILES_REPAIRED to MEDIAFILES_FAILED */
    uint32_t reason;
    int32_t error;          /* errno, or 0 */
    uint64_t number, count; /* number: of the file */
    int64_t from, to;       /* capture times */
    const char *path;       /* below the directory of the options; NULL, or valid until the next call of next_event */
} mediafiles_recorder_event;

/** Readable while an event waits: for poll, not to be read or closed. It lives until destroy. */
MEDIAFILES_API int mediafiles_recorder_event_descriptor(mediafiles_recorder *);

/**
 * Takes the oldest event. One thread at a time.
 *
 * @param event       its size is set
 * @param timeout_ms  0: do not wait; -1: wait for ever
 * @return 1 with an event; 0 when none came in time, or when all are taken after stop
 */
MEDIAFILES_API int mediafiles_recorder_next_event(mediafiles_recorder *, mediafiles_recorder_event *event,
                                                  int32_t timeout_ms);

/**
 * Stores what was pushed, finishes the files and ends the threads. Again: 0,
 * once they have ended.
 *
 * @param patience  for the medium; -1: without limit
 * @return 0; -1 with errno
 *           ETIMEDOUT  the medium did not answer in time; recovery completes the files
 */
MEDIAFILES_API int mediafiles_recorder_stop(mediafiles_recorder *, int64_t patience);

/**
 * Releases the recorder, NULL too. Unless it was stopped, what is on its way
 * is given up: recovery completes the files. A thread that the kernel holds
 * releases its part itself when the kernel returns.
 */
MEDIAFILES_API void mediafiles_recorder_destroy(mediafiles_recorder *);

MEDIAFILES_END_DECLS

#endif
