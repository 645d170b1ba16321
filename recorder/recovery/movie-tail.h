// The end of a recovered file: the samples that a journal names go, without
// their bytes, through a movie of the core whose output only counts, as in the
// core's own repair. Its movie header is then handed out piece by piece: the
// sizes of the boxes are found in a first pass, so that no copy of the header
// is ever in memory.
#pragma once

#include <cstdint>
#include <memory>

#include <mediafiles/movie.h>
#include <mediafiles/recovery.h>
#include <mediafiles/stream.h>

#include "journal-scan.h"

namespace mediafiles::recovery {

class movie_tail {
public:
    // Takes the journal's records up to that many samples. Parameter sets that the journal lacks are taken from the
    // first sample of their track, where the media has it. 0, or the errno of what the movie refuses.
    int replay(journal_scan &journal, uint64_t samples, const mediafiles_source &media);

    // Hands out the movie header. -1 with errno as the sink left it, or ENOMEM.
    int write(mediafiles_sink sink, void *context) const;

    uint64_t size() const { return size_; } // bytes of the movie header
    const mp4_fix_info &info() const { return info_; }

private:
    struct release {
        void operator()(mp4_movie *movie) const { mp4_movie_destroy(movie); }
        void operator()(mp4_stream *stream) const { stream->destroy(stream); }
    };
    struct patch {
        uint32_t position, length;
        uint8_t bytes[4];

        bool ends_at(uint32_t where) const { return position + length == where; }
    };
    struct layout;
    static constexpr uint32_t most_patches = 256; // 4 sizes, and at most 26 for each of eight tracks

    int replay_record(const record &next);
    int add_track(const record &next);
    int add_sample(const sample &next);
    int take_missing_sets(const journal_scan &journal, const mediafiles_source &media);
    int finish();

    std::unique_ptr<mp4_stream, release> media_; // counts
    std::unique_ptr<mp4_movie, release> movie_;  // before the stream that it writes to
    sample first_[MP4_MAX_TRACKS] = {};          // size 0: the track has none
    mp4_fix_info info_ = {};
    patch patches_[most_patches];
    uint32_t patch_count_ = 0;
    uint64_t size_ = 0;
};

} // namespace mediafiles::recovery
