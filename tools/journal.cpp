#include "tools/journal.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/seconds.h"

namespace tools {

namespace {

constexpr uint32_t media_begin = 32;          // after ftyp and the header of mdat
constexpr int64_t step_tolerance = 1'000'000; // by how much a track's steps may differ and still be even

/* Text, so that a dump of the journal explains itself. It fills its record and does not end with a zero. */
constexpr const char *mark_format = "mediafiles repair: of %010u bytes %c%c...";
constexpr size_t mark_length = 44;

/* Payload of a MEMENTO_SAMPLE. */
namespace sample_field {
constexpr size_t offset = 0, size = 4, seconds = 8, nanoseconds = 16, key = 20, length = 24;
}

/* Little-endian, as every machine that the library is built for. */
template <class Value>
Value field(std::span<const uint8_t> payload, size_t offset)
{
    Value value;
    std::memcpy(&value, payload.data() + offset, sizeof value);
    return value;
}

std::optional<repair_mark> read_mark(const journal_record &record)
{
    if (record.header.kind != MEMENTO_USER || record.payload.size() != mark_length) return {};
    const std::string text(record.payload.begin(), record.payload.end());
    unsigned size;
    char dropped, completed;
    if (std::sscanf(text.c_str(), mark_format, &size, &dropped, &completed) != 3) return {};
    const repair_mark mark = {size, dropped == 'd', completed == 'c'};
    const std::vector<uint8_t> whole = mark_record(mark);
    if (!std::ranges::equal(std::span(whole).subspan(sizeof(memento)), record.payload)) return {};
    return mark;
}

/* The record there, with as much of its payload as the data has; its header must be there. */
journal_record record_in(std::span<const uint8_t> data, size_t at)
{
    const auto header = field<memento>(data, at);
    const size_t begin = at + sizeof header;
    return {header, at, data.subspan(begin, std::min<size_t>(data.size() - begin, header.length))};
}

class parser {
public:
    parser(std::span<const uint8_t> data, const key_by_media &key, const record_visitor &visit)
        : data_(data), key_by_media_(key), visit_(visit)
    {
        const auto last = std::find_if(data.rbegin(), data.rend(), [](uint8_t byte) { return byte != 0; });
        zeros_from_ = static_cast<size_t>(data.rend() - last);
    }

    journal run()
    {
        size_t at = 0;
        while (const auto next = record_at(at)) {
            if (!take(*next)) break;
            if (visit_) visit_(*next);
            at = next->end();
            if (next->header.kind == MEMENTO_USER && (out_.mark = read_mark(*next))) continue;
            out_.mark.reset(); // only the last record is one
            out_.end = at;
        }
        out_.lost = data_.size() - at;
        return std::move(out_);
    }

private:
    /* None at the end, in the zeros, or for an invalid record. */
    std::optional<journal_record> record_at(size_t at)
    {
        if (at == data_.size()) return {};
        if (at >= zeros_from_) return ended(journal_ending::zeros);
        if (data_.size() - at < sizeof(memento)) return ended(journal_ending::cut);
        const journal_record next = record_in(data_, at);
        if (sizeof(memento) + next.header.length > MEMENTO_MAX_SIZE) {
            damaged("a record that is too long");
            return {};
        }
        if (next.payload.size() < next.header.length || next.end() > data_.size()) return ended(journal_ending::cut);
        return next;
    }

    std::nullopt_t ended(journal_ending how)
    {
        out_.ending = how;
        return std::nullopt;
    }

    void damaged(const char *what)
    {
        out_.ending = journal_ending::damaged;
        out_.damage = what;
    }

    bool take(const journal_record &next)
    {
        const bool is_sample = next.header.kind == MEMENTO_SAMPLE;
        if (next.payload_end() > zeros_from_) {
            const size_t before = out_.samples.size();
            if (is_sample && !take_sample(next) && is_whole(next)) return true;
            out_.samples.resize(before);
            ended(journal_ending::zeros);
            return false;
        }
        const char *wrong = is_sample ? take_sample(next) : take_other(next);
        if (!wrong && is_sample && is_overwritten(next)) {
            out_.samples.pop_back();
            wrong = "a last sample with a key flag like no other";
        }
        if (wrong) damaged(wrong);
        return !wrong;
    }

    /* Whether the flag, which ends a sample's record, is what stood on the medium before, as what follows is. */
    bool is_overwritten(const journal_record &next)
    {
        if (field<uint32_t>(next.payload, sample_field::key) <= 1 || odd_keys_++ != 0) return false;
        const size_t at = next.end();
        if (at >= zeros_from_ || data_.size() - at < sizeof(memento)) return true;
        const auto after = field<memento>(data_, at);
        return after.kind > MEMENTO_SEI || sizeof(memento) + after.length > MEMENTO_MAX_SIZE;
    }

    /* What is wrong with it, or nullptr. */
    const char *take_sample(const journal_record &next)
    {
        if (next.payload.size() != sample_field::length) return "a sample record of a wrong length";
        const journal_sample sample = read_sample(next);
        const uint64_t expected = out_.samples.empty() ? media_begin : out_.samples.back().end();
        if (sample.track >= out_.tracks.size()) return "a sample of an unknown track";
        if (sample.size == 0) return "an empty sample";
        if (field<uint32_t>(next.payload, sample_field::nanoseconds) >= second) return "an invalid time";
        if (sample.offset != expected)
            return sample.offset < expected ? "a sample that overlaps the one before it" : "a gap between samples";
        if (sample.end() > UINT32_MAX || sample.end() - media_begin > MP4_MAX_RECORD_BYTES)
            return "more media than a file can hold";
        out_.samples.push_back(sample);
        return nullptr;
    }

    const char *take_other(const journal_record &next)
    {
        switch (next.header.kind) {
        case MEMENTO_USER:
            return nullptr;
        case MEMENTO_TRACK:
            return take_track(next);
        case MEMENTO_VPS:
        case MEMENTO_SPS:
        case MEMENTO_PPS:
        case MEMENTO_SEI:
            return take_parameter_set(next);
        default:
            return "a record of an unknown kind";
        }
    }

    const char *take_track(const journal_record &next)
    {
        if (next.payload.size() != sizeof(mp4_track_desc)) return "a track record of a wrong length";
        const mp4_track_desc track = read_track(next);
        const uint32_t type = track.type & ~MP4_TRACK_RAW;
        if (type != MP4_TRACK_H264 && type != MP4_TRACK_H265 && type != MP4_TRACK_AAC) return "a track of unknown type";
        if (out_.tracks.size() == MP4_MAX_TRACKS) return "more than eight tracks";
        out_.tracks.push_back(track);
        return nullptr;
    }

    const char *take_parameter_set(const journal_record &next)
    {
        if (next.header.kind == MEMENTO_SEI) return nullptr; // the library's repair does not look at it
        if (next.header.track >= out_.tracks.size()) return "a parameter set of an unknown track";
        const uint32_t type = out_.tracks[next.header.track].type & ~MP4_TRACK_RAW;
        if (type == MP4_TRACK_AAC || (type == MP4_TRACK_H264 && next.header.kind == MEMENTO_VPS))
            return "a parameter set of another codec";
        const int header = next.payload.empty() ? -1 : next.payload[0];
        const bool is_that = type == MP4_TRACK_H264 ? (header & 0x1F) == next.header.kind // as the codec numbers them
                                                    : (header >> 1 & 0x3F) == next.header.kind + 26;
        if (header < 0 || !is_that) return "an invalid parameter set";
        const auto is_same = [&](const parameter_set &set) {
            return set.kind == next.header.kind && set.track == next.header.track;
        };
        if (std::ranges::none_of(out_.parameter_sets, is_same))
            out_.parameter_sets.push_back(
                {next.header.kind, next.header.track, {next.payload.begin(), next.payload.end()}});
        return nullptr;
    }

    /* Whether the zeros at the end of the sample just taken are its own. */
    bool is_whole(const journal_record &next) const
    {
        const journal_sample &sample = out_.samples.back();
        if (sample.key) return true;          // the flag's first byte: the last one that is not zero in any sample
        const journal_sample *before[2] = {}; // of the track
        size_t found = 0;
        for (size_t i = out_.samples.size() - 1; i > 0 && found < 2; --i)
            if (out_.samples[i - 1].track == sample.track) before[found++] = &out_.samples[i - 1];

        const auto key = key_by_media_(sample, out_.tracks[sample.track]);
        if (key ? *key : !before[0] || before[0]->key) return false;
        if (zeros_from_ - next.at - sizeof(memento) >= sample_field::key) return true;
        if (!before[1]) return false;
        const int64_t step = sample.time - before[0]->time, usual = before[0]->time - before[1]->time;
        return step > 0 && std::abs(step - usual) <= step_tolerance;
    }

    journal out_;
    std::span<const uint8_t> data_;
    const key_by_media &key_by_media_;
    const record_visitor &visit_;
    size_t zeros_from_;   // offset after the last byte that is not zero
    size_t odd_keys_ = 0; // samples whose key flag is neither 0 nor 1
};

} // namespace

std::string journal_of(const std::string &media)
{
    return media + ".journal";
}

bool begins_journal(std::span<const uint8_t> begin)
{
    size_t at = 0;
    while (begin.size() - at >= sizeof(memento)) {
        const journal_record first = record_in(begin, at);
        if (first.header.kind == MEMENTO_TRACK)
            return first.header.track < MP4_MAX_TRACKS && first.header.length == sizeof(mp4_track_desc);
        if (first.header.kind != MEMENTO_USER || sizeof(memento) + first.header.length > MEMENTO_MAX_SIZE) return false;
        at = std::min(first.end(), begin.size());
    }
    return false;
}

journal parse_journal(std::span<const uint8_t> data, const key_by_media &key, const record_visitor &visit)
{
    return parser(data, key, visit).run();
}

mp4_track_desc read_track(const journal_record &record)
{
    return field<mp4_track_desc>(record.payload, 0);
}

journal_sample read_sample(const journal_record &record)
{
    const std::span<const uint8_t> payload = record.payload;
    const int64_t time =
        field<int32_t>(payload, sample_field::seconds) * second + field<uint32_t>(payload, sample_field::nanoseconds);
    return {record.end(),
            record.header.track,
            field<int32_t>(payload, sample_field::key) != 0,
            field<uint32_t>(payload, sample_field::offset),
            field<uint32_t>(payload, sample_field::size),
            time};
}

std::vector<uint8_t> mark_record(const repair_mark &mark)
{
    char text[mark_length + 1];
    std::snprintf(text, sizeof text, mark_format, mark.media_size, mark.dropped_frame ? 'd' : '-',
                  mark.completed ? 'c' : '-');
    const memento header = {MEMENTO_USER, 0, mark_length};
    std::vector<uint8_t> record(sizeof header + mark_length);
    std::memcpy(record.data(), &header, sizeof header);
    std::memcpy(record.data() + sizeof header, text, mark_length);
    return record;
}

} // namespace tools
