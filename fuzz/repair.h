/**
 * What a journal says and what a repair has to make of it: the rules once more, over plain lists, with none of the
 * library's code. check_repair() runs a repair and holds all that it leaves against them.
 */
#pragma once

#include <mediafiles/fix.h>

#include "fuzz.h"

namespace fuzz {

struct journal_record {
    uint8_t kind, track;
    bytes payload;
};

struct placed_sample {
    uint32_t offset, len;
    int32_t seconds;
    uint32_t nanoseconds;
    bool key;
    bool operator==(const placed_sample &) const = default;
};

/** What a MEMENTO_SAMPLE says. */
placed_sample sample_of(const journal_record &record);

/** The records up to the first that cannot be, which sets error, or to the end, where a cut record is dropped. */
struct journal_content {
    std::vector<journal_record> records;
    int error;
};
journal_content read_journal(std::span<const uint8_t> journal);

struct repaired {
    int error;     // errno, or 0
    bool finished; // the file has a moov
    uint32_t end;  // of the media
    std::vector<mp4_track_desc> descriptions;
    std::vector<std::vector<placed_sample>> tracks;
    std::vector<size_t> users; // lengths of the records that go to the callback
};

/** @param size of the media file; UINT32_MAX for none */
repaired expected_repair(int version, const journal_content &journal, uint32_t size);

/**
 * Repairs a file that holds the media, by mp4_fix or mp4_fix2. No descriptor stays open; without success no byte behind
 * the head changes; with it every sample lies where the journal says, and no media byte in front of the end changed.
 *
 * @return the finished file as the strict reader has it, when it is smaller than 1 MB; else one of size 0
 */
mp4::file check_repair(int version, const journal_content &content, std::span<const uint8_t> journal,
                       std::span<const uint8_t> media);

} // namespace fuzz
