#include "journal-scan.h"

#include <cstring>

#include "codec.h"

namespace mediafiles::recovery {
namespace {

constexpr uint32_t unmarked_tail = 4096;
constexpr int64_t steady = 1'000'000; // ns by which a track's steps may differ and still be even
constexpr uint32_t largest_payload = MEMENTO_MAX_SIZE - sizeof(memento);
constexpr const char *unreadable_part = "a part that cannot be read";
constexpr const char *unknown_kind = "a record of an unknown kind";

// Fields of a MEMENTO_SAMPLE, little-endian as every machine that this is built for.
namespace field {
constexpr uint32_t offset = 0, size = 4, seconds = 8, nanoseconds = 16, key = 20, length = 24;
}

template <class Value>
Value load(const uint8_t *from)
{
    Value value;
    memcpy(&value, from, sizeof value);
    return value;
}

bool is_stored_kind(uint8_t kind)
{
    return kind <= MEMENTO_SAMPLE || (kind >= MEMENTO_VPS && kind <= MEMENTO_SEI);
}

// Of the kinds that have one length.
const char *wrong_length(const memento &header)
{
    if (header.kind == MEMENTO_SAMPLE && header.length != field::length) return "a sample record of a wrong length";
    if (header.kind == MEMENTO_TRACK && header.length != sizeof(mp4_track_desc))
        return "a track record of a wrong length";
    return nullptr;
}

bool is_step(int64_t time, int64_t before, int64_t usual)
{
    const int64_t difference = time - before - usual;
    return time > before && difference <= steady && difference >= -steady;
}

} // namespace

sample record::as_sample() const
{
    return {header.track,
            load<int32_t>(payload + field::key),
            load<uint32_t>(payload + field::offset),
            load<uint32_t>(payload + field::size),
            load<int32_t>(payload + field::seconds),
            load<uint32_t>(payload + field::nanoseconds)};
}

mp4_track_desc record::as_track() const
{
    return load<mp4_track_desc>(payload);
}

journal_scan::journal_scan(const mediafiles_source &journal, const mediafiles_source *media)
    : stored_size_(journal.size),
      buffer_({journal.context, readable_end(journal, 0, journal.size), journal.read}, journal_window), media_(media)
{
    find_bounds();
}

void journal_scan::rewind()
{
    ending = MEDIAFILES_JOURNAL_WHOLE;
    damage = nullptr;
    at = end = 0;
    tracks = 0;
    for (auto &of_track : sets)
        for (stored_set &set : of_track) set = {};
    samples = 0;
    media_end = media_begin;
    has_repair_mark = false;
    for (auto &each : before_) each = {};
    odd_keys_ = 0;
}

bool journal_scan::header_at(uint64_t offset, memento &header)
{
    const uint8_t *bytes = buffer_.view(offset, sizeof header);
    if (bytes) header = load<memento>(bytes);
    return bytes != nullptr;
}

void journal_scan::find_bounds()
{
    uint64_t from = readable_size();
    for (bool zeros = true; zeros && from > 0;) {
        const auto part = static_cast<uint32_t>(from < journal_window ? from : journal_window);
        const uint8_t *bytes = buffer_.view(from - part, part);
        if (!bytes) break;
        uint32_t used = part;
        while (used > 0 && bytes[used - 1] == 0) --used;
        zeros = used == 0;
        from -= part - used;
    }
    bounds_.zeros_from = from;
    find_tail();
}

// Looks at nothing but the framing of the records and the checksums of the rounds.
void journal_scan::find_tail()
{
    uint64_t round_begin = 0, round_before = 0, broken = UINT64_MAX;
    uint32_t crc = 0;
    memento header;
    uint64_t offset = 0;
    while (offset < bounds_.zeros_from && header_at(offset, header)) {
        const record next = {header, offset, nullptr};
        const bool valid = header.length <= largest_payload && is_stored_kind(header.kind);
        const uint8_t *bytes = valid ? buffer_.view(offset, next.size()) : nullptr;
        if (!bytes) break;
        round_mark mark;
        if (header.kind == MEMENTO_USER && read_mark(bytes + sizeof header, header.length, mark) && may_follow(mark)) {
            if (mark.crc == crc) {
                if (broken < bounds_.damaged_round) bounds_.damaged_round = broken;
                bounds_.recent = round_before;
                round_before = round_begin;
                bounds_.rounds = mark.number;
                bounds_.safe_media = mark.media_size;
                bounds_.tail = next.end();
            } else if (broken == UINT64_MAX) {
                broken = round_begin;
            }
            round_begin = next.end();
            crc = 0;
        } else {
            crc = crc32(crc, bytes, next.size());
        }
        offset = next.end();
    }
    if (bounds_.rounds == 0) {
        bounds_.tail = bounds_.zeros_from > unmarked_tail ? bounds_.zeros_from - unmarked_tail : 0;
        bounds_.recent = bounds_.tail;
    } else if (has_later_mark(offset)) {
        bounds_.tail = UINT64_MAX; // rounds that were synced later are there: what stands before them is damaged
        if (broken < bounds_.damaged_round) bounds_.damaged_round = broken;
    }
}

// Whether that can be the mark of a round after the last whole one.
bool journal_scan::may_follow(const round_mark &mark) const
{
    return mark.number > bounds_.rounds && mark.media_size >= bounds_.safe_media &&
           (!media_ || mark.media_size <= media_->size);
}

// Whether a round after the next one has ended after the offset: then the next one was synced. Records are multiples
// of 4 bytes. Parts that cannot be read are passed over in growing steps.
bool journal_scan::has_later_mark(uint64_t from)
{
    uint64_t unreadable = 512;
    for (uint64_t offset = from; offset < bounds_.zeros_from; offset += 4) {
        const uint8_t *bytes = buffer_.view(offset, MEDIAFILES_ROUND_MARK_SIZE);
        if (!bytes) {
            offset += unreadable - 4;
            unreadable *= 2;
            continue;
        }
        const auto header = load<memento>(bytes);
        round_mark mark;
        if (header.kind == MEMENTO_USER && read_mark(bytes + sizeof header, header.length, mark) && may_follow(mark) &&
            mark.number > bounds_.rounds + 1)
            return true;
    }
    return false;
}

bool journal_scan::stop(uint32_t how, const char *why)
{
    ending = how;
    damage = why;
    return false;
}

bool journal_scan::invalid(const char *why)
{
    return stop(may_be_torn(at) ? MEDIAFILES_JOURNAL_TORN : MEDIAFILES_JOURNAL_DAMAGED, why);
}

bool journal_scan::next(record &out)
{
    if (ending != MEDIAFILES_JOURNAL_WHOLE || at == journal_size()) return false;
    if (at == readable_size()) return stop(MEDIAFILES_JOURNAL_CUT);
    if (at >= bounds_.damaged_round) return stop(MEDIAFILES_JOURNAL_DAMAGED, "a round of syncs with a wrong checksum");
    if (at >= bounds_.zeros_from) return stop(MEDIAFILES_JOURNAL_TORN);
    memento header;
    if (readable_size() - at < sizeof header) return stop(MEDIAFILES_JOURNAL_CUT);
    if (!header_at(at, header)) return invalid(unreadable_part);
    if (header.length > largest_payload) return invalid("a record that is too long");
    record next = {header, at, nullptr};
    /* A record that was cut off has its header. What has none is no sign that nothing was ever safe. */
    if (!is_stored_kind(header.kind)) return invalid(unknown_kind);
    if (const char *wrong = wrong_length(header)) return invalid(wrong);
    if (readable_size() - at < next.size())
        return may_be_torn(at) ? stop(MEDIAFILES_JOURNAL_CUT) : invalid("a record that is too long");
    zeros_follow_ = runs_into_zeros(next);
    const uint8_t *bytes = buffer_.view(at, next.size());
    if (!bytes) return invalid(unreadable_part);
    next.payload = bytes + sizeof header;

    if (zeros_follow_ && header.kind != MEMENTO_SAMPLE) return stop(MEDIAFILES_JOURNAL_TORN);
    if (const char *wrong = take(next)) return zeros_follow_ ? stop(MEDIAFILES_JOURNAL_TORN) : invalid(wrong);

    if (!(bytes = buffer_.view(at, next.size()))) return invalid(unreadable_part); // what follows was looked at
    next.payload = bytes + sizeof header;
    at = next.end();
    repair_mark mark;
    has_repair_mark = header.kind == MEMENTO_USER && read_mark(next.payload, header.length, mark);
    if (has_repair_mark)
        repair = mark;
    else
        end = at;
    if (header.kind == MEMENTO_USER && is_protection_mark(next.payload, header.length)) is_protected = true;
    out = next;
    return true;
}

const char *journal_scan::take(const record &next)
{
    switch (next.header.kind) {
    case MEMENTO_SAMPLE:
        return take_sample(next);
    case MEMENTO_TRACK:
        return take_track(next);
    case MEMENTO_VPS:
    case MEMENTO_SPS:
    case MEMENTO_PPS:
        return take_set(next);
    case MEMENTO_USER:
    case MEMENTO_SEI: // no file holds what the journal has of it
        return nullptr;
    default:
        return unknown_kind;
    }
}

const char *journal_scan::take_sample(const record &next)
{
    const sample sample = next.as_sample();
    if (sample.track >= tracks) return "a sample of an unknown track";
    if (sample.size == 0) return "an empty sample";
    if (sample.nanoseconds >= second) return "an invalid time";
    if (sample.offset != media_end)
        return sample.offset < media_end ? "a sample that overlaps the one before it" : "a gap between samples";
    if (sample.end() > UINT32_MAX || sample.end() - media_begin > MP4_MAX_RECORD_BYTES)
        return "more media than a file can hold";
    if (zeros_follow_ && !zeros_are_its_own(next)) return "a sample that ends in zeros";
    if (is_overwritten(next)) return "a last sample unlike any other";

    last_ = sample;
    ++samples;
    media_end = sample.end();
    auto &before = before_[sample.track];
    before.time[1] = before.time[0];
    before.time[0] = sample.time();
    before.key = sample.key != 0;
    if (before.count < 2) ++before.count;
    return nullptr;
}

const char *journal_scan::take_track(const record &next)
{
    const mp4_track_desc desc = next.as_track();
    if (!codec_of(desc.type)) return "a track of unknown type";
    if (tracks == MP4_MAX_TRACKS) return "more than eight tracks";
    track[tracks++] = desc;
    return nullptr;
}

const char *journal_scan::take_set(const record &next)
{
    if (next.header.track >= tracks) return "a parameter set of an unknown track";
    const codec &codec = *codec_of(track[next.header.track].type);
    if (!codec.is_video() || next.header.length == 0 ||
        codec.set_kind(codec.unit_type(next.payload[0])) != next.header.kind)
        return "an invalid parameter set";
    stored_set &set = sets[next.header.track][next.header.kind - MEMENTO_VPS];
    if (set.length == 0) set = stored_set{next.offset + sizeof(memento), next.header.length};
    return nullptr;
}

// Whether the end of a sample's record is what stood on the medium before, as what follows is: a key flag like no
// other, a size beyond the media, or one that is far beyond.
bool journal_scan::is_overwritten(const record &next)
{
    const uint32_t key = load<uint32_t>(next.payload + field::key);
    const bool odd_key = key > 1 && odd_keys_++ == 0;
    const bool beyond = media_ && next.as_sample().end() > media_->size;
    if (!(odd_key || beyond) || !may_be_torn(next.offset)) return false;
    if (beyond && next.as_sample().end() - media_->size > large_change && next.as_sample().offset < media_->size)
        return true;
    memento after;
    if (next.end() >= bounds_.zeros_from || !header_at(next.end(), after)) return odd_key;
    return !is_stored_kind(after.kind) || after.length > largest_payload;
}

// Zeros can begin inside a record that was not synced by a whole round. They go on to the end of the journal, or to the
// end of a sector whose successors have reached the medium.
bool journal_scan::runs_into_zeros(const record &next)
{
    if (bounds_.rounds != 0 && !may_be_torn(next.offset)) return false;
    if (next.offset + sizeof(memento) + next.header.length > bounds_.zeros_from) return true;
    memento after;
    return may_be_torn(next.offset) && next.header.kind == MEMENTO_SAMPLE && header_at(next.end(), after) &&
           after.kind == 0 && after.track == 0 && after.length == 0;
}

// Whether the zeros at the end of a sample's record are its own fields: then key flag and time fit the ones before.
bool journal_scan::zeros_are_its_own(const record &next) const
{
    const sample sample = next.as_sample();
    if (sample.key) return true; // its first byte is the last one that is not zero in any sample
    const auto &before = before_[sample.track];
    const codec &codec = *codec_of(track[sample.track].type);
    if (media_ && sample.end() > media_->size) {
        // the sample is incomplete in any case: its key flag does not matter
    } else if (media_ && codec.is_video()) {
        struct search {
            const recovery::codec &codec;
            bool key;
        } found = {codec, false};
        const unit_visitor is_key = [](void *context, uint8_t type, uint64_t, uint32_t) {
            auto &search = *static_cast<struct search *>(context);
            search.key = search.key || search.codec.is_key(type);
            return true;
        };
        const bool walked = walk_units(*media_, sample, codec.type, is_key, &found);
        if (walked ? found.key : before.count == 0 || before.key) return false;
    } else if (before.count == 0 || before.key) {
        return false;
    }
    uint32_t written = field::length;
    while (written > 0 && next.payload[written - 1] == 0) --written;
    if (written >= field::key) return true;
    return before.count == 2 && is_step(sample.time(), before.time[0], before.time[0] - before.time[1]);
}

bool walk_units(const mediafiles_source &media, const sample &sample, uint32_t track_type, unit_visitor visit,
                void *context)
{
    const codec &codec = *codec_of(track_type);
    for (uint64_t at = sample.offset; at < sample.end();) {
        uint8_t start[5]; // length and the first byte of the unit
        if (at + sizeof start > media.size) return true;
        if (sample.end() - at < sizeof start || !read_all(media, at, start, sizeof start)) return false;
        const uint32_t length = be32(start);
        if (length == 0 || length > sample.end() - at - 4) return false;
        if (visit && !visit(context, codec.unit_type(start[4]), at + 4, length)) return true;
        at += 4 + uint64_t{length};
    }
    return true;
}

} // namespace mediafiles::recovery
