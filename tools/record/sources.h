/**
 * The inputs of one recording, read in parallel and merged by time.
 *
 * Each input is read by a thread of its own into a bounded queue, so that a
 * slow disk does not make a source wait, and a slow source delays neither the
 * others nor the journal. The frames come out earliest first. An input that
 * has no frame delays the others for a moment only.
 */
#ifndef TOOLS_RECORD_SOURCES_H
#define TOOLS_RECORD_SOURCES_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/record/input.h"

namespace tools {

using steady = std::chrono::steady_clock;

struct source_frame {
    size_t input;
    frame content; // its time is on the clock that all inputs share
};

class sources {
public:
    /**
     * Starts reading. Several inputs begin together, each at its own start; one alone keeps its times.
     *
     * @param cancelled  set by the caller to end the reading early; the destructor sets it
     */
    sources(std::vector<std::unique_ptr<input>> inputs, std::atomic<bool> &cancelled);
    ~sources();
    sources(const sources &) = delete;
    sources &operator=(const sources &) = delete;

    struct stream_index {
        size_t input, stream;
    };
    /** Waits up to a second for the next frames of every video stream; @return the stream of a reordered one */
    std::optional<stream_index> look_ahead_for_reordering();

    /** The earliest frame; nothing at the given time or when all inputs have ended. */
    std::optional<source_frame> take(steady::time_point until);

    /** All frames have been taken, and no more will come. */
    bool ended();

    /** An error that ended an input: once, after its last frame was taken. */
    std::optional<std::string> take_error();

private:
    struct input_queue {
        std::unique_ptr<input> source;
        int64_t start = 0; // nanoseconds, subtracted from its times
        std::deque<frame> frames;
        size_t queued_bytes = 0;
        steady::time_point last_frame; // when one was queued or taken last
        bool ended = false;
        std::optional<std::string> error;
        std::thread reader;
    };

    void stop();
    void read_all(input_queue &);
    bool is_full(const input_queue &) const;
    bool has_looked_ahead(const input_queue &) const;
    input_queue *earliest(steady::time_point now);
    bool none_left() const;

    std::vector<std::unique_ptr<input_queue>> queues_;
    std::atomic<bool> &cancelled_;
    std::mutex mutex_; // guards what the queues hold, except source, start and reader
    std::condition_variable changed_;
};

} // namespace tools

#endif
