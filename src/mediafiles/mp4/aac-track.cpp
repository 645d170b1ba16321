// The AAC track. It has no state of its own: it writes from the track's media
// parameters.

#include <mediafiles/aac-track.h>
#include <mediafiles/atom.h>
#include <mediafiles/descriptor.h>
#include <mediafiles/stream.h>
#include <mediafiles/track.h>

#include "mediafiles/mp4/box-body.h"
#include "mediafiles/mp4/box-tree.h"
#include "mediafiles/mp4/descriptor-tree.h"
#include "mediafiles/mp4/gather.h"

namespace mediafiles {
namespace {

// ISO/IEC 14496-3, 1.6.3.4. The two highest rates have no entry: they do not
// fit into the 16 bits of a sample entry.
struct {
    uint16_t rate; // Hz
    uint8_t index;
} constexpr sampling_frequencies[] = {
    {64000, 2}, {48000, 3}, {44100, 4},  {32000, 5}, {24000, 6}, {22050, 7},
    {16000, 8}, {12000, 9}, {11025, 10}, {8000, 11}, {7350, 12},
};

uint32_t sampling_frequency_index(uint16_t rate)
{
    for (const auto &entry : sampling_frequencies)
        if (entry.rate == rate) return entry.index;
    return 0;
}

// ISO/IEC 14496-3, 1.6.2.1: object type 2 (AAC LC), frequency, channels.
uint32_t audio_specific_config(const mp4_track *track)
{
    return 0x1000 + sampling_frequency_index(track->audio.sample_rate) * 128 + track->audio.channels * 8u;
}

// Length of the ADTS header (ISO/IEC 14496-3, 1.A.3.2) when the `len` bytes are
// one whole ADTS frame; 0 for anything else, which is stored unchanged.
uint32_t adts_header_length(const uint8_t *data, uint32_t len)
{
    if (len < 8) return 0;
    if (data[0] != 0xFF || (data[1] & 0xF0) != 0xF0) return 0;
    const uint32_t aac_frame_length = (data[3] & 0x03u) << 11 | uint32_t{data[4]} << 3 | data[5] >> 5;
    if (aac_frame_length != len) return 0;
    const bool protection_absent = data[1] & 1;
    if (protection_absent) return 7;
    return len > 9 ? 9 : 0; // a CRC follows the header
}

int add_sample(mp4_track *track, const void *data, uint32_t len, uint32_t duration, int key)
{
    const auto *frame = static_cast<const uint8_t *>(data);
    const uint32_t header = adts_header_length(frame, len);
    return __mp4_track_add_sample(track, one_buffer(frame + header, len - header).list(), duration, key);
}

constexpr box_body<28> mp4a_body(mp4_track_audio audio)
{
    box_body<28> body;
    body.zeros(6) // reserved
        .u16(1)   // data_reference_index
        .zeros(8) // reserved
        .u16(audio.channels)
        .u16(audio.sample_bits)
        .u16(0)                 // pre_defined
        .u16(0)                 // reserved
        .u16(audio.sample_rate) // 16.16
        .u16(0);
    return body;
}
static_assert(mp4a_body({}).size() == 28);

int write_sample_entry(mp4_track *track, mp4_atom *parent, mp4_stream *stream)
{
    return write_box(stream, "mp4a", mp4_atom_mp4a_write, parent->movie, track);
}

// Descriptor tags, ISO/IEC 14496-1, 7.2.2.1
constexpr uint32_t es_tag = 3;
constexpr uint32_t decoder_config_tag = 4;
constexpr uint32_t decoder_specific_info_tag = 5;
constexpr uint32_t sl_config_tag = 6;

// ISO/IEC 14496-14, 5.6.1
descriptor_ptr es_descriptor(const mp4_track *track)
{
    auto es = make_descriptor(es_tag, box_body<3>()
                                          .u16(track->id) // ES_ID
                                          .u8(0));        // no dependence, no URL, no OCR, priority 0
    if (!es) return nullptr;
    auto decoder = make_descriptor(decoder_config_tag, box_body<13>()
                                                           .u8(0x40)       // MPEG-4 audio
                                                           .u8(0x15)       // audio stream
                                                           .u24(15000)     // bufferSizeDB
                                                           .u32(1'500'000) // maxBitrate
                                                           .u32(0));       // avgBitrate
    if (!decoder) return nullptr;
    auto config = make_descriptor(decoder_specific_info_tag, box_body<2>().u16(audio_specific_config(track)));
    if (!config) return nullptr;
    auto sl = make_descriptor(sl_config_tag, box_body<1>().u8(2)); // predefined: MP4 file
    if (!sl) return nullptr;

    mp4_descriptor_append(decoder.get(), config.release());
    mp4_descriptor_append(es.get(), decoder.release());
    mp4_descriptor_append(es.get(), sl.release());
    return es;
}

} // namespace
} // namespace mediafiles

using namespace mediafiles;

mp4_track *mp4_aac_track_create(uint32_t id, uint32_t channels, uint32_t sample_bits, uint32_t sample_rate,
                                uint32_t raw)
{
    mp4_track *track = mp4_track_create(id, MP4_MEDIA_AUDIO, sample_rate, raw ? 0 : sample_rate * (sample_bits / 8));
    if (!track) return nullptr;
    track->audio = {static_cast<uint16_t>(channels), static_cast<uint16_t>(sample_bits),
                    static_cast<uint16_t>(sample_rate)};
    if (!raw) track->add_sample = add_sample;
    track->write_sample_entry = write_sample_entry;
    return track;
}

// ISO/IEC 14496-12, 12.2.3
int mp4_atom_mp4a_write(mp4_atom *atom, mp4_stream *stream)
{
    static constexpr child_box children[] = {{"esds", mp4_atom_esds_write}};
    if (write_body(stream, mp4a_body(atom->track->audio)) != 0) return -1;
    return write_children(atom, stream, children);
}

int mp4_atom_esds_write(mp4_atom *atom, mp4_stream *stream)
{
    const descriptor_ptr es = es_descriptor(atom->track);
    if (!es) return -1;
    if (write_body(stream, box_body<4>(0, 0)) != 0) return -1;
    return mp4_descriptor_write_to_stream(es.get(), stream);
}
