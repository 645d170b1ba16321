/**
 * Whatever an H.265 access unit holds, its sample is its NAL units after their lengths, or there is a reason for none;
 * the parsers stay inside a unit, and the file is sound.
 */
#include <mediafiles/h265-parser.h>

#include "video.h"

using namespace fuzz;

static const video_codec codec = {
    {MP4_TRACK_H265, {{16, 16, 0}}},
    2,
    [](uint8_t first) -> uint8_t { return first >> 1 & 0x3F; },
    [](uint8_t type) { return type == 1 || type == 19; },
    {{MEMENTO_VPS, 32}, {MEMENTO_SPS, 33}, {MEMENTO_PPS, 34}, {MEMENTO_SEI, 39}},
};

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) return 0;
    const recorded_file out = record(codec.track, {data, size}, 2);
    for (const std::string_view unit : check_access_unit(text({data, size}), out, codec)) {
        const exact copy(bytes(unit.begin(), unit.end()));
        check_bit_reader(copy);
        h265_nal_header header;
        h265_slice_header slice;
        h265_vps vps;
        h265_sps sps;
        if (parsed(h265_parser_decode_nal_header(copy.data.get(), copy.size, &header)))
            REQUIRE((header.forbidden_zero_bit << 15 | header.nal_unit_type << 9 | header.nuh_layer_id << 3 |
                     header.nuh_temporal_id_plus1) == (copy.data[0] << 8 | copy.data[1]));
        if (parsed(h265_parser_decode_slice_header(copy.data.get(), copy.size, &slice))) REQUIRE(slice.slice_type <= 9);
        errno = ENOSPC; // left as it is where a reserved field has another value
        if (parsed(h265_parser_decode_vps(copy.data.get(), copy.size, &vps)))
            REQUIRE(vps.vps_id < 16 && vps.max_layers < 64 && vps.max_sub_layers < 8);
        parsed(h265_parser_decode_sps(copy.data.get(), copy.size, &sps));
    }
    return 0;
}
