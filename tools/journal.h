/**
 * The contents of a journal file, for repair and inspect: which records can be
 * replayed, where they end, and why.
 *
 * A record counts while the library's repair would replay it and the samples
 * follow each other without a gap; the journal ends before the first one that
 * does not. So the bytes up to journal::end always are a journal that the
 * library takes.
 */
#ifndef TOOLS_JOURNAL_H
#define TOOLS_JOURNAL_H

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <mediafiles/caretaker.h>
#include <mediafiles/movie.h>

namespace tools {

constexpr uint64_t largest_journal = 512 << 20; // 19 million samples: more than a recording can hold

/** The name of the journal that belongs to a media file. */
std::string journal_of(const std::string &media);

/** A record in the file. */
struct journal_record {
    memento header;
    size_t at; // offset in the journal
    std::span<const uint8_t> payload;

    size_t payload_end() const { return at + sizeof header + payload.size(); }
    size_t end() const { return at + sizeof header + ((payload.size() + 3) & ~size_t{3}); }
};

struct journal_sample {
    size_t record_end; // offset in the journal, after the sample's record
    uint8_t track;
    bool key;
    uint32_t offset; // in the media file
    uint32_t size;   // bytes
    int64_t time;    // nanoseconds; seconds beyond 32 bits do not count, as in the library

    uint64_t end() const { return uint64_t{offset} + size; }
};

struct parameter_set {
    uint8_t kind; // MEMENTO_
    uint8_t track;
    std::vector<uint8_t> unit; // NAL unit
};

/** What an earlier repair noted at the end of the journal that it made. */
struct repair_mark {
    uint32_t media_size; // bytes of the media file before that repair
    bool dropped_frame;  // the last frame has been left out
    bool completed;      // the repair came to its end
};

enum class journal_ending {
    whole,   // with its last record
    cut,     // inside a record
    zeros,   // that a power cut has left
    damaged, // at an invalid record
};

struct journal {
    std::vector<mp4_track_desc> tracks;
    std::vector<parameter_set> parameter_sets; // the first of each kind and track, which is what a movie keeps
    std::vector<journal_sample> samples;
    size_t end = 0;  // bytes of its valid records, without a mark
    size_t lost = 0; // bytes after them: damaged, zeros, or a record that the file's end cuts
    journal_ending ending = journal_ending::whole;
    std::string damage; // when it is damaged: by what
    std::optional<repair_mark> mark;
};

/** The key flag that a sample should have by its media; none where the media does not show it. */
using key_by_media = std::function<std::optional<bool>(const journal_sample &, const mp4_track_desc &)>;

/** Called for each record that counts, in order, including those of marks. */
using record_visitor = std::function<void(const journal_record &)>;

/** Whether this is the start of a journal: its first record, except user records, is a track's. */
bool begins_journal(std::span<const uint8_t> begin);

/**
 * A power cut can leave a run of zeros at the end of a file. It is dropped,
 * and with it the record in which it begins, unless that is a sample whose own
 * fields end with zeros: one without key flag that fits its media and the
 * times before it. A last sample whose key flag is neither 0 nor 1, when no
 * sample before it has one like that, counts as damaged: its end is what was on
 * the medium before.
 */
journal parse_journal(std::span<const uint8_t> data, const key_by_media &, const record_visitor & = {});

/** The fields of a record of a track or a sample; its payload has the length for it. */
mp4_track_desc read_track(const journal_record &);
journal_sample read_sample(const journal_record &);

/** The record that notes a mark; the library's repair skips it. */
std::vector<uint8_t> mark_record(const repair_mark &);

} // namespace tools

#endif
