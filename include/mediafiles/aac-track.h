/**
 * The AAC track: strips ADTS headers and writes mp4a with esds (ISO/IEC
 * 14496-14, 5.6; ISO/IEC 14496-3, 1.6).
 */
#ifndef MEDIAFILES_AAC_TRACK_H
#define MEDIAFILES_AAC_TRACK_H

#include <stdint.h>

#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/**
 * Makes an AAC-LC track whose timescale is the sampling rate.
 *
 * Without raw, a frame that is one whole ADTS frame loses its header (7 bytes,
 * or 9 with a CRC) and samples collect in a cache of
 * sample_rate * (sample_bits / 8) bytes, a second of PCM of one channel. A rate without a
 * samplingFrequencyIndex from 2 to 12 is announced with index 0.
 *
 * @param sample_bits  bits of one PCM sample, usually 16
 * @param sample_rate  Hz; the sample entry holds its low 16 bits
 * @param raw          non-zero: no cache, and samples are stored as given
 * @return owned by the caller, released by mp4_track_destroy; NULL with errno ENOMEM
 */
MEDIAFILES_API mp4_track *mp4_aac_track_create(uint32_t id, uint32_t channels, uint32_t sample_bits,
                                               uint32_t sample_rate, uint32_t raw);

/* Body writers, for mp4_atom_write; the record's track is an AAC track. */
MEDIAFILES_API int mp4_atom_mp4a_write(mp4_atom *atom, mp4_stream *stream);
MEDIAFILES_API int mp4_atom_esds_write(mp4_atom *atom, mp4_stream *stream);

MEDIAFILES_END_DECLS

#endif
