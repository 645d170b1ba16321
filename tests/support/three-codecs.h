/** A recording of all three codecs, frame by frame. */
#pragma once

#include <mediafiles/movie.h>

#include "descriptors.h"
#include "places.h"
#include "recording.h"

constexpr mp4_track_desc three_tracks[] = {
    {MP4_TRACK_H264, {{640, 480, 0}}}, {MP4_TRACK_AAC, {{2, 8, 1000}}}, {MP4_TRACK_H265, {{640, 360, 0}}}};

/** Frame i of a track, about 25 a second, of changing size: every fifth of the video is a key with parameter sets. */
inline int add_frame(mp4_builder *builder, int32_t track, int i)
{
    static const bytes start[3][2] = {
        {hex("00000001 41"), hex("00000001 6742c01e 00000001 68eeff3c 000001 65")},
        {},
        {hex("00000001 0201"), hex("00000001 40010c01ffff01600000030090000003000003003f928090 00000001 42010101600000"
                                   "030090000003000003003fa0050201696592a4932bc04040000003004000000642 000001 "
                                   "4401c172b46240 000001 4e0105010080"
                                   "000001 2601")}};
    bytes data = start[track][i % 5 == 0];
    data.insert(data.end(), size_t(track == 1 ? 150 + i % 4 * 50 : 20 + i % 3), uint8_t(0x80 | i));
    const mp4_time time = {i / 25, i % 25 * 40000000 + i % 3 * 2000000 + track * 5000000};
    const mp4_frame frame = {track, data.data(), uint32_t(data.size()), time, i % 5 == 0};
    return error_of(builder->add_frame(builder, &frame));
}

struct recording {
    bytes file, journal;
};

/** So many frames of each codec as the builder writes them. */
inline recording record(int frames)
{
    const journal_ptr journal(mediafile_caretaker_create());
    const descriptor out;
    const builder_ptr builder(mp4_builder_create());
    mp4_builder *const b = builder.get();
    for (const mp4_track_desc &track : three_tracks)
        if (b->add_track(b, &track) < 0) std::abort();
    if (b->open(b, out, 512, journal.get()) != 0) std::abort();
    for (int i = 0; i < frames; i++)
        for (const int track : {0, 1, 2})
            if (add_frame(b, track, i) != 0) std::abort();
    if (b->close(b) != 0) std::abort();
    return {file_content(out), drain(journal)};
}
