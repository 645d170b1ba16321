#include "media-check.h"

#include "codec.h"

namespace mediafiles::recovery {
namespace {

constexpr uint64_t looked_at = 256;
constexpr uint64_t first_ones = 16;
constexpr uint64_t latest_ones = 160; // at most

// Which video samples are looked at: the first, the latest, and the rest of 256 evenly spread between them.
class choice {
public:
    choice(const selection &samples, bool all) : all_(all || samples.video <= looked_at)
    {
        const uint64_t latest = samples.video > latest_ones ? samples.video - latest_ones : 0;
        latest_ = samples.recent > latest ? samples.recent : latest;
        const uint64_t spread = looked_at - first_ones - (samples.video - latest_);
        step_ = latest_ / spread + 1;
    }
    bool has(uint64_t index) const { return all_ || index < first_ones || index >= latest_ || index % step_ == 0; }

private:
    bool all_;
    uint64_t latest_, step_;
};

} // namespace

bool bad_samples::add(uint64_t begin, uint64_t end)
{
    if (count_ > 0 && ranges_[count_ - 1].end == begin) {
        ranges_[count_ - 1].end = end;
        return true;
    }
    if (count_ == capacity_) {
        const uint32_t wanted = capacity_ == 0 ? 16 : capacity_ * 2;
        void *grown = realloc(ranges_, wanted * sizeof *ranges_);
        if (!grown) return false;
        ranges_ = static_cast<mediafiles_range *>(grown);
        capacity_ = wanted;
    }
    ranges_[count_++] = {begin, end};
    return true;
}

check_result check_media(journal_scan &journal, const mediafiles_source &media, const selection &samples, bool all,
                         bad_samples &bad)
{
    const choice chosen(samples, all);
    check_result result;
    result.before = {};
    selection seen;
    bad.clear();
    journal.rewind();
    record next;
    while (journal.samples < samples.samples && journal.next(next)) {
        if (next.header.kind != MEMENTO_SAMPLE) continue;
        const sample sample = next.as_sample();
        const bool video = is_video(journal.track[sample.track]);
        const uint64_t index = seen.video;
        const bool chosen_one = video && chosen.has(index);
        if (chosen_one && walk_units(media, sample, journal.track[sample.track].type, nullptr, nullptr)) {
            result.torn = false;
        } else if (chosen_one) {
            if (!all) return check_media(journal, media, samples, true, bad);
            if (bad.count() == 0) {
                result.before = seen;
                result.first_video = index == 0;
                result.torn = next.offset >= journal.bounds().tail;
            }
            if (!bad.add(sample.offset, sample.end())) {
                result.out_of_memory = true;
                return result;
            }
        }
        seen.samples = journal.samples;
        seen.video += video;
        seen.end = sample.end();
        seen.record_end = next.end();
    }
    return result;
}

} // namespace mediafiles::recovery
