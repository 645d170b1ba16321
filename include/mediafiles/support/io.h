/**
 * Full-length descriptor I/O and copies out of gather lists.
 *
 * The transfers go on after short results and after EINTR.
 */
#ifndef MEDIAFILES_SUPPORT_IO_H
#define MEDIAFILES_SUPPORT_IO_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/**
 * Writes n bytes.
 *
 * @return n; fewer when a failure came after some had gone out; -1 when
 *         nothing did. errno is the failure's
 */
MEDIAFILES_API ssize_t writen(int fd, const void *buf, size_t n);

/** Reads n bytes. Fewer only at the end of the file; -1 with errno. */
MEDIAFILES_API ssize_t readn(int fd, void *buf, size_t n);

/**
 * Writes all entries in order; any number of them, also more than IOV_MAX.
 *
 * @param iov  changed on the way
 * @return as writen, counted over the whole list
 */
MEDIAFILES_API ssize_t writevn(int fd, struct iovec *iov, int iovcnt);

/** Copies the first len bytes of the list, which holds that many. */
MEDIAFILES_API void memcpy_fromiovec(void *dst, const struct iovec *iov, uint32_t len);

/** Skips offset bytes of the list, then copies the next len bytes. */
MEDIAFILES_API void memcpy_fromiovecend(void *dst, const struct iovec *iov, uint32_t offset, uint32_t len);

MEDIAFILES_END_DECLS

#endif
