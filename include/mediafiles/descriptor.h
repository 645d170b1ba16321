/**
 * MPEG-4 Systems descriptors (ISO/IEC 14496-1, 7.2 and 8.3): a tree that is
 * built in memory, written in one call and destroyed from its root.
 */
#ifndef MEDIAFILES_DESCRIPTOR_H
#define MEDIAFILES_DESCRIPTOR_H

#include <stdint.h>

#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/** Link of a circular doubly linked list; an empty head points at itself. */
struct mp4_list {
    mp4_list *next;
    mp4_list *prev;
};

struct mp4_descriptor {
    uint32_t tag;      /* the low 8 bits are written */
    void *data;        /* payload, owned; NULL when size is 0 */
    uint32_t size;     /* payload bytes, fixed at creation */
    mp4_list children; /* owned, in the order in which they were appended */
    mp4_list link;     /* this node's place among its parent's children */
};

/**
 * Makes a node without children whose payload is not initialised: the caller
 * fills it through mp4_descriptor_buf.
 *
 * @return owned by the caller until it is appended; NULL with errno ENOMEM
 */
MEDIAFILES_API mp4_descriptor *mp4_descriptor_create(uint32_t tag, uint32_t size);

/** Releases a root with its whole subtree. */
MEDIAFILES_API void mp4_descriptor_destroy(mp4_descriptor *descriptor);

/** The payload, size bytes; NULL for size 0. */
MEDIAFILES_API void *mp4_descriptor_buf(mp4_descriptor *descriptor);

/** Adds child, which belongs to no parent yet, as the last child; parent owns it from now on. */
MEDIAFILES_API void mp4_descriptor_append(mp4_descriptor *parent, mp4_descriptor *child);

/**
 * Writes the node and its subtree: tag, size in the four-byte form (28 bits),
 * payload, children.
 *
 * @return 0; -1 with the stream's errno, the tree unchanged
 */
MEDIAFILES_API int mp4_descriptor_write_to_stream(mp4_descriptor *descriptor, mp4_stream *stream);

MEDIAFILES_END_DECLS

#endif
