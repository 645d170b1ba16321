/**
 * A growable array of fixed-size elements with a cursor. The library keeps
 * its sample tables and the bytes of memory streams in such arrays.
 *
 * The bundled kind keeps elements in blocks that never move: appending is
 * constant time without a copy, and pointers stay valid until the array is
 * cleared or destroyed. A replacement may be weaker: pointers must hold until
 * the next write, clear or destroy.
 */
#ifndef MEDIAFILES_SUPPORT_ARRAY_STREAM_H
#define MEDIAFILES_SUPPORT_ARRAY_STREAM_H

#include <stdint.h>

#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/**
 * Makes an empty array of elements of element_size bytes (not 0), with room
 * for reserve of them. NULL with errno ENOMEM.
 */
MEDIAFILES_API array_stream *array_stream_create(uint32_t element_size, uint32_t reserve);

MEDIAFILES_API void array_stream_destroy(array_stream *array);

/** Length and cursor become 0; the storage is kept for reuse. */
MEDIAFILES_API void array_stream_clear(array_stream *array);

/**
 * Grants space for elements at the cursor and moves the cursor past them:
 * existing elements are replaced, and the length grows where the cursor
 * passes the end. The caller fills the space before the next call.
 *
 * @param count  in: elements wanted; out: elements granted, at least 1 when
 *               any are wanted, fewer when only so many are contiguous
 * @return the space; NULL with errno ENOMEM
 */
MEDIAFILES_API void *array_stream_write(array_stream *array, uint32_t *count);

/**
 * Hands out the contiguous run of elements that begins at the cursor and
 * moves the cursor past it.
 *
 * @param count  receives the number of elements
 * @return the run; NULL when the cursor is at the end
 */
MEDIAFILES_API void *array_stream_read(array_stream *array, uint32_t *count);

/** Moves the cursor to offset (whence 0) or by offset (whence 1), at most to the end, and returns it. */
MEDIAFILES_API uint32_t array_stream_seek(array_stream *array, uint32_t offset, int whence);

/** Element i, below the length. The cursor stays. */
MEDIAFILES_API void *array_stream_index(array_stream *array, uint32_t i);

/** Elements stored. */
MEDIAFILES_API uint32_t array_stream_length(const array_stream *array);

/** Bytes of one element. */
MEDIAFILES_API uint32_t array_stream_element_size(const array_stream *array);

MEDIAFILES_END_DECLS

#endif
