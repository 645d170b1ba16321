// The H.265 track: the traits of H.265 for the splitter, the parameter sets
// that are kept, and the sample entry that is written from them.

#include <cstdio>
#include <utility>

#include <mediafiles/atom.h>
#include <mediafiles/caretaker.h>
#include <mediafiles/h265-parser.h>
#include <mediafiles/h265-track.h>

#include "mediafiles/mp4/box-body.h"
#include "mediafiles/mp4/video-track.h"

namespace mediafiles {
namespace {

// These appear in a line of output, which is part of the interface.
constexpr const char *printed_path = "src/mediafiles/mp4/h265-track";
constexpr const char *printed_create = "mp4_h265_track_create";

// NAL unit types, ITU-T H.265, table 7-1
constexpr uint8_t trail_r = 1;
constexpr uint8_t idr_w_radl = 19;
constexpr uint8_t vps_nut = 32;
constexpr uint8_t sps_nut = 33;
constexpr uint8_t pps_nut = 34;
constexpr uint8_t prefix_sei_nut = 39;

struct h265_codec_data {
    parameter_set vps;
    parameter_set sps;
    parameter_set pps;
    parameter_set sei; // journaled, but in no box
};

struct h265_codec {
    using record = h265_codec_data;
    using nal_header = h265_nal_header;
    static constexpr uint32_t max_units = H265_MAX_NALS;

    static void no_start_code() { puts("could not find h265 start code"); }

    static bool runs_to_end(uint8_t type) { return type == trail_r || type == idr_w_radl; }

    static constexpr kept_unit<record> kept[] = {
        keep_in<record, &record::vps>(vps_nut, MEMENTO_VPS, &mp4_track::set_vps),
        keep_in<record, &record::sps>(sps_nut, MEMENTO_SPS, &mp4_track::set_sps),
        keep_in<record, &record::pps>(pps_nut, MEMENTO_PPS, &mp4_track::set_pps),
        keep_in<record, &record::sei>(prefix_sei_nut, MEMENTO_SEI, &mp4_track::set_sei),
    };

    static constexpr child_box entry = {"hev1", mp4_atom_hev1_write};
    static constexpr child_box configuration = {"hvcC", mp4_atom_hvcC_write};
};

using h265_track = video_track<h265_codec>;

// One array of hvcC with one NAL unit, empty when none was seen.
void add_array(heap_body &body, uint8_t type, const parameter_set &set)
{
    body.u8(type) // array_completeness 0
        .u16(1)   // numNalus
        .u16(set.len)
        .bytes(set.bytes());
}

} // namespace
} // namespace mediafiles

using namespace mediafiles;

mp4_track *mp4_h265_track_create(uint32_t id, int width, int height, uint32_t raw)
{
    auto record = h265_track::create_record();
    if (!record) return nullptr;
    printf("[%s:%s] id=%d, width=%d, height=%d.\n", printed_path, printed_create, static_cast<int>(id), width, height);
    return h265_track::create_track(std::move(record), id, width, height, raw);
}

int mp4_atom_hev1_write(mp4_atom *atom, mp4_stream *stream)
{
    return h265_track::write_entry_body(atom, stream);
}

// ISO/IEC 14496-15, 8.3.3.1: the general fields of Main profile, level 5.1.
int mp4_atom_hvcC_write(mp4_atom *atom, mp4_stream *stream)
{
    const h265_codec_data &record = h265_track::record_of(atom->track);
    heap_body body(uint64_t{38} + record.vps.len + record.sps.len + record.pps.len);
    if (!body.valid()) return -1;

    h265_sps sps = {};
    if (record.sps.data) h265_parser_decode_sps(record.sps.data, record.sps.len, &sps);
    body.u8(1)               // configurationVersion
        .u8(sps.profile_idc) // general_profile_space, general_tier_flag, general_profile_idc
        .u32(0x60000000)     // general_profile_compatibility_flags
        .u16(0xB000)         // general_constraint_indicator_flags
        .u32(0)
        .u8(153)     // general_level_idc
        .u16(0xF000) // min_spatial_segmentation_idc 0
        .u8(0xFC)    // parallelismType 0
        .u8(0xFD)    // chromaFormat 1
        .u8(0xF8)    // bitDepthLumaMinus8 0
        .u8(0xF8)    // bitDepthChromaMinus8 0
        .u16(0)      // avgFrameRate
        .u8(0x0F)    // constantFrameRate 0, numTemporalLayers 1, temporalIdNested 1, lengthSizeMinusOne 3
        .u8(3);      // numOfArrays
    add_array(body, vps_nut, record.vps);
    add_array(body, sps_nut, record.sps);
    add_array(body, pps_nut, record.pps);
    return write_body(stream, body);
}
