/**
 * Whatever is pushed as a frame, what it is and its sample do not depend on how it is cut into pieces; no byte outside
 * them is read, and a sample of video is so many NAL units after their lengths, none of which holds a start code.
 *
 * A byte: bits 0 and 1 the codec, the rest where it is cut; the frame.
 */
#include <algorithm>
#include <vector>

#include "fuzz.h"
#include "recorder/recording/frame.h"

using namespace fuzz;
using namespace mediafiles::recorder;

static bytes stored(const mp4_track_desc &track, frame_pieces pieces, const frame_facts &facts)
{
    const exact to(bytes(facts.stored_size));
    if (facts.fault == frame_fault::none) store_frame(track, pieces, facts, to.data.get());
    return bytes(to.data.get(), to.data.get() + to.size);
}

static void check_units(const bytes &sample, uint32_t count)
{
    size_t at = 0;
    for (; count != 0; --count) {
        REQUIRE(sample.size() - at > 4);
        const uint32_t size = big(&sample[at]);
        REQUIRE(size != 0 && size <= sample.size() - at - 4 && sample[at + 3 + size] != 0);
        const std::string_view unit = text({&sample[at + 4], size});
        REQUIRE(unit.find(std::string_view("\0\0\1", 3)) == unit.npos);
        at += 4 + size;
    }
    REQUIRE(at == sample.size());
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) return 0;
    static constexpr mp4_track_desc tracks[] = {{MP4_TRACK_H264, {}},
                                                {MP4_TRACK_H265, {}},
                                                {MP4_TRACK_AAC, {{2, 16, 48000}}},
                                                {MP4_TRACK_AAC, {{1, 16, 8000}}}};
    const mp4_track_desc &track = tracks[data[0] & 3];
    const exact copy(bytes(data + 1, data + size));
    const iovec whole[] = {{copy.data.get(), copy.size}};
    const frame_facts facts = look_at_frame(track, whole);
    const bytes sample = stored(track, whole, facts);

    std::vector<iovec> pieces;
    for (size_t at = 0, step = data[0] >> 2; at < copy.size; at += step, step = (step * 5 + 1) % 23)
        pieces.push_back({copy.data.get() + at, std::min(step, copy.size - at)});
    const frame_facts again = look_at_frame(track, pieces);
    REQUIRE(again.fault == facts.fault && again.unit_count == facts.unit_count);
    REQUIRE(again.key == facts.key && again.recovery_point == facts.recovery_point && again.has_sets == facts.has_sets);
    REQUIRE(again.has_slices == facts.has_slices && again.begins_picture == facts.begins_picture);
    REQUIRE(stored(track, pieces, again) == sample);
    if (facts.fault != frame_fault::none) return 0;

    if (data[0] & 2) {
        REQUIRE(std::ranges::equal(sample, std::span(data + 1, size - 1).last(sample.size())));
        return 0;
    }
    check_units(sample, facts.unit_count);
    bool sets = false;
    for (set_reader reader(track, sample); const auto set = reader.next(); sets = true)
        REQUIRE(set->unit.data() >= sample.data() &&
                set->unit.data() + set->unit.size() <= sample.data() + sample.size());
    REQUIRE(sets == facts.has_sets);
    return 0;
}
