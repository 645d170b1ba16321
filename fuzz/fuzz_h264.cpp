/**
 * Whatever an H.264 access unit holds, its sample is its NAL units after their lengths, or there is a reason for none;
 * the parsers stay inside a unit, and the file is sound but for parameter sets that the frame does not have.
 */
#include "video.h"

using namespace fuzz;

static const video_codec codec = {
    {MP4_TRACK_H264, {{16, 16, 0}}},
    1,
    [](uint8_t first) -> uint8_t { return first & 0x1F; },
    [](uint8_t type) { return type == 1 || type == 5; },
    {{MEMENTO_SPS, 7}, {MEMENTO_PPS, 8}},
};

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) return 0;
    const recorded_file out = record(codec.track, {data, size}, 2);
    for (const std::string_view unit : check_access_unit(text({data, size}), out, codec)) {
        const exact copy(bytes(unit.begin(), unit.end()));
        check_bit_reader(copy);
        h264_nal_header header;
        h264_slice_header slice;
        h264_sps sps;
        if (parsed(h264_parser_decode_nal_header(copy.data.get(), copy.size, &header)))
            REQUIRE((header.forbidden_zero_bit << 7 | header.nal_ref_idc << 5 | header.nal_unit_type) == copy.data[0]);
        if (parsed(h264_parser_decode_slice_header(copy.data.get(), copy.size, &slice))) REQUIRE(slice.slice_type <= 9);
        parsed(h264_parser_decode_sps(copy.data.get(), copy.size, &sps));
        h264_bs reader = copy.reader();
        for (int32_t value; parsed(h264_bs_read_se(&reader, &value));) REQUIRE(reader.left <= copy.size);
    }
    return 0;
}
