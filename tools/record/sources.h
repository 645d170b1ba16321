/**
 * The sources of one recording, read in parallel and merged by time: frames
 * come out earliest first, on the recording's clock. A source that is open and
 * has no frame delays the others for a moment only; one that is away does not.
 */
#ifndef TOOLS_RECORD_SOURCES_H
#define TOOLS_RECORD_SOURCES_H

#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "tools/record/source-clock.h"
#include "tools/record/source.h"

namespace tools {

struct source_frame {
    size_t source;
    frame content;             // its time is the recording's
    source_clock::mapped time; // what its time was made of
};

class sources {
public:
    /**
     * Starts reading.
     *
     * @param options  which outlive it
     * @param retry    whether sources that come and go are opened again
     */
    sources(std::span<const input_options> options, bool retry);
    ~sources();
    sources(const sources &) = delete;
    sources &operator=(const sources &) = delete;

    /** Readable when something has changed since it was drained, which comes before looking. */
    int descriptor() const { return waker_.descriptor(); }
    void drain() { waker_.drain(); }

    size_t size() const { return sources_.size(); }
    source &at(size_t index) { return *sources_[index]; }
    const source &at(size_t index) const { return *sources_[index]; }

    /** What is known of the connection of each that has frames; else nothing. */
    std::vector<const connection *> there();
    /** Frames are taken from here on. */
    void begin();

    /** The earliest frame; nothing while there is none. */
    std::optional<source_frame> take();
    /** When take may have a frame though nothing has changed. */
    steady::time_point due() const { return due_; }

    /** All frames have been taken, and no more will come. */
    bool ended();

private:
    struct merged {
        bool is_mapped = false; // the front has its time on the recording's clock
        source_clock::mapped time = {};
    };

    const frame *front(size_t index);

    waker waker_;
    std::span<const input_options> options_;
    std::vector<std::unique_ptr<source>> sources_;
    std::vector<source_clock> clocks_;
    std::vector<merged> fronts_;
    common_clock common_;
    steady::time_point due_ = steady::time_point::max();
};

} // namespace tools

#endif
