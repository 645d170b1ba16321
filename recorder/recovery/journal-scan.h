// The walk over a journal's records, in windows, with every check that
// recovery makes of them. Nothing is kept of the samples that were passed, but
// for the two last ones of each track.
//
// The end of a journal is what a power cut may have torn. It begins after the
// last whole round of syncs, one whose mark has the right checksum; in a
// journal without marks it is the last 4 KiB before the zeros at its end, and
// these. There the first invalid record ends the journal and nothing is wrong.
// Earlier it is damage.
//
// What an earlier file has left there may hold whole rounds as well. A mark
// counts only where number and media grow, and not beyond the media that is
// there.
#pragma once

#include <cstdint>

#include <mediafiles/caretaker.h>
#include <mediafiles/recovery.h>

#include "journal-marks.h"
#include "window.h"

namespace mediafiles::recovery {

constexpr uint32_t media_begin = MEDIAFILES_HEAD_SIZE;
constexpr uint64_t largest_journal = 512u << 20; // 19 million samples: more than a recording can hold
constexpr uint32_t journal_window = 256u << 10;
constexpr uint64_t large_change = 64u << 20; // bytes: more is cut off or added only where that is plausible
constexpr int64_t second = 1'000'000'000;    // in nanoseconds

struct sample {
    uint8_t track;
    int32_t key;     // as stored
    uint32_t offset; // in the media
    uint32_t size;   // bytes
    int32_t seconds; // the low 32 bits: the core replays no others
    uint32_t nanoseconds;

    uint64_t end() const { return uint64_t{offset} + size; }
    int64_t time() const { return seconds * second + nanoseconds; }
};

struct record {
    memento header;
    uint64_t offset;        // in the journal
    const uint8_t *payload; // until the next step

    uint32_t size() const { return sizeof header + ((header.length + 3u) & ~3u); }
    uint64_t end() const { return offset + size(); }
    sample as_sample() const;
    mp4_track_desc as_track() const;
};

// The first parameter set of a kind and track: what a movie keeps.
struct stored_set {
    uint64_t offset = 0; // of the payload, in the journal
    uint32_t length = 0; // 0: there is none
};

// Where damage can be told from what a power cut leaves. Found before the walk, from the marks and the zeros.
struct journal_bounds {
    uint64_t zeros_from = 0;             // offset after the last byte that is not zero
    uint64_t safe_media = 0;             // bytes, by the mark of the last whole round
    uint64_t tail = 0;                   // what was written from here on may be torn
    uint64_t damaged_round = UINT64_MAX; // offset of a round whose checksum is wrong, with whole ones after it
    uint32_t rounds = 0;                 // number of the last whole round; 0: the journal has no marks
    uint64_t recent = 0;                 // offset of the last round but one
};

class journal_scan {
public:
    // media: for the key flag of a last sample that zeros follow; or NULL.
    journal_scan(const mediafiles_source &journal, const mediafiles_source *media);

    // Whether there is a record; it stays valid until the next call.
    bool next(record &out);
    // Back to the first record.
    void rewind();

    const journal_bounds &bounds() const { return bounds_; }
    uint64_t journal_size() const { return stored_size_; }
    // Whether the end of the journal cannot be read: what can be is all there is of it.
    bool is_unreadable() const { return readable_size() < stored_size_; }
    uint64_t readable_size() const { return buffer_.source().size; }
    bool out_of_memory() const { return buffer_.out_of_memory(); }

    // What the records up to here amount to.
    uint32_t ending = MEDIAFILES_JOURNAL_WHOLE;
    const char *damage = nullptr; // what is wrong with the record that ended the walk
    uint64_t at = 0;              // offset of the next record
    uint64_t end = 0;             // of the valid records, without a repair's mark
    uint32_t tracks = 0;
    mp4_track_desc track[MP4_MAX_TRACKS] = {}; // as stored
    stored_set sets[MP4_MAX_TRACKS][3];        // by track, then kind - MEMENTO_VPS
    uint64_t samples = 0;
    uint64_t media_end = media_begin;
    bool has_repair_mark = false; // of the record before `at`
    repair_mark repair = {};
    bool is_protected = false; // a record that was ever reached says so; stays when the walk begins anew

    // A sample that was just given by next.
    const sample &last_sample() const { return last_; }

private:
    void find_bounds();
    void find_tail();
    bool has_later_mark(uint64_t from);
    bool may_follow(const round_mark &mark) const;
    bool header_at(uint64_t offset, memento &header);
    bool stop(uint32_t how, const char *why = nullptr);
    bool invalid(const char *why);
    bool may_be_torn(uint64_t offset) const { return offset >= bounds_.tail; }
    const char *take(const record &next);
    const char *take_sample(const record &next);
    const char *take_track(const record &next);
    const char *take_set(const record &next);
    bool is_overwritten(const record &next);
    bool zeros_are_its_own(const record &next) const;
    bool runs_into_zeros(const record &next);

    uint64_t stored_size_;
    window buffer_;
    const mediafiles_source *media_;
    journal_bounds bounds_;
    sample last_ = {};
    struct {
        uint32_t count; // of samples so far, 2 at most
        int64_t time[2];
        bool key;
    } before_[MP4_MAX_TRACKS] = {}; // [0] is the latest
    uint32_t odd_keys_ = 0;         // samples whose key flag is neither 0 nor 1
    bool zeros_follow_ = false;     // the record that is looked at may end in zeros that are not its own
};

// How a NAL unit of a sample is visited: its type and where it lies, without the length before it.
using unit_visitor = bool (*)(void *context, uint8_t type, uint64_t offset, uint32_t length);

// Goes through the NAL units of a video sample by their lengths, as far as they begin below the media's end. false
// when the lengths do not fit the sample or cannot be read. The visitor stops the walk by giving false.
bool walk_units(const mediafiles_source &media, const sample &sample, uint32_t track_type, unit_visitor visit,
                void *context);

} // namespace mediafiles::recovery
