// A byte is fetched when its first bit is read, and not before. The end of the
// data is reported then, and an emulation prevention byte is dropped then.

#include "mediafiles/mp4/codec/bit-reader.h"

#include <cerrno>

#include <mediafiles/h265-parser.h>

#include "mediafiles/refuse.h"

namespace mediafiles {
namespace {

bool fetch(bit_reader *reader)
{
    if (reader->left == 0) {
        errno = ENOSPC;
        return false;
    }
    uint32_t seen = reader->last_bytes << 8;
    if (*reader->next == 0x03 && (reader->last_bytes & 0xFFFF) == 0) {
        // An emulation prevention byte. The bytes before it form no pair of
        // zeros with those after it.
        ++reader->next;
        reader->last_bytes = 0xFFFF;
        if (--reader->left == 0) {
            errno = ENOSPC;
            return false;
        }
        seen = 0xFFFF00;
    }
    reader->cur = *reader->next++;
    --reader->left;
    reader->bits = 8;
    reader->last_bytes = seen | reader->cur;
    return true;
}

uint32_t shift_left(uint32_t value, uint32_t by)
{
    return by < 32 ? value << by : 0;
}

} // namespace

int read_bits(bit_reader *reader, int n, uint32_t *out)
{
    const auto wanted = static_cast<uint32_t>(n);
    const uint32_t mask = shift_left(1, wanted) - 1;
    if (wanted <= reader->bits) {
        *out = (reader->cur >> (reader->bits - wanted)) & mask;
        reader->bits -= wanted;
        return 0;
    }
    uint32_t need = wanted - reader->bits;
    uint32_t value = shift_left(reader->cur, need);
    for (;;) {
        if (!fetch(reader)) return -1;
        if (need <= 8) break;
        need -= 8;
        value |= shift_left(reader->cur, need);
    }
    *out = (value | reader->cur >> (8 - need)) & mask;
    reader->bits = 8 - need;
    return 0;
}

int read_ue(bit_reader *reader, uint32_t *out)
{
    uint32_t zeros = 0;
    for (;; ++zeros) {
        uint32_t bit;
        if (read_bits(reader, 1, &bit) != 0) return -1;
        if (bit) break;
    }
    if (zeros > 31) return refuse(EILSEQ);
    uint32_t suffix = 0;
    if (zeros > 0 && read_bits(reader, static_cast<int>(zeros), &suffix) != 0) return -1;
    *out = (1u << zeros) - 1 + suffix;
    return 0;
}

int read_se(bit_reader *reader, int32_t *out)
{
    uint32_t k;
    if (read_ue(reader, &k) != 0) return -1;
    const auto half = static_cast<int32_t>(k >> 1);
    *out = k & 1 ? half + 1 : -half;
    return 0;
}

} // namespace mediafiles

using namespace mediafiles;

int h264_bs_read_bits(h264_bs *bs, int n, uint32_t *out)
{
    return read_bits(bs, n, out);
}

int h264_bs_read_ue(h264_bs *bs, uint32_t *out)
{
    return read_ue(bs, out);
}

int h264_bs_read_se(h264_bs *bs, int32_t *out)
{
    return read_se(bs, out);
}

int h265_bs_read_bits(h265_bs *bs, int n, uint32_t *out)
{
    return read_bits(bs, n, out);
}

int h265_bs_read_ue(h265_bs *bs, uint32_t *out)
{
    return read_ue(bs, out);
}

int h265_bs_read_se(h265_bs *bs, int32_t *out)
{
    return read_se(bs, out);
}
