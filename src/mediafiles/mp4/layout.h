// The head and the tail of a file: ftyp and the mdat header before the media,
// the mdat size and moov when the media has ended.
#pragma once

#include <mediafiles/atom.h>
#include <mediafiles/stream.h>

namespace mediafiles {

// Composes ftyp and an mdat header of size 0 in `meta`, and notes the offset
// of the header in `mdat`. 0, or -1 with errno.
int compose_head(mp4_stream *meta, mp4_movie *movie, mp4_atom *mdat);

// With `out` at the end of the media: patches the size of mdat, composes moov
// in `meta` and copies it to the end of the media. 0, or -1 with errno.
int write_tail(mp4_stream *out, mp4_stream *meta, mp4_movie *movie, const mp4_atom *mdat);

} // namespace mediafiles
