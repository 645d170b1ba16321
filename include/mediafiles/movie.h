/**
 * A movie: one recording of up to eight tracks, which turns the capture times
 * of frames into sample durations and track start offsets.
 *
 * Functions that return int give -1 with errno on failure. A movie is used by
 * one thread at a time.
 */
#ifndef MEDIAFILES_MOVIE_H
#define MEDIAFILES_MOVIE_H

#include <stdint.h>

#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

#define MP4_MAX_TRACKS 8

/* Type codes of a track description */
#define MP4_TRACK_H264 0x101u
#define MP4_TRACK_H265 0x102u
#define MP4_TRACK_AAC 0x201u
/* Flag: samples arrive as they are stored, parameter sets through the setters. */
#define MP4_TRACK_RAW 0x8000u

/* Frame bytes of one recording, as given, at most. File offsets have 32 bits: leave room for what samples grow by. */
#define MP4_MAX_RECORD_BYTES 0xDFFFFFFFu

struct mp4_time {
    int32_t seconds;
    int32_t nanoseconds; /* 0 to 999999999 */
};

struct mp4_video_desc {
    uint32_t width;  /* pixels */
    uint32_t height; /* pixels */
    uint32_t unused;
};

struct mp4_audio_desc {
    uint32_t channels;
    uint32_t sample_bits; /* bits of one PCM sample, usually 16 */
    uint32_t sample_rate; /* Hz; also the track's timescale */
};

/** Description of a track; 16 bytes, also the payload of MEMENTO_TRACK. */
struct mp4_track_desc {
    uint32_t type; /* type code, with or without MP4_TRACK_RAW */
    union {
        struct mp4_video_desc video;
        struct mp4_audio_desc audio;
    };
};

/** One frame as it comes from the encoder. */
struct mp4_frame {
    int32_t track;      /* index from mp4_movie_add_track */
    const void *data;   /* borrowed for the call: Annex-B access unit, AAC frame, or stored form with MP4_TRACK_RAW */
    uint32_t len;       /* bytes, not 0 */
    mp4_time timestamp; /* capture time on a clock common to all tracks */
    int32_t key;        /* non-zero: sync sample */
};

/** Where a track is in time: capture clock while recording, relative to the movie's start afterwards. */
struct mp4_track_span {
    uint32_t started; /* 0 until the record's first frame */
    mp4_time first;   /* the first frame */
    mp4_time last;    /* the time that the frames have reached */
};

struct mp4_movie {
    mp4_track_desc track_desc[MP4_MAX_TRACKS]; /* as given, flag included */
    mp4_track *tracks[MP4_MAX_TRACKS];         /* owned; slot n has ID n + 1 */
    mp4_track_span *spans[MP4_MAX_TRACKS];     /* owned */
    uint32_t next_track_id;                    /* number of tracks + 1 */
    mp4_stream *stream;                        /* output of the running record, borrowed; NULL when none runs */
    mediafile_caretaker *caretaker;            /* journal of the running record, borrowed, or NULL */
    int32_t error;                             /* errno of the record's first failure, or 0 */
    uint32_t bytes;                            /* frame bytes accepted, as given */
};

/** Makes a movie without tracks. NULL with errno ENOMEM. */
MEDIAFILES_API mp4_movie *mp4_movie_create(void);

/** Releases the movie and its tracks. A running record is not finished. */
MEDIAFILES_API void mp4_movie_destroy(mp4_movie *movie);

/**
 * Adds a track; while a record runs it begins at once.
 *
 * @return the track's index, 0 to 7; -1 with errno, nothing added
 *           ENOBUFS  there are eight tracks
 *           ENOSYS   the type code is not known
 *           ENOMEM   out of memory
 */
MEDIAFILES_API int mp4_movie_add_track(mp4_movie *movie, const mp4_track_desc *desc);

/**
 * Starts a record on a stream. Does nothing while one runs.
 *
 * @param stream     not NULL; borrowed until mp4_movie_finish_record
 * @param caretaker  journal or NULL; reset here, then borrowed likewise
 */
MEDIAFILES_API void mp4_movie_begin_record(mp4_movie *movie, mp4_stream *stream, mediafile_caretaker *caretaker);

/**
 * Adds a frame; its duration is the time since the track's previous frame. To
 * be called while a record runs.
 *
 * @return 0, also for a frame that the codec drops; -1 with errno
 *           EINVAL  unknown track, length 0 or nanoseconds out of range;
 *                   the frame leaves no trace
 *           EFBIG   the recording would exceed MP4_MAX_RECORD_BYTES; likewise
 *           other   the track could not store it. The error is kept: every
 *                   later frame and flush of this record fails with it
 */
MEDIAFILES_API int mp4_movie_add_frame(mp4_movie *movie, const mp4_frame *frame);

/** Writes every track's cache out. -1 with the kept error, or with a track's errno, which is then kept. */
MEDIAFILES_API int mp4_movie_flush_cache(mp4_movie *movie);

/**
 * Ends the record: finishes every track and makes all times relative to the
 * movie's start. A failure shows in the movie's error.
 */
MEDIAFILES_API void mp4_movie_finish_record(mp4_movie *movie);

/**
 * Hand a parameter set (NAL unit without start code, copied) to a track made
 * with MP4_TRACK_RAW, after the record began. The first of a record is kept.
 *
 * @return 0; -1 with errno
 *           EINVAL  no such track
 *           ENOSYS  the track takes no such parameter set
 */
MEDIAFILES_API int mp4_movie_set_track_vps(mp4_movie *movie, uint32_t index, const void *data, uint32_t len);
MEDIAFILES_API int mp4_movie_set_track_sps(mp4_movie *movie, uint32_t index, const void *data, uint32_t len);
MEDIAFILES_API int mp4_movie_set_track_pps(mp4_movie *movie, uint32_t index, const void *data, uint32_t len);

/** The time that the track's frames reached, in milliseconds, truncated. */
MEDIAFILES_API uint64_t mp4_movie_track_duration(mp4_movie *movie, mp4_track *track);

/** The time of the track's first frame, in milliseconds, truncated. */
MEDIAFILES_API uint64_t mp4_movie_track_delay_duration(mp4_movie *movie, mp4_track *track);

/** The time that the track's frames reached. */
MEDIAFILES_API void mp4_movie_track_timespan(mp4_movie *movie, mp4_track *track, mp4_time *out);

/** The latest time that any track reached; 0 without tracks. */
MEDIAFILES_API void mp4_movie_timespan(mp4_movie *movie, mp4_time *out);

/** mp4_movie_timespan in milliseconds, truncated. */
MEDIAFILES_API uint64_t mp4_movie_duration(mp4_movie *movie);

MEDIAFILES_END_DECLS

#endif
