// The sample table boxes. The track keeps its tables in file byte order, so a
// box is a version word, an entry count and the runs of the table, unchanged.

#include <cstring>

#include <mediafiles/atom.h>
#include <mediafiles/stream.h>
#include <mediafiles/support/array-stream.h>
#include <mediafiles/track.h>

#include "mediafiles/byte-order.h"
#include "mediafiles/mp4/box-body.h"

namespace mediafiles {
namespace {

int write_runs(array_stream *table, mp4_stream *stream)
{
    const uint32_t element_size = array_stream_element_size(table);
    uint32_t n = 0;
    while (const void *run = array_stream_read(table, &n))
        if (stream->write(stream, run, n * element_size) != 0) return -1;
    return 0;
}

int write_full_box(array_stream *table, mp4_stream *stream)
{
    if (write_body(stream, box_body<4>(0, 0)) != 0) return -1;
    return mp4_atom_table_write(table, stream);
}

} // namespace
} // namespace mediafiles

using namespace mediafiles;

int mp4_atom_table_write(array_stream *table, mp4_stream *stream)
{
    uint8_t count[4];
    store_be32(count, array_stream_length(table));
    if (stream->write(stream, count, sizeof count) != 0) return -1;

    const uint32_t cursor = array_stream_seek(table, 0, 1);
    array_stream_seek(table, 0, 0);
    const int result = write_runs(table, stream);
    array_stream_seek(table, cursor, 0);
    return result;
}

int mp4_atom_stts_write(mp4_atom *atom, mp4_stream *stream)
{
    return write_full_box(atom->track->stts_table, stream);
}

int mp4_atom_stss_write(mp4_atom *atom, mp4_stream *stream)
{
    return write_full_box(atom->track->stss_table, stream);
}

int mp4_atom_stsc_write(mp4_atom *atom, mp4_stream *stream)
{
    return write_full_box(atom->track->stsc_table, stream);
}

int mp4_atom_stco_write(mp4_atom *atom, mp4_stream *stream)
{
    return write_full_box(atom->track->stco_table, stream);
}

int mp4_atom_stsz_write(mp4_atom *atom, mp4_stream *stream)
{
    const mp4_track *track = atom->track;
    if (track->sample_count == 0) return write_body(stream, box_body<12>(0, 0).zeros(8));

    // A single entry gives the size of every sample: the constant-size form.
    if (array_stream_length(track->stsz_table) == 1) {
        const uint32_t size = load_be32(array_stream_index(track->stsz_table, 0));
        return write_body(stream, box_body<12>(0, 0).u32(size).u32(track->sample_count));
    }
    if (write_body(stream, box_body<8>(0, 0).u32(0)) != 0) return -1;
    return mp4_atom_table_write(track->stsz_table, stream);
}
