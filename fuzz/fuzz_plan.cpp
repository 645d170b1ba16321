/**
 * Whatever journal and media are, a plan is made in bounded time, and the file that it announces is one whose boxes lie
 * inside their parents and whose samples lie inside the media, at the places that its numbers say.
 *
 * A byte of options; one of flags (1: the media begins with a recording's head, which is not in the input; 2: there is
 * no journal); two for the journal's length; the journal; the media.
 */
#include <algorithm>

#include "fuzz.h"
#include "tests/support/planned.h"

using namespace fuzz;

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4) return 0;
    const size_t length = std::min<size_t>(data[2] + data[3] * 256u, size - 4);
    const exact log(bytes(data + 4, data + 4 + length));
    bytes content = data[1] & 1 ? hex("00000018 'ftypmp42' 00*4 'mp42isom' 00000000 'mdat'") : bytes();
    content.insert(content.end(), data + 4 + length, data + size);
    planned::input media = {content}, journal = {{log.data.get(), log.size}};
    const planned p(media, data[1] & 2 ? nullptr : &journal, data[0], 1 << 20);
    const mediafiles_plan_info &info = p.info;

    REQUIRE(info.result >= MEDIAFILES_REPAIRED && info.result <= MEDIAFILES_REFUSED);
    REQUIRE((info.result == MEDIAFILES_REFUSED) == (info.reason != 0));
    REQUIRE(media.reads + journal.reads <= 1000 + 10 * size && media.largest <= 256 << 10 &&
            journal.largest <= 256 << 10);
    REQUIRE(info.journal_end + info.journal_lost <= log.size);
    for (const mediafiles_range &range : p.ranges) REQUIRE(range.begin >= 32 && range.begin < range.end);
    if (p.file.empty()) return 0;

    REQUIRE(info.media_end + info.cut >= info.added && info.file_size == p.file.size());
    const mp4::file read = mp4::read(p.file);
    REQUIRE(read.boxes.size() == 3 && read.boxes[1].offset + read.boxes[1].size == info.media_end);
    check_boxes(read.boxes, 0, p.file.size());
    uint64_t samples = 0;
    for (const mp4::track &track : read.tracks) {
        REQUIRE(track.samples.size() == track.sample_count);
        samples += track.samples.size();
        for (const mp4::sample &sample : track.samples)
            REQUIRE(sample.offset >= 32 && sample.offset + sample.size <= info.media_end);
    }
    if (info.samples == 0) return 0; // the file's own header, for which the size of mdat was missing
    REQUIRE(samples == info.samples && read.tracks.size() == info.info.trackCount);
    REQUIRE(sound_but_for(read, any_content));
    return 0;
}
