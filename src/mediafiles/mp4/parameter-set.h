// The kept copies of parameter sets: the first of a recording stays.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include <mediafiles/track.h>

namespace mediafiles {

struct parameter_set {
    uint8_t *data; // NAL unit without start code, owned; NULL when none is kept
    uint32_t len;

    std::span<const uint8_t> bytes() const { return {data, len}; }

    // true when this call stored the copy; without memory none is kept.
    bool keep(const void *unit, uint32_t length)
    {
        if (data) return false;
        data = static_cast<uint8_t *>(malloc(length));
        if (!data) return false;
        if (length > 0) memcpy(data, unit, length);
        len = length;
        return true;
    }

    void drop()
    {
        free(data);
        *this = {};
    }
};

// A NAL unit type that is kept: as which memento, where, and the hook that
// sets it when samples arrive as they are stored.
template <class Record>
struct kept_unit {
    uint8_t type;
    uint8_t kind;
    parameter_set Record::*set;
    void (*mp4_track::*setter)(mp4_track *, const void *, uint32_t);
};

} // namespace mediafiles
