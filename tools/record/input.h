/**
 * One connection to a source of encoded audio and video: a file, standard
 * input, or whatever else libavformat opens. It hands out frames as the library
 * takes them (video as Annex-B access units, AAC with or without ADTS headers),
 * in the order of the source, each with its time. It reads only when a frame is
 * asked for, and never seeks.
 */
#ifndef TOOLS_RECORD_INPUT_H
#define TOOLS_RECORD_INPUT_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <mediafiles/movie.h>

#include "tools/failure.h"
#include "tools/record/aac-config.h"
#include "tools/record/libav.h"
#include "tools/record/picture-order.h"
#include "tools/record/source-name.h"
#include "tools/record/timing.h"

namespace tools {

using steady = std::chrono::steady_clock;

struct input_options {
    std::string name;                           // as the user gave it; "-" is standard input
    const AVInputFormat *format = nullptr;      // or found out
    std::optional<rational> frame_rate;         // of video without timestamps; else the source's own, or 25
    std::map<std::string, std::string> options; // of libavformat
    std::vector<std::string> streams;           // to record: a number, v, a, v:N, a:N; none: all
    bool no_audio = false, no_video = false;
    bool by_arrival = false;                      // a frame's time is when it arrives
    int64_t offset = 0;                           // nanoseconds, added to its times
    std::chrono::nanoseconds timeout{5 * second}; // without data
};

enum class codec { h264, h265, aac };

/** A stream of a source that can be recorded. */
struct stream_info {
    int index; // in the source
    codec kind;
    mp4_track_desc description;
    std::optional<rational> timed_by; // frames a second, of a stream without timestamps
};

/** A stream that is not recorded. */
struct left_out {
    int index;
    std::string what; // kind and codec
    std::string why;
};

/** What is known of a connection, and does not change. */
struct connection {
    std::vector<stream_info> streams;
    std::vector<left_out> others;
    bool can_wait = true;   // it keeps what is not read: a file or a pipe does, a stream of datagrams does not
    bool is_live = false;   // its frames come as they are made
    bool is_stamped = true; // its times are those of a clock beyond the connection
    bool may_jump = false;  // its format allows times to jump
    int64_t start = 0;      // nanoseconds on its own clock
    std::optional<int64_t> duration;

    /* Of a live source: the first frame that had to be waited for, which no buffer on the way has held back. */
    int64_t edge_time = 0; // on its own clock
    steady::time_point edge_arrival;
};

struct frame {
    packet_ptr packet;
    std::shared_ptr<const connection> from;
    size_t stream = 0; // index into the connection's streams
    int64_t time = 0;  // nanoseconds on the source's clock
    steady::time_point arrival;
    bool readable = true;   // else the source's framing is broken
    bool reordered = false; // shown before a frame that came earlier
    bool damaged = false;   // by the source's own mark; stored unchanged
};

/** Reads a stream of a source that can be recorded. */
class source_stream {
public:
    source_stream(const AVStream *stream, const input_options &options);

    const AVStream *source() const { return source_; }
    stream_info info() const;
    /** Time of the first presented frame, when the source knows it, ns. */
    std::optional<int64_t> start() const;

    /** Takes over a packet and gives back the frame, which is unreadable when the filter rejects it. */
    frame convert(packet_ptr packet);

    /** Packets that the source lists beyond those that came, as a file with a part missing does. */
    int missing() const;

private:
    void prepend_parameter_sets(AVPacket *packet);

    const AVStream *source_;
    codec kind_;
    mp4_track_desc description_{};
    filter_ptr filter_; // to Annex B, or none
    rational frame_rate_;
    stream_clock clock_;
    int packets_ = 0; // converted
    bool needs_sets_; // no frame has brought or been given parameter sets
    std::optional<picture_order> order_;
};

/** Ends what libavformat waits for: when it was cancelled, or has brought nothing until the deadline. */
class patience {
public:
    explicit patience(const std::atomic<bool> &cancelled) : cancelled_(cancelled) {}

    void until(steady::time_point deadline) { deadline_ = deadline; }
    bool is_cancelled() const { return cancelled_; }
    bool is_over() const { return cancelled_ || steady::now() >= deadline_; }
    AVIOInterruptCB callback();

private:
    const std::atomic<bool> &cancelled_;
    steady::time_point deadline_ = steady::time_point::max();
};

/** That no further attempt would change. */
struct permanent_failure : failure {
    using failure::failure;
};

/** Nothing has come for the timeout. */
struct silence : failure {
    using failure::failure;
};

class input {
public:
    /** Opens and probes the source. Throws failure. */
    input(const input_options &options, const source_name &name, patience &patience);

    const connection &facts() const { return facts_; }
    /** Why none of its streams is recorded: those that are wanted cannot be, or none is wanted. */
    std::string why_nothing() const;

    /** The next frame; nothing at the end of the source or when cancelled. Throws failure. */
    std::optional<frame> read();

private:
    format_ptr open();
    void select(const AVStream *stream);
    bool is_wanted(const AVStream *stream) const;
    void learn_facts();
    void check_completeness() const;

    const input_options &options_;
    const source_name &name_;
    patience &patience_;
    format_ptr format_;
    std::vector<source_stream> streams_;
    connection facts_;
    int64_t latest_ = 0; // ns: of its frames
};

} // namespace tools

#endif
