// A gather list under construction: a fixed area on the stack that serves
// every ordinary list, and the heap for longer ones.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/uio.h>

#include "mediafiles/ownership.h"

namespace mediafiles {

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
