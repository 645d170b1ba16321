// What is of H.264 alone: its NAL unit header, the line about a profile, and
// the table of Exp-Golomb code lengths.

#include <cstdio>

#include <mediafiles/h264-parser.h>

#include "mediafiles/mp4/codec/leading-fields.h"
#include "mediafiles/mp4/codec/nal-header.h"

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

int h264_parser_decode_sps(const uint8_t *nal, uint32_t len, h264_sps *sps)
{
    if (read_sps(nal, len, sps) != 0) return -1;
    printf("+++++ sps->profile_idc=%02x (%d)\n", sps->profile_idc, sps->profile_idc);
    return 0;
}
