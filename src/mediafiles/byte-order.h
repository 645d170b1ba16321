// Numbers in the byte order of a file, read and written without an unaligned
// access. MP4 is big-endian; the journal is little-endian like every target.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace mediafiles {

static_assert(std::endian::native == std::endian::little, "the journal's records are stored as they are in memory");

// A number in the byte order of a big-endian file, and back.
inline uint32_t big_endian(uint32_t value)
{
    return __builtin_bswap32(value);
}

inline uint32_t load_be32(const void *from)
{
    uint32_t value;
    memcpy(&value, from, sizeof value);
    return big_endian(value);
}

inline void store_be32(void *to, uint32_t value)
{
    value = big_endian(value);
    memcpy(to, &value, sizeof value);
}

} // namespace mediafiles
