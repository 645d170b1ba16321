// The framing of a box, and the boxes at the file level. A box is written with
// an empty size field, which is filled in after the body; so no body writer
// has to compute its size.

#include <mediafiles/atom.h>
#include <mediafiles/stream.h>

#include "mediafiles/byte-order.h"

int mp4_atom_write(mp4_atom *atom, mp4_stream *stream)
{
    uint8_t size[4] = {};
    atom->start = stream->tell(stream);
    if (stream->write(stream, size, sizeof size) != 0) return -1;
    if (stream->write(stream, atom->type, sizeof atom->type) != 0) return -1;
    if (atom->body(atom, stream) != 0) return -1;

    const uint32_t end = stream->tell(stream);
    mediafiles::store_be32(size, end - atom->start);
    if (stream->seek(stream, atom->start) != 0) return -1;
    if (stream->write(stream, size, sizeof size) != 0) return -1;
    return stream->seek(stream, end) != 0 ? -1 : 0;
}

int mp4_atom_ftyp_write(mp4_atom *, mp4_stream *stream)
{
    constexpr char fields[4][4] = {
        {'m', 'p', '4', '2'}, // major_brand
        {0, 0, 0, 0},         // minor_version
        {'m', 'p', '4', '2'}, // compatible_brands
        {'i', 's', 'o', 'm'},
    };
    for (const auto &field : fields)
        if (stream->write(stream, field, sizeof field) != 0) return -1;
    return 0;
}

int mp4_atom_mdat_write(mp4_atom *, mp4_stream *)
{
    return 0;
}
