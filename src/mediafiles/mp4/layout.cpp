// The mdat header is written field by field, not framed as a box: its size is
// known only when the media has ended.

#include "mediafiles/mp4/layout.h"

#include "mediafiles/byte-order.h"
#include "mediafiles/mp4/box-tree.h"

namespace mediafiles {

int compose_head(mp4_stream *meta, mp4_movie *movie, mp4_atom *mdat)
{
    if (write_box(meta, "ftyp", mp4_atom_ftyp_write, movie, nullptr) != 0) return -1;

    *mdat = make_atom("mdat", mp4_atom_mdat_write, movie, nullptr);
    mdat->start = meta->tell(meta);
    constexpr uint8_t open_size[4] = {};
    if (meta->write(meta, open_size, sizeof open_size) != 0) return -1;
    return meta->write(meta, mdat->type, sizeof mdat->type) != 0 ? -1 : 0;
}

int write_tail(mp4_stream *out, mp4_stream *meta, mp4_movie *movie, const mp4_atom *mdat)
{
    const uint32_t end = out->tell(out);
    uint8_t size[4];
    store_be32(size, end - mdat->start);
    if (out->seek(out, mdat->start) != 0) return -1;
    if (out->write(out, size, sizeof size) != 0) return -1;
    if (out->seek(out, end) != 0) return -1;

    if (meta->clear(meta) != 0) return -1;
    if (write_box(meta, "moov", mp4_atom_moov_write, movie, nullptr) != 0) return -1;
    return meta->copy_to(meta, out) != 0 ? -1 : 0;
}

} // namespace mediafiles
