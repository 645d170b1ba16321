/**
 * Boxes (ISO/IEC 14496-12): the framing of a box and the body writers of
 * every box that the library emits.
 *
 * A body writer has the form int f(mp4_atom *atom, mp4_stream *stream): it
 * reads the record's movie and track, writes the body at the stream's
 * position and returns 0, or -1 with the errno of the stream or of the
 * allocator. A parent writes its children through mp4_atom_write. Nothing is
 * rolled back on failure: the caller abandons the box tree.
 */
#ifndef MEDIAFILES_ATOM_H
#define MEDIAFILES_ATOM_H

#include <stdint.h>

#include <mediafiles/types.h>

MEDIAFILES_BEGIN_DECLS

/** One box to be written. A plain value, usually on the stack of the parent's writer. */
struct mp4_atom {
    int (*body)(mp4_atom *, mp4_stream *); /* writes the box body */
    char type[4];                          /* as in the file, no terminator */
    uint32_t start;                        /* stream position of the box; set by mp4_atom_write */
    mp4_movie *movie;                      /* borrowed */
    mp4_track *track;                      /* borrowed; NULL for movie-level boxes */
};

/**
 * Writes a whole box: a size placeholder, the type, the body, then the size
 * in place. Sizes are 32-bit (ISO/IEC 14496-12, 4.2). The stream's position
 * ends after the box; after a failure it is where the failing step left it.
 */
MEDIAFILES_API int mp4_atom_write(mp4_atom *atom, mp4_stream *stream);

/* File level */
MEDIAFILES_API int mp4_atom_ftyp_write(mp4_atom *atom, mp4_stream *stream); /* 4.3 */
MEDIAFILES_API int mp4_atom_mdat_write(mp4_atom *atom, mp4_stream *stream); /* 8.1.1: nothing */

/* Movie header */
MEDIAFILES_API int mp4_atom_moov_write(mp4_atom *atom, mp4_stream *stream); /* 8.2.1 */
MEDIAFILES_API int mp4_atom_mvhd_write(mp4_atom *atom, mp4_stream *stream); /* 8.2.2 */
MEDIAFILES_API int mp4_atom_iods_write(mp4_atom *atom, mp4_stream *stream); /* ISO/IEC 14496-14, 5.1 */

/* Track */
MEDIAFILES_API int mp4_atom_trak_write(mp4_atom *atom, mp4_stream *stream); /* 8.3.1 */
MEDIAFILES_API int mp4_atom_tkhd_write(mp4_atom *atom, mp4_stream *stream); /* 8.3.2 */
MEDIAFILES_API int mp4_atom_edts_write(mp4_atom *atom, mp4_stream *stream); /* 8.6.5 */
MEDIAFILES_API int mp4_atom_elst_write(mp4_atom *atom, mp4_stream *stream); /* 8.6.6 */
MEDIAFILES_API int mp4_atom_mdia_write(mp4_atom *atom, mp4_stream *stream); /* 8.4.1 */
MEDIAFILES_API int mp4_atom_mdhd_write(mp4_atom *atom, mp4_stream *stream); /* 8.4.2 */
MEDIAFILES_API int mp4_atom_hdlr_write(mp4_atom *atom, mp4_stream *stream); /* 8.4.3 */
MEDIAFILES_API int mp4_atom_minf_write(mp4_atom *atom, mp4_stream *stream); /* 8.4.4 */
MEDIAFILES_API int mp4_atom_vmhd_write(mp4_atom *atom, mp4_stream *stream); /* 12.1.2 */
MEDIAFILES_API int mp4_atom_smhd_write(mp4_atom *atom, mp4_stream *stream); /* 12.2.2 */
MEDIAFILES_API int mp4_atom_nmhd_write(mp4_atom *atom, mp4_stream *stream); /* 8.4.5.2 */
MEDIAFILES_API int mp4_atom_dinf_write(mp4_atom *atom, mp4_stream *stream); /* 8.7.1 */
MEDIAFILES_API int mp4_atom_dref_write(mp4_atom *atom, mp4_stream *stream); /* 8.7.2 */
MEDIAFILES_API int mp4_atom_url_write(mp4_atom *atom, mp4_stream *stream);  /* 8.7.2 */
MEDIAFILES_API int mp4_atom_stbl_write(mp4_atom *atom, mp4_stream *stream); /* 8.5.1 */
MEDIAFILES_API int mp4_atom_stsd_write(mp4_atom *atom, mp4_stream *stream); /* 8.5.2; ENOSYS: no hook */

/* Sample tables */
MEDIAFILES_API int mp4_atom_stts_write(mp4_atom *atom, mp4_stream *stream); /* 8.6.1.2 */
MEDIAFILES_API int mp4_atom_stss_write(mp4_atom *atom, mp4_stream *stream); /* 8.6.2 */
MEDIAFILES_API int mp4_atom_stsc_write(mp4_atom *atom, mp4_stream *stream); /* 8.7.4 */
MEDIAFILES_API int mp4_atom_stco_write(mp4_atom *atom, mp4_stream *stream); /* 8.7.5 */
MEDIAFILES_API int mp4_atom_stsz_write(mp4_atom *atom, mp4_stream *stream); /* 8.7.3 */

/**
 * Writes a table whose elements are already in file order: the entry count
 * (32-bit big-endian), then the elements, one write for each contiguous run.
 * The table's cursor ends where it was.
 */
MEDIAFILES_API int mp4_atom_table_write(array_stream *table, mp4_stream *stream);

MEDIAFILES_END_DECLS

#endif
