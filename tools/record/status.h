/**
 * What a recording is doing now, as one line of JSON: to standard output again
 * and again, or in a file that always holds the latest.
 */
#ifndef TOOLS_RECORD_STATUS_H
#define TOOLS_RECORD_STATUS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/record/recording-summary.h"
#include "tools/record/source.h"

namespace tools {

struct source_status {
    source_summary sum;
    source_state state;
};

struct recording_status {
    std::vector<source_status> sources = {};
    bool is_recording = false; // a recorder runs
    uint64_t frames = 0;       // stored since the beginning
    uint64_t bytes = 0;        // of these
    uint64_t dropped = 0;      // for want of room
    uint64_t refused = 0;      // that cannot be recorded
    double bit_rate = 0;       // since the latest line, in bits a second
    double lag = 0;            // seconds from the arrival of the latest frame until the recorder had it
    uint64_t queue_bytes = 0, queue_most = 0;
    double worst_write = 0, worst_sync = 0, unsafe = 0; // seconds
    int64_t free_bytes = 0;
    std::string file = {}; // that was begun last
};

/** One line, with its end. */
std::string to_line(const recording_status &);

/** In a few words, for a service manager. */
std::string in_words(const recording_status &);

/** Where the lines go. */
class status_file {
public:
    /** @param path  "-": standard output, which is result_descriptor; empty: nowhere */
    status_file(std::string path, int result_descriptor) : path_(std::move(path)), output_(result_descriptor) {}

    bool is_wanted() const { return !path_.empty(); }
    /** @return why it could not be written; empty: it was. A file is replaced as a whole, what is no file gets a line */
    std::string write(const std::string &line) const;

private:
    std::string path_;
    int output_;
};

} // namespace tools

#endif
