/**
 * The H.264 track: turns Annex-B access units into length-prefixed samples
 * and writes avc1 with avcC (ISO/IEC 14496-15, 5.3).
 */
#ifndef MEDIAFILES_H264_TRACK_H
#define MEDIAFILES_H264_TRACK_H

#include <stdint.h>

#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/* NAL units taken from one frame, at most; a frame with more is dropped. */
#define H264_MAX_NALS 32

/**
 * Makes an H.264 track with a timescale of 90000.
 *
 * Without raw, a frame is one Annex-B access unit: every start code becomes a
 * 4-byte length, and the first SPS and PPS of a recording are kept and
 * journaled. The first slice (type 1 or 5) runs to the end of the frame:
 * what follows stays inside its unit. A frame without a start code, ending
 * with one, or with more than H264_MAX_NALS units is dropped without an error.
 *
 * @param width   pixels, low 16 bits; the SPS is not read for it
 * @param height  likewise
 * @param raw     non-zero: samples are stored as given, parameter sets come
 *                through the setters
 * @return owned by the caller, released by mp4_track_destroy; NULL with errno ENOMEM
 */
MEDIAFILES_API mp4_track *mp4_h264_track_create(uint32_t id, int width, int height, uint32_t raw);

/* Body writers, for mp4_atom_write; the record's track is an H.264 track. */
MEDIAFILES_API int mp4_atom_avc1_write(mp4_atom *atom, mp4_stream *stream);
MEDIAFILES_API int mp4_atom_avcC_write(mp4_atom *atom, mp4_stream *stream);

MEDIAFILES_END_DECLS

#endif
