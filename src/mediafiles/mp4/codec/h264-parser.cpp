// The fields of H.264 units, and the table of Exp-Golomb code lengths.
//
// Of a slice header and of a sequence parameter set only the first fields are
// read. The caller who makes the track gives the picture size.

#include "mediafiles/mp4/codec/h264-parser.h"

#include <cerrno>
#include <cstdio>
#include <initializer_list>

#include "mediafiles/mp4/codec/bit-reader.h"
#include "mediafiles/mp4/codec/nal-header.h"
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

int read_slice_header(const uint8_t *nal, uint32_t len, h264_slice_header *header)
{
    if (len == 0) return refuse(ENOSPC);
    *header = {};
    bit_reader reader = read_from(nal + 1, len - 1);
    if (read_ue(&reader, &header->first_mb_in_slice) != 0) return -1;
    if (read_ue(&reader, &header->slice_type) != 0) return -1;
    if (header->slice_type > 9) return refuse(EILSEQ);
    return 0;
}

} // namespace mediafiles

using namespace mediafiles;

// Runs of equal entries, by powers of two.
#define RUN_2(n) n, n
#define RUN_4(n) RUN_2(n), RUN_2(n)
#define RUN_8(n) RUN_4(n), RUN_4(n)
#define RUN_16(n) RUN_8(n), RUN_8(n)
#define RUN_32(n) RUN_16(n), RUN_16(n)
#define RUN_64(n) RUN_32(n), RUN_32(n)
#define RUN_128(n) RUN_64(n), RUN_64(n)
#define RUN_256(n) RUN_128(n), RUN_128(n)

const uint8_t ff_golomb_vlc_len[512] = {
    19,         // longer than nine bits
    17,         // 000000001
    RUN_2(15),  // 00000001x
    RUN_4(13),  // 0000001xx
    RUN_8(11),  // 000001xxx
    RUN_16(9),  // 00001xxxx
    RUN_32(7),  // 0001xxxxx
    RUN_64(5),  // 001xxxxxx
    RUN_128(3), // 01xxxxxxx
    RUN_256(1), // 1xxxxxxxx
};

int h264_parser_decode_nal_header(const uint8_t *data, uint32_t len, h264_nal_header *header)
{
    return decode_nal_header(data, len, header);
}

int h264_parser_decode_slice_header(const uint8_t *nal, uint32_t len, h264_slice_header *header)
{
    return read_slice_header(nal, len, header);
}

int h264_parser_decode_sps(const uint8_t *nal, uint32_t len, h264_sps *sps)
{
    if (read_sps(nal, len, sps) != 0) return -1;
    printf("+++++ sps->profile_idc=%02x (%d)\n", sps->profile_idc, sps->profile_idc);
    return 0;
}
