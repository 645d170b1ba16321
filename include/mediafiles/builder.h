/**
 * The builder: records frames into complete MP4 files.
 *
 *     mp4_builder *builder = mp4_builder_create();
 *     builder->add_track(builder, &description);   once for each stream
 *     builder->open(builder, fd, 65536, journal);  once for each file
 *     builder->add_frame(builder, &frame);         once for each frame
 *     builder->close(builder);
 *     builder->destroy(builder);
 *
 * A file is ftyp at offset 0, the mdat header at 24, the media from 32, and
 * moov after it.
 *
 * A builder, its movie and its journal are used by one thread at a time: where
 * another thread does the syncs, it takes the same lock for flush and for
 * mediafile_caretaker_read, and syncs without it. Capture times come from one
 * monotonic clock for all tracks. A recorder holds flock(fd, LOCK_EX) on the
 * file until it is closed, so that a repair leaves it alone.
 */
#ifndef MEDIAFILES_BUILDER_H
#define MEDIAFILES_BUILDER_H

#include <stdint.h>

#include <mediafiles/atom.h>
#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/** The operations return -1 with errno on failure. */
struct mp4_builder {
    /** mp4_movie_add_track: index or -1. While a file is open the track begins at once. */
    int (*add_track)(mp4_builder *, const mp4_track_desc *);

    /**
     * Starts a file at offset 0 of a seekable descriptor, which stays the
     * caller's. The file is not truncated: pass an empty one. It is opened for
     * reading and writing, without O_APPEND (the size of mdat is written over
     * its first value) and without O_DIRECT (writes are not aligned); on 32
     * bits with O_LARGEFILE or _FILE_OFFSET_BITS=64, else writing ends at 2 GiB.
     * The journal is reset: its records of the file before are gone, so they
     * must have been read.
     *
     * @param buffer_size  of the file's write cache, bytes; 0 for none
     * @param caretaker    journal that receives the recording, or NULL; stays the caller's
     * @return 0; -1 with errno, no file open
     *           EBUSY   a file is open; it stays so
     *           ENOMEM  out of memory
     *           other   from seeking or writing
     */
    int (*open)(mp4_builder *, int fd, uint32_t buffer_size, mediafile_caretaker *);

    /**
     * Finishes the file: writes out what is cached, patches the size of mdat
     * and appends moov. 0 when no file is open.
     *
     * @return 0; -1 with the first error of the recording or of closing. The
     *         file is closed for the builder either way; without moov it can
     *         be repaired from its journal
     */
    int (*close)(mp4_builder *);

    /** mp4_movie_add_frame; ESRCH when no file is open. */
    int (*add_frame)(mp4_builder *, const mp4_frame *);

    /** Writes the tracks' caches and the file's write cache to the descriptor; ESRCH when no file is open. */
    int (*flush)(mp4_builder *);

    /** Releases the builder. An open file keeps what has reached the descriptor and gets no moov. */
    void (*destroy)(mp4_builder *);

    mp4_movie *movie;        /* owned */
    mp4_atom mdat;           /* of the open file; start is the offset of its size field */
    mp4_stream *meta_stream; /* owned: where head and moov are composed */
    mp4_stream *file_stream; /* owned; NULL when no file is open */
};

/** Makes a builder without tracks. NULL with errno ENOMEM. */
MEDIAFILES_API mp4_builder *mp4_builder_create(void);

MEDIAFILES_END_DECLS

#endif
