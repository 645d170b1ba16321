/**
 * One source, read by a thread of its own into a bounded queue. A source that
 * comes and goes is waited for, and opened again for ever after it was lost,
 * with pauses that grow while it stays away.
 */
#ifndef TOOLS_RECORD_SOURCE_H
#define TOOLS_RECORD_SOURCE_H

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "tools/record/input.h"
#include "tools/record/waker.h"

namespace tools {

enum class source_state {
    opening, // not open, or between two attempts
    reading,
    ended, // by itself; nothing more comes
    lost,  // before its end, and it is not opened again
};

/** What happened to a source, for the user. */
struct source_notice {
    bool is_problem; // else information
    std::string text;
};

struct source_counts {
    uint64_t connections = 0;
    uint64_t stalls = 0; // no data for the timeout
};

class source {
public:
    /**
     * @param retries  whether it is opened again
     * @param changed  woken by each frame, notice and state
     */
    source(const input_options &options, bool retries, waker &changed);
    ~source();
    source(const source &) = delete;
    source &operator=(const source &) = delete;

    void start();
    /** Makes the thread end, which the destructor waits for. */
    void cancel();

    const source_name &name() const { return name_; }
    source_state state() const;
    source_counts counts() const;
    /** What ended it, in words, or why none of its streams is recorded; empty for its own end. */
    std::string error() const;
    std::optional<source_notice> take_notice();

    /** The oldest frame that is queued, which stays until it is taken; it may be changed. */
    frame *front();
    /** It is not read now, and nothing is queued. */
    bool is_idle() const;
    frame take();
    /** Whether the next frames of every video stream are queued, or no more come for now. */
    bool has_looked_ahead() const;
    /** The stream of one of the next frames that is shown before one that came earlier. */
    std::optional<std::pair<std::shared_ptr<const connection>, size_t>> reordered() const;
    /** When a frame was queued or taken last, or it was opened. */
    steady::time_point last_frame() const;

    /** When it was lost, until it is back. */
    std::optional<steady::time_point> away_since() const;

    /** Reports once that nothing has come for so long; @return when to look again, for a source that is read */
    std::optional<steady::time_point> notice_silence(steady::time_point now);

private:
    struct outcome {
        bool is_final = false;   // no other attempt is made
        bool is_lost = true;     // it did not come to its own end
        std::string why = {};    // in words, with the source
        bool was_silent = false; // nothing came for the timeout
    };

    void work();
    outcome read_once();
    bool may_take_long() const;
    void report_left_out(const connection &known);
    void read_all(input &from);
    void publish(std::deque<frame> frames);
    void set_state(source_state state);
    void report_loss(const outcome &loss);
    bool rest(std::chrono::milliseconds pause);
    bool is_full() const;

    const input_options &options_;
    const source_name name_;
    const bool retries_;
    waker &waker_;
    std::atomic<bool> cancelled_ = false;
    patience patience_{cancelled_};

    mutable std::mutex mutex_; // guards all that follows
    std::condition_variable changed_;
    source_state state_ = source_state::opening;
    std::string error_;
    source_counts counts_;
    std::deque<source_notice> notices_;
    std::deque<frame> frames_;
    size_t queued_bytes_ = 0;
    steady::time_point last_frame_;
    std::optional<steady::time_point> reading_since_; // it waits for the source's data
    std::optional<steady::time_point> lost_at_;
    std::string reported_; // the latest loss, while it lasts
    std::string left_out_; // as it was reported
    bool is_silent_ = false;
    bool has_finished_ = false;

    std::thread thread_;
};

} // namespace tools

#endif
