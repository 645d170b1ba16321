/**
 * Reading H.265 (ITU-T H.265): the bit reader and the start-code search of
 * H.264 under names of their own, and the leading fields of NAL unit header,
 * slice header, video and sequence parameter set.
 *
 * Results and errors as in h264-parser.h.
 */
#ifndef MEDIAFILES_H265_PARSER_H
#define MEDIAFILES_H265_PARSER_H

#include <stdint.h>

#include <mediafiles/h264-parser.h>
#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

struct h265_nal_header {
    uint8_t forbidden_zero_bit;
    uint8_t nal_unit_type;
    uint8_t nuh_layer_id;
    uint8_t nuh_temporal_id_plus1;
};

/** As the bits stand in the parameter set: max_layers and max_sub_layers are one less than the counts. */
struct h265_vps {
    uint8_t vps_id;
    uint8_t temporal_id_nesting;
    uint32_t max_layers;
    uint32_t max_sub_layers;
};

MEDIAFILES_API int h265_bs_read_bits(h265_bs *bs, int n, uint32_t *out);
MEDIAFILES_API int h265_bs_read_ue(h265_bs *bs, uint32_t *out);
MEDIAFILES_API int h265_bs_read_se(h265_bs *bs, int32_t *out);

/** h264_parser_find_start_code. */
MEDIAFILES_API int h265_parser_find_start_code(const uint8_t *data, uint32_t len, uint32_t *offset, uint32_t *code_len);

/** Decodes a NAL unit header (7.3.1.2), two bytes. data begins after the start code. ENOSPC. */
MEDIAFILES_API int h265_parser_decode_nal_header(const uint8_t *data, uint32_t len, h265_nal_header *header);

/** Reads two ue(v) after the first byte of the NAL unit, as h264_parser_decode_slice_header. */
MEDIAFILES_API int h265_parser_decode_slice_header(const uint8_t *nal, uint32_t len, h265_slice_header *header);

/**
 * Decodes the first fields of a video parameter set (7.3.2.1); nal is the
 * whole NAL unit. Reserved bits with a wrong value give -1 with errno unchanged
 * and a line on standard output. ENOSPC.
 */
MEDIAFILES_API int h265_parser_decode_vps(const uint8_t *nal, uint32_t len, h265_vps *vps);

/**
 * Reads eight fields after the first byte of the NAL unit, as
 * h264_parser_decode_sps does. So profile_idc gets the second byte of the NAL
 * unit header, and the other fields come from the two bytes after it. ENOSPC.
 */
MEDIAFILES_API int h265_parser_decode_sps(const uint8_t *nal, uint32_t len, h265_sps *sps);

MEDIAFILES_END_DECLS

#endif
