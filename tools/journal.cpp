#include "journal.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <mediafiles/caretaker.h>

namespace tools {

namespace {

constexpr uint32_t media_begin = 32; // behind ftyp and the header of mdat
constexpr int64_t second = 1'000'000'000;
constexpr int64_t steady = 1'000'000; // by how much a track's steps may differ and still be even

/* Text, so that a dump of the journal explains itself. It fills its record and does not end with a zero. */
constexpr const char *mark_format = "mediafiles repair: of %010u bytes %c%c...";
constexpr size_t mark_length = 44;

/* Payload of a MEMENTO_SAMPLE. */
namespace sample_field {
constexpr size_t offset = 0, size = 4, seconds = 8, nanoseconds = 16, key = 20, length = 24;
}

struct record {
    memento header;
    size_t at;
    std::span<const uint8_t> payload;

    size_t payload_end() const { return at + sizeof header + payload.size(); }
    size_t end() const { return at + sizeof header + ((payload.size() + 3) & ~size_t{3}); }
};

/* Little-endian, as every machine that the library is built for. */
template <class Value>
Value field(std::span<const uint8_t> payload, size_t offset)
{
    Value value;
    std::memcpy(&value, payload.data() + offset, sizeof value);
    return value;
}

std::optional<repair_mark> read_mark(const record &record)
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

class parser {
public:
    parser(std::span<const uint8_t> data, const key_by_media &key) : data_(data), key_by_media_(key)
    {
        const auto last = std::find_if(data.rbegin(), data.rend(), [](uint8_t byte) { return byte != 0; });
        zeros_from_ = static_cast<size_t>(data.rend() - last);
    }

    journal run()
    {
        size_t at = 0;
        while (const auto next = record_at(at)) {
            if (!take(*next)) break;
            at = next->end();
            if (next->header.kind == MEMENTO_USER && (out_.mark = read_mark(*next))) continue;
            out_.mark.reset(); // only the last record is one
            out_.end = at;
        }
        out_.lost = data_.size() - at;
        return std::move(out_);
    }

private:
    /* None at the end, in the zeros, or for a record that cannot be. */
    std::optional<record> record_at(size_t at)
    {
        if (at >= zeros_from_ || data_.size() - at < sizeof(memento)) return {};
        record next = {field<memento>(data_, at), at, {}};
        const size_t there = data_.size() - at - sizeof(memento);
        next.payload = data_.subspan(at + sizeof(memento), std::min<size_t>(there, next.header.length));
        if (sizeof(memento) + next.header.length > MEMENTO_MAX_SIZE) return damaged("a record that is too long");
        if (next.payload.size() < next.header.length || next.end() > data_.size()) return {};
        return next;
    }

    std::nullopt_t damaged(const char *what)
    {
        out_.damage = what;
        return std::nullopt;
    }

    bool take(const record &next)
    {
        const bool touched = next.payload_end() > zeros_from_;
        if (touched && next.header.kind != MEMENTO_SAMPLE) return false;
        if (const char *wrong = next.header.kind == MEMENTO_SAMPLE ? take_sample(next) : take_other(next)) {
            if (!touched) damaged(wrong);
            return false;
        }
        if (!touched || is_whole(next)) return true;
        out_.samples.pop_back();
        return false;
    }

    /* What is wrong with it, or nullptr. */
    const char *take_sample(const record &next)
    {
        if (next.payload.size() != sample_field::length) return "a sample record of a wrong length";
        const auto nanoseconds = field<uint32_t>(next.payload, sample_field::nanoseconds);
        const int64_t time = field<int32_t>(next.payload, sample_field::seconds) * second + nanoseconds;
        const journal_sample sample = {next.end(), next.header.track,
                                       field<int32_t>(next.payload, sample_field::key) != 0,
                                       field<uint32_t>(next.payload, sample_field::offset),
                                       field<uint32_t>(next.payload, sample_field::size), time};
        const uint64_t expected = out_.samples.empty() ? media_begin : out_.samples.back().end();
        if (sample.track >= out_.tracks.size()) return "a sample of a track that there is not";
        if (sample.size == 0) return "an empty sample";
        if (nanoseconds >= second) return "a time that cannot be";
        if (sample.offset != expected)
            return sample.offset < expected ? "a sample that overlaps the one before it" : "a gap between samples";
        if (sample.end() > UINT32_MAX || sample.end() - media_begin > MP4_MAX_RECORD_BYTES)
            return "more media than a file can hold";
        out_.samples.push_back(sample);
        return nullptr;
    }

    const char *take_other(const record &next)
    {
        switch (next.header.kind) {
        case MEMENTO_USER:
            return nullptr;
        case MEMENTO_TRACK:
            return take_track(next);
        case MEMENTO_VPS: case MEMENTO_SPS: case MEMENTO_PPS: case MEMENTO_SEI:
            return take_parameter_set(next);
        default:
            return "a record of a kind that has no place in a journal";
        }
    }

    const char *take_track(const record &next)
    {
        if (next.payload.size() != sizeof(mp4_track_desc)) return "a track record of a wrong length";
        const auto track = field<mp4_track_desc>(next.payload, 0);
        const uint32_t type = track.type & ~MP4_TRACK_RAW;
        if (type != MP4_TRACK_H264 && type != MP4_TRACK_H265 && type != MP4_TRACK_AAC) return "a track of unknown type";
        if (out_.tracks.size() == MP4_MAX_TRACKS) return "more than eight tracks";
        out_.tracks.push_back(track);
        return nullptr;
    }

    const char *take_parameter_set(const record &next)
    {
        if (next.header.kind == MEMENTO_SEI) return nullptr; // the library's repair does not look at it
        if (next.header.track >= out_.tracks.size()) return "a parameter set of a track that there is not";
        const uint32_t type = out_.tracks[next.header.track].type & ~MP4_TRACK_RAW;
        if (type == MP4_TRACK_AAC || (type == MP4_TRACK_H264 && next.header.kind == MEMENTO_VPS))
            return "a parameter set that its track cannot have";
        const auto is_same = [&](const parameter_set &set) {
            return set.kind == next.header.kind && set.track == next.header.track;
        };
        if (std::ranges::none_of(out_.parameter_sets, is_same))
            out_.parameter_sets.push_back(
                {next.header.kind, next.header.track, {next.payload.begin(), next.payload.end()}});
        return nullptr;
    }

    /* Whether the zeros at the end of the sample just taken are its own. */
    bool is_whole(const record &next) const
    {
        const journal_sample &sample = out_.samples.back();
        if (sample.key) return true; // the flag's first byte: the last one that is not zero in any sample
        const journal_sample *before[2] = {}; // of the track
        size_t found = 0;
        for (size_t i = out_.samples.size() - 1; i > 0 && found < 2; --i)
            if (out_.samples[i - 1].track == sample.track) before[found++] = &out_.samples[i - 1];

        const auto key = key_by_media_(sample, out_.tracks[sample.track]);
        if (key ? *key : !before[0] || before[0]->key) return false;
        if (zeros_from_ - next.at - sizeof(memento) >= sample_field::key) return true;
        if (!before[1]) return false;
        const int64_t step = sample.time - before[0]->time, usual = before[0]->time - before[1]->time;
        return step > 0 && std::abs(step - usual) <= steady;
    }

    journal out_;
    std::span<const uint8_t> data_;
    const key_by_media &key_by_media_;
    size_t zeros_from_; // offset behind the last byte that is not zero
};

} // namespace

journal parse_journal(std::span<const uint8_t> data, const key_by_media &key)
{
    return parser(data, key).run();
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
