// The samples of a finished file in time: for a person who wants to see where
// key frames are, how large frames are, and where nothing was recorded.
#pragma once

#include <cstdint>
#include <vector>

#include "recovery/movie-header.h"

namespace mediafiles::web {

struct timed_sample {
    uint64_t begin;    // ticks of the track's timescale, from the beginning of the movie
    uint32_t duration; // ticks
    uint32_t size;     // bytes
    bool key;
};

// The samples of one track, in order. The tables are read in windows.
class timed_samples {
public:
    timed_samples(const mediafiles_source &file, const recovery::header_track &track);
    // false after the last one, or where the file can no longer be read.
    bool next(timed_sample &out);

private:
    bool begin_run();
    bool is_key();

    const recovery::header_track &track_;
    recovery::track_places places_;
    recovery::window runs_, keys_;
    uint64_t time_ = 0;     // ticks
    uint32_t number_ = 0;   // of the sample, from 1 on
    uint32_t run_ = 0;      // entries of stts begun
    uint32_t left_ = 0;     // samples of the current run
    uint32_t duration_ = 0; // of them
    uint32_t key_ = 0;      // entries of stss passed
    uint32_t next_key_ = 0; // number of a sample; 0: none
};

// What falls into one column of a drawing.
struct column {
    uint32_t samples, keys; // that begin in it
    uint32_t largest;       // of them, bytes
    uint32_t gap;           // 1: nothing was recorded in a part of it
};

// A time in which nothing was recorded, in seconds.
struct gap {
    double begin, end;
};

// A step longer than this is a gap, in ticks: a second, and four times what is usual in the track.
uint64_t longest_step(const recovery::header_track &track);

// The gaps of a track, the first `most` of them.
std::vector<gap> gaps_of(const mediafiles_source &file, const recovery::header_track &track, size_t most);

// The time from begin to end, in seconds, in that many columns.
std::vector<column> columns_of(const mediafiles_source &file, const recovery::header_track &track, double begin,
                               double end, uint32_t count);

} // namespace mediafiles::web
