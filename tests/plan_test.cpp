/**
 * The plan of a repair: every state that a cut leaves of a file's end and of its journal's, damage, and hostile input.
 * The judges are the strict reader, what was recorded, and mp4_fix.
 */
#include <malloc.h>

#include <gtest/gtest.h>

#include <mediafiles/fix.h>

#include "recorder/journal-marks.h"
#include "support/planned.h"
#include "support/power-cut.h"

namespace {

const mp4_track_desc avc = {MP4_TRACK_H264, {{640, 360, 0}}}, hevc = {MP4_TRACK_H265, {{640, 360, 0}}},
                     aac = {MP4_TRACK_AAC, {{2, 16, 48000}}};

/* One track of each kind of size, and of lengths that put the movie header over several units of 4 KiB. */
const recipe recipes[] = {
    {"avc-aac", {{"h264_base_640x360_25.h264", 40, avc}, {"aac_lc_48000_2.aac", 60, aac}}, 4096, 290, 7, 1},
    {"hevc-late", {{"aac_lc_48000_2.aac", 0, aac}, {"h265_aud_sei_640x360_25.h265", 90, hevc}}, 65536, 230, 9, 1},
    {"hevc", {{"h265_cra_2slices_640x360_30.h265", 0, hevc}}, 65536, 25, 4, 1},
    {"aac", {{"aac_lc_48000_2.aac", 0, aac}}, 512, 180, 5, 1},
};

/** A recording with its journal, without and with the marks of rounds. */
struct recorded : recording {
    bytes closed, journal, marked;
    std::vector<size_t> rounds = {0}; // where they end in the journal with marks

    explicit recorded(recording &&from) : recording(std::move(from)), closed(states.back().media)
    {
        for (const state &now : states) {
            if (now.journal.size() == journal.size()) continue;
            const bytes round(now.journal.begin() + std::ptrdiff_t(journal.size()), now.journal.end());
            bytes mark(MEDIAFILES_ROUND_MARK_SIZE);
            mediafiles_round_mark(mark.data(), uint32_t(rounds.size()), now.media.size(), round.data(), round.size());
            overlay(marked, marked.size(), round);
            overlay(marked, marked.size(), mark);
            rounds.push_back(marked.size());
            journal = now.journal;
        }
    }
};

const std::vector<recorded> &recordings()
{
    static const std::vector<recorded> all = [] {
        std::vector<recorded> made;
        for (const recipe &p : recipes)
            for (recording &r : recordings_of(p, STREAMS, fault::none)) made.emplace_back(std::move(r));
        return made;
    }();
    return all;
}

/** Keeps what the core prints away, but not what failed. */
struct silence {
    silence() { testing::internal::CaptureStdout(); }
    ~silence()
    {
        const std::string said = testing::internal::GetCapturedStdout();
        const size_t failure = said.find("Failure");
        if (failure != said.npos) fprintf(stderr, "%.9000s\n", &said[failure]);
    }
};

template <class Record>
Record sized()
{
    Record record = {};
    record.size = sizeof record;
    return record;
}

bytes first(const bytes &all, size_t count)
{
    return bytes(all.begin(), all.begin() + std::ptrdiff_t(std::min(count, all.size())));
}

bytes with(bytes all, size_t at, const bytes &data)
{
    overlay(all, at, data);
    return all;
}

/** What the core's repair makes of both files; empty when it refuses. */
bytes fixed(const bytes &media, const bytes &journal, int version = 1)
{
    const descriptor file, log;
    fill(file, media);
    fill(log, journal);
    const auto fix = version == 1 ? mp4_fix : mp4_fix2;
    return fix(path_of(file).c_str(), path_of(log).c_str(), nullptr, nullptr) == 0 ? file_content(file) : bytes();
}

/** The samples that a file shows, in its order: track, offset, size, key. */
using shown = std::vector<std::tuple<uint64_t, size_t, uint32_t, bool>>;

shown samples_of(const mp4::file &file)
{
    shown out;
    for (size_t i = 0; i < file.tracks.size(); i++)
        for (const mp4::sample &s : file.tracks[i].samples) out.emplace_back(s.offset, i, s.size, s.sync);
    return std::ranges::sort(out), out;
}

/** How many samples of a recording the file holds, with the bytes that were recorded; -1 if it holds anything else. */
long kept_of(const recording &r, const bytes &file)
{
    const mp4::file read = mp4::read(file);
    const shown got = samples_of(read);
    if (!read.sound() || got.size() > r.samples.size()) return -1;
    for (size_t i = 0; i < got.size(); i++) {
        const sample &s = r.samples[i];
        if (got[i] != shown::value_type{s.offset, s.track, s.size, s.key != 0}) return -1;
        if (memcmp(&file[s.offset], &r.open[s.offset], s.size) != 0) return -1;
    }
    return static_cast<long>(got.size());
}

/** The number of samples whose records end within so many bytes of a journal. */
long named_in(const bytes &journal, size_t size)
{
    return std::ranges::count(model::read(first(journal, size)).records, MEMENTO_SAMPLE, &model::record::kind);
}

std::string text_of(const planned &p)
{
    return "result " + std::to_string(p.info.result) + ", reason " + std::to_string(p.info.reason) + ", samples " +
           std::to_string(p.info.samples) + ", ranges " + std::to_string(p.info.ranges) + ", journal " +
           std::to_string(p.info.journal) + ": " + (p.info.damage ? p.info.damage : "");
}

/* ---- the end of a file that was being closed ---- */

/** Every state between a file that is open and one that is closed: units of its end and its head in and out of order. */
template <class Use>
void for_each_close(const recorded &r, const bytes &other, const Use &use)
{
    const size_t begin = r.open.size(), end = r.closed.size();
    for (const bool head : {false, true}) {
        const bytes whole = head ? r.closed : with(r.closed, 24, bytes(4));
        for (size_t size = begin; size <= end; size++)
            if (size % 64 < 2 || end - size < 64 || size - begin < 64) use(first(whole, size), head);
        for (const size_t unit : {512, 4096})
            for (size_t from = begin / unit * unit; from < end; from += unit)
                for (const size_t to : {from + unit, end})
                    for (const std::string way : {"zero", "old", "alone"}) {
                        bytes torn = whole;
                        for (size_t at = begin; at < end; at++) {
                            const bool inside = at >= from && at < to;
                            if (inside == (way == "alone")) continue;
                            torn[at] = way == "old" ? other[at % other.size()] : uint8_t(0);
                        }
                        use(torn, head);
                    }
    }
}

TEST(plan, decides_every_state_of_a_close)
{
    const silence quiet;
    size_t cases = 0, finished = 0, repaired = 0, salvaged = 0, refused = 0;
    for (size_t i = 0; i < recordings().size(); i++) {
        const recorded &r = recordings()[i], &foreign = recordings()[(i + 1) % recordings().size()];
        const bytes stale = first(r.journal, r.journal.size() * 2 / 3 / 28 * 28), empty, zeros(4096);
        const bytes damaged = with(r.marked, r.rounds[r.rounds.size() / 2] + 3, hex("FF"));
        const struct {
            const char *what;
            const bytes *journal;
        } journals[] = {
            {"complete", &r.journal}, {"marked", &r.marked}, {"stale", &stale}, {"empty", &empty},
            {"zeros", &zeros},        {"damaged", &damaged}, {"none", nullptr}, {"foreign", &foreign.journal}};
        for_each_close(r, foreign.closed, [&](const bytes &file, bool head) {
            const mp4::file judged = mp4::read(file);
            const bool whole = head && judged.sound() && kept_of(r, file) == long(r.samples.size());
            const bool body =
                kept_of(r, with(file, 24, first(bytes(&r.closed[24], &r.closed[28]), 4))) == long(r.samples.size());
            for (const auto &[what, journal] : journals) {
                cases++;
                const planned p = plan_of(file, journal);
                const std::string kind = what, told = r.name + ", " + what + " journal, " + (head ? "closed" : "open") +
                                                      ", " + std::to_string(file.size()) + " of " +
                                                      std::to_string(r.closed.size()) + ": " + text_of(p);
                const uint32_t result = p.info.result;
                finished += result == MEDIAFILES_FINISHED;
                repaired += result == MEDIAFILES_REPAIRED;
                salvaged += result == MEDIAFILES_SALVAGED;
                refused += result == MEDIAFILES_REFUSED;
                ASSERT_TRUE(file != r.closed || result == MEDIAFILES_FINISHED) << told;
                if (result == MEDIAFILES_FINISHED) {
                    ASSERT_TRUE(whole) << told;
                    ASSERT_EQ(p.info.journal, !journal                                 ? MEDIAFILES_JOURNAL_NONE
                                              : kind == "damaged" || kind == "foreign" ? MEDIAFILES_JOURNAL_KEPT
                                                                                       : MEDIAFILES_JOURNAL_REMOVED)
                        << told;
                    continue;
                }
                const bool complete = kind == "complete" || kind == "marked";
                if (complete || (!head && body)) {
                    ASSERT_EQ(result, MEDIAFILES_REPAIRED) << told;
                    ASSERT_EQ(kept_of(r, p.file), long(r.samples.size())) << told;
                    ASSERT_TRUE(!complete || p.file == r.closed) << told;
                } else if (kind == "stale") {
                    ASSERT_EQ(result, head ? MEDIAFILES_SALVAGED : MEDIAFILES_REPAIRED) << told;
                    ASSERT_TRUE(!head || (p.ranges.size() == 1 && p.ranges[0].begin == p.info.media_end &&
                                          p.ranges[0].end == r.open.size()))
                        << told;
                    ASSERT_TRUE(p.file == fixed(file, stale)) << told;
                    ASSERT_EQ(kept_of(r, p.file), named_in(stale, stale.size())) << told;
                } else if (kind == "empty" || kind == "zeros") {
                    ASSERT_EQ(result, head ? MEDIAFILES_REFUSED : MEDIAFILES_EMPTY_REMOVED) << told;
                } else if (kind == "damaged") {
                    ASSERT_EQ(p.info.reason, MEDIAFILES_REASON_JOURNAL_DAMAGED) << told;
                } else if (kind == "none") {
                    ASSERT_EQ(p.info.reason, MEDIAFILES_REASON_NO_JOURNAL) << told;
                } else if (foreign.name != "aac") { // in sound alone nothing shows whose it is
                    ASSERT_EQ(p.info.reason, MEDIAFILES_REASON_FOREIGN_JOURNAL) << told;
                }
            }
        });
    }
    fprintf(stderr, "%zu states of a close: %zu finished, %zu repaired, %zu salvaged, %zu refused\n", cases, finished,
            repaired, salvaged, refused);
}

/* Files that begin as ours, with a header that the core never writes: no journal changes them. */
TEST(plan, leaves_alone_what_other_programs_have_written)
{
    const silence quiet;
    const recorded &r = recordings().front();
    const std::string text(r.closed.begin(), r.closed.end());
    const auto at = [&](const char *box) { return text.find(box, r.open.size()); };
    const bytes stale = first(r.journal, r.journal.size() / 2 / 28 * 28), empty;
    const struct {
        const char *what;
        bytes file;
        uint32_t result;
    } cases[] = {{"a size of 64 bits", with(r.closed, 24, hex("00000001")), MEDIAFILES_NOT_OURS},
                 {"ctts", with(r.closed, at("stss"), hex("'ctts'")), MEDIAFILES_NOT_OURS},
                 {"hvc1", with(r.closed, at("avc1"), hex("'hvc1'")), MEDIAFILES_NOT_OURS},
                 {"udta, and no samples", with(r.closed, at("mdia"), hex("'udta'")), MEDIAFILES_NOT_OURS},
                 {"udta, and all samples", with(r.closed, at("iods"), hex("'udta'")), MEDIAFILES_FINISHED}};
    for (const auto &c : cases)
        for (const bytes *journal : {static_cast<const bytes *>(nullptr), &empty, &stale, &r.journal})
            EXPECT_EQ(plan_of(c.file, journal).info.result, c.result) << c.what;
    /* Damage: a sector was lost that begins at a type. */
    EXPECT_EQ(plan_of(with(r.closed, at("stss"), hex("00000000")), &r.journal).file, r.closed);
    EXPECT_EQ(plan_of(with(r.closed, 24, hex("00000005")), &empty).info.reason, MEDIAFILES_REASON_NO_SAMPLES);
}

/* ---- the end of a journal ---- */

/** What stands in a journal from an offset on, after a cut. */
bytes torn(const bytes &journal, size_t at, const std::string &way, const bytes &old)
{
    bytes out = first(journal, at);
    if (way == "cut") return out;
    for (size_t i = at; i < journal.size(); i++)
        out.push_back(way == "zeros"  ? uint8_t(0)
                      : way == "junk" ? uint8_t(i * 2654435761u >> 13)
                                      : old[i % old.size()]);
    if (way == "sector") // of zeros; what follows it has reached the medium
        for (size_t i = at; i < journal.size(); i++) out[i] = i < (at / 512 + 1) * 512 ? uint8_t(0) : journal[i];
    return out;
}

TEST(plan, uses_the_valid_records_of_a_torn_journal)
{
    const silence quiet;
    size_t cases = 0, lost = 0, wrong = 0;
    for (size_t i = 0; i < recordings().size(); i++) {
        const recorded &r = recordings()[i], &other = recordings()[(i + 2) % recordings().size()];
        const size_t rounds = r.rounds.size();
        for (const bool marked : {true, false}) {
            const bytes &journal = marked ? r.marked : r.journal;
            const size_t last = marked ? r.rounds[rounds - 2] : journal.size() - std::min<size_t>(journal.size(), 1000);
            for (size_t at = last; at <= journal.size(); at++)
                for (const std::string way : {"cut", "zeros", "junk", "old", "sector"}) {
                    if (way == "sector" && at % 512 != 0) continue;
                    const bytes left = torn(journal, at, way, marked ? other.marked : other.journal);
                    const planned p = plan_of(r.open, &left);
                    const long whole = named_in(journal, at), kept = kept_of(r, p.file);
                    const std::string told = r.name + (marked ? ", marked, " : ", ") + way + " from " +
                                             std::to_string(at) + " of " + std::to_string(journal.size()) + ": " +
                                             text_of(p) + ", kept " + std::to_string(kept) + " of " +
                                             std::to_string(whole);
                    cases++;
                    if (whole == 0) continue;
                    ASSERT_EQ(p.info.result, MEDIAFILES_REPAIRED) << told;
                    /* The record in which other bytes begin may be taken for what it is not, its place apart. */
                    wrong += kept < 0;
                    ASSERT_TRUE(kept >= whole || (kept < 0 && (way == "junk" || way == "old"))) << told;
                    lost += size_t(kept >= 0 && kept < named_in(journal, journal.size()));
                }
        }
    }
    fprintf(stderr, "%zu torn journals: %zu without all samples, %zu with a last sample of wrong bytes\n", cases, lost,
            wrong);
}

TEST(plan, tells_damage_from_a_torn_end)
{
    const silence quiet;
    const recorded &r = recordings()[0], &other = recordings()[1];
    const size_t rounds = r.rounds.size(), middle = r.rounds[rounds / 2], end = r.marked.size();
    const auto mark = [](uint32_t number, uint64_t size, const bytes &round) {
        bytes made(MEDIAFILES_ROUND_MARK_SIZE);
        mediafiles_round_mark(made.data(), number, size, round.data(), round.size());
        return made;
    };
    const auto all = uint32_t(rounds); // above the last one's number
    const bytes before = first(r.marked, middle), junk = random_bytes(600), none;
    const auto then = [](bytes from, std::initializer_list<bytes> more) {
        for (const bytes &each : more) overlay(from, from.size(), each);
        return from;
    };
    const bytes user = hex("00000400 01020304");
    const struct {
        const char *what;
        bytes journal;
        bool damaged;
    } cases[] = {
        {"a byte of a record", with(r.marked, middle + 20, hex("77")), true},
        {"a length that is none", with(r.marked, middle + 2, hex("FFFF")), true},
        {"a record that ends after the journal, rounds after it",
         then(first(r.marked, r.rounds[rounds - 5]), {hex("0000FC01"), bytes(r.marked.end() - 400, r.marked.end())}),
         true},
        {"the last round's mark", with(r.marked, end - 8, hex("77")), false},
        {"junk in the last round, whose mark is there", with(r.marked, r.rounds[rounds - 2], random_bytes(28)), false},
        {"old rounds of more media, in the places of records",
         then(before, {mark(all + 5, 1u << 30, none), user, mark(all + 6, 1u << 30, user)}), false},
        {"old rounds of lower numbers", then(before, {junk, mark(2, 900, none), user, mark(3, 950, user)}), false},
        {"old rounds of less media", then(before, {junk, mark(all + 2, 40, none), user, mark(all + 3, 50, user)}),
         false},
        {"old rounds of more media", then(before, {junk, mark(all + 5, 1u << 30, none)}), false},
        {"old rounds between records",
         then(before, {user, mark(2, r.open.size(), none), user, mark(3, r.open.size(), user)}), false},
        {"later rounds after junk", then(before, {junk, mark(all + 2, r.open.size(), none)}), true},
        {"a mark twice", then(r.marked, {bytes(r.marked.end() - MEDIAFILES_ROUND_MARK_SIZE, r.marked.end())}), false},
        {"4 KiB before the end, unmarked", with(r.journal, r.journal.size() - 4097 - 28 * 4, hex("77 77 77 77 77")),
         true},
        {"zeros after a torn record, unmarked", then(first(r.journal, 3000), {hex("02005000"), bytes(8192)}), false},
    };
    for (const auto &[what, journal, damaged] : cases) {
        const planned p = plan_of(r.open, &journal);
        EXPECT_EQ(p.info.result, damaged ? MEDIAFILES_REFUSED : MEDIAFILES_REPAIRED) << what << text_of(p);
        EXPECT_EQ(p.info.reason, damaged ? MEDIAFILES_REASON_JOURNAL_DAMAGED : 0) << what;
        EXPECT_EQ(p.info.help, damaged ? MEDIAFILES_SALVAGE : 0) << what;
        EXPECT_TRUE(damaged || kept_of(r, p.file) > 0) << what;
        const planned salvaged = plan_of(r.open, &journal, MEDIAFILES_SALVAGE);
        EXPECT_EQ(salvaged.info.result, damaged ? MEDIAFILES_SALVAGED : MEDIAFILES_REPAIRED) << what;
        const bytes &whole = std::string(what).ends_with("unmarked") ? r.journal : r.marked;
        const auto same = size_t(std::ranges::mismatch(journal, whole).in1 - journal.begin());
        EXPECT_GE(kept_of(r, salvaged.file), named_in(journal, std::min(same, middle))) << what;
    }
    EXPECT_EQ(plan_of(r.open, &other.marked, MEDIAFILES_SALVAGE).info.reason, MEDIAFILES_REASON_FOREIGN_JOURNAL);
}

/* ---- the media ---- */

TEST(plan, keeps_what_the_media_holds)
{
    const silence quiet;
    const recorded &r = recordings()[0];
    const size_t all = r.samples.size();
    size_t bad = all / 2; // a video sample in the middle
    while (r.samples[bad].track != 0) bad++;
    const size_t at = r.samples[bad].offset, end = r.samples[bad].offset + r.samples[bad].size;
    const bytes damaged = with(r.open, at, hex("7FFFFFFF")), foreign = with(r.open, 32, hex("7FFFFFFF"));
    size_t latest = all;
    while (r.samples[--latest].track != 0) {}
    const bytes torn_media = with(r.open, r.samples[latest].offset, bytes(4));
    const bytes open_head = first(r.open, 32), closed = with(r.open, 24, hex("0000FFFF")), none, zeros(100);
    const struct {
        const char *what;
        const bytes &media;
        const bytes *journal;
        uint32_t options, result, reason;
        size_t kept;
    } cases[] = {
        {"damage", damaged, &r.marked, MEDIAFILES_CHECK_ALL, MEDIAFILES_REFUSED, MEDIAFILES_REASON_MEDIA_DAMAGED, 0},
        {"salvaged", damaged, &r.marked, MEDIAFILES_SALVAGE | MEDIAFILES_CHECK_ALL, MEDIAFILES_SALVAGED, 0, bad},
        {"kept", damaged, &r.marked, MEDIAFILES_KEEP_DAMAGED | MEDIAFILES_CHECK_ALL, MEDIAFILES_SALVAGED, 0, all},
        {"the first sample", foreign, &r.marked, MEDIAFILES_SALVAGE, MEDIAFILES_REFUSED,
         MEDIAFILES_REASON_FOREIGN_JOURNAL, 0},
        {"after the last whole round", torn_media, &r.journal, 0, MEDIAFILES_REPAIRED, 0, latest},
        {"in the last whole round", torn_media, &r.marked, 0, MEDIAFILES_REFUSED, MEDIAFILES_REASON_MEDIA_DAMAGED, 0},
        {"torn, but kept", torn_media, &r.journal, MEDIAFILES_KEEP_DAMAGED, MEDIAFILES_SALVAGED, 0, all},
        {"no media at all", open_head, &r.journal, 0, MEDIAFILES_REFUSED, MEDIAFILES_REASON_MEDIA_DAMAGED, 0},
        {"no journal", r.open, nullptr, 0, MEDIAFILES_REFUSED, MEDIAFILES_REASON_NO_JOURNAL, 0},
        {"empty journal", r.open, &none, 0, MEDIAFILES_EMPTY_REMOVED, 0, 0},
        {"empty journal, torn end", closed, &none, 0, MEDIAFILES_REFUSED, MEDIAFILES_REASON_NO_SAMPLES, 0},
        {"both empty", none, &none, 0, MEDIAFILES_EMPTY_REMOVED, 0, 0},
        {"zeros", zeros, &none, 0, MEDIAFILES_EMPTY_REMOVED, 0, 0},
        {"zeros, a journal with samples", zeros, &r.journal, 0, MEDIAFILES_NOT_OURS, 0, 0},
        {"an empty file alone", none, nullptr, 0, MEDIAFILES_NOT_OURS, 0, 0},
        {"another file, an empty journal", foreign.size() ? r.journal : none, &none, 0, MEDIAFILES_NOT_OURS, 0, 0},
    };
    for (const auto &c : cases) {
        const planned p = plan_of(c.media, c.journal, c.options);
        EXPECT_EQ(p.info.result, c.result) << c.what << ": " << text_of(p);
        EXPECT_EQ(p.info.reason, c.reason) << c.what;
        EXPECT_EQ(p.info.samples, c.kept) << c.what;
    }
    for (size_t size = 0; size < 32; size++) {
        const bytes part = first(r.open, size);
        EXPECT_EQ(plan_of(part, &none).info.result, MEDIAFILES_EMPTY_REMOVED) << size;
        EXPECT_EQ(plan_of(part, nullptr).info.result, MEDIAFILES_NOT_OURS) << size;
    }
    const uint32_t keep = MEDIAFILES_KEEP_DAMAGED | MEDIAFILES_CHECK_ALL,
                   salvage = MEDIAFILES_SALVAGE | MEDIAFILES_CHECK_ALL;
    const auto range = plan_of(damaged, &r.marked, keep).ranges, rest = plan_of(damaged, &r.marked, salvage).ranges;
    ASSERT_TRUE(range.size() == 1 && rest.size() == 1);
    EXPECT_TRUE(range[0].begin == at && range[0].end == end);
    EXPECT_TRUE(rest[0].begin == at && rest[0].end == r.open.size());

    /* Another program has added something; a journal reaches into a movie header that the size of mdat lacks. */
    EXPECT_EQ(plan_of(with(r.closed, r.closed.size(), hex("00000008 'free'")), &r.journal).info.result,
              MEDIAFILES_FINISHED);
    const recorded &video = recordings()[2];
    bytes reaching = video.journal;
    reaching[reaching.size() - 20] ^= 0x40;
    const planned own = plan_of(with(video.closed, 24, bytes(4)), &reaching);
    EXPECT_TRUE(own.info.result == MEDIAFILES_REPAIRED && own.file == video.closed) << text_of(own);

    /* What cannot be read is the end; a bad block before the end is damage. */
    const auto unreadable = [&](mediafiles_range of_media, mediafiles_range of_journal, uint32_t options = 0) {
        planned::input media = {r.open}, journal = {r.marked};
        media.bad = of_media;
        journal.bad = of_journal;
        return planned(media, &journal, options);
    };
    const mediafiles_range nothing = {UINT64_MAX, UINT64_MAX};
    const uint64_t half = r.open.size() / 2, mid = r.marked.size() / 2;
    const planned chain = unreadable({half, UINT64_MAX}, nothing);
    EXPECT_EQ(chain.info.result, MEDIAFILES_REPAIRED);
    EXPECT_TRUE(chain.info.media_end >= half && chain.info.media_end < half + 3000 && chain.info.samples > 0);
    EXPECT_EQ(unreadable({half, half + 512}, nothing, MEDIAFILES_CHECK_ALL).info.reason,
              MEDIAFILES_REASON_MEDIA_DAMAGED);
    EXPECT_EQ(unreadable({half, half + 512}, nothing, keep).info.samples, all);
    EXPECT_EQ(unreadable(nothing, {mid, mid + 512}).info.reason, MEDIAFILES_REASON_JOURNAL_DAMAGED);
    const planned part = unreadable(nothing, {mid, UINT64_MAX});
    EXPECT_EQ(part.info.samples, uint64_t(named_in(first(r.marked, size_t(mid)), size_t(mid))));
    EXPECT_EQ(part.info.result, MEDIAFILES_REPAIRED);
    EXPECT_EQ(unreadable(nothing, {0, UINT64_MAX}).info.reason, MEDIAFILES_REASON_JOURNAL_DAMAGED);
    EXPECT_EQ(unreadable({0, UINT64_MAX}, nothing).info.result, MEDIAFILES_NOT_OURS);
}

TEST(plan, asks_before_it_cuts_or_adds_a_lot)
{
    const silence quiet;
    const recorded &r = recordings()[0];
    const struct {
        uint64_t media;
        uint32_t last, reason, option;
    } cases[] = {
        {r.open.size() + (64u << 20), 0, 0, 0},
        {r.open.size() + (64u << 20) + 1, 0, MEDIAFILES_REASON_LARGE_CUT, MEDIAFILES_FORCE},
        {UINT32_MAX, 0, MEDIAFILES_REASON_LARGE_CUT, MEDIAFILES_FORCE},
        {uint64_t{UINT32_MAX} + 1, 0, MEDIAFILES_REASON_TOO_LARGE, 0},
        {r.open.size(), 64u << 20, 0, 0},
        {r.open.size(), 65u << 20, MEDIAFILES_REASON_LARGE_GROWTH, MEDIAFILES_FORCE},
    };
    for (const auto &c : cases) {
        bytes journal = r.journal, mark(MEDIAFILES_ROUND_MARK_SIZE);
        for (size_t i = 0; c.last && i < 4; i++) journal[journal.size() - 20 + i] = uint8_t(c.last >> 8 * i);
        mediafiles_round_mark(mark.data(), 1, r.open.size(), journal.data(), journal.size());
        overlay(journal, journal.size(), mark);
        for (const uint32_t option : {0u, c.option}) {
            planned::input media = {r.open, c.media}, beside = {journal};
            const planned p(media, &beside, option);
            EXPECT_EQ(p.info.reason, option ? 0 : c.reason) << c.media << text_of(p);
            EXPECT_TRUE(option || p.info.help == c.option);
        }
    }
}

TEST(plan, leaves_out_the_last_frame_as_the_core_does)
{
    const silence quiet;
    size_t cases = 0;
    for (const recorded &r : recordings())
        for (size_t size = r.open.size(); size > 33; size -= std::min<size_t>(size - 32, r.open.size() / 40)) {
            const bytes media = first(r.open, size), due = fixed(media, r.journal, 2);
            const planned p = plan_of(media, &r.journal, MEDIAFILES_DROP_LAST_FRAME);
            const bool same = p.keeps() ? p.file == due : p.info.reason == MEDIAFILES_REASON_NO_FRAME_LEFT;
            EXPECT_TRUE(same) << r.name << size << text_of(p);
            cases += p.keeps();
        }
    EXPECT_GT(cases, 100u);
}

/** Each state that applying a plan in place goes through leads to the same file again. */
TEST(plan, is_the_same_after_each_step_of_applying_it)
{
    const silence quiet;
    for (const recorded &r : recordings())
        for (const uint32_t options : {0u, MEDIAFILES_DROP_LAST_FRAME}) {
            const bytes media = first(r.open, r.open.size() * 3 / 4);
            const planned due = plan_of(media, &r.marked, options);
            ASSERT_EQ(due.info.result, MEDIAFILES_REPAIRED);
            bytes mark(mediafiles::recovery::repair_mark_size);
            mediafiles::recovery::write_mark({uint32_t(media.size()), options != 0, false}, mark.data());
            const bytes journal =
                with(first(r.marked, size_t(due.info.journal_end)), size_t(due.info.journal_end), mark);
            const auto end = size_t(due.info.media_end);
            std::vector<bytes> states = {media, first(media, end), with(first(media, end), end, bytes())};
            for (const size_t size : {end + 1, end + 512, due.file.size() - 1, due.file.size()}) {
                states.push_back(first(due.file, size));
                states.push_back(with(first(due.file, size), 24, bytes(4)));
                states.push_back(with(due.file, end, bytes(std::min(size, due.file.size()) - end)));
            }
            for (const bytes &state : states) {
                bytes there = state;
                if (there.size() < end) there.resize(end);
                const planned again = plan_of(there, &journal, options);
                EXPECT_EQ(again.info.result, MEDIAFILES_REPAIRED) << r.name << state.size() << text_of(again);
                EXPECT_TRUE(again.file == due.file) << r.name << " " << state.size() << " of " << due.file.size();
                EXPECT_EQ(again.info.journal_end, due.info.journal_end);
            }
            mediafiles::recovery::write_mark({uint32_t(media.size()), options != 0, true}, mark.data());
            const bytes kept = with(journal, size_t(due.info.journal_end), mark);
            const planned after = plan_of(due.file, &kept, options);
            EXPECT_TRUE(after.info.result == MEDIAFILES_FINISHED && after.info.journal == MEDIAFILES_JOURNAL_KEPT);
        }
}

/* ---- parameter sets, records ---- */

TEST(plan, takes_large_parameter_sets_from_the_first_sample)
{
    const silence quiet;
    const auto prefixed = [](const bytes &unit) {
        bytes out = {0, 0, uint8_t(unit.size() >> 8), uint8_t(unit.size())};
        overlay(out, 4, unit);
        return out;
    };
    const struct {
        uint32_t type;
        std::vector<bytes> sets;
        bytes slice;
    } codecs[] = {
        {MP4_TRACK_H264, {hex("6742c01e 80*600"), hex("68eeff3c")}, hex("65 11*40")},
        {MP4_TRACK_H265,
         {hex("40010c01ffff01600000030090000003000003003f928090"),
          hex("42010101600000030090000003000003003fa0050201696592a4932bc04040000003004000000642 80*600"),
          hex("4401c172b46240")},
         hex("2601 11*40")},
    };
    for (const auto &[type, sets, slice] : codecs)
        for (const size_t journaled : {size_t{0}, sets.size() - 1}) { // only the last one, or none
            const descriptor out;
            const journal_ptr caretaker(mediafile_caretaker_create());
            mp4_builder *b = mp4_builder_create();
            const mp4_track_desc desc = {type | MP4_TRACK_RAW, {{640, 360, 0}}};
            ASSERT_EQ(b->add_track(b, &desc), 0);
            ASSERT_EQ(b->open(b, out, 0, caretaker.get()), 0);
            bytes journal = drain(caretaker), sample;
            for (size_t i = 0; i < sets.size(); i++) {
                const size_t kind = (type == MP4_TRACK_H264 ? size_t{MEMENTO_SPS} : size_t{MEMENTO_VPS}) + i;
                const auto set = kind == MEMENTO_VPS   ? mp4_movie_set_track_vps
                                 : kind == MEMENTO_SPS ? mp4_movie_set_track_sps
                                                       : mp4_movie_set_track_pps;
                const bytes &unit = sets[i];
                ASSERT_EQ(set(b->movie, 0, unit.data(), uint32_t(unit.size())), 0);
                overlay(sample, sample.size(), prefixed(unit));
                if (journaled == 0 || i < journaled) continue;
                overlay(journal, journal.size(), {uint8_t(kind), 0, uint8_t(unit.size()), 0});
                overlay(journal, journal.size(), unit);
                journal.resize((journal.size() + 3) / 4 * 4);
            }
            overlay(sample, sample.size(), prefixed(slice));
            for (int i = 0; i < 3; i++) {
                const mp4_frame frame = {0, sample.data(), uint32_t(sample.size()), {i, 0}, 1};
                ASSERT_EQ(b->add_frame(b, &frame), 0);
            }
            overlay(journal, journal.size(), drain(caretaker));
            const bytes open = file_content(out);
            ASSERT_EQ(b->close(b), 0);
            b->destroy(b);
            const bytes closed = file_content(out);
            const planned p = plan_of(open, &journal);
            EXPECT_TRUE(p.info.result == MEDIAFILES_REPAIRED && p.file == closed) << type << text_of(p);
            EXPECT_EQ(p.info.info.tracks[0].desc.type, type | MP4_TRACK_RAW);
            EXPECT_EQ(plan_of(closed, &journal).info.result, MEDIAFILES_FINISHED);
            /* A torn header may be sound but for a parameter set. */
            bytes torn_set = closed;
            const size_t at =
                size_t(std::ranges::search(std::span(torn_set).subspan(open.size()), sets.back()).begin() -
                       std::span(torn_set).begin());
            torn_set[at + sets.back().size() - 1] ^= 0x55;
            const planned again = plan_of(torn_set, &journal);
            EXPECT_TRUE(!journaled || (again.info.result == MEDIAFILES_REPAIRED && again.file == closed));
        }
}

TEST(plan, hands_out_the_records_of_a_journal)
{
    const recorded &r = recordings()[1];
    const model::journal due = model::read(r.marked);
    planned::input input = {r.marked};
    const mediafiles_source source = input.source();
    for (const uint32_t size : {uint32_t(sizeof(mediafiles_journal_record)), 8u}) {
        mediafiles_journal *journal = mediafiles_journal_open(&source, nullptr);
        ASSERT_TRUE(journal);
        uint64_t at = 0;
        for (const model::record &each : due.records) {
            mediafiles_journal_record record;
            memset(&record, 0x5A, sizeof record);
            record.size = size;
            ASSERT_EQ(mediafiles_journal_next(journal, &record), 1);
            ASSERT_TRUE(record.size == size && record.kind == each.kind && record.track == each.track &&
                        record.length == each.payload.size());
            if (size == 8) {
                ASSERT_EQ(record.offset, 0x5A5A5A5A5A5A5A5Au); // an older caller's memory ends before it
                continue;
            }
            ASSERT_TRUE(record.offset == at && std::equal(each.payload.begin(), each.payload.end(), record.payload));
            at = record.end;
        }
        auto record = sized<mediafiles_journal_record>();
        ASSERT_EQ(mediafiles_journal_next(journal, &record), 0);
        auto summary = sized<mediafiles_journal_summary>();
        mediafiles_journal_get_summary(journal, &summary);
        EXPECT_TRUE(summary.ending == MEDIAFILES_JOURNAL_WHOLE && summary.end == r.marked.size() && summary.lost == 0 &&
                    !summary.damage && summary.tracks == 2 && summary.rounds == r.rounds.size() - 1 &&
                    summary.samples == r.samples.size() && summary.media_end == r.open.size() &&
                    summary.track[0].type == MP4_TRACK_AAC);
        mediafiles_journal_close(journal);
    }
    const struct {
        const char *what;
        bytes journal;
        uint32_t ending;
        uint64_t end;
    } ends[] = {
        {"cut", first(r.marked, 30), MEDIAFILES_JOURNAL_CUT, 20},
        {"torn", with(first(r.journal, 40), 40, hex("FF00FFFF")), MEDIAFILES_JOURNAL_TORN, 40},
        {"damaged", with(r.marked, r.rounds[1], hex("FF00FFFF")), MEDIAFILES_JOURNAL_DAMAGED, r.rounds[1]},
    };
    for (const auto &[what, stored, ending, end] : ends) {
        planned::input of = {stored};
        const mediafiles_source from = of.source();
        mediafiles_journal *journal = mediafiles_journal_open(&from, nullptr);
        auto record = sized<mediafiles_journal_record>();
        while (mediafiles_journal_next(journal, &record)) {}
        auto summary = sized<mediafiles_journal_summary>();
        mediafiles_journal_get_summary(journal, &summary);
        EXPECT_EQ(summary.ending, ending) << what;
        EXPECT_EQ(summary.end, end) << what;
        EXPECT_EQ(summary.lost, stored.size() - end) << what;
        mediafiles_journal_close(journal);
    }
    input.bad = {0, UINT64_MAX};
    EXPECT_TRUE(!mediafiles_journal_open(&source, nullptr) && errno == EIO);

    const bytes user = with(hex("00000800"), 4, bytes(8)), both = with(user, 12, r.journal);
    EXPECT_EQ(mediafiles_is_journal(r.journal.data(), r.journal.size()), 1);
    EXPECT_EQ(mediafiles_is_journal(both.data(), both.size()), 1);
    EXPECT_EQ(mediafiles_is_journal(user.data(), user.size()), 0);
    EXPECT_EQ(mediafiles_is_journal(r.closed.data(), r.closed.size()), 0);
    EXPECT_EQ(mediafiles_is_journal(r.journal.data(), 19), 0);
    const bytes zeros(100'000);
    EXPECT_EQ(mediafiles_is_journal(zeros.data(), zeros.size()), 0);
}

/* ---- what it costs ---- */

TEST(plan, takes_forty_bytes_a_sample)
{
    const silence quiet;
    constexpr uint32_t samples = 1'000'000;
    bytes media = recordings()[0].open, journal = first(recordings()[0].journal, 40); // both tracks
    media.resize(32);
    for (uint32_t i = 0; i < samples; i++) {
        const uint32_t track = i % 2, size = 8 + i / 2 % 2, at = uint32_t(media.size());
        bytes unit = {0, 0, 0, uint8_t(size - 4), 0x65, uint8_t(i)};
        unit.resize(size);
        media.insert(media.end(), unit.begin(), unit.end());
        const uint32_t nanoseconds = i % 100 * 10'000'000 + i / 2 % 3 * 1'000'000;
        for (const uint32_t word :
             {MEMENTO_SAMPLE | track << 8 | 24u << 16, at, size, i / 100, 0u, nanoseconds, i / 2 % 2})
            for (int shift = 0; shift < 32; shift += 8) journal.push_back(uint8_t(word >> shift));
    }
    const auto in_use = [] {
        const struct mallinfo2 heap = mallinfo2();
        return heap.uordblks + heap.hblkhd;
    };
    planned::input from = {media}, beside = {journal};
    size_t peak = 0, passes = 0;
    from.reading = [&](uint64_t) { peak = std::max(peak, in_use()); };
    beside.reading = [&](uint64_t at) {
        peak = std::max(peak, in_use());
        passes += at == 0;
    };
    const size_t before = in_use();
    const mediafiles_source media_source = from.source(), journal_source = beside.source();
    mediafiles_plan *plan = mediafiles_plan_create(&media_source, &journal_source, 0);
    peak = std::max(peak, in_use());
    auto info = sized<mediafiles_plan_info>();
    mediafiles_plan_get(plan, &info);
    EXPECT_EQ(info.result, MEDIAFILES_REPAIRED);
    EXPECT_EQ(info.samples, samples);
    EXPECT_LE(beside.largest, 256u << 10);
    EXPECT_LE(from.moved, 256 * 5 + 2000u);
    EXPECT_LE(peak - std::min(peak, before), 40 * samples + (1u << 20));
    fprintf(stderr, "%u samples: %.1f bytes each, %zu passes, %zu reads of media, %zu bytes\n", samples,
            double(peak - std::min(peak, before)) / samples, passes, size_t(from.reads), size_t(from.moved));
    mediafiles_plan_destroy(plan);

    /* It may change between two passes. */
    beside.reading = [&, pass = size_t{0}](uint64_t at) mutable {
        if (at == 0 && ++pass == passes) journal[journal.size() - 28 * 1000 + 4] ^= 0x40; // an offset
    };
    const planned changed(from, &beside, 0);
    EXPECT_EQ(changed.info.reason, MEDIAFILES_REASON_CHANGED) << text_of(changed);
}

bytes box(const char *type, std::initializer_list<bytes> parts)
{
    bytes out(8);
    for (const bytes &part : parts) overlay(out, out.size(), part);
    for (size_t i = 0; i < 4; i++) out[i] = uint8_t(out.size() >> (24 - 8 * i)), out[4 + i] = uint8_t(type[i]);
    return out;
}

bytes words(std::initializer_list<uint32_t> numbers)
{
    bytes out;
    for (const uint32_t number : numbers)
        for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(number >> shift));
    return out;
}

/** A header of one sound track whose samples have one size and lie in one chunk. */
bytes header_of(uint32_t samples, uint32_t size, const bytes &more = {})
{
    const bytes entry = box("mp4a", {bytes(28), box("esds", {bytes(30)})});
    const bytes tables = box("stbl", {box("stsd", {words({0, 1}), entry}), box("stts", {words({0, 1, samples, 0})}),
                                      box("stsc", {words({0, 1, 1, samples, 1})}), box("stco", {words({0, 1, 32})}),
                                      box("stsz", {words({0, size, samples})})});
    const bytes media = box("mdia", {box("mdhd", {words({0, 0, 0, 48000, 0, 0})}), box("minf", {tables, more})});
    return box("moov", {box("mvhd", {words({0, 0, 0, 1000}), bytes(84)}),
                        box("trak", {box("tkhd", {words({0, 0, 0, 1}), bytes(68)}), media})});
}

TEST(plan, takes_bounded_time_for_hostile_files)
{
    const silence quiet;
    const bytes &head = recordings()[0].open;
    const auto seconds = [from = clock()] { return double(clock() - from) / CLOCKS_PER_SEC; };
    const auto judge = [&](const bytes &end, uint64_t media_size, uint32_t mdat) {
        const bytes begin = with(first(head, 32), 24, words({mdat}));
        planned::input media = {begin, media_size};
        media.end = end;
        const planned p(media, nullptr, 0);
        EXPECT_LE(media.moved, 300'000'000u) << media_size;
        return p.info.result;
    };
    /* Four thousand million samples of one byte. */
    const bytes many = header_of(UINT32_MAX - 2000, 1);
    EXPECT_EQ(judge(many, 32 + uint64_t{UINT32_MAX} - 2000 + many.size(), UINT32_MAX - 2000 + 8), MEDIAFILES_FINISHED);
    /* More than the media holds. */
    EXPECT_EQ(judge(many, 1000 + many.size(), 1000 - 24), MEDIAFILES_REFUSED);
    /* Tables that do not speak of this media, or of its times. */
    const struct {
        const char *type;
        size_t field;
        uint32_t value;
    } wrong[] = {{"'stsc'", 20, 2}, {"'stsc'", 16, 3}, {"'mdhd'", 20, 48000}, {"'stsz'", 12, 5}, {"'tkhd'", 16, 2}};
    for (const auto &[type, field, value] : wrong) {
        bytes header = header_of(4, 10);
        EXPECT_EQ(judge(header, 72 + header.size(), 48), MEDIAFILES_FINISHED);
        const auto at = size_t(std::ranges::search(header, hex(type)).begin() - header.begin());
        overlay(header, at + field, words({value}));
        EXPECT_EQ(judge(header, 72 + header.size(), 48), MEDIAFILES_REFUSED) << type << field;
    }
    /* A million boxes in each other. */
    bytes deep(8'000'000);
    for (size_t i = 0; i < deep.size(); i += 8)
        overlay(deep, i, with(words({uint32_t(deep.size() - i)}), 4, hex("'minf'")));
    const bytes nested = header_of(4, 10, deep);
    EXPECT_EQ(judge(nested, 72 + nested.size(), 48), MEDIAFILES_FINISHED); // boxes that nobody asked for
    /* Half a million headers that all fit, and lead to the same large table. */
    const bytes shared = header_of(4, 10, box("free", {bytes(1 << 20, 1)}));
    bytes headers(8 << 20);
    overlay(headers, headers.size(), bytes(shared.begin() + 8, shared.end()));
    for (uint32_t i = 0; i < 8u << 20; i += 16) {
        overlay(headers, i, with(words({uint32_t(headers.size()) - i}), 4, hex("'moov'")));
        overlay(headers, i + 8, with(words({(8u << 20) - i - 8}), 4, hex("'free'")));
    }
    EXPECT_EQ(judge(headers, 1000 + headers.size(), 0), MEDIAFILES_REFUSED);
    EXPECT_LT(seconds(), 15); // an emulator takes 5

    /* Journals of zeros, and of records of 4 bytes. */
    const bytes mark = bytes(recordings()[0].marked.end() - 64, recordings()[0].marked.end());
    for (const bool records : {false, true}) {
        planned::input media = {head}, journal = {std::span<const uint8_t>(), records ? 16u << 20 : 512u << 20};
        if (records) journal.end = mark;
        const planned p(media, &journal, 0);
        EXPECT_EQ(p.info.result, MEDIAFILES_EMPTY_REMOVED) << text_of(p);
        EXPECT_LE(journal.moved, 4 * journal.size);
    }
    planned::input media = {recordings()[0].closed}, large = {std::span<const uint8_t>(), (512u << 20) + 1};
    EXPECT_EQ(planned(media, &large, 0).info.result, MEDIAFILES_FINISHED);
}
} // namespace
