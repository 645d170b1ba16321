/**
 * A track: one elementary stream of a recording, with its sample tables.
 *
 * While a recording runs, the track writes each sample's bytes into the
 * output stream (they become the payload of mdat) and keeps its five sample
 * tables in memory, in the byte order of the file. What differs between
 * codecs is plugged in through the hooks. A track is used by one thread at a
 * time, together with its movie, stream and journal.
 */
#ifndef MEDIAFILES_TRACK_H
#define MEDIAFILES_TRACK_H

#include <stdint.h>

#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/* Bits of media_kind */
#define MP4_MEDIA_VIDEO 1u
#define MP4_MEDIA_AUDIO 2u

/* Bits of flags */
#define MP4_TRACK_RECORDING 0x01u
#define MP4_TRACK_ALL_SYNC 0x02u  /* every sample so far is a sync sample: stss_table stays empty */
#define MP4_TRACK_SAME_SIZE 0x04u /* every sample so far has common_size: stsz_table holds it once */

struct mp4_track_video {
    uint16_t width;  /* pixels */
    uint16_t height; /* pixels */
    uint16_t unused;
};

struct mp4_track_audio {
    uint16_t channels;
    uint16_t sample_bits; /* bits of one PCM sample */
    uint16_t sample_rate; /* Hz, low 16 bits; timescale has all of them */
};

struct mp4_track {
    uint32_t id;         /* track_ID, from 1 */
    uint32_t media_kind; /* MP4_MEDIA_ bits */

    /* The sample tables, owned. Elements are big-endian, as in the box. */
    array_stream *stts_table; /* {sample_count, sample_delta}: no two neighbours with the same delta */
    array_stream *stss_table; /* sample number, from 1 */
    array_stream *stco_table; /* file offset of a chunk */
    array_stream *stsc_table; /* {first_chunk, samples_per_chunk, 1}: closed chunks only */
    array_stream *stsz_table; /* sample size in bytes */

    uint8_t *cache;         /* owned; NULL when cache_size is 0 */
    uint32_t cache_size;    /* bytes, fixed at creation */
    uint32_t cache_used;    /* bytes */
    uint32_t cache_samples; /* samples in the cache */

    mp4_stream *stream;             /* borrowed until finish_record */
    mediafile_caretaker *caretaker; /* journal or NULL; borrowed until finish_record */
    uint32_t index;                 /* track byte of this track's mementos */
    uint8_t flags;                  /* MP4_TRACK_ bits */

    uint32_t common_size;   /* size of the record's first sample, bytes */
    uint32_t sample_count;  /* samples accepted since the record began */
    uint32_t chunk_offset;  /* stream position of the open chunk */
    uint32_t chunk_size;    /* bytes; chunk_offset + chunk_size is the position just after the open chunk */
    uint32_t chunk_samples; /* samples in the open chunk */
    uint32_t chunk_count;   /* chunks so far, the open one included */

    uint32_t timescale; /* ticks per second */
    uint64_t delay;     /* ticks from the movie's start to the first sample; set when the record finishes */
    uint64_t duration;  /* ticks: durations of all samples but the first */

    union {
        struct mp4_track_video video;
        struct mp4_track_audio audio;
    };

    void *codec_data; /* owned by the codec, released by on_destroy */

    /* Hooks, filled by the codec's create function; NULL when it has none. */

    /** Resets the codec's state of one recording. The result is ignored. */
    int (*on_begin_record)(mp4_track *);
    /** Releases codec_data. */
    void (*on_destroy)(mp4_track *);
    /** Turns a frame into a sample for __mp4_track_add_sample; 0, also for a dropped frame, or -1 with errno. */
    int (*add_sample)(mp4_track *, const void *data, uint32_t len, uint32_t duration, int key);
    /** Writes the one sample entry box of stsd; 0 or -1 with errno. */
    int (*write_sample_entry)(mp4_track *, mp4_atom *parent, mp4_stream *);
    /** Keep a copy of a parameter set (NAL unit without start code) unless one is kept. */
    void (*set_vps)(mp4_track *, const void *data, uint32_t len);
    void (*set_sps)(mp4_track *, const void *data, uint32_t len);
    void (*set_pps)(mp4_track *, const void *data, uint32_t len);
    void (*set_sei)(mp4_track *, const void *data, uint32_t len);
};

/**
 * Makes a track without hooks.
 *
 * @param media_kind  MP4_MEDIA_ bits
 * @param timescale   ticks per second
 * @param cache_size  bytes of samples collected before they are written as one
 *                    chunk; 0 writes each sample as it comes
 * @return owned by the caller; NULL with errno ENOMEM
 */
MEDIAFILES_API mp4_track *mp4_track_create(uint32_t id, uint32_t media_kind, uint32_t timescale, uint32_t cache_size);

/** Releases the track and, through on_destroy, its codec. A running record is not finished. */
MEDIAFILES_API void mp4_track_destroy(mp4_track *track);

/**
 * Starts a recording: empties the tables and borrows stream and journal. Does
 * nothing while a recording runs.
 *
 * @param caretaker  journal, or NULL for none
 * @param index      track byte of this track's mementos
 */
MEDIAFILES_API void mp4_track_begin_record(mp4_track *track, mp4_stream *stream, mediafile_caretaker *caretaker,
                                           uint32_t index);

/**
 * Adds one frame, through the codec's add_sample hook when there is one.
 *
 * @param data      len bytes, borrowed for the call
 * @param duration  ticks of timescale since the track's previous sample
 * @param key       non-zero for a sync sample
 * @return 0, also when the codec drops a frame that it cannot use; -1 with the
 *         errno of the stream or of a table that cannot grow
 */
MEDIAFILES_API int mp4_track_add_sample(mp4_track *track, const void *data, uint32_t len, uint32_t duration, int key);

/**
 * Adds one sample in the form in which it is stored: the list's entries hold
 * its bytes in order, the list's length is its size. Arguments and results as
 * mp4_track_add_sample. When the stream fails no table has changed; when a
 * table cannot grow the sample is not counted.
 */
MEDIAFILES_API int __mp4_track_add_sample(mp4_track *track, const mp4_gather_list *list, uint32_t duration, int key);

/** Writes the cached samples, if any, as one chunk. 0; -1 with the stream's errno, the cache kept. */
MEDIAFILES_API int mp4_track_flush_cache(mp4_track *track);

/**
 * Ends the recording; its tables stay until the next begin.
 *
 * @param flush  non-zero: write out the cache first; 0: drop it
 * @return 0; -1 with errno, the recording ended all the same
 */
MEDIAFILES_API int mp4_track_finish_record(mp4_track *track, int flush);

/**
 * Appends a memento of a codec's parameter set to the track's journal, if it
 * has one. A failure shows in the journal's error alone.
 *
 * @param kind  MEMENTO_VPS, MEMENTO_SPS, MEMENTO_PPS or MEMENTO_SEI
 * @param data  NAL unit of len bytes; more than 508 bytes end the journal
 */
MEDIAFILES_API void saveCodecExtraDataToCaretaker(mp4_track *track, uint8_t kind, const void *data, uint32_t len);

MEDIAFILES_END_DECLS

#endif
