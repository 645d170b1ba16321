/**
 * The H.265 track: turns Annex-B access units into length-prefixed samples
 * and writes hev1 with hvcC (ISO/IEC 14496-15, 8.3).
 */
#ifndef MEDIAFILES_H265_TRACK_H
#define MEDIAFILES_H265_TRACK_H

#include <stdint.h>

#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/* NAL units taken from one frame, at most; a frame with more is dropped. */
#define H265_MAX_NALS 32

/**
 * Makes an H.265 track with a timescale of 90000, and prints a line on standard
 * output.
 *
 * Without raw, a frame is one Annex-B access unit: every start code becomes a
 * 4-byte length, and the first VPS, SPS, PPS and prefix SEI of a recording are
 * kept and journaled. A slice of type TRAIL_R (1) or IDR_W_RADL (19) runs to
 * the end of the frame; every other NAL unit ends at the next start code. A
 * frame without a start code (reported on standard output), ending within a NAL
 * unit header, or with more than H265_MAX_NALS units is dropped without an
 * error.
 *
 * @param width   pixels, low 16 bits; the SPS is not read for it
 * @param height  likewise
 * @param raw     non-zero: samples are stored as given, parameter sets come
 *                through the setters
 * @return owned by the caller, released by mp4_track_destroy; NULL with errno ENOMEM
 */
MEDIAFILES_API mp4_track *mp4_h265_track_create(uint32_t id, int width, int height, uint32_t raw);

/* Body writers, for mp4_atom_write; the record's track is an H.265 track. */
MEDIAFILES_API int mp4_atom_hev1_write(mp4_atom *atom, mp4_stream *stream);
MEDIAFILES_API int mp4_atom_hvcC_write(mp4_atom *atom, mp4_stream *stream);

MEDIAFILES_END_DECLS

#endif
