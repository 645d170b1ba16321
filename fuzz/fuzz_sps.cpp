/**
 * Whatever a sequence parameter set holds, no byte outside it is read, the size of its picture is one that a level
 * allows, and neither size nor number depends on the bytes after the fields that they come from.
 *
 * A byte, 1 for H.265; the NAL unit.
 */
#include "fuzz.h"
#include "recorder/recording/parameter-set.h"
#include "recorder/recording/picture-size.h"

using namespace fuzz;
using namespace mediafiles::recorder;

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) return 0;
    const uint32_t type = data[0] & 1 ? MP4_TRACK_H265 : MP4_TRACK_H264;
    bytes longer(data + 1, data + size);
    const exact copy(longer);
    longer.insert(longer.end(), 8, 0xFF);
    const std::span<const uint8_t> unit(copy.data.get(), copy.size);

    if (const auto picture = read_picture_size(type, unit)) {
        REQUIRE(picture->width >= 1 && picture->width <= longest_side);
        REQUIRE(picture->height >= 1 && picture->height <= longest_side);
        const auto again = read_picture_size(type, longer);
        REQUIRE(again && again->width == picture->width && again->height == picture->height);
    }
    for (uint8_t kind = MEMENTO_VPS; kind <= MEMENTO_PPS; ++kind) {
        const auto number = set_number(type, kind, unit);
        if (!number) continue;
        REQUIRE(set_number(type, kind, longer) == number);
        REQUIRE(set_number(type, kind, unit.first(std::min<size_t>(unit.size(), set_head))) == number);
    }
    return 0;
}
