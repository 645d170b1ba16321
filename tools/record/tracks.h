/**
 * Which stream of which source is which track. A stream keeps its track when
 * its source is opened again with a stream of the same kind. The tracks of a
 * recorder are fixed when it starts, so one for others is needed when a source
 * brings a stream that it has no track for.
 */
#ifndef TOOLS_RECORD_TRACKS_H
#define TOOLS_RECORD_TRACKS_H

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "tools/record/input.h"
#include "tools/record/recording-summary.h"

namespace tools {

/** A track of the summary, and the state of its frames. */
struct track_state {
    size_t source;
    stream_info stream;
    bool can_wait;
    std::optional<uint32_t> recorded_as = {}; // its index in the recorder that runs
    std::optional<int64_t> latest = {};       // ns: of its frames
    int64_t given = 0;                        // ns: to the last one
    uint64_t unusable = 0;                    // frames that were not pushed, since that recorder was started
    bool reached_duration = false;
};

class tracks {
public:
    explicit tracks(size_t sources) : sources_(sources) {}

    /**
     * Gives the streams of a connection their tracks, new ones where none fits.
     *
     * @return the tracks that are new
     */
    std::vector<size_t> adopt(size_t source, std::shared_ptr<const connection> now);
    bool knows(size_t source, const connection *now) const { return sources_[source].connected.get() == now; }
    /** A source that is away for long: the next recorder has no track of it. */
    void leave(size_t source) { sources_[source] = {}; }
    bool has_left(size_t source) const { return !sources_[source].connected; }

    /** Whether a connected stream has no track in the recorder that runs, and there is room for one. */
    bool need_a_recorder() const;
    /** The tracks of a new recorder: those of all connected streams, at most as many as it takes. */
    std::vector<size_t> for_recorder();

    size_t of(size_t source, size_t stream) const { return sources_[source].tracks[stream]; }
    size_t in_recorder(uint32_t index) const { return recorded_[index]; }
    const std::vector<size_t> &recorded() const { return recorded_; }

    std::vector<track_state> all; // as the summary's, by index

private:
    struct source_streams {
        std::shared_ptr<const connection> connected;
        std::vector<size_t> tracks; // by stream
    };
    std::vector<source_streams> sources_;
    std::vector<size_t> recorded_;
};

} // namespace tools

#endif
