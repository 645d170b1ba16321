#include "repair.h"

#include <algorithm>

#include <mediafiles/caretaker.h>

namespace fuzz {

namespace {

constexpr uint32_t head = 32; // bytes of ftyp and the header of mdat
constexpr int no_cause = -1;  // errno of mp4_fix2

/** What the movie says to a parameter set. */
int set_error(const repaired &state, const journal_record &record)
{
    if (record.track >= state.tracks.size()) return EINVAL;
    const uint32_t type = state.descriptions[record.track].type & ~MP4_TRACK_RAW;
    return type == MP4_TRACK_H265 || (type == MP4_TRACK_H264 && record.kind != MEMENTO_VPS) ? 0 : ENOSYS;
}

std::vector<size_t> users;

} // namespace

placed_sample sample_of(const journal_record &record)
{
    const auto word = [&](size_t at) { return little(record.payload.data() + at); };
    return {word(0), word(4), static_cast<int32_t>(word(8)), word(16), word(20) != 0};
}

journal_content read_journal(std::span<const uint8_t> journal)
{
    journal_content out{{}, 0};
    uint32_t end = 0; // of the sample before
    while (journal.size() >= 4) {
        const size_t length = journal[2] + journal[3] * 256u, size = 4 + (length + 3) / 4 * 4;
        journal_record record = {journal[0], journal[1], {}};
        if (size <= 512 && size > journal.size()) break;
        bool bad = size > 512 || record.kind > 9 || (record.kind >= 3 && record.kind <= 5) ||
                   (record.kind == MEMENTO_TRACK && length != 16) || (record.kind == MEMENTO_SAMPLE && length != 24);
        if (!bad) record.payload.assign(&journal[0] + 4, &journal[0] + 4 + length);
        if (!bad && record.kind == MEMENTO_SAMPLE) {
            const placed_sample sample = sample_of(record);
            bad = sample.offset < end || sample.len == 0;
            end = sample.offset + sample.len;
        }
        if (bad) return out.error = EBADMSG, out;
        out.records.push_back(std::move(record));
        journal = journal.subspan(size);
    }
    return out;
}

repaired expected_repair(int version, const journal_content &journal, uint32_t size)
{
    repaired out = {0, true, head, {}, {}, {}};
    const auto same_time = [](const placed_sample &a, const placed_sample &b) {
        return a.seconds == b.seconds && a.nanoseconds == b.nanoseconds;
    };
    placed_sample last = {};
    size_t videos = 0;
    for (const journal_record &record : journal.records) {
        if (record.kind != MEMENTO_SAMPLE || record.track != 0) continue;
        const placed_sample sample = sample_of(record);
        if (sample.offset >= head && sample.offset < size) videos++, last = sample;
    }
    if (version == 2 && videos < 2) return out.error = videos ? 0 : no_cause, out.finished = false, out;

    bool stopped = false;
    for (const journal_record &record : journal.records) {
        int error = 0;
        if (record.kind == MEMENTO_USER) out.users.push_back(record.payload.size());
        else if (record.kind == MEMENTO_TRACK) {
            mp4_track_desc description;
            memcpy(&description, record.payload.data(), sizeof description);
            const uint32_t type = description.type & ~MP4_TRACK_RAW;
            if (out.tracks.size() == MP4_MAX_TRACKS) error = ENOBUFS;
            else if (type != MP4_TRACK_H264 && type != MP4_TRACK_H265 && type != MP4_TRACK_AAC) error = ENOSYS;
            else out.descriptions.push_back(description), out.tracks.emplace_back();
        } else if (record.kind == MEMENTO_SAMPLE) {
            const placed_sample sample = sample_of(record);
            if (sample.offset < out.end) error = EBADMSG;
            else if (sample.offset < size) {
                stopped |= version == 2 && same_time(sample, last);
                if (stopped) continue;
                if (record.track >= out.tracks.size() || sample.nanoseconds > 999'999'999) error = EINVAL;
                else if (uint64_t{out.end} - head + sample.len > MP4_MAX_RECORD_BYTES) error = EFBIG;
                else {
                    out.tracks[record.track].push_back(sample);
                    out.tracks[record.track].back().offset = out.end; // a gap is closed up
                    out.end += sample.len;
                }
            }
        } else if (record.kind != MEMENTO_SEI) error = set_error(out, record);
        if (error) return out.error = version == 2 ? no_cause : error, out.finished = false, out;
    }
    if (journal.error) out.error = version == 2 ? no_cause : journal.error, out.finished = false;
    return out;
}

mp4::file check_repair(int version, const journal_content &content, std::span<const uint8_t> journal,
                       std::span<const uint8_t> media)
{
    const memory_file log(journal), file(media);
    const int next_descriptor = free_descriptor();
    const auto fix = version == 1 ? mp4_fix : mp4_fix2;
    const mp4_fix_callback user = [](const memento *record) { users.push_back(record->length); };
    mp4::file read = {};
    for (const bool with_file : {false, true}) {
        const auto size = static_cast<uint32_t>(media.size());
        const repaired expected = expected_repair(version, content, with_file ? size : UINT32_MAX);
        mp4_fix_info info = {};
        users.clear();
        const int result = fix(with_file ? file.path().c_str() : nullptr, log.path().c_str(), user, &info);
        REQUIRE(expected.error ? result == -1 && errno == expected.error : result == 0);
        REQUIRE(users == expected.users && free_descriptor() == next_descriptor);
        if (expected.finished) {
            REQUIRE(info.trackCount == expected.tracks.size());
            for (size_t i = 0; i < info.trackCount; i++) {
                REQUIRE(info.tracks[i].frameCount == expected.tracks[i].size());
                REQUIRE(memcmp(&info.tracks[i].desc, &expected.descriptions[i], sizeof info.tracks[i].desc) == 0);
            }
        }
        if (!with_file) continue;

        const uint32_t kept = expected.finished ? std::min(expected.end, size) : size;
        REQUIRE(file.size() == (expected.finished ? info.fileSize : std::max(size, head)));
        if (kept > head) REQUIRE(text(file.read(head, kept - head)) == text(media.subspan(head, kept - head)));
        if (!expected.finished) continue;
        REQUIRE(text(file.read(expected.end + 4, 4)) == "moov" && big(file.read(24, 4).data()) == expected.end - 24);
        if (file.size() >= 1 << 20) continue;

        const bytes finished = file.content();
        for (uint32_t at = std::max(size, head); at < expected.end; at++) REQUIRE(finished[at] == 0);
        read = mp4::read(finished);
        REQUIRE(read.boxes.size() == 3 && read.tracks.size() == expected.tracks.size());
        for (size_t i = 0; i < read.tracks.size(); i++) {
            const auto &samples = read.tracks[i].samples;
            REQUIRE(samples.size() == expected.tracks[i].size());
            for (size_t n = 0; n < samples.size(); n++) {
                const placed_sample &sample = expected.tracks[i][n];
                REQUIRE(samples[n].offset == sample.offset && samples[n].size == sample.len);
                REQUIRE(samples[n].sync == sample.key);
            }
        }
    }
    return read;
}

} // namespace fuzz
