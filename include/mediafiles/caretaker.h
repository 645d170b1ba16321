/**
 * The journal: what a repair needs to rebuild the header of a recording that
 * was cut off. Little-endian records, called mementos, without file header.
 *
 * A writer collects the records of one recording in memory; the application
 * takes them with mediafile_caretaker_read and appends them to a file of its
 * own. A reader hands the records of such a file back one at a time. A record
 * never names a sample whose bytes have not gone to the recording's stream.
 *
 * An object is used by one thread at a time: an application that drains the
 * journal from another thread serialises that with the recording calls. The
 * records of a round of syncs are taken directly after the builder's flush and
 * under the same lock, before the media file is synced: records that are taken
 * after the sync would name samples which were accepted during it.
 */
#ifndef MEDIAFILES_CARETAKER_H
#define MEDIAFILES_CARETAKER_H

#include <stdint.h>

#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/** Largest record, header and padding included, bytes. A payload has at most 508. */
#define MEMENTO_MAX_SIZE 512

/* Kinds. A journal file holds 0 to 2 and 6 to 9. */
#define MEMENTO_USER 0           /* the application's own, 0 to 508 bytes */
#define MEMENTO_TRACK 1          /* mp4_track_desc */
#define MEMENTO_SAMPLE 2         /* u32 offset, u32 len, s64 seconds, u32 nanoseconds, s32 key */
#define MEMENTO_SAMPLE_SIZE 3    /* u32 len */
#define MEMENTO_CHUNK 4          /* u32 offset, s32 count */
#define MEMENTO_SAMPLE_WRITTEN 5 /* u32 offset, u32 len */
#define MEMENTO_VPS 6            /* NAL unit without start code */
#define MEMENTO_SPS 7
#define MEMENTO_PPS 8
#define MEMENTO_SEI 9

/** Header of a record; the payload follows, then 0 to 3 pad bytes up to a multiple of 4. */
struct memento {
    uint8_t kind;    /* MEMENTO_ */
    uint8_t track;   /* index, for the kinds that concern a track */
    uint16_t length; /* payload bytes */
};

/** Makes a writer. NULL with errno ENOMEM. */
MEDIAFILES_API mediafile_caretaker *mediafile_caretaker_create(void);

/** Makes a reader of a journal file, which it opens and owns. NULL with the errno of open, or ENOMEM. */
MEDIAFILES_API mediafile_caretaker *mediafile_caretaker_load(const char *path);

/** Releases a writer or reader; not NULL. */
MEDIAFILES_API void mediafile_caretaker_destroy(mediafile_caretaker *caretaker);

/**
 * Appends a memento to a writer. The error of the first failure stays set: every
 * later call fails with it until the journal is reset.
 *
 * @param record  header, payload and padding: 4 + ((length + 3) & ~3) bytes,
 *                borrowed for the call
 * @return 0; -1 with errno
 *           EACCES   the journal is a reader; the error does not stay
 *           EFBIG    the record is larger than MEMENTO_MAX_SIZE
 *           EBADRQC  unknown kind
 *           ENOBUFS  a sample of a track above 7
 *           EILSEQ   an offset below the end of the previous sample
 *           EINVAL   a length of 0, or a count that is not positive
 *           ENOENT   no sample to give the size or place to, or a track above 7
 *           ENOMEM   out of memory
 */
MEDIAFILES_API int mediafile_caretaker_add(mediafile_caretaker *caretaker, const memento *record);

/**
 * Hands out the journal bytes stored since the previous call: whole records,
 * little-endian, ready to be appended to the journal file as they are. It
 * works after an error, too.
 *
 * @param count  receives the number of bytes, 0 when nothing is new
 * @return bytes owned by the caretaker, valid until the next
 *         mediafile_caretaker_add, add_frame or flush: copy them under the same
 *         lock; NULL with errno
 *           EACCES  the journal is a reader
 *           EINVAL  count is NULL
 */
MEDIAFILES_API const void *mediafile_caretaker_read(mediafile_caretaker *caretaker, uint32_t *count);

/** Empties a writer and clears its error, for the next recording. Does nothing to a reader. */
MEDIAFILES_API void mediafile_caretaker_reset(mediafile_caretaker *caretaker);

/** Empties a writer likewise; sets a reader back to the first record of its file (an error of seeking stays set). */
MEDIAFILES_API void mediafile_caretaker_reset2(mediafile_caretaker *caretaker);

/**
 * The next record of a reader.
 *
 * @return owned by the caretaker, valid until the next call. NULL without an
 *         error at the end of the file, also when the end cuts a record; or
 *         NULL with errno
 *           EACCES   the journal is a writer; the error does not stay
 *           EBADMSG  an invalid record; the error stays set
 *           other    from reading; the error stays set
 */
MEDIAFILES_API const memento *mediafile_caretaker_pop(mediafile_caretaker *caretaker);

/** 1 when a reader has handed out everything that its file holds, else 0. */
MEDIAFILES_API int mediafile_caretaker_eof(mediafile_caretaker *caretaker);

/**
 * The error that stays set, or 0. Once there is one, the journal takes no more
 * records until the next recording, while no call of the recording fails: look
 * at it after each frame or round. While there is one, each call also logs it, at level 4.
 */
MEDIAFILES_API int mediafile_caretaker_errcode(mediafile_caretaker *caretaker);

MEDIAFILES_END_DECLS

#endif
