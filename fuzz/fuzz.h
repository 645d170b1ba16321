/**
 * What the fuzz targets share. A target is one file, fuzz_NAME.cpp, with one LLVMFuzzerTestOneInput and its property
 * at the top. It runs under libFuzzer (make fuzz), and over its seeds, corpus/NAME, in the tests (replay.cpp).
 */
#pragma once

#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>

#include <mediafiles/movie.h>

#include "tests/support/codec-track.h" // exact
#include "tests/support/descriptors.h"
#include "tests/support/recording.h"
#include "tools/reader/reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
/** Silences standard output; the logger formats the lines of all levels and drops them. */
extern "C" int LLVMFuzzerInitialize(int *, char ***);

/** Ends the program where a property does not hold: the engine keeps the input. */
#define REQUIRE(property) \
    ((property) ? void() : (fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #property), abort()))

namespace fuzz {

/** A number of an MP4 box. */
inline uint32_t big(const uint8_t *at)
{
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | at[2] * 256u | at[3];
}

inline std::string_view text(std::span<const uint8_t> data)
{
    return {reinterpret_cast<const char *>(data.data()), data.size()};
}

/** Whether a file has no faults but such whose text contains one of these; others are printed. */
bool sound_but_for(const mp4::file &file, std::initializer_list<std::string_view> excused = {});

/** A finished file of one track, as the strict reader has it, with the payload of its mdat and its journal. */
struct recorded_file {
    mp4::file read;
    bytes media, journal;
};

/** Records one frame, in a block of exactly its size, so many times. */
recorded_file record(const mp4_track_desc &track, std::span<const uint8_t> frame, int times);

} // namespace fuzz
