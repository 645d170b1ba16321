#include "track-input.h"

#include <algorithm>

#include "frame.h"

namespace mediafiles::recorder {

std::span<const uint8_t> access_unit::bytes(std::vector<uint8_t> &scratch) const
{
    if (parts_.size() == 1) return {parts_[0].frame->bytes(), parts_[0].frame->length};
    scratch.clear();
    for (const queue::taken &part : parts_)
        scratch.insert(scratch.end(), part.frame->bytes(), part.frame->bytes() + part.frame->length);
    return scratch;
}

bool kept_sets::update(const mp4_track_desc &track, const queue::entry &frame)
{
    if (!(frame.flags & frame_has_sets)) return false;
    bool is_changed = false;
    set_reader reader(track, {frame.bytes(), frame.length});
    while (const auto found = reader.next()) {
        const auto known = std::ranges::find_if(
            sets_, [&](const set &each) { return each.kind == found->kind && each.id == found->id; });
        if (known == sets_.end()) {
            sets_.push_back({found->kind, found->id, {found->unit.begin(), found->unit.end()}});
        } else if (!std::ranges::equal(known->unit, found->unit)) {
            known->unit.assign(found->unit.begin(), found->unit.end());
            is_changed = true;
        }
    }
    return is_changed;
}

std::span<const uint8_t> kept_sets::first(uint8_t kind) const
{
    const auto known = std::ranges::find(sets_, kind, &set::kind);
    return known == sets_.end() ? std::span<const uint8_t>() : std::span<const uint8_t>(known->unit);
}

} // namespace mediafiles::recorder
