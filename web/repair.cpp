// What the page calls: the functions of the WebAssembly module.
//
// The files are descriptors that the page has opened before: 3 and 4 to read
// from, 5 takes what is made. An instance of the module serves one recording:
// it makes a plan, or looks into a file that is finished. What it finds is text
// in JSON, valid until the next call.

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include <mediafiles/recovery.h>

#include "left-out.h"
#include "recovery/listing.h"
#include "recovery/movie-header.h"
#include "recovery/sha256.h"
#include "time-line.h"

using namespace mediafiles;

namespace {

constexpr int media_file = 3, journal_file = 4, made_file = 5;
constexpr uint32_t most_listed = 1000; // ranges, or gaps of a track
constexpr uint32_t most_columns = 10'000;

// In the order of the enumerations of recovery.h.
constexpr const char *results[] = {"",         "repaired", "salvaged", "finished", "empty_removed",
                                   "not_ours", "refused",  "failed"};
static_assert(std::size(results) == MEDIAFILES_FAILED + 1);
constexpr const char *reasons[] = {
    "none",      "no_journal",   "no_samples",    "journal_damaged", "media_damaged", "foreign_journal",
    "large_cut", "large_growth", "no_frame_left", "too_large",       "cannot_replay", "in_use",
    "exists",    "no_media",     "not_regular",   "system",          "changed",       "stopped"};
static_assert(std::size(reasons) == MEDIAFILES_REASON_STOPPED + 1);

std::string answer;

[[gnu::format(printf, 1, 2)]] void say(const char *format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    answer += text;
}

// Of JSON. What stands between two quotes is ASCII of the library's own, or a name that the page gave.
void say_flag(const char *name, bool value)
{
    say(",\"%s\":%s", name, value ? "true" : "false");
}

void say_number(const char *name, uint64_t value)
{
    say(",\"%s\":%llu", name, static_cast<unsigned long long>(value));
}

int64_t read_descriptor(void *descriptor, uint64_t offset, void *to, uint32_t count)
{
    return pread(*static_cast<const int *>(descriptor), to, count, static_cast<off_t>(offset));
}

mediafiles_source source_of(const int &descriptor, double size)
{
    return {const_cast<int *>(&descriptor), static_cast<uint64_t>(size), read_descriptor};
}

int write_all(void *, const void *bytes, size_t count)
{
    const auto *next = static_cast<const char *>(bytes);
    for (size_t done = 0; done < count;) {
        const ssize_t n = write(made_file, next + done, count - done);
        if (n <= 0) return -1;
        done += static_cast<size_t>(n);
    }
    return 0;
}

struct release_plan {
    void operator()(mediafiles_plan *plan) const { mediafiles_plan_destroy(plan); }
};
std::unique_ptr<mediafiles_plan, release_plan> current;

struct opened_movie {
    explicit opened_movie(const mediafiles_source &source) : file(source), header(source) {}

    mediafiles_source file;
    recovery::movie_header header;
};
std::unique_ptr<opened_movie> movie;

// Of a repaired or salvaged file.
void say_left_out(const web::left_out &left_out)
{
    say(",\"left_out\":{\"video\":%llu,\"video_seconds\":%.6f", static_cast<unsigned long long>(left_out.video.samples),
        left_out.video.seconds);
    say(",\"sound\":%llu,\"sound_seconds\":%.6f", static_cast<unsigned long long>(left_out.sound.samples),
        left_out.sound.seconds);
    say_flag("is_beyond", left_out.is_beyond);
    answer += "}";
}

void say_plan(const mediafiles_plan_info &info)
{
    say("{\"result\":\"%s\",\"reason\":\"%s\"", results[info.result], reasons[info.reason]);
    say_flag("can_salvage", info.help & MEDIAFILES_SALVAGE);
    say_flag("can_keep_damaged", info.help & MEDIAFILES_KEEP_DAMAGED);
    say_flag("can_force", info.help & MEDIAFILES_FORCE);
    say_flag("foreign_journal", info.foreign != 0);
    say_flag("journal_goes", info.journal == MEDIAFILES_JOURNAL_REMOVED);
    say_flag("protected", info.is_protected != 0);
    say_number("media_end", info.media_end);
    say_number("file_size", info.file_size);
    say_number("cut", info.cut);
    say_number("added", info.added);
    say_number("journal_end", info.journal_end);
    say_number("journal_lost", info.journal_lost);
    say_number("samples", info.samples);
    say_number("bad_ranges", info.ranges);
    uint64_t bad = 0;
    std::string listed;
    for (uint32_t i = 0; i < info.ranges; ++i) {
        mediafiles_range range;
        mediafiles_plan_range(current.get(), i, &range);
        bad += range.end - range.begin;
        if (i >= most_listed) continue;
        char text[64];
        snprintf(text, sizeof text, "%s[%llu,%llu]", i == 0 ? "" : ",", static_cast<unsigned long long>(range.begin),
                 static_cast<unsigned long long>(range.end));
        listed += text;
    }
    say_number("bad_bytes", bad);
    answer += ",\"ranges\":[" + listed + "]";
    if (info.damage) say(",\"damage\":\"%s\"", info.damage);
}

uint32_t number_at(uint64_t offset, uint32_t width)
{
    uint8_t bytes[4];
    if (!recovery::read_all(movie->file, offset, bytes, width)) return 0;
    return width == 2 ? recovery::be16(bytes) : recovery::be32(bytes);
}

// The fields of the sample entry: ISO/IEC 14496-12 12.1.3, 12.2.3.
void say_track(const recovery::header_track &track)
{
    const bool video = track.kind->is_video();
    const char *codec = track.kind->type == MP4_TRACK_H264   ? "H.264"
                        : track.kind->type == MP4_TRACK_H265 ? "H.265"
                                                             : "AAC";
    say("{\"codec\":\"%s\",\"duration\":%.6f", codec, static_cast<double>(track.duration) / track.timescale);
    say_flag("video", video);
    say_number("samples", track.stsz.count);
    say_number("keys", track.stss.present ? track.stss.count : track.stsz.count);
    if (video) {
        say_number("width", number_at(track.entry + 24, 2));
        say_number("height", number_at(track.entry + 26, 2));
    } else {
        say_number("channels", number_at(track.entry + 16, 2));
        say_number("rate", number_at(track.entry + 24, 4) >> 16); // 16.16
    }
    answer += ",\"gaps\":[";
    const char *comma = "";
    for (const web::gap &gap : web::gaps_of(movie->file, track, most_listed)) {
        say("%s[%.6f,%.6f]", comma, gap.begin, gap.end);
        comma = ",";
    }
    answer += "]}";
}

// Where the movie header of a file of ours lies: after mdat, of which the size stands at 24.
bool read_header()
{
    uint8_t size[4];
    if (!recovery::read_all(movie->file, 24, size, sizeof size)) return false;
    const uint64_t begin = 24 + uint64_t{recovery::be32(size)};
    if (begin <= 24 || !recovery::read_all(movie->file, begin, size, sizeof size)) return false;
    return movie->header.read(begin, begin + recovery::be32(size));
}

} // namespace

#define EXPORT(name) extern "C" __attribute__((export_name(#name)))

/** The decision about the recording on descriptor 3 with the journal on 4; sizes in bytes, below 0 for no journal. */
EXPORT(plan) const char *plan_recording(double media_size, double journal_size, uint32_t options)
{
    const mediafiles_source media = source_of(media_file, media_size);
    const mediafiles_source journal = source_of(journal_file, journal_size < 0 ? 0 : journal_size);
    current.reset(mediafiles_plan_create(&media, journal_size < 0 ? nullptr : &journal, options));
    if (!current) return nullptr;
    mediafiles_plan_info info = {};
    info.size = sizeof info;
    mediafiles_plan_get(current.get(), &info);
    answer.clear();
    say_plan(info);
    const bool kept = info.result == MEDIAFILES_REPAIRED || info.result == MEDIAFILES_SALVAGED;
    if (kept && journal_size >= 0) say_left_out(web::left_out_of(journal, info, media.size));
    answer += "}";
    return answer.c_str();
}

/** Writes the 32 bytes that begin the repaired file to descriptor 5. 0, or errno. */
EXPORT(write_head) int write_head()
{
    uint8_t head[MEDIAFILES_HEAD_SIZE];
    return mediafiles_plan_head(current.get(), head) == 0 && write_all(nullptr, head, sizeof head) == 0 ? 0 : errno;
}

/** Likewise what follows the media. */
EXPORT(write_tail) int write_tail()
{
    return mediafiles_plan_tail(current.get(), write_all, nullptr) == 0 ? 0 : errno;
}

/** The tracks of the finished file on descriptor 3; NULL where it is not one of ours. */
EXPORT(open_movie) const char *open_movie(double size)
{
    movie = std::make_unique<opened_movie>(source_of(media_file, size));
    if (!read_header()) return nullptr;
    answer = "{\"tracks\":[";
    for (uint32_t i = 0; i < movie->header.tracks(); ++i) {
        if (i != 0) answer += ",";
        say_track(movie->header.track(i));
    }
    answer += "]}";
    return answer.c_str();
}

/** A time of a track of that file, in seconds, as columns of four numbers: see time-line.h. NULL without such a track. */
EXPORT(draw) const web::column *draw(uint32_t track, double begin, double end, uint32_t columns)
{
    static std::vector<web::column> drawn;
    if (!movie || track >= movie->header.tracks() || columns > most_columns || !(begin < end)) return nullptr;
    drawn = web::columns_of(movie->file, movie->header.track(track), begin, end, columns);
    return drawn.data();
}

/**
 * Which of the files of a folder are recordings, and which journal belongs to each: the name of each media file, "/", its
 * journal or nothing, "/". Of a journal without media the first name is missing.
 *
 * @param names  each followed by 0, length bytes in all
 */
EXPORT(pair) const char *pair(const char *names, uint32_t length)
{
    std::vector<std::string_view> all;
    for (uint32_t at = 0; at < length; at += static_cast<uint32_t>(all.back().size()) + 1) all.emplace_back(names + at);
    std::ranges::sort(all);
    recovery::listing folder;
    for (const std::string_view name : all) folder.add_file(name);
    folder.complete([&](const char *name) { return std::ranges::binary_search(all, std::string_view(name)); });
    answer.clear();
    for (const auto &file : folder.media()) answer += file.name + "/" + file.journal + "/";
    for (const std::string &journal : folder.orphans()) answer += "/" + journal + "/";
    return answer.c_str();
}

/** Gives the memory of a plan and of a file that was looked into back. */
EXPORT(close_all) void close_all()
{
    current.reset();
    movie.reset();
}

/** Two sums of SHA-256, step by step; which: 0 or 1. */
static recovery::sha256 sums[2];

EXPORT(hash_begin) void hash_begin()
{
    for (recovery::sha256 &each : sums) each = {};
}

EXPORT(hash_add) void hash_add(uint32_t which, const void *bytes, uint32_t count)
{
    sums[which & 1].add(bytes, count);
}

EXPORT(hash_digits) const char *hash_digits(uint32_t which)
{
    answer = sums[which & 1].digits();
    return answer.c_str();
}
