/**
 * The strict reader takes any bytes for a file, in bounded time and memory. What it calls sound is: boxes lie after
 * each other inside their parents, samples inside mdat and apart, and there are as many as the tables say.
 */
#include <algorithm>

#include "fuzz.h"

using namespace fuzz;

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const exact copy(bytes(data, data + size));
    const mp4::file file = mp4::read(std::span<const uint8_t>(copy.data.get(), copy.size));
    check_boxes(file.boxes, 0, file.size);
    if (!file.sound()) return 0;

    REQUIRE(file.size == size && !file.mdat.empty());
    std::vector<mp4::range> places;
    for (const mp4::track &track : file.tracks) {
        REQUIRE(track.samples.size() == track.sample_count && track.timescale != 0);
        for (const mp4::sample &sample : track.samples) {
            const mp4::range place = {sample.offset, sample.offset + sample.size};
            REQUIRE(std::ranges::any_of(
                file.mdat, [&](const mp4::range &mdat) { return mdat.begin <= place.begin && place.end <= mdat.end; }));
            places.push_back(place);
        }
    }
    std::ranges::stable_sort(places, {}, &mp4::range::begin);
    for (size_t i = 1; i < places.size(); i++)
        REQUIRE(places[i].begin >= places[i - 1].end || places[i - 1].begin == places[i - 1].end);
    return 0;
}
