/**
 * Whatever an access unit holds, its sample is its NAL units after their lengths, or there is a reason for none; the
 * parsers stay inside a unit, and the file is sound but for parameter sets that the frame does not have.
 *
 * One source for both codecs: CODEC is h264 or h265.
 */
#include <map>
#include <utility>

#include <mediafiles/caretaker.h>
#include <mediafiles/h265-parser.h>

#include "fuzz.h"

using namespace fuzz;
using namespace std::string_view_literals;

namespace {

/** Whether a parser succeeded, or failed as it may. */
bool parsed(int result)
{
    REQUIRE(result == 0 || (result == -1 && (errno == ENOSPC || errno == EILSEQ)));
    return result == 0;
}

void parse_h264(const exact &unit)
{
    h264_nal_header header;
    h264_slice_header slice;
    h264_sps sps;
    if (parsed(h264_parser_decode_nal_header(unit.data.get(), unit.size, &header)))
        REQUIRE((header.forbidden_zero_bit << 7 | header.nal_ref_idc << 5 | header.nal_unit_type) == unit.data[0]);
    if (parsed(h264_parser_decode_slice_header(unit.data.get(), unit.size, &slice))) REQUIRE(slice.slice_type <= 9);
    parsed(h264_parser_decode_sps(unit.data.get(), unit.size, &sps));
    h264_bs reader = unit.reader();
    for (int32_t value; parsed(h264_bs_read_se(&reader, &value));) REQUIRE(reader.left <= unit.size);
}

void parse_h265(const exact &unit)
{
    h265_nal_header header;
    h265_slice_header slice;
    h265_vps vps;
    h265_sps sps;
    if (parsed(h265_parser_decode_nal_header(unit.data.get(), unit.size, &header)))
        REQUIRE((header.forbidden_zero_bit << 15 | header.nal_unit_type << 9 | header.nuh_layer_id << 3 |
                 header.nuh_temporal_id_plus1) == (unit.data[0] << 8 | unit.data[1]));
    if (parsed(h265_parser_decode_slice_header(unit.data.get(), unit.size, &slice))) REQUIRE(slice.slice_type <= 9);
    errno = ENOSPC; // left as it is where a reserved field has another value
    if (parsed(h265_parser_decode_vps(unit.data.get(), unit.size, &vps)))
        REQUIRE(vps.vps_id < 16 && vps.max_layers < 64 && vps.max_sub_layers < 8);
    parsed(h265_parser_decode_sps(unit.data.get(), unit.size, &sps));
}

struct video_codec {
    uint32_t track;
    size_t header;               // bytes of a NAL unit header
    int shift, mask;             // of the NAL unit type in its first byte
    std::pair<int, int> to_end;  // types that take all that follows
    std::map<int, uint8_t> kept; // memento kinds by NAL unit type
    void (*parse)(const exact &unit);

    int type(std::string_view unit) const { return unit.empty() ? 0 : uint8_t(unit[0]) >> shift & mask; }
    bool runs_to_end(std::string_view unit) const { return type(unit) == to_end.first || type(unit) == to_end.second; }
};

[[maybe_unused]] const video_codec h264 = {MP4_TRACK_H264, 1, 0, 0x1F, {1, 5}, {{7, MEMENTO_SPS}, {8, MEMENTO_PPS}},
                                           parse_h264};
[[maybe_unused]] const video_codec h265 = {
    MP4_TRACK_H265, 2, 1, 0x3F, {1, 19}, {{32, MEMENTO_VPS}, {33, MEMENTO_SPS}, {34, MEMENTO_PPS}, {39, MEMENTO_SEI}},
    parse_h265};
const video_codec &codec = CODEC;

constexpr std::string_view start_code = "\0\0\1"sv;

/**
 * The sample's NAL units are the frame's, each whole, in order, nothing left out but start codes: that is, each stands
 * in the frame right after a start code, holds none unless it may, and the last one ends the frame.
 */
std::vector<std::string_view> units_of(std::string_view sample, std::string_view frame)
{
    std::vector<std::string_view> units;
    size_t at = frame.find(start_code) + start_code.size();
    while (!sample.empty()) {
        REQUIRE(sample.size() >= 4);
        const uint32_t length = big(reinterpret_cast<const uint8_t *>(sample.data()));
        REQUIRE(length <= sample.size() - 4 && at + length <= frame.size());
        const std::string_view unit = sample.substr(4, length);
        REQUIRE(unit == frame.substr(at, length));
        units.push_back(unit);
        sample.remove_prefix(4 + length);
        at += length;
        if (codec.runs_to_end(unit))
            REQUIRE(sample.empty());
        else
            REQUIRE(unit.find(start_code) == unit.npos);
        if (sample.empty())
            REQUIRE(at == frame.size());
        else if (frame.substr(at, 3) == start_code)
            at += 3;
        else
            REQUIRE(frame.substr(std::exchange(at, at + 4), 4) == "\0\0\0\1"sv);
    }
    return units;
}

/** @return the NAL units stored, none when the frame was dropped for a reason that there is */
std::vector<std::string_view> check_access_unit(std::string_view frame, const recorded_file &out)
{
    const auto &samples = out.read.tracks[0].samples;
    std::vector<size_t> codes;
    for (size_t at = 0; (at = frame.find(start_code, at)) != frame.npos; at += 3) codes.push_back(at);
    /* avcC has the reserved bits of the profile as zeros, whatever the frame has, and no emulation prevention. A frame
     * that is dropped still moves the track's time on. */
    REQUIRE(sound_but_for(out.read, {"avcC has no parameter sets", "avcC: profile or level",
                                     samples.empty() ? "the track plays to" : "avcC: profile or level"}));
    if (samples.empty()) {
        REQUIRE(codes.empty() || codes.size() > 32 || frame.size() - codes.back() < 3 + codec.header);
        REQUIRE(out.media.empty());
        return {};
    }
    /* The frame was given twice and is stored twice. */
    const std::string_view media = text(out.media), sample = media.substr(0, media.size() / 2);
    REQUIRE(samples.size() == 2 && media == std::string(sample) + std::string(sample));
    const auto units = units_of(sample, frame);
    REQUIRE(!units.empty() && units.size() <= 32);

    /* The first parameter set of each kind is journaled, once, unless one was too large for the journal. */
    std::string_view rest = text(out.journal).substr(20);
    std::map<int, uint8_t> kept = codec.kept;
    for (const std::string_view unit : units) {
        const auto first = kept.extract(codec.type(unit));
        if (!first) continue;
        if (unit.size() > 508) return units;
        REQUIRE(rest.size() >= 4 && uint8_t(rest[0]) == first.mapped());
        REQUIRE(rest.substr(4, unit.size()) == unit);
        rest.remove_prefix(4 + (unit.size() + 3) / 4 * 4);
    }
    REQUIRE(rest.size() == 2 * 28 && rest[0] == MEMENTO_SAMPLE && rest[28] == MEMENTO_SAMPLE);
    return units;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) return 0;
    const recorded_file out = record({codec.track, {{16, 16, 0}}}, {data, size}, 2);
    for (const std::string_view unit : check_access_unit(text({data, size}), out))
        codec.parse(exact(bytes(unit.begin(), unit.end())));
    return 0;
}
