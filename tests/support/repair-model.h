/**
 * What a journal holds and what a repair has to make of it: the rules once more, over plain lists, with none of the
 * library's code. Tests and fuzz targets hold the library against it.
 */
#pragma once

#include <span>

#include <mediafiles/movie.h>

#include "hex.h"

namespace model {

constexpr uint64_t second = 1'000'000'000; // in nanoseconds
constexpr uint32_t head = 32;              // bytes of ftyp and the header of mdat
constexpr int no_cause = -1;               // errno of mp4_fix2

struct sample {
    uint8_t track;
    uint32_t offset, size; // in the file
    int32_t seconds;
    uint32_t nanoseconds;
    int32_t key; // as it was given
    bool operator==(const sample &) const = default;
    uint64_t time() const { return uint64_t(seconds) * second + nanoseconds; }
};

/** A record; the payload lies in the journal. */
struct record {
    uint8_t kind, track;
    std::span<const uint8_t> payload;
    sample named() const; // by a MEMENTO_SAMPLE
};

/** The records up to the first invalid one, which sets error, or to the end, where a cut record is dropped. */
struct journal {
    std::vector<record> records;
    int error;
};
journal read(std::span<const uint8_t> stored);

struct result {
    int error = 0;                 // errno, or 0
    bool finished = false;         // the file gets a moov; else only its head is written
    uint32_t end = head;           // of the media
    std::vector<sample> kept = {}; // in the order of the file, where they lie in it
    std::vector<mp4_track_desc> tracks = {};
    std::vector<size_t> users = {}; // lengths of the records that go to the callback
    size_t stop = SIZE_MAX;         // the sample at which mp4_fix2 stops
};

/**
 * @param size    of the media file; UINT32_MAX for none
 * @param version 2 for mp4_fix2
 */
result repair(const journal &journal, uint64_t size, int version);

/** Ticks of a second. */
inline uint32_t timescale(const mp4_track_desc &track)
{
    return (track.type & ~MP4_TRACK_RAW) == MP4_TRACK_AAC ? track.audio.sample_rate : 90000;
}

} // namespace model
