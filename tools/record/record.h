/**
 * The recording itself: inputs in, an MP4 and its journal out.
 */
#ifndef TOOLS_RECORD_RECORD_H
#define TOOLS_RECORD_RECORD_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/console.h"
#include "tools/record/input.h"
#include "tools/record/recording-summary.h"

namespace tools {

struct record_options {
    std::vector<input_options> inputs;
    std::string output;
    std::optional<std::string> journal; // none: no journal
    bool keep_journal = false;
    uint32_t buffer = 65536; // of the file's write cache, bytes
    std::chrono::nanoseconds sync_interval{second};
    std::optional<int64_t> duration; // nanoseconds of media
    bool realtime = false;           // as fast as the frames' times run
    bool overwrite = false;
};

/**
 * Records until the inputs end, the duration is reached or stop is set. Does
 * not throw: errors are in the summary and were printed on the console.
 */
recording_summary record(const record_options &options, console &console, std::atomic<bool> &stop);

} // namespace tools

#endif
