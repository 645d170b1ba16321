// What a recording tells its journal of every sample: the same as adding the
// records of these kinds, with the same results, but without making them.
#pragma once

#include <cstdint>

#include <mediafiles/caretaker.h>

namespace mediafiles {

// The movie has accepted a frame.
int journal_sample(mediafile_caretaker *caretaker, uint8_t track, int64_t seconds, uint32_t nanoseconds, int32_t key);

// The track has taken it, with so many bytes.
int journal_sample_size(mediafile_caretaker *caretaker, uint8_t track, uint32_t len);

// So many samples lie in the file, one behind the other from an offset on.
int journal_chunk(mediafile_caretaker *caretaker, uint8_t track, uint32_t offset, int32_t count);

} // namespace mediafiles
