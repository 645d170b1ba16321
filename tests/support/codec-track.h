/** A codec's track in a record on a stream, and the bytes that are handed to it. */
#pragma once

#include <algorithm>
#include <string>

#include <mediafiles/caretaker.h>
#include <mediafiles/h264-parser.h>
#include <mediafiles/track.h>

#include "fake-stream.h"
#include "recording.h"

/** A copy in a block of exactly its size, so that a sanitizer sees a read beyond it. */
struct exact {
    const uint32_t size;
    const std::unique_ptr<uint8_t[]> data{new uint8_t[size]};
    explicit exact(const bytes &from) : size(uint32_t(from.size())) { std::ranges::copy(from, data.get()); }
    h264_bs reader() const { return {data.get(), size, 0, 0, 0xFFFF}; }
};

/** A track in a record on a stream. */
struct recorder {
    mp4_track *const track;
    const journal_ptr journal{mediafile_caretaker_create()};
    fake_stream out;

    explicit recorder(mp4_track *made) : track(made) { mp4_track_begin_record(track, &out, journal.get(), 5); }
    ~recorder() { mp4_track_destroy(track); }
    /** What the journal has stored since the last call. */
    std::string journaled() { return dump(drain(journal)); }
    int add(const std::string &frame, int key = 1)
    {
        const exact data(hex(frame));
        return mp4_track_add_sample(track, data.data.get(), data.size, 0, key);
    }
};

inline std::string repeat(const std::string &text, int times)
{
    return times == 0 ? "" : text + repeat(text, times - 1);
}
