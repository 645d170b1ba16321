/** The result of a recording, as text and as JSON. */
#ifndef TOOLS_RECORD_RECORDING_SUMMARY_H
#define TOOLS_RECORD_RECORDING_SUMMARY_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <mediafiles/movie.h>

namespace tools {

enum class stop_reason { end, signal, duration, limit, error };

struct track_summary {
    std::string source; // the input's name
    int stream;         // number in the input
    mp4_track_desc description;
    uint64_t frames = 0;
    uint64_t key_frames = 0;
    uint64_t bytes = 0;     // of its samples
    uint64_t dropped = 0;   // invalid frames, not recorded
    uint64_t backwards = 0; // frames whose time ran backwards
    uint64_t damaged = 0;   // frames that the source marked as damaged, recorded unchanged
};

struct recording_summary {
    std::string output;
    std::optional<std::string> journal = {}; // none, or not made yet
    bool journal_kept = false;
    double duration = 0; // seconds
    uint64_t bytes = 0;  // of the file; 0 before it was opened
    std::vector<track_summary> tracks = {};
    std::optional<std::string> journal_error = {};
    stop_reason stopped_by = stop_reason::end;
    std::optional<std::string> error = {};
};

std::string to_text(const recording_summary &);

/** One JSON object, with a line end. */
std::string to_json(const recording_summary &);

} // namespace tools

#endif
