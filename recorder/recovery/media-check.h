// Whether the media holds the samples that a journal names: the lengths inside
// a video sample must fit it. Of a long recording 256 samples are looked at:
// the first ones, the latest and some evenly spread; all of them once one does
// not fit.
#pragma once

#include <cstdint>

#include "journal-scan.h"

namespace mediafiles::recovery {

// The samples of a journal that are kept, counted from its beginning.
struct selection {
    uint64_t samples = 0;       // all of them
    uint64_t video = 0;         // those of video tracks
    uint64_t recent = 0;        // video samples before the last two rounds
    uint64_t end = media_begin; // of the last one, in the media
    uint64_t record_end = 0;    // of its record, in the journal
};

// The samples that do not fit, in the order of the media.
class bad_samples {
public:
    bad_samples() = default;
    ~bad_samples() { free(ranges_); }
    bad_samples(const bad_samples &) = delete;
    bad_samples &operator=(const bad_samples &) = delete;

    // false: no memory. Neighbours become one range.
    bool add(uint64_t begin, uint64_t end);
    void clear() { count_ = 0; }
    uint32_t count() const { return count_; }
    const mediafiles_range &operator[](uint32_t index) const { return ranges_[index]; }

private:
    mediafiles_range *ranges_ = nullptr;
    uint32_t count_ = 0, capacity_ = 0;
};

struct check_result {
    bool out_of_memory = false;
    bool first_video = false; // not even the first video sample fits
    bool torn = false;        // the bad ones were written after the last whole round, and no good one after them
    selection before;         // what stands before the first bad sample; recent is not set
};

// media.size is where the media ends. The ranges of all bad samples are added, unless out of memory.
check_result check_media(journal_scan &journal, const mediafiles_source &media, const selection &samples, bool all,
                         bad_samples &bad);

} // namespace mediafiles::recovery
