// The H.264 track: the traits of H.264 for the splitter, the two parameter sets
// that are kept, and the sample entry that is written from them.

#include <utility>

#include <mediafiles/atom.h>
#include <mediafiles/caretaker.h>
#include <mediafiles/h264-parser.h>
#include <mediafiles/h264-track.h>

#include "mediafiles/mp4/box-body.h"
#include "mediafiles/mp4/video-track.h"

namespace mediafiles {
namespace {

struct h264_codec_data {
    parameter_set sps;
    parameter_set pps;
};

struct h264_codec {
    using record = h264_codec_data;
    using nal_header = h264_nal_header;
    static constexpr uint32_t max_units = H264_MAX_NALS;

    static void no_start_code() {}

    // A coded slice, of a non-IDR or an IDR picture.
    static bool runs_to_end(uint8_t type) { return type == 1 || type == 5; }

    static constexpr kept_unit<record> kept[] = {
        keep_in<record, &record::sps>(7, MEMENTO_SPS, &mp4_track::set_sps),
        keep_in<record, &record::pps>(8, MEMENTO_PPS, &mp4_track::set_pps),
    };

    static constexpr child_box entry = {"avc1", mp4_atom_avc1_write};
    static constexpr child_box configuration = {"avcC", mp4_atom_avcC_write};
};

using h264_track = video_track<h264_codec>;

} // namespace
} // namespace mediafiles

using namespace mediafiles;

mp4_track *mp4_h264_track_create(uint32_t id, int width, int height, uint32_t raw)
{
    auto record = h264_track::create_record();
    return record ? h264_track::create_track(std::move(record), id, width, height, raw) : nullptr;
}

int mp4_atom_avc1_write(mp4_atom *atom, mp4_stream *stream)
{
    return h264_track::write_entry_body(atom, stream);
}

// ISO/IEC 14496-15, 5.3.3.1: one SPS and one PPS, empty when none was seen.
int mp4_atom_avcC_write(mp4_atom *atom, mp4_stream *stream)
{
    const h264_codec_data &record = h264_track::record_of(atom->track);
    heap_body body(uint64_t{11} + record.sps.len + record.pps.len);
    if (!body.valid()) return -1;

    h264_sps sps = {};
    if (record.sps.data) h264_parser_decode_sps(record.sps.data, record.sps.len, &sps);
    const int compatibility = sps.constraint_set0_flag << 7 | sps.constraint_set1_flag << 6 |
                              sps.constraint_set2_flag << 5 | sps.constraint_set3_flag << 4 |
                              sps.constraint_set4_flag << 3 | sps.constraint_set5_flag << 2;
    body.u8(1) // configurationVersion
        .u8(sps.profile_idc)
        .u8(static_cast<uint8_t>(compatibility))
        .u8(sps.level_idc)
        .u8(0xFF) // lengthSizeMinusOne 3
        .u8(0xE1) // numOfSequenceParameterSets 1
        .u16(record.sps.len)
        .bytes(record.sps.bytes())
        .u8(1) // numOfPictureParameterSets
        .u16(record.pps.len)
        .bytes(record.pps.bytes());
    return write_body(stream, body);
}
