/** The result of a recording, as text and as JSON. */
#ifndef TOOLS_RECORD_RECORDING_SUMMARY_H
#define TOOLS_RECORD_RECORDING_SUMMARY_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <mediafiles/movie.h>

#include "tools/record/recorded-files.h"

namespace tools {

enum class stop_reason { end, lost, signal, duration, error };

struct source_summary {
    std::string name;
    uint64_t connections = 0;
    uint64_t stalls = 0;  // no data for the timeout
    uint64_t steps = 0;   // of its times, which were joined on
    uint64_t gaps = 0;    // more than a second without a frame of it
    int64_t gap_time = 0; // ns: all of them
};

struct track_summary {
    std::string source; // the input's name
    int stream;         // number in the input
    mp4_track_desc description;
    uint64_t frames = 0;
    uint64_t key_frames = 0;
    uint64_t bytes = 0;     // of its samples
    uint64_t dropped = 0;   // frames that cannot be recorded: invalid, or before the first key frame
    uint64_t backwards = 0; // frames whose time ran backwards
    uint64_t damaged = 0;   // frames that the source marked as damaged, recorded unchanged
    bool left_out = false;  // it came when there was no room for another track
};

struct recording_summary {
    std::string output;
    std::vector<recorded_file> files = {};
    std::vector<source_summary> sources = {};
    std::vector<track_summary> tracks = {};
    uint64_t lost = 0; // frames for which there was no room, or whose file could not be written
    stop_reason stopped_by = stop_reason::end;
    std::optional<std::string> error = {};
};

std::string to_text(const recording_summary &);

/** One JSON object, with a line end. */
std::string to_json(const recording_summary &);

} // namespace tools

#endif
