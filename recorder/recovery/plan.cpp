// The decision about a recording, from what lies on the medium.
//
//     begins as ours?           no: not ours (or an empty leftover)
//     a sound moov at its end?  yes: finished; the journal goes when it is a part of it
//     samples in the journal?   no: an empty leftover, or refused
//     journal, media            damage before the last round of syncs is refused; with options, salvaged
//     how much goes, or comes?  a lot: only with FORCE
//     the movie replays it      repaired, or salvaged with the ranges that are bad
//
// Finished is never changed. The exception are headers that a power cut has
// torn and that look sound: where the journal reaches the end of the media and
// names the same samples, its parameter sets must be in the header.

#include "plan.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "codec.h"
#include "journal-scan.h"
#include "media-check.h"
#include "movie-header.h"
#include "movie-tail.h"

namespace mediafiles::recovery {
namespace {

// ftyp as the core writes it, and the header of an mdat that is not finished.
constexpr uint8_t open_head[MEDIAFILES_HEAD_SIZE] = {0,   0,   0, 24, 'f', 't', 'y', 'p', 'm', 'p', '4',
                                                     '2', 0,   0, 0,  0,   'm', 'p', '4', '2', 'i', 's',
                                                     'o', 'm', 0, 0,  0,   0,   'm', 'd', 'a', 't'};
constexpr uint32_t mdat_begin = 24;
constexpr uint64_t largest_leftover = 16u << 20;
constexpr uint64_t largest_search = 64u << 20; // for a movie header whose place is not known
constexpr uint32_t most_headers = 16; // of those that such a search looks into: what only looks like one is rare
constexpr uint32_t search_window = 256u << 10;
constexpr uint32_t compare_window = 64u << 10;
constexpr uint32_t all_options =
    MEDIAFILES_DROP_LAST_FRAME | MEDIAFILES_SALVAGE | MEDIAFILES_KEEP_DAMAGED | MEDIAFILES_FORCE | MEDIAFILES_CHECK_ALL;

} // namespace
} // namespace mediafiles::recovery

using namespace mediafiles::recovery;

struct mediafiles_plan {
    mediafiles_plan(const mediafiles_source &given_media, const mediafiles_source *given_journal,
                    uint32_t given_options)
        : media(given_media), journal(given_journal ? *given_journal : mediafiles_source{}),
          has_journal(given_journal != nullptr), options(given_options)
    {
        info.size = sizeof info;
        info.journal = has_journal ? MEDIAFILES_JOURNAL_KEPT : MEDIAFILES_JOURNAL_NONE;
    }

    void decide();

    mediafiles_source media, journal;
    bool has_journal;
    uint32_t options;
    mediafiles_plan_info info = {};
    movie_tail tail;
    bad_samples ranges;
    repair_mark mark = {};
    bool head_alone = false;
    bool continues = false; // an earlier repair
    bool out_of_memory = false;

private:
    void decide_without_journal(movie_header &header, bool whole);
    void decide_without_samples(journal_scan &scan, movie_header &header, bool is_begun, bool whole);
    void decide_beside_finished(journal_scan &scan, movie_header &header, uint64_t end);
    void decide_by_journal(journal_scan &scan, movie_header &header);

    bool is_ours() const;
    bool is_head_alone() const;
    bool is_zeros() const;
    bool completes_size(movie_header &header, uint64_t from);
    bool header_at_end(movie_header &header, uint64_t from, uint64_t &begin);
    bool is_part_of(journal_scan &scan, movie_header &header) const;
    bool has_sets_of(journal_scan &scan, movie_header &header) const;
    bool tail_is_there(uint64_t at) const;
    bool select(journal_scan &scan, uint64_t limit, selection &chosen);
    bool drop_last_frame(journal_scan &scan, selection &chosen);
    bool check(journal_scan &scan, movie_header &header, uint64_t limit, selection &chosen);
    bool completes_beside(journal_scan &scan, movie_header &header, uint64_t from);
    bool is_too_much(uint64_t limit);
    bool replay(journal_scan &scan, const selection &chosen);

    void finished(bool remove_journal, bool foreign = false)
    {
        info.result = MEDIAFILES_FINISHED;
        info.media_end = info.file_size = media.size;
        info.foreign = foreign;
        if (has_journal) info.journal = remove_journal ? MEDIAFILES_JOURNAL_REMOVED : MEDIAFILES_JOURNAL_KEPT;
    }
    void not_ours() { info.result = MEDIAFILES_NOT_OURS; }
    bool refuse(uint32_t reason, uint32_t help = 0, int error = 0)
    {
        info.result = MEDIAFILES_REFUSED;
        info.reason = reason;
        info.help = help;
        info.error = error;
        return false;
    }
    void note_journal(const journal_scan &scan)
    {
        info.journal_lost = scan.journal_size() - scan.at;
        info.damage = scan.ending == MEDIAFILES_JOURNAL_DAMAGED ? scan.damage : nullptr;
    }

    uint32_t mdat_size = 0; // as stored; 0: open
};

bool mediafiles_plan::is_ours() const
{
    uint8_t head[MEDIAFILES_HEAD_SIZE];
    return read_all(media, 0, head, sizeof head) && memcmp(head, open_head, mdat_begin) == 0 &&
           memcmp(head + 28, open_head + 28, 4) == 0;
}

// A part of the head was written before the first round of syncs, and nothing else.
bool mediafiles_plan::is_head_alone() const
{
    uint8_t head[MEDIAFILES_HEAD_SIZE];
    const auto size = static_cast<uint32_t>(media.size);
    return media.size < sizeof head && read_all(media, 0, head, size) && memcmp(head, open_head, size) == 0;
}

// Small files alone are looked at.
bool mediafiles_plan::is_zeros() const
{
    if (media.size > largest_leftover) return false;
    window bytes(media, search_window);
    for (uint64_t at = 0; at < media.size; at += search_window) {
        const uint64_t left = media.size - at;
        const uint32_t count = left < search_window ? static_cast<uint32_t>(left) : search_window;
        const uint8_t *part = bytes.view(at, count);
        for (uint32_t i = 0; part && i < count; ++i)
            if (part[i] != 0) return false;
        if (!part) return false;
    }
    return true;
}

void mediafiles_plan::decide()
{
    const bool ours = is_ours();
    if (!ours && !(has_journal && (is_head_alone() || is_zeros()))) return not_ours();
    uint8_t size[4] = {};
    if (ours) read_all(media, mdat_begin, size, sizeof size);
    mdat_size = be32(size);
    if (mdat_size == 1) return not_ours(); // the size has 64 bits (ISO/IEC 14496-12 4.2), which the core never writes
    if (media.size > UINT32_MAX) return void(refuse(MEDIAFILES_REASON_TOO_LARGE));

    movie_header header(media);
    const uint64_t end = mdat_begin + uint64_t{mdat_size};
    /* What another program has appended does not matter. */
    uint8_t box[8];
    bool whole = mdat_size >= 8 && end < media.size && read_all(media, end, box, sizeof box);
    whole = whole && be32(box) <= media.size - end;
    if (whole) {
        const uint64_t header_end = end + be32(box);
        whole = header.read(end, header_end) && header.covers(media_begin, end);
        if (!whole && header.is_of_another_program(end, header_end)) return not_ours();
    }
    out_of_memory = out_of_memory || header.out_of_memory();
    if (!has_journal) return decide_without_journal(header, whole);
    if (journal.size > largest_journal)
        return whole ? finished(false, true) : void(refuse(MEDIAFILES_REASON_JOURNAL_DAMAGED));

    journal_scan scan(journal, &media);
    record next;
    while (scan.next(next)) {}
    note_journal(scan);
    info.journal_end = scan.end;
    if (scan.samples == 0)
        decide_without_samples(scan, header, ours, whole);
    else if (!ours)
        not_ours();
    else if (whole)
        decide_beside_finished(scan, header, end);
    else
        decide_by_journal(scan, header);
    info.is_protected = scan.is_protected && !info.foreign;
    out_of_memory = out_of_memory || scan.out_of_memory() || header.out_of_memory();
}

void mediafiles_plan::decide_without_journal(movie_header &header, bool whole)
{
    if (whole) return finished(false);
    if (mdat_size == 0 && completes_size(header, media_begin)) return;
    refuse(MEDIAFILES_REASON_NO_JOURNAL);
}

// A journal of zeros was never written, one that ends inside its first records was being written: no round of syncs
// was ever complete. One that cannot be read may name all. Where mdat has a size its samples were all there.
void mediafiles_plan::decide_without_samples(journal_scan &scan, movie_header &header, bool ours, bool whole)
{
    const bool unharmed = !scan.damage && !scan.is_unreadable();
    if (whole) return finished(unharmed, !unharmed);
    if (ours && mdat_size == 0 && completes_size(header, media_begin)) {
        info.journal = unharmed ? MEDIAFILES_JOURNAL_REMOVED : MEDIAFILES_JOURNAL_KEPT;
        return;
    }
    if (!unharmed) {
        info.damage = scan.damage;
        return void(refuse(MEDIAFILES_REASON_JOURNAL_DAMAGED));
    }
    constexpr uint32_t without_samples = 8; // the header of mdat alone
    const bool closed = mdat_size != 0 && mdat_size != without_samples;
    if (closed || media.size > largest_leftover) return void(refuse(MEDIAFILES_REASON_NO_SAMPLES));
    info.result = MEDIAFILES_EMPTY_REMOVED;
    info.journal = MEDIAFILES_JOURNAL_REMOVED;
}

void mediafiles_plan::decide_beside_finished(journal_scan &scan, movie_header &header, uint64_t end)
{
    if (scan.has_repair_mark && scan.repair.completed) return finished(false);
    const uint64_t samples = scan.samples;
    const bool reaches = scan.media_end == end;
    if (scan.ending == MEDIAFILES_JOURNAL_DAMAGED || !is_part_of(scan, header)) return finished(false, true);
    if (!reaches) return finished(true);
    /* A repair was cut off, and what it wrote may not be on the medium: it writes the same once more. */
    if (scan.has_repair_mark) return decide_by_journal(scan, header);
    const int error = tail.replay(scan, samples, media);
    out_of_memory = error == ENOMEM;
    if (error != 0 || tail_is_there(end) || has_sets_of(scan, header)) return finished(true);
    decide_by_journal(scan, header);
}

bool mediafiles_plan::is_part_of(journal_scan &scan, movie_header &header) const
{
    const uint64_t samples = scan.samples;
    for (uint32_t i = 0; i < scan.tracks; ++i)
        if (i >= header.tracks() || header.track(i).kind != codec_of(scan.track[i].type)) return false;
    header.begin_places();
    scan.rewind();
    record next;
    bool same = true;
    while (same && scan.samples < samples && scan.next(next)) {
        if (next.header.kind != MEMENTO_SAMPLE) continue;
        const sample sample = next.as_sample();
        same = header.has_next(sample.track, sample.offset, sample.size);
    }
    while (scan.next(next)) {} // to the end, where its summary stands
    return same;
}

bool mediafiles_plan::has_sets_of(journal_scan &scan, movie_header &header) const
{
    scan.rewind();
    record next;
    while (scan.next(next)) {
        const uint8_t kind = next.header.kind;
        if (kind < MEMENTO_VPS || kind > MEMENTO_PPS) continue;
        const stored_set &first = scan.sets[next.header.track][kind - MEMENTO_VPS];
        if (first.offset != next.offset + sizeof next.header) continue;
        if (!header.has_set(next.header.track, next.payload, next.header.length)) return false;
    }
    return true;
}

// Whether the file ends with the movie header that the replay has made.
bool mediafiles_plan::tail_is_there(uint64_t at) const
{
    struct comparison {
        window file;
        uint64_t at;
    } there = {window(media, compare_window), at};
    if (media.size - at != tail.size()) return false;
    const mediafiles_sink compare = [](void *context, const void *bytes, size_t count) {
        auto &with = *static_cast<comparison *>(context);
        const auto *from = static_cast<const uint8_t *>(bytes);
        for (size_t done = 0; done < count;) {
            const auto part = static_cast<uint32_t>(count - done < compare_window ? count - done : compare_window);
            const uint8_t *stored = with.file.view(with.at, part);
            if (!stored || memcmp(stored, from + done, part) != 0) return -1;
            with.at += part;
            done += part;
        }
        return 0;
    };
    return tail.write(compare, &there) == 0;
}

// A sound movie header that ends the file and whose samples cover all media before it: nothing but the size of mdat
// is missing.
bool mediafiles_plan::completes_size(movie_header &header, uint64_t from)
{
    uint64_t begin = 0;
    if (!header_at_end(header, from, begin)) return false;
    info.result = MEDIAFILES_REPAIRED;
    info.media_end = begin;
    info.file_size = media.size;
    head_alone = true;
    return true;
}

bool mediafiles_plan::header_at_end(movie_header &header, uint64_t from, uint64_t &begin)
{
    if (media.size > largest_search && from < media.size - largest_search) from = media.size - largest_search;
    window bytes(media, search_window);
    uint32_t tried = 0;
    constexpr uint32_t header_size = 8;
    for (uint64_t end = media.size; end >= from + header_size;) {
        const uint64_t left = end - from;
        const uint32_t count = left < search_window ? static_cast<uint32_t>(left) : search_window;
        const uint8_t *part = bytes.view(end - count, count);
        for (uint32_t i = count - header_size + 1; part && i-- > 0;) {
            const uint64_t at = end - count + i;
            if (memcmp(part + i + 4, "moov", 4) != 0 || be32(part + i) != media.size - at) continue;
            if (++tried > most_headers) return false;
            begin = at;
            if (header.read(at, media.size) && header.covers(media_begin, at)) return true;
        }
        if (!part || count < search_window) return false;
        end -= count - (header_size - 1); // a box's header may lie across two windows
    }
    return false;
}

// The samples that begin before the limit.
bool mediafiles_plan::select(journal_scan &scan, uint64_t limit, selection &chosen)
{
    chosen = {};
    scan.rewind();
    record next;
    while (scan.next(next)) {
        if (next.header.kind != MEMENTO_SAMPLE) continue;
        const sample sample = next.as_sample();
        if (sample.offset >= limit) break;
        chosen.samples = scan.samples;
        if (is_video(scan.track[sample.track])) {
            if (next.offset < scan.bounds().recent) chosen.recent = chosen.video + 1;
            ++chosen.video;
        }
        chosen.end = sample.end();
        chosen.record_end = next.end();
    }
    return chosen.samples != 0;
}

// Leaves out the last frame of the first track, and everything from the first sample on that has its time: what the
// core's second repair does.
bool mediafiles_plan::drop_last_frame(journal_scan &scan, selection &chosen)
{
    uint64_t frames = 0;
    int64_t last_time = 0;
    record next;
    scan.rewind();
    while (scan.samples < chosen.samples && scan.next(next)) {
        if (next.header.kind != MEMENTO_SAMPLE || next.header.track != 0) continue;
        ++frames;
        last_time = next.as_sample().time();
    }
    if (frames < 2) return refuse(MEDIAFILES_REASON_NO_FRAME_LEFT);
    selection before;
    scan.rewind();
    while (scan.samples < chosen.samples && scan.next(next)) {
        if (next.header.kind != MEMENTO_SAMPLE) continue;
        const sample sample = next.as_sample();
        if (sample.time() == last_time) break;
        before.samples = scan.samples;
        before.end = sample.end();
        before.record_end = next.end();
    }
    chosen = before;
    return chosen.samples != 0 || refuse(MEDIAFILES_REASON_NO_FRAME_LEFT);
}

// Holds the samples against the media. What was written after the last whole round may be torn: a bad sample ends it.
bool mediafiles_plan::check(journal_scan &scan, movie_header &header, uint64_t limit, selection &chosen)
{
    mediafiles_source present = media;
    present.size = limit;
    const check_result found = check_media(scan, present, chosen, options & MEDIAFILES_CHECK_ALL, ranges);
    if (found.out_of_memory) return out_of_memory = true, false;
    if (ranges.count() == 0) return true;
    if (completes_beside(scan, header, media_begin)) return false;
    if (options & MEDIAFILES_KEEP_DAMAGED) return true;
    if (found.first_video) return refuse(MEDIAFILES_REASON_FOREIGN_JOURNAL, MEDIAFILES_KEEP_DAMAGED);
    if (!found.torn && !(options & MEDIAFILES_SALVAGE))
        return refuse(MEDIAFILES_REASON_MEDIA_DAMAGED, MEDIAFILES_SALVAGE | MEDIAFILES_KEEP_DAMAGED);
    const uint64_t end = chosen.end < limit ? chosen.end : limit;
    chosen = found.before;
    ranges.clear();
    if (found.torn) {
        info.journal_end = chosen.record_end;
        info.journal_lost = scan.journal_size() - chosen.record_end;
        return true;
    }
    if (!ranges.add(chosen.end, end)) return out_of_memory = true, false;
    return true;
}

bool mediafiles_plan::is_too_much(uint64_t limit)
{
    const uint64_t present = limit - media_begin;
    if (options & MEDIAFILES_FORCE) return false;
    if (info.cut > large_change && info.cut > present / 2)
        return !refuse(MEDIAFILES_REASON_LARGE_CUT, MEDIAFILES_FORCE);
    if (info.added > large_change && info.added > present)
        return !refuse(MEDIAFILES_REASON_LARGE_GROWTH, MEDIAFILES_FORCE);
    return false;
}

bool mediafiles_plan::replay(journal_scan &scan, const selection &chosen)
{
    mediafiles_source kept = media;
    if (kept.size > chosen.end) kept.size = chosen.end;
    const int error = tail.replay(scan, chosen.samples, kept);
    if (scan.samples != chosen.samples || scan.media_end != chosen.end) return refuse(MEDIAFILES_REASON_CHANGED);
    if (error == EFBIG) return refuse(MEDIAFILES_REASON_TOO_LARGE);
    if (error == ENOMEM) return out_of_memory = true, false;
    return error == 0 || refuse(MEDIAFILES_REASON_CANNOT_REPLAY, 0, error);
}

// Where the size of mdat alone is missing, by a header that begins after that offset.
bool mediafiles_plan::completes_beside(journal_scan &scan, movie_header &header, uint64_t from)
{
    record next;
    while (scan.next(next)) {} // to the end, where the summary stands
    if (mdat_size != 0 || scan.has_repair_mark || from >= media.size || !completes_size(header, from)) return false;
    const bool part = scan.ending != MEDIAFILES_JOURNAL_DAMAGED && is_part_of(scan, header);
    info.journal = part ? MEDIAFILES_JOURNAL_REMOVED : MEDIAFILES_JOURNAL_KEPT;
    info.foreign = !part;
    return true;
}

void mediafiles_plan::decide_by_journal(journal_scan &scan, movie_header &header)
{
    record next;
    while (scan.next(next)) {} // to the end, where the summary stands
    const bool damaged = scan.ending == MEDIAFILES_JOURNAL_DAMAGED;
    const bool marked = scan.has_repair_mark;
    const repair_mark before = scan.repair;
    const uint64_t journal_media_end = scan.media_end;
    /* The journal of another recording may reach into the movie header. Where there is video, that shows below. */
    bool video = false;
    for (uint32_t i = 0; i < scan.tracks; ++i) video = video || is_video(scan.track[i]);
    const bool own = video && journal_media_end <= media.size;
    if (completes_beside(scan, header, own ? journal_media_end : media_begin)) return;
    if (damaged && !(options & MEDIAFILES_SALVAGE))
        return void(refuse(MEDIAFILES_REASON_JOURNAL_DAMAGED, MEDIAFILES_SALVAGE));

    /* A repair that was begun may have cut the media, and lengthened it with zeros and with a movie header. */
    const bool begun =
        marked && media.size >= (before.media_size < journal_media_end ? before.media_size : journal_media_end);
    const uint64_t stored = begun ? before.media_size : media.size;
    const uint64_t limit = begun ? stored : readable_end(media, media_begin, stored);
    selection chosen;
    if (!select(scan, limit, chosen)) return void(refuse(MEDIAFILES_REASON_MEDIA_DAMAGED));
    if (!check(scan, header, limit, chosen)) return;
    const uint64_t named = chosen.end;
    const bool drop = (options & MEDIAFILES_DROP_LAST_FRAME) && !(begun && before.dropped_frame);
    if (drop && !drop_last_frame(scan, chosen)) return;
    info.cut = limit > chosen.end ? limit - chosen.end : 0;
    info.added = chosen.end > limit ? chosen.end - limit : 0;
    info.media_end = chosen.end;
    if ((drop || !begun) && is_too_much(limit)) return;
    if (!replay(scan, chosen)) return;

    /* The media was complete and its end is not named: the header that named it is torn. */
    const uint64_t closed = mdat_begin + uint64_t{mdat_size};
    const bool unnamed = !begun && mdat_size != 0 && named < closed;
    if (unnamed && ranges.count() == 0) {
        const uint64_t end = closed < media.size ? closed : media.size;
        if (named < end && !ranges.add(named, end)) out_of_memory = true;
    }
    mark = {static_cast<uint32_t>(limit), drop || (begun && before.dropped_frame), false};
    continues = marked;
    info.result = damaged || unnamed || ranges.count() != 0 ? MEDIAFILES_SALVAGED : MEDIAFILES_REPAIRED;
    info.journal = MEDIAFILES_JOURNAL_REMOVED;
    info.journal_end = chosen.record_end;
    info.samples = chosen.samples;
    info.info = tail.info();
    info.file_size = info.info.fileSize;
    info.ranges = ranges.count();
}

namespace mediafiles::recovery {

::mediafiles::recovery::repair_mark mark_of(const mediafiles_plan &plan, bool completed)
{
    repair_mark mark = plan.mark;
    mark.completed = completed;
    return mark;
}

const mediafiles_source &media_of(const mediafiles_plan &plan)
{
    return plan.media;
}

const mediafiles_source *journal_of(const mediafiles_plan &plan)
{
    return plan.has_journal ? &plan.journal : nullptr;
}

bool writes_head_alone(const mediafiles_plan &plan)
{
    return plan.head_alone;
}

bool continues_repair(const mediafiles_plan &plan)
{
    return plan.continues;
}

namespace {

bool keeps_media(const mediafiles_plan &plan)
{
    return plan.info.result == MEDIAFILES_REPAIRED || plan.info.result == MEDIAFILES_SALVAGED;
}

int refuse(int error)
{
    errno = error;
    return -1;
}

} // namespace
} // namespace mediafiles::recovery

mediafiles_plan *mediafiles_plan_create(const mediafiles_source *media, const mediafiles_source *journal,
                                        uint32_t options)
{
    auto *plan = new (std::nothrow) mediafiles_plan(*media, journal, options & all_options);
    if (!plan) return refuse(ENOMEM), nullptr;
    plan->decide();
    if (!plan->out_of_memory) return plan;
    delete plan;
    return refuse(ENOMEM), nullptr;
}

void mediafiles_plan_destroy(mediafiles_plan *plan)
{
    delete plan;
}

void mediafiles_plan_get(const mediafiles_plan *plan, mediafiles_plan_info *info)
{
    const uint32_t size = info->size;
    memset(info, 0, size);
    memcpy(info, &plan->info, size < sizeof plan->info ? size : sizeof plan->info);
    info->size = size;
}

int mediafiles_plan_range(const mediafiles_plan *plan, uint32_t index, mediafiles_range *range)
{
    if (index >= plan->info.ranges) return refuse(EINVAL);
    *range = plan->ranges[index];
    return 0;
}

int mediafiles_plan_head(const mediafiles_plan *plan, uint8_t head[MEDIAFILES_HEAD_SIZE])
{
    if (!keeps_media(*plan)) return refuse(EINVAL);
    memcpy(head, open_head, MEDIAFILES_HEAD_SIZE);
    store_be32(head + mdat_begin, static_cast<uint32_t>(plan->info.media_end - mdat_begin));
    return 0;
}

int mediafiles_plan_tail(const mediafiles_plan *plan, mediafiles_sink sink, void *context)
{
    if (!keeps_media(*plan)) return refuse(EINVAL);
    if (!plan->head_alone) return plan->tail.write(sink, context);
    window stored(plan->media, search_window);
    for (uint64_t at = plan->info.media_end; at < plan->media.size;) {
        const uint64_t left = plan->media.size - at;
        const uint32_t count = left < search_window ? static_cast<uint32_t>(left) : search_window;
        const uint8_t *bytes = stored.view(at, count);
        if (!bytes) return refuse(EIO);
        if (sink(context, bytes, count) != 0) return -1;
        at += count;
    }
    return 0;
}

const char *mediafiles_reason_text(uint32_t reason)
{
    static constexpr const char *texts[] = {
        "",
        "it was cut off, and there is no journal that names its frames",
        "its journal lists no frame",
        "its journal is damaged",
        "its audio or video data is damaged",
        "its journal is of another recording, or its data is damaged from the first frame on",
        "its journal lists less than half of it",
        "its journal lists more than twice what is there",
        "nothing would be left without the last frame",
        "it is larger than a recording can be (4 GiB)",
        "no movie can be made of the frames that its journal lists",
        "another process is recording or repairing it",
        "the output exists already",
        "its media file is missing",
        "it is a link, has several hard links, or is not a regular file",
        "a system call failed",
        "it changed while it was read",
        "stopped",
    };
    return reason < sizeof texts / sizeof *texts ? texts[reason] : "";
}
