// Only what stands first in slice headers and sequence parameter sets is read:
// the picture size, for one, comes from whoever makes the track.

#include "mediafiles/mp4/codec/leading-fields.h"

#include <cerrno>
#include <initializer_list>

#include <mediafiles/h265-parser.h>

#include "mediafiles/mp4/codec/bit-reader.h"
#include "mediafiles/mp4/codec/second-name.h"
#include "mediafiles/refuse.h"

namespace mediafiles {

int read_sps(const uint8_t *nal, uint32_t len, h264_sps *sps)
{
    if (len == 0) return refuse(ENOSPC);
    *sps = {};
    bit_reader reader = read_from(nal + 1, len - 1);
    if (!read_field(&reader, 8, &sps->profile_idc)) return -1;
    for (uint8_t *flag : {&sps->constraint_set0_flag, &sps->constraint_set1_flag, &sps->constraint_set2_flag,
                          &sps->constraint_set3_flag, &sps->constraint_set4_flag, &sps->constraint_set5_flag})
        if (!read_field(&reader, 1, flag)) return -1;
    uint32_t reserved_zero_2bits;
    if (!read_field(&reader, 2, &reserved_zero_2bits)) return -1;
    return read_field(&reader, 8, &sps->level_idc) ? 0 : -1;
}

} // namespace mediafiles

using namespace mediafiles;

int h264_parser_decode_slice_header(const uint8_t *nal, uint32_t len, h264_slice_header *header)
{
    if (len == 0) return refuse(ENOSPC);
    *header = {};
    bit_reader reader = read_from(nal + 1, len - 1);
    if (read_ue(&reader, &header->first_mb_in_slice) != 0) return -1;
    if (read_ue(&reader, &header->slice_type) != 0) return -1;
    if (header->slice_type > 9) return refuse(EILSEQ);
    return 0;
}

int h265_parser_decode_slice_header(const uint8_t *, uint32_t, h265_slice_header *)
    SECOND_NAME_OF(h264_parser_decode_slice_header);
