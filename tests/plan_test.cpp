/**
 * The plan of a repair: every state that a cut leaves of a file's end and of its journal's, damage, and hostile input.
 * The judges are the strict reader, what was recorded, and mp4_fix.
 */
#include <map>
#include <tuple>

#include <malloc.h>

#include <gtest/gtest.h>

#include <mediafiles/fix.h>

#include "recorder/recovery/journal-marks.h"
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

/** The mark of a round. */
bytes mark_of(uint32_t number, uint64_t media_size, const bytes &round)
{
    bytes mark(MEDIAFILES_ROUND_MARK_SIZE);
    mediafiles_round_mark(mark.data(), number, media_size, round.data(), round.size());
    return mark;
}

/** A recording with its journal, without and with the marks of rounds. */
struct recorded : recording {
    bytes closed, journal, marked;
    std::vector<size_t> rounds = {0}; // where they end in the journal with marks

    explicit recorded(recording &&from) : recording(std::move(from)), closed(states.back().media)
    {
        for (const state &now : states) {
            if (now.journal.size() == journal.size()) continue;
            const bytes round(now.journal.begin() + std::ptrdiff_t(journal.size()), now.journal.end());
            marked = joined({marked, round, mark_of(uint32_t(rounds.size()), now.media.size(), round)});
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
struct Plan : testing::Test {
    Plan() { testing::internal::CaptureStdout(); }
    ~Plan() override
    {
        const std::string said = testing::internal::GetCapturedStdout();
        const size_t failure = said.find("Failure");
        if (failure != said.npos) fprintf(stderr, "%.9000s\n", &said[failure]);
    }
};

/** What the core's repair makes of both files; empty when it refuses. */
bytes fixed(const bytes &media, const bytes &journal)
{
    const descriptor file, log;
    fill(file, media);
    fill(log, journal);
    return mp4_fix(path_of(file).c_str(), path_of(log).c_str(), nullptr, nullptr) == 0 ? file_content(file) : bytes();
}

/** How many samples of a recording the file holds, with the bytes that were recorded; -1 if it holds anything else. */
long kept_of(const recording &r, const bytes &file)
{
    const mp4::file read = mp4::read(file);
    const std::vector<place> got = places(read);
    if (!read.sound() || got.size() > r.samples.size()) return -1;
    for (size_t i = 0; i < got.size(); i++) {
        const sample &s = r.samples[i];
        if (std::tie(got[i].offset, got[i].track, got[i].size, got[i].key) !=
            std::tuple(s.offset, s.track, s.size, s.key != 0))
            return -1;
        if (memcmp(&file[s.offset], &r.open[s.offset], s.size) != 0) return -1;
    }
    return static_cast<long>(got.size());
}

/** The number of samples whose records end within so many bytes of a journal. */
long named_in(const bytes &journal, size_t size)
{
    return std::ranges::count(model::read(first(journal, size)).records, MEMENTO_SAMPLE, &model::record::kind);
}

/** The result, and the reason where there is one. */
std::string outcome_of(const planned &p)
{
    static const char *const results[] = {"none", "repaired", "salvaged", "finished", "removed", "not ours", "refused"};
    static const char *const reasons[] = {"",
                                          ": no journal",
                                          ": no samples",
                                          ": journal damaged",
                                          ": media damaged",
                                          ": foreign journal",
                                          ": large cut",
                                          ": large growth",
                                          ": no frame left",
                                          ": too large"};
    const uint32_t reason = p.info.reason;
    return results[p.info.result] + (reason < std::size(reasons) ? reasons[reason] : ": " + std::to_string(reason));
}

std::string text_of(const planned &p)
{
    return outcome_of(p) + ", samples " + std::to_string(p.info.samples) + ", ranges " + std::to_string(p.info.ranges) +
           ", journal " + std::to_string(p.info.journal) + ": " + (p.info.damage ? p.info.damage : "");
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
        for (const size_t unit : {size_t{512}, size_t{4096}})
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

struct beside {
    const char *what;
    const bytes *journal;
    uint32_t then;            // what happens to the journal of a finished file
    std::string closed, open; // the outcome where not all samples are found, with and without the size of mdat
};

/** Holds the plan for one state of a close against the strict reader and the core's repair. */
void check_close(const recorded &r, const bytes &file, bool head, const beside &given, const planned &p)
{
    const auto all = long(r.samples.size());
    if (p.info.result == MEDIAFILES_FINISHED) {
        ASSERT_TRUE(head && kept_of(r, file) == all);
        ASSERT_EQ(given.then, p.info.journal);
        return;
    }
    ASSERT_NE(r.closed, file);
    const bytes with_size = with(file, 24, bytes(&r.closed[24], &r.closed[28]));
    const bool complete = given.closed == "repaired", whole = complete || (!head && kept_of(r, with_size) == all);
    const std::string due = whole ? "repaired" : head ? given.closed : given.open;
    if (due == "any") return;
    ASSERT_EQ(due, outcome_of(p));
    if (!p.keeps()) return;
    ASSERT_EQ(whole ? all : named_in(*given.journal, given.journal->size()), kept_of(r, p.file));
    ASSERT_TRUE(p.file == (complete ? r.closed : whole ? p.file : fixed(file, *given.journal)));
    if (due == "repaired") return;
    ASSERT_EQ(1u, p.ranges.size());
    ASSERT_TRUE(p.ranges[0].begin == p.info.media_end && p.ranges[0].end == r.open.size());
}

TEST_F(Plan, DecidesEveryStateOfAClose)
{
    constexpr uint32_t goes = MEDIAFILES_JOURNAL_REMOVED, stays = MEDIAFILES_JOURNAL_KEPT;
    std::map<uint32_t, size_t> cases; // by result
    for (size_t i = 0; i < recordings().size(); i++) {
        const recorded &r = recordings()[i], &other = recordings()[(i + 1) % recordings().size()];
        const bytes old = first(r.journal, r.journal.size() * 2 / 3 / 28 * 28), empty, zeros(4096),
                    damaged = with(r.marked, r.rounds[r.rounds.size() / 2] + 3, hex("FF"));
        const std::string damage = "refused: journal damaged", none = "refused: no journal",
                          foreign = other.name == "aac" ? "any" : "refused: foreign journal"; // sound shows no owner
        const beside journals[] = {{"complete", &r.journal, goes, "repaired", "repaired"},
                                   {"marked", &r.marked, goes, "repaired", "repaired"},
                                   {"stale", &old, goes, "salvaged", "repaired"},
                                   {"empty", &empty, goes, "refused: no samples", "removed"},
                                   {"zeros", &zeros, goes, "refused: no samples", "removed"},
                                   {"damaged", &damaged, stays, damage, damage},
                                   {"no", nullptr, MEDIAFILES_JOURNAL_NONE, none, none},
                                   {"foreign", &other.journal, stays, foreign, foreign}};
        for_each_close(r, other.closed, [&](const bytes &file, bool head) {
            for (const beside &given : journals) {
                const planned p = plan_of(file, given.journal);
                cases[p.info.result]++;
                if (HasFatalFailure()) continue;
                SCOPED_TRACE(r.name + ", " + given.what + " journal, " + std::to_string(file.size()) + text_of(p));
                check_close(r, file, head, given, p);
            }
        });
    }
    size_t all = 0;
    for (const auto &[result, count] : cases) all += count;
    fprintf(stderr, "%zu states of a close: %zu finished, %zu repaired, %zu salvaged, %zu refused\n", all,
            cases[MEDIAFILES_FINISHED], cases[MEDIAFILES_REPAIRED], cases[MEDIAFILES_SALVAGED],
            cases[MEDIAFILES_REFUSED]);
}

/* Files that begin as ours, with a header that the core never writes: no journal changes them. */
TEST_F(Plan, LeavesAloneWhatOtherProgramsHaveWritten)
{
    const recorded &r = recordings().front();
    const std::string text(r.closed.begin(), r.closed.end());
    const auto at = [&](const char *box) { return text.find(box, r.open.size()); };
    const bytes stale = first(r.journal, r.journal.size() / 2 / 28 * 28), empty;
    const std::tuple<const char *, bytes, uint32_t> cases[] = {
        {"a size of 64 bits", with(r.closed, 24, hex("00000001")), MEDIAFILES_NOT_OURS},
        {"ctts", with(r.closed, at("stss"), hex("'ctts'")), MEDIAFILES_NOT_OURS},
        {"hvc1", with(r.closed, at("avc1"), hex("'hvc1'")), MEDIAFILES_NOT_OURS},
        {"udta, and no samples", with(r.closed, at("mdia"), hex("'udta'")), MEDIAFILES_NOT_OURS},
        {"udta, and all samples", with(r.closed, at("iods"), hex("'udta'")), MEDIAFILES_FINISHED}};
    for (const auto &[what, file, result] : cases)
        for (const bytes *journal : {static_cast<const bytes *>(nullptr), &empty, &stale, &r.journal})
            EXPECT_EQ(plan_of(file, journal).info.result, result) << what;
    /* Damage: a sector was lost that begins at a type. */
    EXPECT_EQ(plan_of(with(r.closed, at("stss"), hex("00000000")), &r.journal).file, r.closed);
    EXPECT_EQ(plan_of(with(r.closed, 24, hex("00000005")), &empty).info.reason, MEDIAFILES_REASON_NO_SAMPLES);
}

/* ---- the end of a journal ---- */

/** Journals of a recording, each changed in one way, near its end or at an offset in the middle; whether that is damage. */
std::vector<std::tuple<std::string, bytes, bool>> changed_journals(const recorded &r, size_t middle)
{
    const size_t rounds = r.rounds.size(), end = r.marked.size();
    const auto all = uint32_t(rounds); // above the last one's number
    const bytes before = first(r.marked, middle), junk = random_bytes(600), none, user = hex("00000400 01020304"),
                last_400(r.marked.end() - 400, r.marked.end()),
                last_mark(r.marked.end() - MEDIAFILES_ROUND_MARK_SIZE, r.marked.end());
    const uint64_t now = r.open.size(), more = 1u << 30;
    const auto then = [&](std::initializer_list<bytes> rest) { return joined({before, joined(rest)}); };
    return {
        {"a byte of a record", with(r.marked, middle + 20, hex("77")), true},
        {"an invalid length", with(r.marked, middle + 2, hex("FFFF")), true},
        {"a record that ends after the journal, rounds after it",
         joined({first(r.marked, r.rounds[rounds - 5]), hex("0000FC01"), last_400}), true},
        {"the last round's mark", with(r.marked, end - 8, hex("77")), false},
        {"junk in the last round, whose mark is there", with(r.marked, r.rounds[rounds - 2], random_bytes(28)), false},
        {"old rounds of more media, in the places of records",
         then({mark_of(all + 5, more, none), user, mark_of(all + 6, more, user)}), false},
        {"old rounds of lower numbers", then({junk, mark_of(2, 900, none), user, mark_of(3, 950, user)}), false},
        {"old rounds of less media", then({junk, mark_of(all + 2, 40, none), user, mark_of(all + 3, 50, user)}), false},
        {"old rounds of more media", then({junk, mark_of(all + 5, more, none)}), false},
        {"old rounds between records", then({user, mark_of(2, now, none), user, mark_of(3, now, user)}), false},
        {"later rounds after junk", then({junk, mark_of(all + 2, now, none)}), true},
        {"a mark twice", joined({r.marked, last_mark}), false},
        {"4 KiB before the end, unmarked", with(r.journal, r.journal.size() - 4097 - 28 * 4, hex("77*5")), true},
        {"zeros after a torn record, unmarked", joined({first(r.journal, 3000), hex("02005000"), bytes(8192)}), false},
    };
}

TEST_F(Plan, DistinguishesDamageFromATornEnd)
{
    const recorded &r = recordings()[0];
    const size_t middle = r.rounds[r.rounds.size() / 2];
    for (const auto &[what, journal, damaged] : changed_journals(r, middle)) {
        SCOPED_TRACE(what);
        const planned p = plan_of(r.open, &journal), salvaged = plan_of(r.open, &journal, MEDIAFILES_SALVAGE);
        EXPECT_EQ(damaged ? "refused: journal damaged" : "repaired", outcome_of(p));
        EXPECT_EQ(damaged ? MEDIAFILES_SALVAGE : 0, p.info.help);
        EXPECT_TRUE(damaged || kept_of(r, p.file) > 0);
        EXPECT_EQ(damaged ? "salvaged" : "repaired", outcome_of(salvaged));
        const bytes &whole = what.ends_with("unmarked") ? r.journal : r.marked;
        const auto same = size_t(std::ranges::mismatch(journal, whole).in1 - journal.begin());
        EXPECT_LE(named_in(journal, std::min(same, middle)), kept_of(r, salvaged.file));
    }
    const bytes &foreign = recordings()[1].marked;
    EXPECT_EQ("refused: foreign journal", outcome_of(plan_of(r.open, &foreign, MEDIAFILES_SALVAGE)));
}

/* ---- the media ---- */

/** The last sample of video among the first ones. */
size_t video_among(const recording &r, size_t count)
{
    while (r.samples[--count].track != 0) {}
    return count;
}

constexpr uint32_t check = MEDIAFILES_CHECK_ALL, salvage = MEDIAFILES_SALVAGE | check,
                   keep = MEDIAFILES_KEEP_DAMAGED | check;
constexpr mediafiles_range nowhere = {UINT64_MAX, UINT64_MAX};

struct media_case {
    const char *what;
    bytes media;
    const bytes *journal;
    uint32_t options;
    const char *outcome;
    size_t samples;
    mediafiles_range bad_media = nowhere, bad_journal = nowhere; // cannot be read
};

std::vector<media_case> media_cases(const recorded &r)
{
    static const bytes none;
    const size_t all = r.samples.size(), bad = video_among(r, all / 2), latest = video_among(r, all);
    const bytes damaged = with(r.open, r.samples[bad].offset, hex("7FFFFFFF")), foreign = with(r.open, 32, hex("7F")),
                end = with(r.open, r.samples[latest].offset, bytes(4)), zeros(100),
                almost = joined({bytes(300'000), {1}});
    const uint64_t half = r.open.size() / 2, mid = r.marked.size() / 2;
    const auto readable = size_t(std::ranges::count_if(r.samples, [&](auto &s) { return s.offset + 4 <= half; })),
               named = size_t(named_in(r.marked, size_t(mid)));
    return {
        {"damage", damaged, &r.marked, check, "refused: media damaged", 0},
        {"salvaged", damaged, &r.marked, salvage, "salvaged", bad},
        {"kept", damaged, &r.marked, keep, "salvaged", all},
        {"the first sample", foreign, &r.marked, MEDIAFILES_SALVAGE, "refused: foreign journal", 0},
        {"after the last whole round", end, &r.journal, 0, "repaired", latest},
        {"in the last whole round", end, &r.marked, 0, "refused: media damaged", 0},
        {"torn, but kept", end, &r.journal, MEDIAFILES_KEEP_DAMAGED, "salvaged", all},
        {"no media at all", first(r.open, 32), &r.journal, 0, "refused: media damaged", 0},
        {"no journal", r.open, nullptr, 0, "refused: no journal", 0},
        {"empty journal", r.open, &none, 0, "removed", 0},
        {"empty journal, torn end", with(r.open, 24, hex("0000FFFF")), &none, 0, "refused: no samples", 0},
        {"both empty", none, &none, 0, "removed", 0},
        {"zeros", zeros, &none, 0, "removed", 0},
        {"zeros and another byte", almost, &none, 0, "not ours", 0},
        {"zeros, a journal with samples", zeros, &r.journal, 0, "not ours", 0},
        {"an empty file alone", none, nullptr, 0, "not ours", 0},
        {"another file, an empty journal", r.journal, &none, 0, "not ours", 0},
        /* What cannot be read is the end; a bad block before the end is damage. */
        {"media that ends", r.open, &r.marked, 0, "repaired", readable, {half, UINT64_MAX}},
        {"a bad block", r.open, &r.marked, check, "refused: media damaged", 0, {half, half + 512}},
        {"a bad block is kept", r.open, &r.marked, keep, "salvaged", all, {half, half + 512}},
        {"no media", r.open, &r.marked, 0, "not ours", 0, {0, UINT64_MAX}},
        {"no media, an empty journal", r.open, &none, 0, "not ours", 0, {0, UINT64_MAX}},
        {"a journal that ends", r.open, &r.marked, 0, "repaired", named, nowhere, {mid, UINT64_MAX}},
        {"a bad journal", r.open, &r.marked, 0, "refused: journal damaged", 0, nowhere, {mid, mid + 512}},
        {"no journal to read", r.open, &r.marked, 0, "refused: journal damaged", 0, nowhere, {0, UINT64_MAX}},
    };
}

TEST_F(Plan, KeepsWhatTheMediaHolds)
{
    const recorded &r = recordings()[0];
    for (const media_case &c : media_cases(r)) {
        planned::input media = {c.media, c.media.size(), c.bad_media}, journal;
        if (c.journal) journal = {*c.journal, c.journal->size(), c.bad_journal};
        const planned p(media, c.journal ? &journal : nullptr, c.options);
        EXPECT_EQ(c.outcome, outcome_of(p)) << c.what << ": " << text_of(p);
        EXPECT_EQ(c.samples, p.info.samples) << c.what;
    }
    for (size_t size = 0; size < 32; size++) {
        const bytes part = first(r.open, size), none;
        EXPECT_EQ("removed", outcome_of(plan_of(part, &none))) << size;
        EXPECT_EQ("not ours", outcome_of(plan_of(part, nullptr))) << size;
    }
}

TEST_F(Plan, ReportsTheRangesOfDamage)
{
    const recorded &r = recordings()[0];
    const sample &bad = r.samples[video_among(r, r.samples.size() / 2)];
    const bytes damaged = with(r.open, bad.offset, hex("7FFFFFFF"));
    for (const auto &[options, end] : {std::pair{keep, uint64_t{bad.offset} + bad.size}, {salvage, r.open.size()}}) {
        const auto ranges = plan_of(damaged, &r.marked, options).ranges;
        ASSERT_EQ(1u, ranges.size());
        EXPECT_EQ(std::tuple(bad.offset, end), std::tuple(ranges[0].begin, ranges[0].end));
    }
}

TEST_F(Plan, LeavesAWholeFileAlone)
{
    for (const recorded &r : recordings()) {
        const bytes added = joined({r.closed, hex("00000008 'free'")});
        EXPECT_EQ("finished", outcome_of(plan_of(added, &r.journal))) << r.name;
    }
    /* A journal that ends before the media, with another parameter set. */
    const recorded &r = recordings()[2];
    const model::journal named = model::read(r.journal);
    const auto set = std::ranges::find(named.records, MEMENTO_SPS, &model::record::kind)->payload;
    const auto at = size_t(set.data() - r.journal.data());
    const bytes before = with(first(r.journal, r.journal.size() / 2), at + 5, hex("A5A5"));
    EXPECT_EQ("finished", outcome_of(plan_of(r.closed, &before)));
    /* A track without parameter sets. */
    const bytes units = sized_units(hex("000001 65 11*4 000001 65 11*4")), open = joined({first(r.open, 32), units});
    EXPECT_EQ("finished", outcome_of(plan_of(fixed(open, records("avc m0:32,9,1 m0:41,9,2")), nullptr)));
    /* Journals of the same samples in a track of another type, and of other samples. */
    const recorded &sound = recordings()[3];
    for (const bytes &foreign : {with(sound.journal, 4, hex("01010000")), records("aac m0:32,9,1")})
        EXPECT_EQ(MEDIAFILES_JOURNAL_KEPT, plan_of(sound.closed, &foreign).info.journal);
}

/* The size of mdat is missing alone. */
TEST_F(Plan, TakesAWholeMovieHeaderIntoWhichTheJournalReaches)
{
    const recorded &r = recordings()[2];
    bytes reaching = r.journal;
    reaching[reaching.size() - 20] ^= 0x40;
    const planned own = plan_of(with(r.closed, 24, bytes(4)), &reaching);
    EXPECT_EQ("repaired", outcome_of(own)) << text_of(own);
    EXPECT_EQ(r.closed, own.file);
}

TEST_F(Plan, AsksBeforeItCutsOrAddsALot)
{
    const recorded &r = recordings()[0];
    const std::tuple<uint64_t, uint32_t, const char *, uint32_t> cases[] = {
        // sizes of media and of the last sample
        {r.open.size() + (64u << 20), 0, "repaired", 0},
        {r.open.size() + (64u << 20) + 1, 0, "refused: large cut", MEDIAFILES_FORCE},
        {UINT32_MAX, 0, "refused: large cut", MEDIAFILES_FORCE},
        {r.open.size() + (133u << 20), 66u << 20, "refused: large cut", MEDIAFILES_FORCE}, // more than half
        {r.open.size() + (131u << 20), 66u << 20, "repaired", 0},
        {uint64_t{UINT32_MAX} + 1, 0, "refused: too large", 0},
        {r.open.size(), 64u << 20, "repaired", 0},
        {r.open.size(), 65u << 20, "refused: large growth", MEDIAFILES_FORCE},
    };
    for (const auto &[size, last, outcome, help] : cases) {
        bytes journal = r.journal;
        for (size_t i = 0; last && i < 4; i++) journal[journal.size() - 20 + i] = uint8_t(last >> 8 * i);
        const bytes marked = joined({journal, mark_of(1, r.open.size(), journal)});
        for (const uint32_t option : {0u, help}) {
            planned::input media = {r.open, size}, beside = {marked};
            const planned p(media, &beside, option, 0); // no bytes of the file are needed
            EXPECT_EQ(option ? "repaired" : outcome, outcome_of(p)) << size << text_of(p);
            EXPECT_EQ(option ? 0 : help, p.info.help);
        }
    }
}

/* A recording as long as one can be, cut off in its last sample. */
TEST_F(Plan, GoesUpToTheLastByte)
{
    constexpr uint64_t end = 32 + uint64_t{0xDFFFFFFF}, size = 0x3FFFFF3, count = (end - 32 + size - 1) / size;
    std::string samples = "aac ";
    for (uint64_t at = 32, n = 1; at < end; at += size)
        samples += "m0:" + std::to_string(at) + "," + std::to_string(std::min(size, end - at)) + "," +
                   std::to_string(n++) + " ";
    const bytes journal = records(samples);
    planned::input media = {recordings()[0].open, end - 100}, beside = {journal};
    const planned p(media, &beside, 0, 0);
    EXPECT_EQ(std::tuple(end, count, 100u), std::tuple(p.info.media_end, p.info.samples, p.info.added)) << text_of(p);
    EXPECT_EQ(p.info.file_size, p.info.info.fileSize);
    EXPECT_LT(end, p.info.file_size);
}

/* ---- parameter sets, records ---- */

/** A journal's record of a parameter set. */
bytes set_record(size_t kind, uint32_t track, const bytes &set)
{
    bytes record = joined({{uint8_t(kind), uint8_t(track), uint8_t(set.size()), 0}, set});
    record.resize((record.size() + 3) / 4 * 4);
    return record;
}

/* One of each track's sets is too large for a journal, one as large as any; the journal has the last `journaled`. */
TEST_F(Plan, TakesLargeParameterSetsFromTheFirstSample)
{
    const bytes code = hex("000001"), vps = hex("40010c01ffff01600000030090000003000003003f928090 80*600"),
                sps = hex("42010101600000030090000003000003003fa0050201696592a4932bc04040000003004000000642");
    const std::tuple<std::string, size_t, std::vector<bytes>, bytes> codecs[] = {
        {"raw", MEMENTO_SPS, {joined({hex("6742c01e"), bytes(65531, 0x80)}), hex("68eeff3c")}, hex("65 11*40")},
        {"hevc", MEMENTO_VPS, {vps, sps, hex("4401c172b46240")}, hex("2601 11*40")}};
    for (const auto &[track, kind, sets, slice] : codecs)
        for (size_t journaled = 0; journaled < sets.size(); journaled++) {
            const uint32_t video = journaled % 2; // beside sound
            bytes stream, journal = records(video == 0 ? track + " aac" : "aac " + track);
            for (size_t i = 0; i < sets.size(); i++) {
                stream = joined({stream, code, sets[i]});
                if (i + journaled >= sets.size()) journal = joined({journal, set_record(kind + i, video, sets[i])});
            }
            const bytes key = sized_units(joined({code, slice})), begin = joined({sized_units(stream), key});
            const std::string size = std::to_string(begin.size()), next = std::to_string(32 + begin.size());
            const std::string to = "m" + std::to_string(video);
            const std::string places =
                to + ":32," + size + ",1 " + to + ":" + next + "," + std::to_string(key.size()) + ",2";
            journal = joined({journal, records(places)});
            const bytes open = joined({first(recordings()[0].open, 32), begin, key});
            const planned p = plan_of(open, &journal);
            ASSERT_EQ("repaired", outcome_of(p)) << track << text_of(p);
            EXPECT_TRUE(mp4::read(p.file).sound()) << track << mp4::read(p.file).problems.front().text;
            EXPECT_EQ("finished", outcome_of(plan_of(p.file, &journal)));
            for (size_t i = 0; i < sets.size(); i++) {
                const bytes &set = sets[i];
                const auto at = std::search(p.file.begin() + long(open.size()), p.file.end(), set.begin(), set.end());
                ASSERT_NE(p.file.end(), at) << i;
                /* A torn header may be sound but for a parameter set, which the journal has. */
                bytes torn_set = p.file;
                torn_set[size_t(at - p.file.begin()) + set.size() - 1] ^= 0x55;
                const bool named = i + journaled >= sets.size();
                EXPECT_EQ(named ? "repaired" : "finished", outcome_of(plan_of(torn_set, &journal))) << i;
                EXPECT_TRUE(!named || p.file == plan_of(torn_set, &journal).file) << i;
            }
        }
}

/** A journal in memory that is being read. */
struct reading {
    planned::input input;
    mediafiles_source source = input.source();
    const std::unique_ptr<mediafiles_journal, destroy_by<mediafiles_journal_close>> journal{
        mediafiles_journal_open(&source, nullptr)};

    explicit reading(const bytes &stored, mediafiles_range bad = {UINT64_MAX, UINT64_MAX})
        : input{stored, stored.size(), bad}
    {
    }
    int next(mediafiles_journal_record &record) const { return mediafiles_journal_next(journal.get(), &record); }
    mediafiles_journal_summary to_its_end() const
    {
        mediafiles_journal_record record = {};
        for (record.size = sizeof record; next(record);) {}
        return summary();
    }
    mediafiles_journal_summary summary(uint32_t size = sizeof(mediafiles_journal_summary)) const
    {
        mediafiles_journal_summary all = {};
        all.size = size;
        mediafiles_journal_get_summary(journal.get(), &all);
        return all;
    }
};

TEST_F(Plan, HandsOutTheRecordsOfAJournal)
{
    const recorded &r = recordings()[1];
    const reading whole(r.marked), older(r.marked);
    mediafiles_journal_record record = {}, part;
    uint64_t at = 0;
    for (const model::record &each : model::read(r.marked).records) {
        memset(&part, 0x5A, sizeof part);
        record.size = sizeof record;
        part.size = 8; // an older caller's memory ends before the offset
        ASSERT_EQ(1, whole.next(record));
        ASSERT_EQ(1, older.next(part));
        for (const auto *got : {&record, &part})
            ASSERT_EQ(std::tuple(each.kind, each.track, each.payload.size()),
                      std::tuple(got->kind, got->track, got->length));
        ASSERT_EQ(std::tuple(8u, 0x5A5A5A5A5A5A5A5Au), std::tuple(part.size, part.offset));
        ASSERT_EQ(std::tuple(sizeof record, at), std::tuple(record.size, record.offset));
        ASSERT_TRUE(std::equal(each.payload.begin(), each.payload.end(), record.payload));
        at = record.end;
    }
    EXPECT_EQ(0, whole.next(record));
    const mediafiles_journal_summary all = whole.summary();
    EXPECT_EQ(std::tuple(r.rounds.size() - 1, r.samples.size(), r.open.size(), 2u),
              std::tuple(all.rounds, all.samples, all.media_end, all.tracks));
    EXPECT_EQ(MP4_TRACK_AAC, all.track[0].type);
    EXPECT_EQ(0u, whole.summary(8).samples); // an older caller's ends before them
}

TEST_F(Plan, SummarisesHowAJournalEnds)
{
    const recorded &r = recordings()[1];
    const std::tuple<const char *, bytes, uint32_t, uint64_t, bool> cases[] = {
        // with the bytes before the end, and whether something is wrong there
        {"whole", r.marked, MEDIAFILES_JOURNAL_WHOLE, r.marked.size(), false},
        {"cut", first(r.marked, 30), MEDIAFILES_JOURNAL_CUT, 20, false},
        {"torn", with(first(r.journal, 40), 40, hex("FF00FFFF")), MEDIAFILES_JOURNAL_TORN, 40, true},
        {"zeros in a record that is no sample", joined({first(r.journal, 20), hex("00000400 01000000 00*99")}),
         MEDIAFILES_JOURNAL_TORN, 20, false},
        {"zeros after sound without a key flag",
         joined({records("aac m0:32,9,1,500000000,0 m0:41,9,2,500000000,0"), bytes(512)}), MEDIAFILES_JOURNAL_TORN, 76,
         false},
        {"damaged", with(r.marked, r.rounds[1], hex("FF00FFFF")), MEDIAFILES_JOURNAL_DAMAGED, r.rounds[1], true},
    };
    for (const auto &[what, stored, ending, end, invalid] : cases) {
        const mediafiles_journal_summary summary = reading(stored).to_its_end();
        EXPECT_EQ(std::tuple(ending, end, stored.size() - end), std::tuple(summary.ending, summary.end, summary.lost))
            << what;
        EXPECT_EQ(invalid, summary.damage != nullptr) << what;
    }
    errno = 0;
    const reading unreadable(r.marked, {0, UINT64_MAX});
    EXPECT_FALSE(unreadable.journal);
    EXPECT_EQ(EIO, errno);
}

/** A mark with four bytes more, which is none. */
bytes longer(const bytes &mark)
{
    return joined({with(mark, 2, {uint8_t(mark[2] + 4)}), bytes(4, '.')});
}

TEST_F(Plan, TakesForAMarkWhatIsAsLongAsOne)
{
    const recorded &r = recordings()[0];
    const size_t rounds = r.rounds.size() - 1;
    bytes completed(mediafiles::recovery::repair_mark_size);
    mediafiles::recovery::write_mark({UINT32_MAX, false, true}, completed.data());
    const bytes round = mark_of(uint32_t(rounds + 1), r.open.size(), {}), no_round = joined({r.marked, longer(round)}),
                one_more = joined({r.marked, round}), no_repair = joined({r.marked, longer(completed)}),
                repair = joined({r.marked, completed});
    EXPECT_EQ(rounds + 1, reading(one_more).to_its_end().rounds);
    EXPECT_EQ(rounds, reading(no_round).to_its_end().rounds);
    EXPECT_EQ(MEDIAFILES_JOURNAL_REMOVED, plan_of(r.closed, &no_repair).info.journal);
    EXPECT_EQ(MEDIAFILES_JOURNAL_KEPT, plan_of(r.closed, &repair).info.journal);
}

TEST_F(Plan, RecognisesAJournalByItsFirstTrack)
{
    const recorded &r = recordings()[1];
    const bytes user = joined({hex("00000800"), bytes(8)}), sample = joined({hex("02001800"), bytes(24)});
    const std::pair<bytes, int> cases[] = {
        {r.journal, 1}, {joined({user, r.journal}), 1}, {joined({sample, r.journal}), 0},          {user, 0},
        {r.closed, 0},  {first(r.journal, 19), 0},      {joined({user, first(r.journal, 19)}), 0}, {bytes(100'000), 0}};
    for (const auto &[data, is] : cases) EXPECT_EQ(is, mediafiles_is_journal(data.data(), data.size())) << data.size();
}

/* ---- what it costs ---- */

/** Adds samples of 8 and 9 bytes of two tracks, to the media and to the journal. */
void add_samples(bytes &media, bytes &journal, uint32_t samples)
{
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
}

TEST_F(Plan, TakesFortyBytesASample)
{
    constexpr uint32_t samples = 1'000'000;
    bytes media = first(recordings()[0].open, 32), journal = first(recordings()[0].journal, 40); // both tracks
    add_samples(media, journal, samples);
    planned::input from = {media}, beside = {journal};
    size_t peak = 0, passes = 0;
    const auto in_use = [] {
        const struct mallinfo2 heap = mallinfo2();
        return heap.uordblks + heap.hblkhd;
    };
    from.reading = [&](uint64_t) { peak = std::max(peak, in_use()); };
    beside.reading = [&, measure = from.reading](uint64_t at) {
        measure(at);
        passes += at == 0;
    };
    const size_t before = in_use();
    const mediafiles_source media_source = from.source(), journal_source = beside.source();
    mediafiles_plan *plan = mediafiles_plan_create(&media_source, &journal_source, 0);
    const size_t taken = std::max(peak, in_use()) - before;
    mediafiles_plan_info info = {};
    info.size = sizeof info;
    mediafiles_plan_get(plan, &info);
    mediafiles_plan_destroy(plan);
    EXPECT_EQ(MEDIAFILES_REPAIRED, info.result);
    EXPECT_EQ(samples, info.samples);
    EXPECT_GE(256u << 10, beside.largest);
    EXPECT_GE(256 * 5 + 2000u, from.moved);
    EXPECT_GE(40 * samples + (1u << 20), taken);
    fprintf(stderr, "%u samples: %.1f bytes each, %zu passes, %zu reads of media, %zu bytes\n", samples,
            double(taken) / samples, passes, size_t(from.reads), size_t(from.moved));

    /* It may change between two passes. */
    beside.reading = [&](uint64_t at) {
        if (at == 0 && --passes == 0) journal[journal.size() - 28 * 1000 + 4] ^= 0x40; // an offset
    };
    const planned changed(from, &beside, 0);
    EXPECT_EQ(MEDIAFILES_REASON_CHANGED, changed.info.reason) << text_of(changed);
}

bytes words(std::initializer_list<uint32_t> numbers)
{
    bytes out;
    for (const uint32_t number : numbers)
        for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(number >> shift));
    return out;
}

/** The size and the type of a box. */
bytes box_head(size_t size, const std::string &type)
{
    return joined({words({uint32_t(size)}), hex("'" + type + "'")});
}

bytes box(const char *type, std::initializer_list<bytes> parts)
{
    const bytes body = joined(parts);
    return joined({box_head(8 + body.size(), type), body});
}

/** The boxes of the times, which begin after so many thousandths of a second; wide ones have version 1. */
struct times {
    bool is_wide = false;
    uint32_t before = 0, edited = before; // as the duration says, and the edit list

    bytes movie() const { return is_wide ? words({1 << 24, 0, 0, 0, 0, 1000, 0, 0}) : words({0, 0, 0, 1000, 0}); }
    bytes track() const { return is_wide ? words({1 << 24, 0, 0, 0, 0, 1}) : words({0, 0, 0, 1}); }
    bytes media() const
    {
        const uint32_t ticks = before * 48;
        return is_wide ? words({1 << 24, 0, 0, 0, 0, 48000, 0, ticks, 0}) : words({0, 0, 0, 48000, ticks, 0});
    }
    bytes edits() const
    {
        if (edited == 0) return words({0, 0});
        return is_wide ? words({1 << 24, 1, 0, edited, 0xFFFFFFFF, 0xFFFFFFFF, 1 << 16})
                       : words({0, 1, edited, 0xFFFFFFFF, 1 << 16});
    }
};

/** A header of one sound track whose samples have one size and lie in one chunk. */
bytes header_of(uint32_t samples, uint32_t size, const bytes &more = {}, const times &when = {})
{
    const bytes entry = box("mp4a", {bytes(28), box("esds", {bytes(30)})});
    const bytes tables =
        box("stbl", {box("stsd", {words({0, 1}), entry}), box("stts", {words({0, 2, 1, 0, samples - 1, 0})}),
                     box("stsc", {words({0, 1, 1, samples, 1})}), box("stco", {words({0, 1, 32})}),
                     box("stsz", {words({0, size, samples})}), box("stss", {words({0, 2, 1, 4})})});
    const bytes media = box("mdia", {box("mdhd", {when.media()}), box("minf", {tables, more})});
    return box("moov", {box("mvhd", {when.movie(), bytes(80)}),
                        box("trak", {box("tkhd", {when.track(), bytes(68)}), box("edts", {box("elst", {when.edits()})}),
                                     media})});
}

/** The result for a file of zeros that begins as a recording with so large an mdat, and ends in a header. */
std::string result_of(const bytes &header, uint64_t media_size, uint32_t mdat)
{
    const bytes begin = with(first(recordings()[0].open, 32), 24, words({mdat}));
    planned::input media = {begin, media_size + header.size()};
    media.end = header;
    const planned p(media, nullptr, 0);
    EXPECT_GE(300'000'000u, media.moved) << media_size;
    return outcome_of(p);
}

TEST_F(Plan, HoldsAHeaderAgainstTheMedia)
{
    for (const bool wide : {false, true}) {
        for (const uint32_t delay : {0u, 10u})
            EXPECT_EQ("finished", result_of(header_of(4, 10, {}, {wide, delay}), 72, 48)) << wide << delay;
        for (const times &other : {times{wide, 10, 0}, times{wide, 10, 12}, times{wide, 0, 10}})
            EXPECT_EQ("refused: no journal", result_of(header_of(4, 10, {}, other), 72, 48)) << wide << other.before;
    }
    /* Tables of other media, or of other times. */
    const std::tuple<const char *, size_t, bytes> cases[] = {
        {"'stsc'", 20, words({2})}, {"'stsc'", 16, words({3})}, {"'mdhd'", 20, words({48000})},
        {"'stsz'", 12, words({5})}, {"'tkhd'", 16, words({2})}, {"'stts'", 12, words({0, 0, 4})},
        {"'stss'", 12, words({0})}, {"'stss'", 12, words({4})}, {"'stss'", 16, words({5})}};
    for (const auto &[type, field, value] : cases) {
        bytes header = header_of(4, 10);
        const bytes name = hex(type);
        const auto at = size_t(std::search(header.begin(), header.end(), name.begin(), name.end()) - header.begin());
        overlay(header, at + field, value);
        EXPECT_EQ("refused: no journal", result_of(header, 72, 48)) << type << field;
    }
    /* Its beginning lies across two windows of the search. */
    const size_t rest = header_of(4, 10, box("free", {})).size();
    EXPECT_EQ("repaired", result_of(header_of(4, 10, box("free", {bytes((256u << 10) + 1 - rest)})), 72, 0));
}

/** Half a million headers that all fit, and lead to the same large table. */
bytes overlapping_headers()
{
    constexpr uint32_t size = 8 << 20;
    const bytes shared = header_of(4, 10, box("free", {bytes(1 << 20, 1)}));
    bytes headers = joined({bytes(size), bytes(shared.begin() + 8, shared.end())});
    for (uint32_t i = 0; i < size; i += 16) {
        overlay(headers, i, box_head(headers.size() - i, "moov"));
        overlay(headers, i + 8, box_head(size - i - 8, "free"));
    }
    return headers;
}

TEST_F(Plan, TakesBoundedTimeForHostileHeaders)
{
    const clock_t begin = clock();
    constexpr uint32_t samples = UINT32_MAX - 2000; // of one byte
    const bytes many = header_of(samples, 1);
    EXPECT_EQ("finished", result_of(many, 32 + uint64_t{samples}, samples + 8));
    EXPECT_EQ("refused: no journal", result_of(many, 1000, 1000 - 24)); // more than the media holds

    bytes deep(8'000'000); // a million boxes in each other
    for (size_t i = 0; i < deep.size(); i += 8) overlay(deep, i, box_head(deep.size() - i, "minf"));
    EXPECT_EQ("finished", result_of(header_of(4, 10, deep), 72, 48)); // boxes that nobody asked for
    EXPECT_EQ("refused: no journal", result_of(overlapping_headers(), 1000, 0));
    EXPECT_GT(15, double(clock() - begin) / CLOCKS_PER_SEC); // an emulator takes 5
}

TEST_F(Plan, ReadsLongJournalsOfZerosAFewTimes)
{
    const recorded &r = recordings()[0];
    const bytes mark(r.marked.end() - MEDIAFILES_ROUND_MARK_SIZE, r.marked.end()), none;
    for (const bool records : {false, true}) { // of 4 bytes, with a mark after them
        planned::input media = {r.open}, journal = {{}, records ? 16u << 20 : 512u << 20};
        if (records) journal.end = mark;
        const planned p(media, &journal, 0);
        EXPECT_EQ("removed", outcome_of(p)) << text_of(p);
        EXPECT_GE(4 * journal.size, journal.moved);
    }
    planned::input media = {r.closed}, large = {{}, (512u << 20) + 1};
    EXPECT_EQ("finished", outcome_of(planned(media, &large, 0)));
}
} // namespace
