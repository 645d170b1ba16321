// Gather lists under construction.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/uio.h>

#include <mediafiles/stream.h>

#include "mediafiles/ownership.h"

namespace mediafiles {

// The gather list of a single buffer.
class one_buffer {
public:
    one_buffer(const void *data, uint32_t length) : entry{const_cast<void *>(data), length}, whole{&entry, 1, 0, length}
    {
    }
    one_buffer(const one_buffer &) = delete;
    one_buffer &operator=(const one_buffer &) = delete;

    const mp4_gather_list *list() const { return &whole; }

private:
    const iovec entry;
    const mp4_gather_list whole;
};

// Entries of a sample: 32 NAL units, each after its length.
constexpr uint32_t sample_entries = 64;

// An ordinary list fits into an area on the stack; a longer one is on the heap.
template <uint32_t Fixed>
class gather_array {
public:
    gather_array() = default;
    gather_array(const gather_array &) = delete;
    gather_array &operator=(const gather_array &) = delete;
    ~gather_array()
    {
        if (entries == area) return;
        errno_saver keep;
        free(entries);
    }

    // false with errno ENOMEM; the list then stays as it was.
    bool push(const void *base, size_t length)
    {
        if (used == capacity && !grow()) return false;
        entries[used++] = {const_cast<void *>(base), length};
        return true;
    }

    bool push(const mp4_gather_list *list)
    {
        for (int32_t i = 0; i < list->iovcnt; ++i)
            if (!push(list->iov[i].iov_base, list->iov[i].iov_len)) return false;
        return true;
    }

    iovec *data() { return entries; }
    int32_t count() const { return static_cast<int32_t>(used); }

private:
    bool grow()
    {
        const size_t bytes = size_t{capacity} * 2 * sizeof(iovec);
        void *grown = entries == area ? malloc(bytes) : realloc(entries, bytes);
        if (!grown) return false;
        if (entries == area) memcpy(grown, area, sizeof area);
        entries = static_cast<iovec *>(grown);
        capacity *= 2;
        return true;
    }

    iovec area[Fixed];
    iovec *entries = area;
    uint32_t capacity = Fixed;
    uint32_t used = 0;
};

} // namespace mediafiles
