/**
 * The recording itself: sources in, MP4 files and their journals out, by
 * recorders that own the files and the order of syncs.
 */
#ifndef TOOLS_RECORD_RECORD_H
#define TOOLS_RECORD_RECORD_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/console.h"
#include "tools/record/input.h"
#include "tools/record/recording-summary.h"
#include "tools/record/signals.h"

namespace tools {

struct record_options {
    std::vector<input_options> inputs;
    bool retry = true;  // sources that come and go are waited for and opened again
    std::string output; // a file, or with {number} the pattern of many
    bool keep_journal = false;
    int64_t sync_interval = second;   // nanoseconds
    int64_t segment = 0;              // nanoseconds of media in a file; 0: no limit
    int64_t segment_bytes = 0;        // likewise
    int64_t quota = 0;                // bytes for all numbered files; 0: no limit
    std::optional<int64_t> keep_free; // bytes
    int64_t queue = 0;                // bytes; 0: as the tracks need
    int64_t pre_event = 0;            // nanoseconds; above 0: files are made by events alone
    int64_t pre_event_bytes = 64 << 20;
    int64_t protect_before = 30 * second; // nanoseconds that an event keeps
    int64_t protect_after = 30 * second;
    std::optional<int64_t> duration; // nanoseconds of media
    bool realtime = false;           // as fast as the frames' times run
    bool overwrite = false;
    std::string status;                   // where it is written: a file, "-", or empty for nowhere
    int64_t status_interval = 5 * second; // nanoseconds
};

/**
 * Records until the inputs end, the duration is reached, a signal ends it or
 * nothing more can be written. Does not throw: errors are in the summary and
 * were printed on the console.
 *
 * @param result_descriptor  the caller's standard output, for the status
 */
recording_summary record(const record_options &options, console &console, signals &signals, int result_descriptor);

} // namespace tools

#endif
