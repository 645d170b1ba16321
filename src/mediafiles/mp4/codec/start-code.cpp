// In H.265, slices of most types are searched to their end: this is the hottest
// loop of such a recording. A recorder searches every frame of video.
//
// In a start code, 00 00 01, a zero at an even address is followed by 0 or 1.
// The vector code skips blocks without such a pair. Bytes of different parts of
// a block may make one up, in six blocks of a hundred; in these the pair is
// looked for group by group, and in a group part by part. A part that has a
// pair, and both ends of the data, are left to the portable code.

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

constexpr ptrdiff_t part = 16; // bytes; their addresses are multiples of it
constexpr ptrdiff_t group = 4 * part;
constexpr ptrdiff_t block = 4 * group;

#else

// Without vectors all the data is one part, for the portable code.
constexpr ptrdiff_t part = PTRDIFF_MAX;

#endif

#if defined(SEARCH_SSE2)

using bytes = __m128i;

bytes load(const uint8_t *at)
{
    return _mm_load_si128(reinterpret_cast<const __m128i *>(at));
}

bytes least(bytes a, bytes b)
{
    return _mm_min_epu8(a, b);
}

bool has_pair(bytes of)
{
    const __m128i rest = _mm_and_si128(of, _mm_set1_epi16(static_cast<int16_t>(0xFEFF)));
    return _mm_movemask_epi8(_mm_cmpeq_epi16(rest, _mm_setzero_si128())) != 0;
}

#elif defined(SEARCH_NEON)

using bytes = uint8x16_t;

bytes load(const uint8_t *at)
{
    return vld1q_u8(at);
}

bytes least(bytes a, bytes b)
{
    return vminq_u8(a, b);
}

bool has_pair(bytes of)
{
    static const uint8_t zero_and_one[] = {0xFF, 0xFE, 0xFF, 0xFE, 0xFF, 0xFE, 0xFF, 0xFE};
    const uint8x8_t rest = vand_u8(vmin_u8(vget_low_u8(of), vget_high_u8(of)), vld1_u8(zero_and_one));
    return vget_lane_u64(vreinterpret_u64_u16(vceq_u16(vreinterpret_u16_u8(rest), vdup_n_u16(0))), 0) != 0;
}

#endif

#if defined(SEARCH_SSE2) || defined(SEARCH_NEON)

bytes least_of_group(const uint8_t *at)
{
    return least(least(load(at), load(at + part)), least(load(at + 2 * part), load(at + 3 * part)));
}

bytes least_of_block(const uint8_t *at)
{
    return least(least(least_of_group(at), least_of_group(at + group)),
                 least(least_of_group(at + 2 * group), least_of_group(at + 3 * group)));
}

// The first part from `at` on that has a pair; or where less than a part is left.
const uint8_t *skip_parts(const uint8_t *at, const uint8_t *last)
{
    for (;;) {
        if (last - at >= block) {
            const uint8_t *const last_block = last - block;
            while (at <= last_block && !has_pair(least_of_block(at))) at += block;
        }
        const uint8_t *end = last - at > block ? at + block : last;
        while (end - at >= group && !has_pair(least_of_group(at))) at += group;
        if (end - at > group) end = at + group;
        while (end - at >= part && !has_pair(load(at))) at += part;
        if (end - at >= part || end == last) return at;
    }
}

// Not the beginning of the data: the code of a pair may begin one byte before its part.
const uint8_t *first_part(const uint8_t *data, const uint8_t *last)
{
    const uint8_t *const first = data + (part - static_cast<ptrdiff_t>(reinterpret_cast<uintptr_t>(data) % part));
    return first < last ? first : last;
}

#else

const uint8_t *skip_parts(const uint8_t *at, const uint8_t *)
{
    return at;
}

const uint8_t *first_part(const uint8_t *, const uint8_t *last)
{
    return last;
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
    const uint8_t *end = first_part(data, last);
    const uint8_t *at = search(data, end);
    while (at >= end) {
        if (end == last) return {len - 2, 0};
        const uint8_t *const begin = skip_parts(end, last);
        end = last - begin > part ? begin + part : last;
        at = search(begin - 1, end);
    }
    const auto p = static_cast<uint32_t>(at - data); // not 0: position 0 was checked above
    return at[-1] == 0 ? start_code{p - 1, 4} : start_code{p, 3};
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
