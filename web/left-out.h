// What a journal names and a result lacks: a copy of the recording that is
// shorter than it was, or samples after damage.
#pragma once

#include <cstdint>

#include <mediafiles/recovery.h>

namespace mediafiles::web {

struct left_out {
    struct kind {
        uint64_t samples = 0;
        double seconds = 0; // of the track that lacks most, from its last sample that is kept
    };
    kind video, sound;
    bool is_beyond = false; // the first of them lies after the end of the media
};

// Goes through the valid records after those that a plan uses.
left_out left_out_of(const mediafiles_source &journal, const mediafiles_plan_info &plan, uint64_t media_size);

} // namespace mediafiles::web
