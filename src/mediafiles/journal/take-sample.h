// A reader's common case, inline for the repair: nearly every record of a
// journal is a valid sample of known size.
#pragma once

#include <cstdint>

#include "mediafiles/journal/caretaker.h"

namespace mediafiles {

inline const memento *at_read_pos(const mediafile_caretaker *caretaker)
{
    // Records are multiples of 4 bytes, and the buffer begins with one.
    return reinterpret_cast<const memento *>(caretaker->buffer + caretaker->read_pos);
}

inline bool accept_sample(mediafile_caretaker *caretaker, const sample_memento &sample)
{
    if (sample.offset < caretaker->next_offset || sample.len == 0) return false;
    caretaker->next_offset = sample.offset + sample.len;
    return true;
}

// Hands out the record at the read position of a reader without error, when the
// window holds all of it and it is a valid sample. For anything else the result
// is NULL, without an error, and nothing has changed.
inline const memento *take_sample(mediafile_caretaker *caretaker)
{
    if (caretaker->length - caretaker->read_pos < sizeof(sample_memento)) return nullptr;
    const auto &sample = whole_memento<sample_memento>(at_read_pos(caretaker));
    if (sample.header.kind != MEMENTO_SAMPLE || sample.header.length != payload_length<sample_memento>) return nullptr;
    if (!accept_sample(caretaker, sample)) return nullptr;
    caretaker->read_pos += uint32_t{sizeof sample};
    return &sample.header;
}

// mediafile_caretaker_pop, for a reader that has not failed.
inline const memento *next_record(mediafile_caretaker *reader)
{
    const memento *sample = take_sample(reader);
    return sample ? sample : mediafile_caretaker_pop(reader);
}

} // namespace mediafiles
