#include "tools/inspect/inspect.h"

#include <algorithm>
#include <cmath>

#include "tools/failure.h"
#include "tools/journal.h"
#include "tools/json.h"
#include "tools/print.h"
#include "tools/seconds.h"
#include "tools/track-description.h"

namespace tools {

namespace {

constexpr size_t sample_record_size = 28;

const char *name(uint8_t kind)
{
    switch (kind) {
    case MEMENTO_USER:
        return "user";
    case MEMENTO_TRACK:
        return "track";
    case MEMENTO_SAMPLE:
        return "sample";
    case MEMENTO_VPS:
        return "vps";
    case MEMENTO_SPS:
        return "sps";
    case MEMENTO_PPS:
        return "pps";
    case MEMENTO_SEI:
        return "sei";
    default:
        return "";
    }
}

const char *name(journal_ending ending)
{
    switch (ending) {
    case journal_ending::whole:
        return "whole";
    case journal_ending::cut:
        return "cut";
    case journal_ending::zeros:
        return "zeros";
    case journal_ending::damaged:
        return "damaged";
    }
    return "";
}

/* The payload of a user record, when it is text. */
std::optional<std::string> text_in(const journal_record &record)
{
    const auto is_printable = [](uint8_t byte) { return byte >= ' ' && byte <= '~'; };
    if (record.payload.empty() || !std::ranges::all_of(record.payload, is_printable)) return {};
    return std::string(record.payload.begin(), record.payload.end());
}

/* Seconds with all digits. */
std::string exact(int64_t nanoseconds)
{
    const int64_t whole = std::abs(nanoseconds / second), rest = std::abs(nanoseconds % second);
    return print("%s%jd.%09jd", nanoseconds < 0 ? "-" : "", intmax_t{whole}, intmax_t{rest});
}

std::string to_text(const journal_record &record)
{
    const std::string text =
        print("%12zu  %-6s %5u", record.at, name(record.header.kind), unsigned{record.header.track});
    switch (record.header.kind) {
    case MEMENTO_SAMPLE: {
        const journal_sample sample = read_sample(record);
        return text + print(" %10u %8u %20s%s", sample.offset, sample.size, exact(sample.time).c_str(),
                            sample.key ? "  key" : "");
    }
    case MEMENTO_TRACK:
        return text + "  " + describe(read_track(record));
    default:
        const auto words = record.header.kind == MEMENTO_USER ? text_in(record) : std::nullopt;
        return text + print(" %10s %8zu", "", record.payload.size()) + (words ? "  " + *words : "");
    }
}

ordered_json to_json(const journal_sample &sample)
{
    return {{"offset", sample.offset}, {"size", sample.size}, {"time_ns", sample.time}, {"key", sample.key}};
}

ordered_json to_json(const journal_record &record)
{
    ordered_json result = {{"at", record.at}, {"kind", name(record.header.kind)}, {"track", record.header.track}};
    switch (record.header.kind) {
    case MEMENTO_SAMPLE:
        result.update(to_json(read_sample(record)));
        break;
    case MEMENTO_TRACK:
        add_description(result, read_track(record));
        break;
    default:
        result["size"] = record.payload.size();
        if (record.header.kind == MEMENTO_USER)
            if (const auto text = text_in(record)) result["text"] = *text;
    }
    return result;
}

struct track_summary {
    uint64_t frames = 0, key_frames = 0, bytes = 0;
    int64_t longest_key_interval = 0; // nanoseconds
    const journal_sample *first = nullptr, *last = nullptr, *first_key = nullptr, *last_key = nullptr;

    void add(const journal_sample &sample)
    {
        ++frames;
        bytes += sample.size;
        if (!first) first = &sample;
        last = &sample;
        if (!sample.key) return;
        if (last_key)
            longest_key_interval = std::max(longest_key_interval, sample.time - last_key->time);
        else
            first_key = &sample;
        last_key = &sample;
        ++key_frames;
    }

    /* Nanoseconds; none with less than two key frames. */
    std::optional<int64_t> key_interval() const
    {
        if (key_frames < 2) return {};
        return (last_key->time - first_key->time) / static_cast<int64_t>(key_frames - 1);
    }

    /* Without the last frame, whose duration is unknown. */
    std::optional<int64_t> bytes_per_second() const
    {
        if (frames < 2 || last->time <= first->time) return {};
        return std::llround(static_cast<double>(bytes - last->size) / seconds(last->time - first->time));
    }
};

std::vector<track_summary> summarize(const journal &journal)
{
    std::vector<track_summary> tracks(journal.tracks.size());
    for (const journal_sample &sample : journal.samples) tracks[sample.track].add(sample);
    return tracks;
}

std::string to_text(size_t index, const mp4_track_desc &description, const track_summary &track)
{
    std::string text = print("track %zu: ", index) + describe(description) +
                       print(": %ju frames, %ju key", uintmax_t{track.frames}, uintmax_t{track.key_frames});
    if (const auto interval = track.key_interval(); interval && !is_audio(description))
        text += print(" (every %.3f s, at most %.3f s)", seconds(*interval), seconds(track.longest_key_interval));
    text += print(", %ju bytes", uintmax_t{track.bytes});
    if (const auto rate = track.bytes_per_second()) text += print(", %jd bytes a second", intmax_t{*rate});
    if (track.last)
        text += print("; the last at %s s, %u bytes at %u", exact(track.last->time).c_str(), track.last->size,
                      track.last->offset);
    return text;
}

std::string ending_of(const journal &journal, size_t size)
{
    const std::string where = print("%zu of %zu", size - journal.lost, size);
    switch (journal.ending) {
    case journal_ending::whole:
        return "valid to its end";
    case journal_ending::cut:
        return "cut at byte " + where + ", inside a record, which does not count";
    case journal_ending::zeros:
        return "zeros, as power cuts leave them, end it at byte " + where +
               "; the record in which they begin does not count";
    case journal_ending::damaged:
        return "damaged at byte " + where + ": " + journal.damage + "; the rest is lost";
    }
    return "";
}

void print_text_end(const journal &journal, size_t size, std::FILE *to)
{
    std::fputs("\n", to);
    const std::vector<track_summary> tracks = summarize(journal);
    for (size_t i = 0; i < tracks.size(); ++i)
        std::fprintf(to, "%s\n", to_text(i, journal.tracks[i], tracks[i]).c_str());
    std::fprintf(to, "%zu frames; %s\n", journal.samples.size(), ending_of(journal, size).c_str());
}

ordered_json to_json(size_t index, const mp4_track_desc &description, const track_summary &track)
{
    ordered_json result = {{"index", index}};
    add_description(result, description);
    result["frames"] = track.frames;
    result["key_frames"] = track.key_frames;
    const std::optional<int64_t> interval = track.key_interval();
    result["key_interval_ns"] = or_null(interval);
    result["longest_key_interval_ns"] = or_null(interval ? std::optional(track.longest_key_interval) : interval);
    result["bytes"] = track.bytes;
    result["bytes_per_second"] = or_null(track.bytes_per_second());
    result["last"] = nullptr;
    if (!track.last) return result;
    result["last"] = {{"at", track.last->record_end - sample_record_size}};
    result["last"].update(to_json(*track.last));
    return result;
}

ordered_json json_end(const journal &journal, size_t size)
{
    const std::vector<track_summary> summaries = summarize(journal);
    ordered_json tracks = ordered_json::array(), damage = nullptr;
    for (size_t i = 0; i < summaries.size(); ++i) tracks.push_back(to_json(i, journal.tracks[i], summaries[i]));
    if (!journal.damage.empty()) damage = {{"at", size - journal.lost}, {"text", journal.damage}};
    return {
        {"tracks", tracks},
        {"frames", journal.samples.size()},
        {"ending", name(journal.ending)},
        {"valid_bytes", size - journal.lost},
        {"lost_bytes", journal.lost},
        {"damage", damage},
        {"sound", journal.ending != journal_ending::damaged},
    };
}

std::vector<uint8_t> read_all(const open_file &file)
{
    const uint64_t size = file.size();
    if (size > largest_journal) throw failure("cannot read", file.path(), "it is too large for a journal");
    std::vector<uint8_t> data(size);
    if (!file.read(0, data)) throw failure("cannot read", file.path(), "it became shorter while it was read");
    return data;
}

/* Whether zeros at the end are a sample's own is judged without the media. */
journal parse(std::span<const uint8_t> data, const record_visitor &visit)
{
    return parse_journal(
        data, [](auto &, auto &) { return std::nullopt; }, visit);
}

} // namespace

bool inspect_journal(const open_file &file, bool json, std::FILE *to)
{
    const std::vector<uint8_t> data = read_all(file);
    if (!json) {
        std::fprintf(to, "%s: journal, %zu bytes\n\n%12s  %-6s %5s %10s %8s %20s\n", file.path().c_str(), data.size(),
                     "at", "kind", "track", "offset", "size", "time");
        const journal journal =
            parse(data, [&](const journal_record &record) { std::fprintf(to, "%s\n", to_text(record).c_str()); });
        print_text_end(journal, data.size(), to);
        return journal.ending != journal_ending::damaged;
    }
    /* One object in three pieces: what comes before the records, the records, and what is known after them. */
    const ordered_json begin = {{"path", file.path()}, {"kind", "journal"}, {"error", nullptr}, {"bytes", data.size()}};
    const std::string opened = json_text(begin);
    std::fprintf(to, "%s,\n  \"records\": [", opened.substr(0, opened.size() - 2).c_str());
    const char *separator = "\n    ";
    const journal journal = parse(data, [&](const journal_record &record) {
        std::fprintf(to, "%s%s", separator, json_text(to_json(record), one_line).c_str());
        separator = ",\n    ";
    });
    std::fprintf(to, "\n  ],\n%s\n", json_text(json_end(journal, data.size())).substr(2).c_str());
    return journal.ending != journal_ending::damaged;
}

} // namespace tools
