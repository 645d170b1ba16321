#include "tools/inspect/inspect.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>

#include <mediafiles/caretaker.h>
#include <mediafiles/recovery.h>

#include "tools/failure.h"
#include "tools/json.h"
#include "tools/print.h"
#include "tools/seconds.h"
#include "tools/track-description.h"

namespace tools {

namespace {

struct close_journal {
    void operator()(mediafiles_journal *journal) const { mediafiles_journal_close(journal); }
};
using journal_ptr = std::unique_ptr<mediafiles_journal, close_journal>;
using journal_record = mediafiles_journal_record;
using journal_summary = mediafiles_journal_summary;

const char *kind_name(uint8_t kind)
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

constexpr const char *ending_names[] = {"whole", "cut", "torn", "damaged"};
static_assert(std::size(ending_names) == MEDIAFILES_JOURNAL_DAMAGED + 1);

/* Payload of a MEMENTO_SAMPLE. */
struct sample {
    uint64_t at; // of its record, in the journal
    uint32_t offset, size;
    int64_t time; // nanoseconds; seconds beyond 32 bits do not count, as in the library
    bool key;
};

sample sample_of(const journal_record &record)
{
    struct {
        uint32_t offset, size;
        int32_t seconds[2];
        uint32_t nanoseconds;
        int32_t key;
    } stored;
    std::memcpy(&stored, record.payload, sizeof stored);
    return {record.offset, stored.offset, stored.size, stored.seconds[0] * second + stored.nanoseconds,
            stored.key != 0};
}

mp4_track_desc track_of(const journal_record &record)
{
    mp4_track_desc track;
    std::memcpy(&track, record.payload, sizeof track);
    return track;
}

/* The payload of a user record, when it is text. */
std::optional<std::string> text_in(const journal_record &record)
{
    const std::string text(record.payload, record.payload + record.length);
    const auto is_printable = [](char c) { return c >= ' ' && c <= '~'; };
    if (text.empty() || !std::ranges::all_of(text, is_printable)) return {};
    return text;
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
        print("%12ju  %-6s %5u", uintmax_t{record.offset}, kind_name(record.kind), unsigned{record.track});
    switch (record.kind) {
    case MEMENTO_SAMPLE: {
        const sample sample = sample_of(record);
        return text + print(" %10u %8u %20s%s", sample.offset, sample.size, exact(sample.time).c_str(),
                            sample.key ? "  key" : "");
    }
    case MEMENTO_TRACK:
        return text + "  " + describe(track_of(record));
    default:
        const auto words = record.kind == MEMENTO_USER ? text_in(record) : std::nullopt;
        return text + print(" %10s %8u", "", unsigned{record.length}) + (words ? "  " + *words : "");
    }
}

ordered_json to_json(const sample &sample)
{
    return {{"offset", sample.offset}, {"size", sample.size}, {"time_ns", sample.time}, {"key", sample.key}};
}

ordered_json to_json(const journal_record &record)
{
    ordered_json result = {{"at", record.offset}, {"kind", kind_name(record.kind)}, {"track", record.track}};
    switch (record.kind) {
    case MEMENTO_SAMPLE:
        result.update(to_json(sample_of(record)));
        break;
    case MEMENTO_TRACK:
        add_description(result, track_of(record));
        break;
    default:
        result["size"] = record.length;
        if (record.kind == MEMENTO_USER)
            if (const auto text = text_in(record)) result["text"] = *text;
    }
    return result;
}

struct track_summary {
    uint64_t frames = 0, key_frames = 0, bytes = 0;
    int64_t first_time = 0, first_key = 0, last_key = 0; // nanoseconds; once there are frames and key frames
    int64_t longest_key_interval = 0;                    // nanoseconds
    sample last = {};

    void add(const sample &next)
    {
        if (frames++ == 0) first_time = next.time;
        bytes += next.size;
        last = next;
        if (!next.key) return;
        if (key_frames++ == 0)
            first_key = next.time;
        else
            longest_key_interval = std::max(longest_key_interval, next.time - last_key);
        last_key = next.time;
    }

    /* Nanoseconds; none with less than two key frames. */
    std::optional<int64_t> key_interval() const
    {
        if (key_frames < 2) return {};
        return (last_key - first_key) / static_cast<int64_t>(key_frames - 1);
    }

    /* Without the last frame, whose duration is unknown. */
    std::optional<int64_t> bytes_per_second() const
    {
        if (frames < 2 || last.time <= first_time) return {};
        return std::llround(static_cast<double>(bytes - last.size) / seconds(last.time - first_time));
    }
};

std::string to_text(size_t index, const mp4_track_desc &description, const track_summary &track)
{
    std::string text = print("track %zu: ", index) + describe(description) +
                       print(": %ju frames, %ju key", uintmax_t{track.frames}, uintmax_t{track.key_frames});
    if (const auto interval = track.key_interval(); interval && !is_audio(description))
        text += print(" (every %.3f s, at most %.3f s)", seconds(*interval), seconds(track.longest_key_interval));
    text += print(", %ju bytes", uintmax_t{track.bytes});
    if (const auto rate = track.bytes_per_second()) text += print(", %jd bytes a second", intmax_t{*rate});
    if (track.frames != 0)
        text += print("; the last at %s s, %u bytes at %u", exact(track.last.time).c_str(), track.last.size,
                      track.last.offset);
    return text;
}

std::string ending_of(const journal_summary &journal)
{
    const std::string where = print("%ju of %ju", uintmax_t{journal.end}, uintmax_t{journal.end + journal.lost});
    const std::string why = journal.damage ? std::string(" (") + journal.damage + ")" : "";
    switch (journal.ending) {
    case MEDIAFILES_JOURNAL_CUT:
        return "cut at byte " + where + ", inside a record, which does not count";
    case MEDIAFILES_JOURNAL_TORN:
        return "torn at byte " + where + why + ", as power cuts leave it; what stands there does not count";
    case MEDIAFILES_JOURNAL_DAMAGED:
        return "damaged at byte " + where + why + "; what stands there and after it is lost";
    default:
        return "valid to its end";
    }
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
    if (track.frames == 0) return result;
    result["last"] = {{"at", track.last.at}};
    result["last"].update(to_json(track.last));
    return result;
}

/* A journal of which the records are printed one by one, and what they amount to. */
struct listing {
    explicit listing(const open_file &file) : source{const_cast<open_file *>(&file), file.size(), read}
    {
        journal.reset(mediafiles_journal_open(&source, nullptr));
        if (!journal) throw std::bad_alloc();
    }

    static int64_t read(void *context, uint64_t offset, void *to, uint32_t count)
    {
        return static_cast<open_file *>(context)->read_some(offset, {static_cast<uint8_t *>(to), count});
    }

    template <class Print>
    journal_summary for_each(Print print_record)
    {
        journal_record record = {};
        record.size = sizeof record;
        while (mediafiles_journal_next(journal.get(), &record) == 1) {
            if (record.kind == MEMENTO_SAMPLE) tracks[record.track].add(sample_of(record));
            print_record(record);
        }
        journal_summary summary = {};
        summary.size = sizeof summary;
        mediafiles_journal_get_summary(journal.get(), &summary);
        return summary;
    }

    mediafiles_source source;
    journal_ptr journal;
    track_summary tracks[MP4_MAX_TRACKS];
};

bool print_text(const open_file &file, std::FILE *to)
{
    listing all(file);
    std::fprintf(to, "%s: journal, %ju bytes\n\n%12s  %-6s %5s %10s %8s %20s\n", file.path().c_str(),
                 uintmax_t{all.source.size}, "at", "kind", "track", "offset", "size", "time");
    const journal_summary journal =
        all.for_each([&](const journal_record &record) { std::fprintf(to, "%s\n", to_text(record).c_str()); });
    std::fputs("\n", to);
    for (uint32_t i = 0; i < journal.tracks; ++i)
        std::fprintf(to, "%s\n", to_text(i, journal.track[i], all.tracks[i]).c_str());
    if (journal.rounds != 0) std::fprintf(to, "%u rounds of syncs, ", journal.rounds);
    std::fprintf(to, "%ju frames; %s\n", uintmax_t{journal.samples}, ending_of(journal).c_str());
    return journal.ending != MEDIAFILES_JOURNAL_DAMAGED;
}

/* One object in three pieces: what stands before the records, the records, and what is known after them. */
bool print_json(const open_file &file, std::FILE *to)
{
    listing all(file);
    const std::string opened =
        json_text({{"path", file.path()}, {"kind", "journal"}, {"error", nullptr}, {"bytes", all.source.size}});
    std::fprintf(to, "%s,\n  \"records\": [", opened.substr(0, opened.size() - 2).c_str());
    const char *separator = "\n    ";
    const journal_summary journal = all.for_each([&](const journal_record &record) {
        std::fprintf(to, "%s%s", separator, json_text(to_json(record), one_line).c_str());
        separator = ",\n    ";
    });
    const bool sound = journal.ending != MEDIAFILES_JOURNAL_DAMAGED;
    ordered_json tracks = ordered_json::array(), damage = nullptr;
    for (uint32_t i = 0; i < journal.tracks; ++i) tracks.push_back(to_json(i, journal.track[i], all.tracks[i]));
    if (!sound) damage = {{"at", journal.end}, {"text", journal.damage}};
    const ordered_json end = {
        {"tracks", tracks},           {"frames", journal.samples},
        {"rounds", journal.rounds},   {"ending", ending_names[journal.ending]},
        {"valid_bytes", journal.end}, {"lost_bytes", journal.lost},
        {"damage", damage},           {"sound", sound},
    };
    std::fprintf(to, "\n  ],\n%s\n", json_text(end).substr(2).c_str());
    return sound;
}

bool print_line(const open_file &file, bool json, std::FILE *to)
{
    listing all(file);
    const journal_summary journal = all.for_each([](const journal_record &) {});
    const bool sound = journal.ending != MEDIAFILES_JOURNAL_DAMAGED;
    if (json) {
        const ordered_json line = {{"path", file.path()},
                                   {"kind", "journal"},
                                   {"error", nullptr},
                                   {"bytes", all.source.size},
                                   {"frames", journal.samples},
                                   {"ending", ending_names[journal.ending]},
                                   {"sound", sound}};
        std::fprintf(to, "%s\n", json_text(line, one_line).c_str());
    } else {
        const std::string text =
            printable(file.path()) + print(": journal, %ju bytes, %ju frames, %s", uintmax_t{all.source.size},
                                           uintmax_t{journal.samples}, ending_names[journal.ending]);
        std::fprintf(to, "%s\n", text.c_str());
    }
    return sound;
}

} // namespace

bool inspect_journal(const open_file &file, inspect_form form, std::FILE *to)
{
    if (form.one_line) return print_line(file, form.json, to);
    return form.json ? print_json(file, to) : print_text(file, to);
}

} // namespace tools
