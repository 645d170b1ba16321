// The kept copies of parameter sets: the first one of a recording.
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

    // true when this call stored the copy. Out of memory, nothing is kept.
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

// A NAL unit type that is kept: as which memento, and in which set of the
// codec's record. A track whose samples arrive as they are stored gets
// `set_copy` as its hook `setter`.
template <class Record>
struct kept_unit {
    using set_function = void(mp4_track *, const void *, uint32_t);

    uint8_t type;
    uint8_t kind;
    set_function *mp4_track::*setter;
    parameter_set Record::*set;
    set_function *set_copy;
};

template <class Record, parameter_set Record::*Set>
constexpr kept_unit<Record> keep_in(uint8_t type, uint8_t kind,
                                    typename kept_unit<Record>::set_function *mp4_track::*setter)
{
    return {type, kind, setter, Set, [](mp4_track *track, const void *data, uint32_t len) {
                (static_cast<Record *>(track->codec_data)->*Set).keep(data, len);
            }};
}

} // namespace mediafiles
