/**
 * What the fuzz targets share. A target is one file, fuzz_NAME.cpp, with one LLVMFuzzerTestOneInput and its property
 * at the top; fuzz_video.cpp is the targets h264 and h265. It runs under libFuzzer (make fuzz), and over its seeds, corpus/NAME, in the tests (replay.cpp).
 */
#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include <mediafiles/movie.h>

#include "tests/support/codec-track.h" // exact
#include "tests/support/descriptors.h"
#include "tests/support/recording.h"
#include "tests/support/repair-judge.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
/** Silences standard output; the logger formats the lines of all levels and drops them. */
extern "C" int LLVMFuzzerInitialize(int *, char ***);

/** Ends the program where a property does not hold: the engine keeps the input. */
#define REQUIRE(property) \
    ((property) ? void() : (fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #property), abort()))

namespace fuzz {

/** The bytes of an input, from its beginning; after its end zeros. */
struct program_bytes {
    std::span<const uint8_t> left;

    bool is_empty() const { return left.empty(); }
    size_t take()
    {
        const size_t byte = is_empty() ? 0 : left[0];
        left = left.subspan(!is_empty());
        return byte;
    }
};

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
bool sound_but_for(const mp4::file &file, const std::vector<std::string_view> &excused = {});

/** What the files of any journal beside any media may be faulted for. */
inline const std::vector<std::string_view> any_content = {"uration",
                                                          "the track plays to", // times may be any
                                                          "NAL unit lengths",
                                                          "arameter set",
                                                          "avcC: profile", // so may media and sets
                                                          "picture has no size",
                                                          "timescale is 0"}; // and descriptions

/** Boxes lie one after another inside their parents. */
void check_boxes(const std::vector<mp4::box> &boxes, uint64_t begin, uint64_t end);

/** A finished file of one track, as the strict reader has it, with the payload of its mdat and its journal. */
struct recorded_file {
    mp4::file read;
    bytes media, journal;
};

/** Records one frame, in a block of exactly its size, so many times. */
recorded_file record(const mp4_track_desc &track, std::span<const uint8_t> frame, int times);

/** Judges mp4_fix or mp4_fix2 with the journal alone and with the media. Returns the finished file, if there is one. */
mp4::file check_repair(int version, const model::journal &content, std::span<const uint8_t> journal,
                       std::span<const uint8_t> media);

} // namespace fuzz
