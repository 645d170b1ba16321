// What a recording reports to its journal for every sample. The effect and the
// result are those of adding a record of the kind, but no record is made.
#pragma once

#include <cstdint>

#include <mediafiles/caretaker.h>

namespace mediafiles {

// The movie has accepted a frame: MEMENTO_SAMPLE without size and offset.
int journal_sample(mediafile_caretaker *caretaker, uint8_t track, int64_t seconds, uint32_t nanoseconds, int32_t key);

// The track has made the sample, of `len` bytes: MEMENTO_SAMPLE_SIZE.
int journal_sample_size(mediafile_caretaker *caretaker, uint8_t track, uint32_t len);

// `count` samples stand in the file, one after another from `offset`:
// MEMENTO_CHUNK.
int journal_chunk(mediafile_caretaker *caretaker, uint8_t track, uint32_t offset, int32_t count);

} // namespace mediafiles
