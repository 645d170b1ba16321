/**
 * What the fuzz targets share. A target is one file, fuzz_NAME.cpp, with one LLVMFuzzerTestOneInput and its property
 * at the top. It runs under libFuzzer (make fuzz), and over its seeds, corpus/NAME, in the tests (replay.cpp).
 */
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

#include <mediafiles/movie.h>

#include "tests/support/codec-track.h" // exact
#include "tools/mp4-reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
/** Silences standard output; the logger formats the lines of all levels and drops them. */
extern "C" int LLVMFuzzerInitialize(int *, char ***);

/** Ends the program where a property does not hold: the engine keeps the input. */
#define REQUIRE(property) \
    ((property) ? void() : (fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #property), abort()))

namespace fuzz {

/** Numbers of the journal and of MP4 boxes. */
inline uint32_t big(const uint8_t *at) { return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | at[2] * 256u | at[3]; }
inline uint32_t little(const uint8_t *at) { return __builtin_bswap32(big(at)); }

inline std::string_view text(std::span<const uint8_t> data)
{
    return {reinterpret_cast<const char *>(data.data()), data.size()};
}

/** A file in memory. */
class memory_file {
public:
    memory_file();
    explicit memory_file(std::span<const uint8_t> content);
    ~memory_file();
    memory_file(const memory_file &) = delete;

    int descriptor() const { return fd; }
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd); }
    uint64_t size() const;
    bytes read(uint64_t offset, size_t count) const;
    bytes content() const { return read(0, static_cast<size_t>(size())); }

private:
    int fd;
};

/** The lowest descriptor that is free: the same again when none was left open meanwhile. */
int free_descriptor();

/** All journal records stored since the last call. */
bytes drain(mediafile_caretaker *journal);

/** Whether a file has no faults but such whose text contains one of these; others are told. */
bool sound_but_for(const mp4::file &file, std::initializer_list<std::string_view> excused = {});

/** A finished file of one track, as the strict reader has it, with the payload of its mdat and its journal. */
struct recording {
    mp4::file read;
    bytes media, journal;
};

/** Records one frame, in a block of exactly its size, so many times. */
recording record(const mp4_track_desc &track, std::span<const uint8_t> frame, int times);

} // namespace fuzz
