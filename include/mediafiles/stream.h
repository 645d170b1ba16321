/**
 * The output stream: the one interface through which boxes, descriptors and
 * media are written, and its three kinds (memory, buffered file, null).
 *
 * Positions are byte offsets from the start of the stream, unsigned 32-bit.
 * A stream is used by one thread at a time.
 */
#ifndef MEDIAFILES_STREAM_H
#define MEDIAFILES_STREAM_H

#include <stdint.h>
#include <sys/uio.h>

#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/**
 * Data spread over several buffers. The list and its entries are borrowed by
 * the callee for the duration of the call and are not changed by it.
 */
struct mp4_gather_list {
    const struct iovec *iov; /* the buffers, in data order */
    int32_t iovcnt;          /* entries in iov */
    uint32_t offset;         /* bytes at the start of the list before the data; 0 in the library's lists */
    uint32_t length;         /* data bytes: the sum of the entries' lengths */
};

/**
 * The operations, in slot order; the state of the stream's kind follows them.
 * Those that return int give 0, or -1 with errno; an operation that a kind
 * does not have fails with ENOSYS.
 */
struct mp4_stream {
    /** Writes length bytes at the position and moves it past them. */
    int (*write)(mp4_stream *, const void *data, uint32_t length);
    /** Writes the list's entries in order, as write would their concatenation. */
    int (*writev)(mp4_stream *, const mp4_gather_list *);
    /** Writes the whole content of this stream at other's position; memory streams only. */
    int (*copy_to)(mp4_stream *, mp4_stream *other);
    /** Pushes buffered bytes to their destination. */
    int (*flush)(mp4_stream *);
    /** Discards the content; position and size become 0. */
    int (*clear)(mp4_stream *);
    /** The current position. */
    uint32_t (*tell)(mp4_stream *);
    /** Moves to a position that tell gave before; later writes overwrite. */
    int (*seek)(mp4_stream *, uint32_t position);
    /** Releases the stream. It neither flushes nor closes a descriptor. */
    void (*destroy)(mp4_stream *);
};

/**
 * Makes an empty stream that keeps its bytes in memory.
 *
 * Its copy_to hands the stored runs to the other stream's writev by reference
 * in a single call, whatever their number. clear keeps the memory for reuse.
 *
 * @return owned by the caller, released through its destroy; NULL with errno
 *           ENOMEM  out of memory
 */
MEDIAFILES_API mp4_stream *mp4_memory_stream_create(void);

/**
 * Makes a stream over an open descriptor, which stays the caller's.
 *
 * Positions are offsets in the file: the descriptor stands at its beginning.
 * With a cache, small writes collect in it and the descriptor receives multiples of
 * the cache size until flush or seek writes out the rest; without one every
 * write goes to the descriptor at once. After a failed or short write the
 * stream still knows exactly what reached the descriptor: what was cached
 * before stays so, and a later flush continues there; what was to be written
 * by the failing call is not kept. copy_to and clear fail with ENOSYS. flush also tells
 * the kernel that the file's cached pages are no longer needed.
 *
 * @param cache_size  bytes, rounded up to a power of two; 0 for no cache; at
 *                    most 2^31
 * @return owned by the caller, released through its destroy (which drops what
 *         is still in the cache); NULL with errno
 *           ENOMEM  out of memory, or a cache size above 2^31
 */
MEDIAFILES_API mp4_stream *mp4_file_stream_create(int fd, uint32_t cache_size);

/**
 * Makes a stream that reads nothing, writes nothing and counts: its position
 * moves as a file's would. copy_to fails with ENOSYS.
 *
 * @return owned by the caller, released through its destroy; NULL with errno
 *           ENOMEM  out of memory
 */
MEDIAFILES_API mp4_stream *mp4_null_stream_create(void);

MEDIAFILES_END_DECLS

#endif
