#include "track-input.h"

#include <algorithm>

#include "codec.h"
#include "frame.h"
#include "window.h"

namespace mediafiles::recorder {

namespace {

constexpr size_t length_size = 4; // of a NAL unit in its sample

} // namespace

std::span<const uint8_t> access_unit::bytes(std::vector<uint8_t> &scratch) const
{
    if (parts_.size() == 1) return {parts_[0].frame->bytes(), parts_[0].frame->length};
    scratch.clear();
    for (const queue::taken &part : parts_)
        scratch.insert(scratch.end(), part.frame->bytes(), part.frame->bytes() + part.frame->length);
    return scratch;
}

void kept_sets::update(const mp4_track_desc &track, const queue::entry &frame)
{
    if (!(frame.flags & frame_has_sets)) return;
    ptrdiff_t found_before = 0;
    bool is_changed = false;
    set_reader reader(track, {frame.bytes(), frame.length});
    while (const auto found = reader.next()) {
        const auto known = std::ranges::find_if(
            sets_, [&](const set &each) { return each.kind == found->kind && each.id == found->id; });
        if (known == sets_.end()) {
            sets_.insert(sets_.begin() + found_before++,
                         {found->kind, found->id, {found->unit.begin(), found->unit.end()}});
            continue;
        }
        if (!std::ranges::equal(known->unit, found->unit)) {
            known->unit.assign(found->unit.begin(), found->unit.end());
            is_changed = true;
        }
        const auto first = sets_.begin() + found_before;
        if (known < first) continue;
        std::rotate(first, known, known + 1);
        ++found_before;
    }
    version_ += is_changed;
}

std::span<const uint8_t> kept_sets::first(uint8_t kind) const
{
    const auto known = std::ranges::find(sets_, kind, &set::kind);
    return known == sets_.end() ? std::span<const uint8_t>() : std::span<const uint8_t>(known->unit);
}

std::vector<uint8_t> kept_sets::missing_in(const mp4_track_desc &track, const access_unit &unit) const
{
    std::vector<const set *> missing;
    for (const set &each : sets_)
        if (each.unit.data() != first(each.kind).data()) missing.push_back(&each);
    for (const queue::taken &part : unit.parts()) {
        if (missing.empty() || !(part.frame->flags & frame_has_sets)) continue;
        set_reader reader(track, {part.frame->bytes(), part.frame->length});
        while (const auto found = reader.next())
            std::erase_if(missing, [&](const set *each) { return each->kind == found->kind && each->id == found->id; });
    }
    std::vector<uint8_t> bytes;
    for (const set *each : missing) {
        uint8_t length[length_size];
        recovery::store_be32(length, static_cast<uint32_t>(each->unit.size()));
        bytes.insert(bytes.end(), length, length + sizeof length);
        bytes.insert(bytes.end(), each->unit.begin(), each->unit.end());
    }
    return bytes;
}

std::span<const uint8_t> track_input::sample(std::vector<uint8_t> &scratch) const
{
    const std::span<const uint8_t> whole = held.bytes(scratch);
    if (added_sets.empty()) return whole;
    if (whole.data() != scratch.data()) scratch.assign(whole.begin(), whole.end());
    const recovery::codec &codec = *recovery::codec_of(description.type);
    size_t at = 0; // after the delimiter, which is the first unit
    if (codec.is_delimiter(codec.unit_type(scratch[length_size]))) at = length_size + recovery::be32(scratch.data());
    scratch.insert(scratch.begin() + static_cast<ptrdiff_t>(at), added_sets.begin(), added_sets.end());
    return scratch;
}

} // namespace mediafiles::recorder
