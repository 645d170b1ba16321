/**
 * From the times of sources to those of the recording, on which all sources
 * agree and which never step.
 *
 * Where a source's own times step, because the stream was joined from pieces,
 * its clock has wrapped, or the camera has started again, they are joined on:
 * for a live source after as long as really passed, for a file at once. The
 * streams of a source step together, each at its own frame.
 */
#ifndef TOOLS_RECORD_SOURCE_CLOCK_H
#define TOOLS_RECORD_SOURCE_CLOCK_H

#include <span>

#include "tools/record/input.h"

namespace tools {

/** How the sources of a recording relate. */
class common_clock {
public:
    /**
     * Several sources keep the clock that they share, where their times show that they do: those of files overlap,
     * those of live sources fit the moments at which they come. Others begin with the recording, or when they come. A
     * single source keeps its times.
     */
    void begin(std::span<const connection *const> there, bool several);

    /** To be added to the times of a connection that comes for the first time. */
    int64_t offset_of(const connection &) const;

private:
    int64_t at(steady::time_point moment) const;
    bool shares_clock(const connection &) const;

    struct reference {
        int64_t offset, start;
        std::optional<int64_t> duration;
        bool is_live;
    };
    bool several_ = false;
    std::optional<reference> reference_; // a source with a clock of its own
    steady::time_point zero_;            // the moment of time 0, for live sources
};

/** The clock of one source. */
class source_clock {
public:
    struct mapped {
        int64_t time;
        std::optional<int64_t> step = {}; // by how much the source's times jump; they were joined on
        int64_t gap = 0;                  // more than usual between the frames before and this one, in the recording
    };

    /** @param common  that has begun */
    mapped map(const frame &, const common_clock &common);

private:
    struct stream_times {
        std::optional<int64_t> last; // on the source's clock
        int64_t recorded = 0;        // the same frame's, on the recording's
        int64_t usual = 0;           // from one frame to the next
        int64_t offset = 0;          // what is added
        unsigned epoch = 0;
        steady::time_point arrival;
    };

    void connect(const frame &first, const common_clock &common);
    int64_t furthest() const;
    bool follows(const stream_times &, int64_t delta, const frame &) const;

    std::shared_ptr<const connection> connection_;
    std::vector<stream_times> streams_;
    std::optional<int64_t> latest_; // on the recording's clock, over all connections
    steady::time_point latest_arrival_;
    int64_t offset_ = 0; // of the newest epoch
    unsigned epoch_ = 0; // counts steps
};

} // namespace tools

#endif
