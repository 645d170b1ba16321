// Encoders mark key frames with slices of every type, so whole frames are
// searched: this is the hottest loop of an H.265 recording.
//
// A start code begins with two zero bytes, which coded data hardly ever has in
// a row. The vector code only passes over blocks without such a pair; where
// there is one, and at the end, the portable code decides.

#include "mediafiles/mp4/codec/start-code.h"

#include <mediafiles/h265-parser.h>

#include "mediafiles/mp4/codec/second-name.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

namespace mediafiles {
namespace {

// Positions that are examined at once; a block of them reads one byte more.
constexpr uint32_t block = 64;

#if defined(__SSE2__)

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

#elif defined(__ARM_NEON)

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

// Without vectors the portable code examines everything.
constexpr bool has_pair_of_zeros(const uint8_t *)
{
    return true;
}

#endif

uint32_t pass_over_blocks(const uint8_t *data, uint32_t p, uint32_t positions)
{
    while (positions - p >= block && !has_pair_of_zeros(data + p)) p += block;
    return p;
}

} // namespace

start_code find_start_code(const uint8_t *data, uint32_t len)
{
    if (len < 3) return {0, 0};
    const uint32_t positions = len - 2;
    for (uint32_t p = 0; p < positions;) {
        p = pass_over_blocks(data, p, positions);
        const uint32_t end = positions - p > block ? p + block : positions;
        // A byte above 1 is no part of a code, so that the third byte of a
        // position often rules out the next two as well.
        while (p < end) {
            const uint8_t third = data[p + 2];
            if (third > 1)
                p += 3;
            else if (third == 1 && data[p] == 0 && data[p + 1] == 0)
                return p > 0 && data[p - 1] == 0 ? start_code{p - 1, 4} : start_code{p, 3};
            else
                ++p;
        }
    }
    return {positions, 0};
}

} // namespace mediafiles

int h264_parser_find_start_code(const uint8_t *data, uint32_t len, uint32_t *offset, uint32_t *code_len)
{
    const mediafiles::start_code code = mediafiles::find_start_code(data, len);
    *offset = code.offset;
    *code_len = code.length;
    return code.found();
}

int h265_parser_find_start_code(const uint8_t *, uint32_t, uint32_t *, uint32_t *)
    SECOND_NAME_OF(h264_parser_find_start_code);
