/**
 * Room that is kept on the medium, so that a file which has begun can be
 * finished when somebody else has filled the rest.
 *
 * Where the file system allows it, blocks beyond a file's end belong to the
 * file before it grows into them (FALLOC_FL_KEEP_SIZE). Where it refuses that,
 * free room is looked at before each step, and a spare file is cut when there
 * is none. posix_fallocate is of no use here: where the file system cannot
 * allocate, it lengthens the file.
 *
 * FAT rewrites its tables when a file gets blocks, and a power cut then may
 * take the file or its neighbours. There a file gets the blocks for all that it
 * will hold at once.
 */
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>

#include "safe-file.h"

namespace mediafiles::recorder {

inline bool is_want_of_room(int error)
{
    return error == ENOSPC || error == EDQUOT;
}

/** Bytes of the file system that are free for everybody. UINT64_MAX when that is not known. */
uint64_t free_bytes(int file);

uint64_t total_bytes(int file);

/** Of one file. */
class reserve {
public:
    /** The file can grow to that size. @return 0; -1 with errno for want of room: what was kept before stays kept */
    int keep(int file, uint64_t size);

    uint64_t kept() const { return kept_; }
    /** Whether the file system keeps nothing ahead: a spare file has to. */
    bool is_refused() const { return is_refused_; }

private:
    uint64_t kept_ = 0;
    bool is_refused_ = false;
};

/** Any of the two threads calls it; each waits for the medium in any case. */
class spare_file {
public:
    /** Makes it that large, where there is room for it. It never shrinks. Nothing after `end`. */
    void hold(int directory, uint64_t bytes);

    /** Gives back what it holds. @return whether it held anything */
    bool cut();

    /** Forgets the directory. */
    void remove();
    /** For good. */
    void end();

private:
    std::mutex lock_;
    std::optional<recovery::temporary_file> file_;
    uint64_t size_ = 0;
    bool is_over_ = false;
};

/** Whether files can be made there, have so much room and be synced: 0, or errno. Leaves nothing. */
int try_directory(int directory, uint64_t bytes);

} // namespace mediafiles::recorder
