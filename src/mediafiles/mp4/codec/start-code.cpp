// In H.265, slices of most types are searched to their end: this is the hottest
// loop of such a recording.
//
// A start code begins with two zero bytes, which are rare in coded data. The
// vector code skips blocks without such a pair. Where there is one, and at the
// end, the portable code decides.

#include "mediafiles/mp4/codec/start-code.h"

#include <cstddef>

#include <mediafiles/h265-parser.h>

#if defined(__SSE2__) && !defined(MEDIAFILES_PORTABLE_SEARCH)
#define SEARCH_SSE2
#include <emmintrin.h>
#elif defined(__ARM_NEON) && !defined(MEDIAFILES_PORTABLE_SEARCH)
#define SEARCH_NEON
#include <arm_neon.h>
#endif

namespace mediafiles {
namespace {

#if defined(SEARCH_SSE2) || defined(SEARCH_NEON)

// Positions that are examined at once; a block of them reads one byte more.
constexpr ptrdiff_t block = 64;

#else

// Without vectors all the data is one block, for the portable code.
constexpr ptrdiff_t block = PTRDIFF_MAX;

#endif

#if defined(SEARCH_SSE2)

__m128i load(const uint8_t *from)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(from));
}

// 0 where a byte and the next are 0.
__m128i pairs(const uint8_t *from)
{
    return _mm_or_si128(load(from), load(from + 1));
}

bool has_pair_of_zeros(const uint8_t *from)
{
    const __m128i least =
        _mm_min_epu8(_mm_min_epu8(pairs(from), pairs(from + 16)), _mm_min_epu8(pairs(from + 32), pairs(from + 48)));
    return _mm_movemask_epi8(_mm_cmpeq_epi8(least, _mm_setzero_si128())) != 0;
}

#elif defined(SEARCH_NEON)

// 0 where a byte and the next are 0.
uint8x16_t pairs(const uint8_t *from)
{
    return vorrq_u8(vld1q_u8(from), vld1q_u8(from + 1));
}

bool has_pair_of_zeros(const uint8_t *from)
{
    const uint8x16_t least =
        vminq_u8(vminq_u8(pairs(from), pairs(from + 16)), vminq_u8(pairs(from + 32), pairs(from + 48)));
    const uint8x8_t half = vmin_u8(vget_low_u8(least), vget_high_u8(least));
    return vget_lane_u64(vreinterpret_u64_u8(vceq_u8(half, vdup_n_u8(0))), 0) != 0;
}

#else

constexpr bool has_pair_of_zeros(const uint8_t *)
{
    return true;
}

#endif

// The first position from `at` on, before `end`, where 00 00 01 begins. When
// there is none, `end` or up to two bytes after it.
const uint8_t *search(const uint8_t *at, const uint8_t *end)
{
    // A byte above 1 is not part of a code: as the third byte of a position it
    // also rules out the next two positions.
    while (at < end) {
        if (at[2] > 1)
            at += 3;
        else if (at[2] == 1 && at[0] == 0 && at[1] == 0)
            break;
        else
            ++at;
    }
    return at;
}

} // namespace

start_code find_start_code(const uint8_t *data, uint32_t len)
{
    if (len < 3) return {0, 0};
    // A frame usually begins with one.
    if (data[0] == 0 && data[1] == 0) {
        if (data[2] == 1) return {0, 3};
        if (len > 3 && data[2] == 0 && data[3] == 1) return {0, 4};
    }
    const uint8_t *const last = data + (len - 2); // the first position that is too late
    for (const uint8_t *at = data; at < last;) {
        while (last - at >= block && !has_pair_of_zeros(at)) at += block;
        const uint8_t *const end = last - at > block ? at + block : last;
        at = search(at, end);
        if (at >= end) continue;
        const auto p = static_cast<uint32_t>(at - data); // not 0: position 0 was checked above
        return at[-1] == 0 ? start_code{p - 1, 4} : start_code{p, 3};
    }
    return {len - 2, 0};
}

} // namespace mediafiles

int h264_parser_find_start_code(const uint8_t *data, uint32_t len, uint32_t *offset, uint32_t *code_len)
{
    const mediafiles::start_code code = mediafiles::find_start_code(data, len);
    *offset = code.offset;
    *code_len = code.length;
    return code.found();
}

int h265_parser_find_start_code(const uint8_t *data, uint32_t len, uint32_t *offset, uint32_t *code_len)
{
    return h264_parser_find_start_code(data, len, offset, code_len);
}
