/**
 * Whether one more frame still leaves room to finish the file. Positions in
 * the file are 32-bit: the media and the moov after it must end below 4 GiB,
 * and the library takes MP4_MAX_RECORD_BYTES of frames. A sample may be larger
 * than its frame, because its lengths have four bytes where a start code may
 * have three.
 */
#ifndef TOOLS_RECORD_RECORDING_SIZE_H
#define TOOLS_RECORD_RECORDING_SIZE_H

#include <cstdint>

#include <mediafiles/movie.h>

namespace tools {

class recording_size {
public:
    constexpr bool has_room_for(uint64_t frame_bytes, uint64_t stored_bytes) const
    {
        return frames_ + frame_bytes <= MP4_MAX_RECORD_BYTES &&
               head + media_ + stored_bytes + fixed_tail + (samples_ + 1) * tail_per_sample <= UINT32_MAX;
    }

    constexpr void add(uint64_t frame_bytes, uint64_t stored_bytes)
    {
        frames_ += frame_bytes;
        media_ += stored_bytes;
        ++samples_;
    }

private:
    static constexpr uint64_t head = 32;             // ftyp and the header of mdat
    static constexpr uint64_t fixed_tail = 0x200000; // moov without its tables: above eight tracks' parameter sets
    static constexpr uint64_t tail_per_sample = 8 + 4 + 4 + 4 + 12; // in stts, stss, stsz, stco and stsc, at most

    uint64_t frames_ = 0;
    uint64_t media_ = 0;
    uint64_t samples_ = 0;
};

namespace recording_size_proof {

constexpr recording_size after(uint64_t samples, uint64_t frame, uint64_t stored)
{
    recording_size size;
    for (uint64_t i = 0; i < samples; ++i) size.add(frame, stored);
    return size;
}

constexpr uint64_t limit = MP4_MAX_RECORD_BYTES;
static_assert(after(1, limit - 100, limit - 100).has_room_for(100, 100));
static_assert(!after(1, limit - 100, limit - 100).has_room_for(101, 101));
/* Start codes alone, three bytes each, become a third larger: the positions end first. */
static_assert(!after(1, limit - 300, (limit - 300) / 3 * 4).has_room_for(100, 100));
/* Tables alone: 32 bytes for each sample. */
static_assert(!after(1, 0, UINT32_MAX - 0x200000 - 32 - 63).has_room_for(0, 0));
static_assert(after(1, 0, UINT32_MAX - 0x200000 - 32 - 64).has_room_for(0, 0));

} // namespace recording_size_proof

} // namespace tools

#endif
