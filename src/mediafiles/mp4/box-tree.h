// The box tree as data: a parent lists its children in a table, in the order of
// the file, and one routine writes them.
#pragma once

#include <span>

#include <mediafiles/atom.h>

#include "mediafiles/mp4/box-body.h"

namespace mediafiles {

using body_writer = int (*)(mp4_atom *, mp4_stream *);

struct child_box {
    fourcc type;
    body_writer body;
    bool (*present)(const mp4_track &) = nullptr; // NULL: always
};

inline mp4_atom make_atom(fourcc type, body_writer body, mp4_movie *movie, mp4_track *track)
{
    const char(&t)[4] = type.chars;
    return {body, {t[0], t[1], t[2], t[3]}, 0, movie, track};
}

inline int write_box(mp4_stream *stream, fourcc type, body_writer body, mp4_movie *movie, mp4_track *track)
{
    mp4_atom atom = make_atom(type, body, movie, track);
    return mp4_atom_write(&atom, stream);
}

inline int write_children(const mp4_atom *parent, mp4_stream *stream, std::span<const child_box> children)
{
    for (const child_box &child : children) {
        if (child.present && !child.present(*parent->track)) continue;
        if (write_box(stream, child.type, child.body, parent->movie, parent->track) != 0) return -1;
    }
    return 0;
}

} // namespace mediafiles
