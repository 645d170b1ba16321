#include "left-out.h"

#include <algorithm>
#include <cstring>

#include "codec.h"
#include "recovery/journal-scan.h"

namespace mediafiles::web {

using namespace recovery;

namespace {

// false after the last record, or where the journal can no longer be read.
bool read_record(window &records, uint64_t at, record &next)
{
    const uint8_t *bytes = records.view(at, sizeof next.header);
    if (!bytes) return false;
    next.offset = at;
    memcpy(&next.header, bytes, sizeof next.header);
    bytes = records.view(at, next.size());
    if (bytes) next.payload = bytes + sizeof next.header;
    return bytes != nullptr;
}

// Where the time of the movie begins: with its first sample.
int64_t begin_of(window &records)
{
    record next = {};
    for (uint64_t at = 0; read_record(records, at, next); at = next.end())
        if (next.header.kind == MEMENTO_SAMPLE) return next.as_sample().time();
    return 0;
}

} // namespace

left_out left_out_of(const mediafiles_source &journal, const mediafiles_plan_info &plan, uint64_t media_size)
{
    left_out result;
    mediafiles_source valid = journal;
    valid.size -= plan.journal_lost;
    window records(valid, journal_window);
    const int64_t begin = begin_of(records);
    int64_t kept[MP4_MAX_TRACKS]; // the time of the last sample of each track, in nanoseconds
    bool has_kept[MP4_MAX_TRACKS];
    for (uint32_t i = 0; i < MP4_MAX_TRACKS; ++i) {
        const mp4_fix_track &track = plan.info.tracks[i];
        kept[i] = begin + track.timespan.seconds * second + track.timespan.nanoseconds;
        has_kept[i] = track.frameCount != 0;
    }
    record next = {};
    for (uint64_t at = plan.journal_end; read_record(records, at, next); at = next.end()) {
        if (next.header.kind != MEMENTO_SAMPLE || next.header.track >= MP4_MAX_TRACKS) continue;
        const sample sample = next.as_sample();
        const uint8_t track = sample.track;
        if (result.video.samples + result.sound.samples == 0) result.is_beyond = sample.offset >= media_size;
        if (!has_kept[track]) kept[track] = sample.time();
        has_kept[track] = true;
        left_out::kind &kind = is_video(plan.info.tracks[track].desc) ? result.video : result.sound;
        ++kind.samples;
        kind.seconds = std::max(kind.seconds, static_cast<double>(sample.time() - kept[track]) / second);
    }
    return result;
}

} // namespace mediafiles::web
