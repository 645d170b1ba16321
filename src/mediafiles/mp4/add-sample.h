// mp4_track_add_sample, inline for the movie: every frame goes through it.
#pragma once

#include <cstdint>

#include <mediafiles/track.h>

#include "mediafiles/mp4/gather.h"

namespace mediafiles {

inline int add_sample(mp4_track *track, const void *data, uint32_t len, uint32_t duration, int key)
{
    if (track->add_sample) return track->add_sample(track, data, len, duration, key);
    return __mp4_track_add_sample(track, one_buffer(data, len).list(), duration, key);
}

} // namespace mediafiles
