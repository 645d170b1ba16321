/**
 * One source of encoded audio and video: a file, standard input, or whatever
 * else libavformat opens. It hands out frames as the library takes them (video
 * as Annex-B access units, AAC with or without ADTS headers), in the order of
 * the source, each with its time. It reads only when a frame is asked for, and
 * never seeks.
 */
#ifndef TOOLS_RECORD_INPUT_H
#define TOOLS_RECORD_INPUT_H

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <mediafiles/movie.h>

#include "tools/record/aac-config.h"
#include "tools/record/libav.h"
#include "tools/record/picture-order.h"
#include "tools/record/timing.h"

namespace tools {

struct input_options {
    std::string name;                      // as the user gave it; "-" is standard input
    const AVInputFormat *format = nullptr; // or found out
    std::optional<rational> frame_rate;    // of video without timestamps; else the source's own, or 25
};

enum class codec { h264, h265, aac };

struct frame {
    packet_ptr packet;
    size_t stream = 0;      // index into the input's streams
    int64_t time = 0;       // nanoseconds on the source's clock
    bool readable = true;   // else the source's framing is broken
    bool reordered = false; // shown before a frame that came earlier
    bool damaged = false;   // by the source's own mark; stored unchanged
};

/** A stream of a source that can be recorded. */
class source_stream {
public:
    source_stream(const AVStream *stream, const input_options &options);

    const AVStream *source() const { return source_; }
    codec kind() const { return kind_; }
    const mp4_track_desc &description() const { return description_; }
    /** Time of the first presented frame, when the source knows it, ns. */
    std::optional<int64_t> start() const;
    /** Frames a second by which video without timestamps is timed; nothing for a stream with timestamps. */
    std::optional<rational> timed_by() const;

    /** Takes over a packet and gives back the frame, which is unreadable when the filter rejects it. */
    frame convert(packet_ptr packet);

    /** Packets that the source lists beyond those that came, as a file with a part missing does. */
    int missing() const;

private:
    const AVStream *source_;
    codec kind_;
    mp4_track_desc description_{};
    filter_ptr filter_; // to Annex B, or none
    rational frame_rate_;
    stream_clock clock_;
    int packets_ = 0; // converted
    std::optional<picture_order> order_;
};

/** A stream that is not recorded. */
struct left_out {
    int index;
    std::string what; // kind and codec
    std::string why;
};

class input {
public:
    /**
     * Opens and probes the source. Throws failure.
     *
     * @param cancelled  makes every read end early once it is set
     */
    input(const input_options &options, const std::atomic<bool> &cancelled);

    const std::string &name() const { return options_.name; }
    const std::vector<source_stream> &streams() const { return streams_; }
    const std::vector<left_out> &others() const { return others_; }
    /** Leaves out a stream that turned out not to be recordable after all. */
    void leave_out(size_t stream, std::string why);
    /** When the source begins, nanoseconds on its own clock. */
    int64_t start() const;
    /** Whether it keeps what is not read: a file or a pipe does, a stream of datagrams does not. */
    bool can_wait() const;
    /** The file that is read, when it is one. */
    std::optional<struct stat> file() const;

    /** The next frame; nothing at the end of the source or when cancelled. Throws failure. */
    std::optional<frame> read();

private:
    void select(const AVStream *stream);
    void check_completeness() const;

    input_options options_;
    format_ptr format_;
    std::vector<source_stream> streams_;
    std::vector<left_out> others_;
};

} // namespace tools

#endif
