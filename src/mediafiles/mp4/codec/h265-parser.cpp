// The fields of H.265 units. Slice header and sequence parameter set are read
// by the code of H.264.

#include <cerrno>
#include <cstdio>

#include <mediafiles/h265-parser.h>

#include "mediafiles/mp4/codec/bit-reader.h"
#include "mediafiles/mp4/codec/h264-parser.h"
#include "mediafiles/mp4/codec/nal-header.h"
#include "mediafiles/ownership.h"
#include "mediafiles/refuse.h"

namespace mediafiles {
namespace {

// Reads bits that have only one value. Another value is reported on standard
// output, and errno stays as it is.
bool read_reserved(bit_reader *reader, int n, uint32_t value, const char *complaint)
{
    uint32_t bits;
    if (read_bits(reader, n, &bits) != 0) return false;
    if (bits == value) return true;
    errno_saver keep;
    puts(complaint);
    return false;
}

} // namespace
} // namespace mediafiles

using namespace mediafiles;

int h265_parser_decode_nal_header(const uint8_t *data, uint32_t len, h265_nal_header *header)
{
    return decode_nal_header(data, len, header);
}

int h265_parser_decode_slice_header(const uint8_t *nal, uint32_t len, h265_slice_header *header)
{
    return read_slice_header(nal, len, header);
}

int h265_parser_decode_vps(const uint8_t *nal, uint32_t len, h265_vps *vps)
{
    if (len < 2) return refuse(ENOSPC);
    *vps = {};
    bit_reader reader = read_from(nal + 2, len - 2);
    if (!read_field(&reader, 4, &vps->vps_id)) return -1;
    if (!read_reserved(&reader, 2, 3, "vps_reserved_three_2bits is not three")) return -1;
    if (!read_field(&reader, 6, &vps->max_layers)) return -1;
    if (!read_field(&reader, 3, &vps->max_sub_layers)) return -1;
    if (!read_field(&reader, 1, &vps->temporal_id_nesting)) return -1;
    return read_reserved(&reader, 16, 0xFFFF, "vps_reserved_ffff_16bits is not 0xffff") ? 0 : -1;
}

int h265_parser_decode_sps(const uint8_t *nal, uint32_t len, h265_sps *sps)
{
    return read_sps(nal, len, sps);
}
