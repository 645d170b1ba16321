// The bit reader over a NAL unit: big-endian bit fields and Exp-Golomb codes,
// emulation prevention bytes dropped on the way. The record is the caller's;
// H.264 and H.265 use it under their own names.
#pragma once

#include <cstdint>

#include <mediafiles/h264-parser.h>

namespace mediafiles {

using bit_reader = h264_bs;

constexpr bit_reader read_from(const uint8_t *data, uint32_t len)
{
    return {.next = data, .left = len, .cur = 0, .bits = 0, .last_bytes = 0xFFFF};
}

// 0, or -1 with ENOSPC.
int read_bits(bit_reader *reader, int n, uint32_t *out);

// 0, or -1 with ENOSPC or EILSEQ.
int read_ue(bit_reader *reader, uint32_t *out);
int read_se(bit_reader *reader, int32_t *out);

// Reads n bits into a field of any width.
template <class Field>
bool read_field(bit_reader *reader, int n, Field *field)
{
    uint32_t value;
    if (read_bits(reader, n, &value) != 0) return false;
    *field = static_cast<Field>(value);
    return true;
}

} // namespace mediafiles
