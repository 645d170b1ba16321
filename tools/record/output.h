/**
 * What a recording is written to: a recorder, with its tracks and the file or
 * the numbered files that the user has named.
 */
#ifndef TOOLS_RECORD_OUTPUT_H
#define TOOLS_RECORD_OUTPUT_H

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <mediafiles/recorder.h>

#include "tools/record/record.h"

namespace tools {

struct destroy_recorder {
    void operator()(mediafiles_recorder *recorder) const { mediafiles_recorder_destroy(recorder); }
};
using recorder_ptr = std::unique_ptr<mediafiles_recorder, destroy_recorder>;

inline constexpr int64_t largest_queue = 1 << 30; // bytes that a recorder takes

/** Where the files of a recording are. */
struct output_place {
    std::string directory; // as it is written, with its slash; empty for the working directory
    std::string name;      // below it: of one file as it is, or the pattern of numbered files
    bool is_numbered;      // it has {number}
};
output_place place_of(const std::string &output);
/** For the recording of one file that goes on with another recorder: the first of NAME-2, NAME-3 ... that is free. */
output_place next_place(const output_place &place);

/** Whether the recording goes on in a new file where times step. */
bool may_split(const record_options &options);

/** How long nothing may come, and times may jump, within a file; nothing: whatever the times are, it is one file. */
std::optional<int64_t> longest_gap(const record_options &options);

/**
 * Starts a recorder. Throws failure.
 *
 * @param inputs  the files being read, which are not replaced
 */
recorder_ptr start_recorder(const record_options &options, const output_place &place,
                            const std::vector<mp4_track_desc> &tracks, std::span<const struct stat> inputs);

} // namespace tools

#endif
