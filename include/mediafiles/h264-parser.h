/**
 * Reading H.264 (ITU-T H.264): a bit reader over a NAL unit, the search for
 * Annex-B start codes, and the leading fields of NAL unit header, slice header
 * and sequence parameter set.
 *
 * All functions work on the caller's records alone. Those that return 0 or -1
 * set errno to ENOSPC when the data ends too early and to EILSEQ for an invalid
 * value; fields read before a failure keep their values.
 */
#ifndef MEDIAFILES_H264_PARSER_H
#define MEDIAFILES_H264_PARSER_H

#include <stdint.h>

#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/**
 * Bit reader. It drops emulation prevention bytes (7.4.1) on the way. To
 * start: next and left at the data, cur 0, bits 0, last_bytes 0xFFFF.
 */
struct h264_bs {
    const uint8_t *next; /* the next byte to fetch; borrowed */
    uint32_t left;       /* bytes not yet fetched */
    uint32_t cur;        /* the byte fetched last */
    uint32_t bits;       /* bits of cur not yet read, 0 to 8 */
    uint32_t last_bytes; /* bytes fetched so far, shifted in from the right */
};

struct h264_nal_header {
    uint8_t forbidden_zero_bit;
    uint8_t nal_ref_idc;
    uint8_t nal_unit_type;
};

struct h264_slice_header {
    uint32_t first_mb_in_slice;
    uint32_t slice_type;
};

struct h264_sps {
    uint8_t profile_idc;
    uint8_t constraint_set0_flag;
    uint8_t constraint_set1_flag;
    uint8_t constraint_set2_flag;
    uint8_t constraint_set3_flag;
    uint8_t constraint_set4_flag;
    uint8_t constraint_set5_flag;
    uint8_t level_idc;
};

/** Reads n bits (0 to 32), most significant first. ENOSPC; what was consumed stays consumed. */
MEDIAFILES_API int h264_bs_read_bits(h264_bs *bs, int n, uint32_t *out);

/** Reads ue(v) (9.1). ENOSPC; EILSEQ for more than 31 leading zero bits. */
MEDIAFILES_API int h264_bs_read_ue(h264_bs *bs, uint32_t *out);

/** Reads se(v) (9.1.1). Errors as h264_bs_read_ue. */
MEDIAFILES_API int h264_bs_read_se(h264_bs *bs, int32_t *out);

/**
 * Searches for the first start code (Annex B): 00 00 01, or 00 00 00 01. No
 * byte outside the data is read.
 *
 * @param offset    receives where the code begins; when there is none, the
 *                  number of positions examined
 * @param code_len  receives 3 or 4, or 0 when there is none; the NAL unit
 *                  begins at offset + code_len
 * @return 1 when found, else 0
 */
MEDIAFILES_API int h264_parser_find_start_code(const uint8_t *data, uint32_t len, uint32_t *offset, uint32_t *code_len);

/** Decodes a NAL unit header (7.3.1). data begins after the start code. ENOSPC. */
MEDIAFILES_API int h264_parser_decode_nal_header(const uint8_t *data, uint32_t len, h264_nal_header *header);

/** Decodes the first fields of a slice header (7.3.3). nal: with header byte. ENOSPC; EILSEQ: slice_type above 9. */
MEDIAFILES_API int h264_parser_decode_slice_header(const uint8_t *nal, uint32_t len, h264_slice_header *header);

/**
 * Decodes profile, constraint flags and level (7.3.2.1.1) and prints the
 * profile to standard output. nal: with header byte. ENOSPC.
 */
MEDIAFILES_API int h264_parser_decode_sps(const uint8_t *nal, uint32_t len, h264_sps *sps);

/**
 * Length in bits of the Exp-Golomb code that begins with nine given bits: 1,
 * 3, 5 ... 17, and 19 for a code that is longer than nine bits (entry 0).
 */
extern MEDIAFILES_API const uint8_t ff_golomb_vlc_len[512];

MEDIAFILES_END_DECLS

#endif
