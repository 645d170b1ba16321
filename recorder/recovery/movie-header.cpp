#include "movie-header.h"

#include <cstring>

namespace mediafiles::recovery {
namespace {

constexpr uint32_t box_header = 8;
constexpr uint32_t full_box = 4;               // version and flags
constexpr uint32_t visual_entry = 78;          // fields of a VisualSampleEntry before its boxes (12.1.3)
constexpr uint32_t audio_entry = 28;           // of an AudioSampleEntry (12.2.3)
constexpr uint32_t place_windows = 192u << 10; // bytes for the windows of all tables together
constexpr uint32_t largest_window = 64u << 10;
constexpr uint32_t smallest_window = 4096;

// What the core puts into its containers, without those that hold no boxes.
struct container {
    const char *type;
    uint32_t fields;      // bytes before the first box
    const char *children; // their types, one after the other
};
constexpr container containers[] = {
    {"moov", 0, "mvhdiodstrak"}, {"trak", 0, "tkhdedtsmdia"},         {"edts", 0, "elst"},
    {"mdia", 0, "mdhdhdlrminf"}, {"minf", 0, "vmhdsmhdnmhddinfstbl"}, {"stbl", 0, "stsdsttsstcostssstscstsz"},
    {"stsd", 8, "avc1hev1mp4a"},
};

bool is_child(const container &of, const char *type)
{
    for (const char *each = of.children; *each; each += 4)
        if (memcmp(each, type, 4) == 0) return true;
    return false;
}

// Characters, as types of boxes are; QuickTime's have a copyright sign. A sector that a power cut has emptied or erased
// may begin between a box's size and its type.
bool is_type(const char *type)
{
    for (int i = 0; i < 4; ++i)
        if ((type[i] < ' ' || type[i] > '~') && type[i] != '\xA9') return false;
    return true;
}

// Whether a sector begins in the type before the body of a box, or just before it: a power cut may have left other bytes
// of it than were written, those of another file even.
bool may_be_torn(uint64_t body)
{
    constexpr uint32_t sector = 512;
    return (body - 1) % sector < 4;
}

} // namespace

bool track_places::begin_run()
{
    const uint8_t *entry =
        run_ < track_.stsc.count ? runs_.view(track_.stsc.offset + uint64_t{run_} * 12, 12) : nullptr;
    if (!entry || be32(entry) != next_run_ || be32(entry + 4) == 0 || be32(entry + 8) != 1) return fail();
    per_chunk_ = be32(entry + 4);
    next_run_ = UINT32_MAX;
    if (++run_ == track_.stsc.count) return true;
    const uint8_t *following = runs_.view(track_.stsc.offset + uint64_t{run_} * 12, 12);
    if (!following || be32(following) <= chunk_ + 1) return fail();
    next_run_ = be32(following);
    return true;
}

bool track_places::begin_chunk()
{
    if (chunk_ == track_.stco.count) return fail();
    if (chunk_ + 1 == next_run_ && !begin_run()) return false;
    const uint8_t *entry = chunks_.view(track_.stco.offset + uint64_t{chunk_} * 4, 4);
    if (!entry) return fail();
    offset_ = be32(entry);
    left_ = per_chunk_;
    ++chunk_;
    return true;
}

bool track_places::next(extent &out)
{
    return take(out, false);
}

bool track_places::next_run(extent &out)
{
    return take(out, true);
}

bool track_places::take(extent &out, bool run)
{
    const uint32_t samples = track_.stsz.count - sample_;
    if (!sound_ || samples == 0) return false;
    if (left_ == 0 && !begin_chunk()) return false;
    uint32_t size = track_.common_size, count = 1;
    if (size == 0) {
        const uint8_t *entry = sizes_.view(track_.stsz.offset + uint64_t{sample_} * 4, 4);
        if (!entry || (size = be32(entry)) == 0) return fail();
    } else if (run) {
        count = left_ < samples ? left_ : samples;
    }
    out = {offset_, uint64_t{size} * count};
    offset_ += out.size;
    left_ -= count;
    sample_ += count;
    return true;
}

bool movie_header::box::is(const char *name) const
{
    return memcmp(type, name, sizeof type) == 0;
}

uint64_t movie_header::be(uint64_t offset, uint32_t width, bool &there)
{
    const uint8_t *bytes = boxes_.view(offset, width);
    there = there && bytes;
    uint64_t value = 0;
    for (uint32_t i = 0; bytes && i < width; ++i) value = value << 8 | bytes[i];
    return value;
}

// Whether whole boxes fill the range, each of which the visitor accepts.
template <class Visit>
bool movie_header::for_each_box(box_range range, Visit visit)
{
    for (uint64_t at = range.begin; at < range.end;) {
        const uint8_t *header = range.end - at < box_header ? nullptr : boxes_.view(at, box_header);
        const uint32_t size = header ? be32(header) : 0;
        if (size < box_header || size > range.end - at) return false;
        box each = {{}, at + box_header, at + size};
        memcpy(each.type, header + 4, sizeof each.type);
        if (!is_type(each.type) || !visit(each)) return false;
        at += size;
    }
    return true;
}

bool movie_header::read(uint64_t begin, uint64_t end)
{
    count_ = 0;
    timescale_ = 0;
    bool found = false;
    const auto in_movie = [this](const box &each) {
        if (each.is("trak")) return read_track(each);
        if (!each.is("mvhd")) return true;
        bool there = true;
        const bool wide = be(each.begin, 1, there) == 1;
        timescale_ = static_cast<uint32_t>(be(each.begin + (wide ? 20 : 12), 4, there));
        return there && timescale_ != 0;
    };
    const auto in_file = [&](const box &each) {
        if (found || !each.is("moov")) return false;
        found = for_each_box({each.begin, each.end}, in_movie);
        return found;
    };
    if (begin >= end || !for_each_box({begin, end}, in_file) || timescale_ == 0 || count_ == 0) return false;
    for (uint32_t i = 0; i < count_; ++i)
        if (!is_sound(tracks_[i])) return false;
    return true;
}

bool movie_header::is_of_another_program(uint64_t begin, uint64_t end)
{
    bool found = false;
    const auto is_whole_moov = [&](const box &each) { return each.is("moov") && is_whole(each, found); };
    return for_each_box({begin, end}, is_whole_moov) && found;
}

// Whether whole boxes fill this one and those in it. Notes whether one is not the core's.
bool movie_header::is_whole(const box &outer, bool &unknown)
{
    for (const container &known : containers) {
        if (!outer.is(known.type)) continue;
        return outer.end - outer.begin >= known.fields &&
               for_each_box({outer.begin + known.fields, outer.end}, [&](const box &each) {
                   if (is_child(known, each.type)) return is_whole(each, unknown);
                   if (!may_be_torn(each.begin)) unknown = true;
                   return true;
               });
    }
    return true;
}

bool movie_header::read_track(const box &trak)
{
    if (count_ == MP4_MAX_TRACKS) return false;
    header_track &track = tracks_[count_++] = {};
    bool has_header = false;
    return for_each_box({trak.begin, trak.end},
                        [&](const box &each) {
                            if (each.is("edts")) return read_edits(track, each);
                            if (each.is("mdia")) return read_media(track, each);
                            if (!each.is("tkhd")) return true;
                            has_header = each.end - each.begin >= 84;
                            bool there = true;
                            const bool wide = be(each.begin, 1, there) == 1;
                            return be(each.begin + (wide ? 20 : 12), 4, there) == count_ && there;
                        }) &&
           has_header;
}

bool movie_header::read_edits(header_track &track, const box &edts)
{
    return for_each_box({edts.begin, edts.end}, [&](const box &each) {
        if (!each.is("elst")) return true;
        bool there = true;
        const bool wide = be(each.begin, 1, there) == 1;
        const uint32_t time = wide ? 8 : 4;
        if (be(each.begin + full_box, 4, there) == 0) return there;
        const uint64_t first = each.begin + full_box + 4;
        const bool is_empty = (be(first + time, 4, there) & 0xFFFFFFFF) == 0xFFFFFFFF;
        track.delay = is_empty ? be(first, time, there) : 0;
        return there && first + uint64_t{2} * time + 4 <= each.end;
    });
}

bool movie_header::read_media(header_track &track, const box &mdia)
{
    return for_each_box({mdia.begin, mdia.end}, [&](const box &each) {
        if (each.is("minf")) return read_tables(track, each);
        if (!each.is("mdhd")) return true;
        bool there = true;
        const bool wide = be(each.begin, 1, there) == 1;
        track.timescale = static_cast<uint32_t>(be(each.begin + (wide ? 20 : 12), 4, there));
        track.duration = be(each.begin + (wide ? 24 : 16), wide ? 8 : 4, there);
        return there && track.timescale != 0;
    });
}

bool movie_header::read_tables(header_track &track, const box &minf)
{
    return for_each_box({minf.begin, minf.end}, [&](const box &each) {
        return !each.is("stbl") ||
               for_each_box({each.begin, each.end}, [&](const box &table) { return read_table(track, table); });
    });
}

// A table of so many bytes before its entries, the last four of which are their number.
bool movie_header::count_table(header_table &out, const box &table, uint32_t header, uint32_t entry)
{
    bool there = !out.present && table.end - table.begin >= header;
    const auto count = static_cast<uint32_t>(there ? be(table.begin + header - 4, 4, there) : 0);
    out = {table.begin + header, count, true};
    return there && table.end - out.offset == uint64_t{count} * entry;
}

bool movie_header::read_table(header_track &track, const box &table)
{
    if (table.is("stsd")) return read_description(track, table);
    if (table.is("stts")) return count_table(track.stts, table, 8, 8);
    if (table.is("stss")) return count_table(track.stss, table, 8, 4);
    if (table.is("stsc")) return count_table(track.stsc, table, 8, 12);
    if (table.is("stco")) return count_table(track.stco, table, 8, 4);
    if (table.is("co64") || table.is("stz2") || table.is("ctts")) return false; // the core writes none of them
    if (!table.is("stsz")) return true;
    bool there = true;
    track.common_size = static_cast<uint32_t>(be(table.begin + full_box, 4, there));
    return there && count_table(track.stsz, table, 12, track.common_size == 0 ? 4 : 0);
}

bool movie_header::read_description(header_track &track, const box &stsd)
{
    bool there = true;
    if (track.kind || be(stsd.begin + full_box, 4, there) != 1) return false;
    return for_each_box({stsd.begin + 8, stsd.end}, [&](const box &entry) {
        for (const codec &each : codecs)
            if (entry.is(each.entry)) track.kind = &each;
        if (!track.kind) return false;
        const uint32_t fields = track.kind->is_video() ? visual_entry : audio_entry;
        if (entry.end - entry.begin < fields) return false;
        track.entry = entry.begin;
        return for_each_box({entry.begin + fields, entry.end},
                            [&](const box &each) {
                                if (!each.is(track.kind->config)) return true;
                                track.config = each.begin;
                                track.config_size = static_cast<uint32_t>(each.end - each.begin);
                                return true;
                            }) &&
               track.config != 0;
    });
}

bool movie_header::is_sound(const header_track &track)
{
    if (!track.kind || track.timescale == 0 || !track.stsz.present || !track.stsc.present) return false;
    if (track.stsz.count != 0 && !(track.stts.present && track.stco.present)) return false;
    return durations_add_up(track) && sync_samples_ascend(track) &&
           (!track.kind->is_video() || for_each_set(track, [](const uint8_t *, uint32_t) { return true; }));
}

// The duration of the media counts the delay before it as well, in ticks that the edit list rounds down.
bool movie_header::durations_add_up(const header_track &track)
{
    uint64_t samples = 0, ticks = 0;
    for (uint32_t i = 0; i < track.stts.count; ++i) {
        const uint8_t *run = boxes_.view(track.stts.offset + uint64_t{i} * 8, 8);
        if (!run || be32(run) == 0) return false;
        samples += be32(run);
        ticks += uint64_t{be32(run)} * be32(run + 4);
    }
    if (samples != track.stsz.count || ticks > track.duration) return false;
    const uint64_t delay = track.duration - ticks; // below 2^63: a header's delay is at most 2^32 seconds
    const uint64_t edit = delay / track.timescale * timescale_ + delay % track.timescale * timescale_ / track.timescale;
    return edit <= track.delay + 1 && track.delay <= edit + 1;
}

bool movie_header::sync_samples_ascend(const header_track &track)
{
    uint32_t before = 0;
    for (uint32_t i = 0; i < track.stss.count; ++i) {
        const uint8_t *number = boxes_.view(track.stss.offset + uint64_t{i} * 4, 4);
        if (!number || be32(number) <= before) return false;
        before = be32(number);
    }
    return before <= track.stsz.count;
}

bool movie_header::covers(uint64_t begin, uint64_t end)
{
    begin_places();
    extent next[MP4_MAX_TRACKS];
    bool waits[MP4_MAX_TRACKS];
    for (uint32_t i = 0; i < count_; ++i) waits[i] = places_[i]->next_run(next[i]);
    uint64_t at = begin;
    for (bool found = true; found && at < end;) {
        found = false;
        for (uint32_t i = 0; i < count_; ++i)
            while (waits[i] && next[i].offset == at) {
                at += next[i].size;
                waits[i] = places_[i]->next_run(next[i]);
                found = true;
            }
    }
    for (uint32_t i = 0; i < count_; ++i) {
        out_of_memory_ = out_of_memory_ || places_[i]->out_of_memory();
        if (waits[i] || !places_[i]->is_sound() || !places_[i]->is_complete()) return false;
    }
    return at == end;
}

void movie_header::begin_places()
{
    const uint32_t share = count_ == 0 ? largest_window : place_windows / (3 * count_);
    const uint32_t size = share > largest_window ? largest_window : share < smallest_window ? smallest_window : share;
    for (uint32_t i = 0; i < count_; ++i) places_[i].emplace(media_, tracks_[i], size);
}

bool movie_header::has_next(uint32_t track, uint64_t offset, uint32_t size)
{
    extent next;
    return track < count_ && places_[track]->next(next) && next.offset == offset && next.size == size;
}

// Visits the parameter sets of avcC (ISO/IEC 14496-15 5.3.3.1) or hvcC (8.3.3.1). false when they do not fill the
// box, or when the visitor has enough.
template <class Visit>
bool movie_header::for_each_set(const header_track &track, Visit visit)
{
    uint64_t at = track.config;
    const uint64_t end = track.config + track.config_size;
    bool there = true;
    const auto number = [&](uint32_t width) {
        there = there && end - at >= width;
        const uint64_t value = there ? be(at, width, there) : 0;
        at += there ? width : 0;
        return static_cast<uint32_t>(value);
    };
    const auto visit_units = [&](uint32_t units) {
        for (; there && units > 0; --units) {
            const uint32_t length = number(2);
            if (!there || end - at < length) return false;
            const uint8_t *unit = length == 0 ? nullptr : boxes_.view(at, length < 65536 ? length : 65536);
            if ((length != 0 && !unit) || !visit(unit, length)) return false;
            at += length;
        }
        return there;
    };
    if (number(1) != 1) return false; // configurationVersion
    if (track.kind->unit_header == 1) {
        at += 4;
        if (end < at) return false;
        const uint32_t sps = number(1) & 0x1F;
        if (!visit_units(sps)) return false;
        return visit_units(number(1)) && there;
    }
    at += 21;
    if (end < at) return false;
    for (uint32_t arrays = number(1); there && arrays > 0; --arrays) {
        number(1);
        if (!visit_units(number(2))) return false;
    }
    return there;
}

bool movie_header::has_set(uint32_t track, const uint8_t *unit, uint32_t length)
{
    bool found = false;
    for_each_set(tracks_[track], [&](const uint8_t *stored, uint32_t stored_length) {
        found = stored && stored_length == length && memcmp(stored, unit, length) == 0;
        return !found;
    });
    return found;
}

} // namespace mediafiles::recovery
