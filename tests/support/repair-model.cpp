#include "repair-model.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <mediafiles/caretaker.h>

namespace model {

sample record::named() const
{
    const auto word = [this](size_t at) {
        return payload[at] | payload[at + 1] * 256u | payload[at + 2] * 65536u | uint32_t{payload[at + 3]} << 24;
    };
    return {track, word(0), word(4), static_cast<int32_t>(word(8)), word(16), static_cast<int32_t>(word(20))};
}

journal read(std::span<const uint8_t> stored)
{
    journal out = {{}, 0};
    uint32_t end = 0; // of the sample before
    while (stored.size() >= 4) {
        const size_t length = stored[2] + stored[3] * 256u, size = 4 + (length + 3) / 4 * 4;
        if (size <= 512 && size > stored.size()) break;
        const uint8_t kind = stored[0];
        bool bad = size > 512 || kind > 9 || (kind >= 3 && kind <= 5) || (kind == MEMENTO_TRACK && length != 16) ||
                   (kind == MEMENTO_SAMPLE && length != 24);
        const record next = {kind, stored[1], bad ? stored : stored.subspan(4, length)};
        if (!bad && kind == MEMENTO_SAMPLE) {
            const sample named = next.named();
            bad = named.offset < end || named.size == 0;
            end = named.offset + named.size;
        }
        if (bad) {
            out.error = EBADMSG;
            break;
        }
        out.records.push_back(next);
        stored = stored.subspan(size);
    }
    return out;
}

result repair(const journal &journal, uint64_t size, int version)
{
    result out;
    size_t videos = 0; // of the first track
    sample last = {};
    for (const record &each : journal.records) {
        if (each.kind != MEMENTO_SAMPLE || each.track != 0) continue;
        const sample named = each.named();
        if (named.offset < head || named.offset >= size) continue;
        videos++;
        last = named;
    }
    if (version == 2 && videos < 2) {
        out.error = videos ? 0 : no_cause;
        return out;
    }

    const auto replay = [&](const record &each) {
        const bool is_track = each.kind == MEMENTO_TRACK;
        mp4_track_desc track = {};
        if (is_track)
            memcpy(&track, each.payload.data(), sizeof track);
        else if (each.track < out.tracks.size())
            track = out.tracks[each.track];
        const uint32_t type = track.type & ~MP4_TRACK_RAW; // 0: there is no such track
        if (is_track) {
            if (out.tracks.size() == MP4_MAX_TRACKS) return ENOBUFS;
            if (type != MP4_TRACK_H264 && type != MP4_TRACK_H265 && type != MP4_TRACK_AAC) return ENOSYS;
            out.tracks.push_back(track);
        } else if (each.kind >= MEMENTO_VPS && each.kind <= MEMENTO_PPS) {
            if (type == 0) return EINVAL;
            if (type == MP4_TRACK_AAC || (type == MP4_TRACK_H264 && each.kind == MEMENTO_VPS)) return ENOSYS;
        } else if (each.kind == MEMENTO_SAMPLE) {
            sample named = each.named();
            if (named.offset < out.end) return EBADMSG;
            if (named.offset >= size) return 0;
            if (version == 2 && named.seconds == last.seconds && named.nanoseconds == last.nanoseconds)
                out.stop = std::min(out.stop, out.kept.size());
            if (out.stop != SIZE_MAX) return 0;
            if (type == 0 || named.nanoseconds > 999'999'999) return EINVAL;
            if (uint64_t{out.end} - head + named.size > MP4_MAX_RECORD_BYTES) return EFBIG;
            named.offset = out.end; // a gap is closed up
            out.end += named.size;
            out.kept.push_back(named);
        } else if (each.kind == MEMENTO_USER)
            out.users.push_back(each.payload.size());
        return 0;
    };
    for (const record &each : journal.records)
        if (out.error = replay(each); out.error) break;
    if (!out.error) out.error = journal.error;
    out.finished = out.error == 0;
    if (out.error && version == 2) out.error = no_cause;
    return out;
}

} // namespace model
