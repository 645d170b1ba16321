/**
 * The proof that a recording survives a power cut: whatever a cut leaves of the media file and of the journal is
 * repaired by both functions of the core and by the plan of a recovery, and held against what was recorded, and against
 * what support/repair-model.h expects. A case is a
 * distinct pair of media and journal bytes; support/power-cut.h has them and their IDs.
 *
 *     power_cut_test STREAMS                 every case; STREAMS is the directory testdata/
 *     power_cut_test STREAMS --every=N       every Nth
 *     power_cut_test STREAMS --case=ID       one again
 *     power_cut_test STREAMS --faults        whether the proof sees faults that are built in
 *     power_cut_test STREAMS --dump=N DIR    writes every Nth case, for other judges, and repairs nothing
 *
 * A dumped case is DIR/ID.mp4, DIR/ID.mp4.journal, DIR/ID.open, the uncut media before the file was closed, and
 * DIR/ID.want, which has a line for each sample of the uncut recording in the order of the file:
 *
 *     TRACK OFFSET SIZE KEY KEPT
 *
 * the track from 0, the place in the file, the key flag as it was given, and 1 for a sample that no repair may lose: up
 * to the first one whose record or bytes are not there in full. In each case that the order of writes and syncs allows (all but some of media, journal
 * and pair) these hold all samples that were synced.
 */
#include <functional>
#include <map>
#include <sstream>
#include <string_view>
#include <unordered_set>

#include <mediafiles/fix.h>

#include "support/planned.h"
#include "support/power-cut.h"
#include "support/repair-judge.h"

namespace {

const mp4_track_desc avc = {MP4_TRACK_H264, {{176, 144, 0}}}, large = {MP4_TRACK_H264, {{640, 360, 0}}},
                     hevc = {MP4_TRACK_H265, {{640, 360, 0}}}, aac = {MP4_TRACK_AAC, {{2, 16, 48000}}},
                     voaac = {MP4_TRACK_AAC, {{2, 16, 44100}}};
const char *const mw = "ext_MPS_MW_A_176x144_30.h264", *const base = "h264_base_640x360_25.h264",
                  *const high = "h264_high_aud_4slices_640x360_30.h264",
                  *const cra = "h265_cra_2slices_640x360_30.h265", *const aud = "h265_aud_sei_640x360_25.h265",
                  *const lc = "aac_lc_48000_2.aac", *const vo = "aac_voaac_44100_2.aac";

const recipe recipes[] = {
    {"avc", {{mw, 0, avc}}, 0, 8, 2, 1},
    {"avc-short", {{mw, 40, avc}}, 4096, 70, 30, 2},
    {"hevc", {{cra, 0, hevc}}, 4096, 2, 1, 1},
    {"hevc-short", {{aud, 60, hevc}}, 0, 50, 3, 1},
    {"aac", {{lc, 0, aac}}, 0, 12, 5, 1},
    {"avc-aac", {{base, 40, large}, {lc, 60, aac}}, 0, 60, 7, 1},
    {"aac-avc", {{vo, 60, voaac}, {high, 40, large}}, 4096, 50, 9, 2},
    {"hevc-aac", {{cra, 70, hevc}, {vo, 40, voaac}}, 65536, 50, 8, 1},
    {"hevc-aac-large", {{aud, 0, hevc}, {lc, 0, aac}}, 4096, 40, 7, 1},
    {"avc-aac-large", {{base, 0, large}, {lc, 0, aac}}, 65536, 60, 40, 1},
    {"four", {{high, 30, large}, {lc, 30, aac}, {aud, 40, hevc}, {vo, 30, voaac}}, 4096, 50, 8, 3},
    {"four-0", {{cra, 50, hevc}, {mw, 30, avc}, {lc, 40, aac}, {base, 40, large}}, 0, 60, 6, 1},
};
constexpr size_t least_cases = 70'000;

/** Samples as a file has to show them. */
std::vector<place> due_places(std::span<const sample> samples, const std::vector<mp4_track_desc> &tracks_of)
{
    struct {
        uint64_t first, last, ticks;
    } tracks[8] = {};
    uint64_t start = UINT64_MAX;
    std::vector<place> out;
    for (const sample &s : samples) {
        auto &t = tracks[s.track];
        if (t.first == 0) t = {s.time(), s.time(), 0};
        start = std::min(start, s.time());
        t.ticks += ((s.time() - t.last) * model::timescale(tracks_of[s.track]) + second / 2) / second;
        t.last = s.time();
        out.push_back({s.offset, s.track, s.size, t.ticks, s.key != 0});
    }
    for (place &p : out) p.delay = (tracks[p.track].first - start) / 1'000'000;
    return out;
}

/** The samples before the first whose record or bytes are not there as they were recorded. */
size_t intact(const recording &r, const power_cut &c)
{
    size_t n = 0;
    for (const model::record &each : model::read(c.journal).records) {
        if (each.kind != MEMENTO_SAMPLE) continue;
        if (n == r.samples.size() || each.named() != r.samples[n]) break;
        const auto [track, offset, size, seconds, nanoseconds, key] = r.samples[n];
        if (offset + size > c.media.size() || memcmp(&c.media[offset], &r.open[offset], size) != 0) break;
        n++;
    }
    return n;
}

/* ---- the judge ---- */

struct proof {
    std::string streams;
    fault built_in = fault::none;
    size_t every = 1;
    std::string only = {}; // ID
    size_t cases = 0, recordings = 0, repaired = 0, planned_repairs = 0;
    std::map<std::string, size_t> failures = {}; // by check

    void for_each(const std::function<void(const recording &, const power_cut &)> &use)
    {
        std::unordered_set<uint64_t> seen;
        const auto hash = [](const bytes &b) {
            return std::hash<std::string_view>()({reinterpret_cast<const char *>(b.data()), b.size()});
        };
        size_t number = 0;
        for (const recipe &p : recipes)
            for (const recording &r : recordings_of(p, streams, built_in)) {
                recordings++;
                offer_cases(r, [&](const std::string &id, auto make) {
                    if (only.empty() ? number++ % every != 0 : id != only) return;
                    power_cut c = make();
                    c.id = id;
                    if (!seen.insert(hash(c.media) * 0x9E3779B97F4A7C15ull + hash(c.journal)).second) return;
                    cases++;
                    use(r, c);
                });
            }
    }

    /** Counts what a check has found wrong in a case, and prints the first ones. */
    model::complaint complaints(const power_cut &c, const std::string &by)
    {
        return [this, &c, by](const char *check, const std::string &what) {
            if (failures[check]++ < 5 && built_in == fault::none)
                fprintf(stderr, "%s: %s, %s: %s\n", c.id.c_str(), by.c_str(), check, what.c_str());
        };
    }

    /** What a repair has made of a case, by the core. */
    void judge(const recording &r, const power_cut &c, int version)
    {
        const model::complaint complain = complaints(c, version == 1 ? "mp4_fix" : "mp4_fix2");
        const auto fix = [&](auto... arguments) {
            faults::injection watch({.kind = faults::cutting, .nth = built_in == fault::cut ? 0 : -1, .pretend = true});
            const int result = version == 1 ? mp4_fix(arguments...) : mp4_fix2(arguments...);
            if (watch.held != 0) complain("leak", "memory");
            return result;
        };
        const model::journal content = model::read(c.journal);
        const model::repaired got = model::judge(fix, version, content, c.journal, c.media, true, complain);
        const model::result &due = got.due;
        if (c.spoilt || !due.finished || got.content.empty()) return;
        repaired++;
        const bool cut = due.end > model::head && due.end > c.media.size(); // the last sample: then zeros
        for (const mp4::problem &p : got.file.problems)
            if (p.fault && !(cut && p.offset >= due.kept.back().offset && p.offset < due.end))
                complain("structure", p.text);
        if (places(got.file) != due_places(due.kept, due.tracks)) complain("prefix", "not as the journal has them");

        size_t least = intact(r, c);
        if (c.possible) // then the journal names nothing that is not there in full
            least = std::max(
                {least, c.promised, size_t(std::ranges::count(content.records, MEMENTO_SAMPLE, &model::record::kind))});
        hold(r, c.media.size(), got.file, got.content, std::min(least, due.stop), "", complain);
        if (cut && c.possible) complain("durable", "a part of a sample is kept");
    }

    /** A repaired file shows the first samples that were recorded, at least so many; so much media was present. */
    static void hold(const recording &r, size_t present, const mp4::file &file, const bytes &content, size_t least,
                     const std::string &prefix, const model::complaint &complain)
    {
        const std::vector<place> shown = places(file);
        const auto recorded = std::span(r.samples).first(std::min(shown.size(), r.samples.size()));
        bytes media = first(r.open, present); // then zeros
        media.resize(recorded.empty() ? model::head : recorded.back().offset + recorded.back().size);
        const bool same = content.size() > media.size() &&
                          std::equal(media.begin() + model::head, media.end(), content.begin() + model::head);
        if (shown != due_places(recorded, r.tracks) || !same)
            complain((prefix + "recorded").c_str(), "not what was recorded");
        if (shown.size() < least)
            complain((prefix + "durable").c_str(),
                     "kept " + std::to_string(shown.size()) + " samples of " + std::to_string(least));
    }

    /**
     * What recovery decides: as the core's repair, byte for byte, but that a file that is closed stays as it is, that a
     * torn journal is no reason to refuse, and that a file without samples goes or is refused.
     */
    void judge_plan(const recording &r, const power_cut &c, uint32_t options)
    {
        const model::complaint complain = complaints(c, options ? "plan without last frame" : "plan");
        const model::result due = model::repair(model::read(c.journal), c.media.size(), options ? 2 : 1);
        const planned got = plan_of(c.media, &c.journal, options);
        const std::string what = "result " + std::to_string(got.info.result) + ", reason " +
                                 std::to_string(got.info.reason) + ", samples " + std::to_string(got.info.samples);
        size_t least = std::min(std::max(intact(r, c), c.possible ? c.promised : 0), due.stop);
        if (c.spoilt && options) least = 0; // the last frame that is left is not the model's
        if (got.info.result == MEDIAFILES_FINISHED) {
            const mp4::file whole = mp4::read(c.media);
            if (!whole.sound() || places(whole) != due_places(r.samples, r.tracks)) complain("plan-finished", what);
        } else if (got.keeps()) {
            planned_repairs++;
            const mp4::file made = mp4::read(got.file);
            for (const mp4::problem &p : made.problems)
                if (p.fault && got.info.added == 0) complain("plan-structure", p.text);
            hold(r, c.media.size(), made, got.file, least, "plan-", complain);
            const bool by_header = got.info.samples == 0; // of which the size of mdat alone was missing
            if (!c.spoilt && due.finished && !by_header && places(made) != due_places(due.kept, due.tracks))
                complain("plan-prefix", what + " of " + std::to_string(due.kept.size()));
        } else if (least != 0 && got.info.reason != MEDIAFILES_REASON_NO_FRAME_LEFT) {
            complain("plan-durable", what);
        }
    }

    void run()
    {
        for_each([this](const recording &r, const power_cut &c) {
            for (const int version : {1, 2}) judge(r, c, version);
            for (const uint32_t options : {0u, MEDIAFILES_DROP_LAST_FRAME}) judge_plan(r, c, options);
        });
    }
};

void dump_case(const recording &r, const power_cut &c, const std::string &directory)
{
    const auto write = [&](const std::string &name, const auto &content) {
        std::ofstream file(directory + "/" + name);
        std::ranges::copy(content, std::ostreambuf_iterator<char>(file));
        if (!file.flush()) throw std::runtime_error("cannot write " + name);
    };
    std::ostringstream want;
    size_t n = 0;
    for (const size_t kept = intact(r, c); const sample &s : r.samples)
        want << +s.track << ' ' << s.offset << ' ' << s.size << ' ' << s.key << ' ' << (n++ < kept) << '\n';
    write(c.id + ".mp4", c.media);
    write(c.id + ".mp4.journal", c.journal);
    write(c.id + ".open", r.open);
    write(c.id + ".want", want.str());
}

/** Each fault has to be seen by the check that is meant for it. */
int prove_faults(const std::string &streams, FILE *say)
{
    const std::tuple<const char *, fault, const char *> faults[] = {
        {"the journal is written before the media is flushed", fault::order, "durable"},
        {"a repair does not truncate", fault::cut, "structure"},
        {"a key flag is lost", fault::key, "recorded"},
    };
    size_t unseen = 0;
    for (const auto &[what, built_in, meant] : faults) {
        proof p = {.streams = streams, .built_in = built_in, .every = 50};
        p.run();
        unseen += p.failures[meant] == 0;
        fprintf(say, "%s: %zu cases;", what, p.cases);
        for (const auto &[check, count] : p.failures) fprintf(say, " %s: %zu", check.c_str(), count);
        fprintf(say, "%s\n", p.failures[meant] ? "" : ": NOT SEEN");
    }
    return unseen != 0;
}

} // namespace

int main(int argc, char **argv)
{
    const std::vector<std::string> words(argv + 1, argv + argc);
    const auto option = [&](const std::string &name, const std::string &otherwise) {
        for (const std::string &w : words)
            if (w.starts_with(name)) return w.substr(name.size());
        return otherwise;
    };
    FILE *const say = fdopen(dup(STDOUT_FILENO), "w");
    // What the library prints goes nowhere.
    if (words.empty() || !say || !freopen("/dev/null", "w", stdout)) return 2;
    if (words.back() == "--faults") return prove_faults(words[0], say);

    const size_t dump = std::stoul(option("--dump=", "0"));
    const size_t every = dump ? dump : std::stoul(option("--every=", "1"));
    proof p = {.streams = words[0], .every = every, .only = option("--case=", "")};
    if (dump)
        p.for_each([&](const recording &r, const power_cut &c) { dump_case(r, c, words.back()); });
    else
        p.run();
    for (const auto &[check, count] : p.failures) fprintf(say, "%s: %zu failures\n", check.c_str(), count);
    fprintf(say, "power cuts: %zu cases, %zu recordings, %zu files repaired\n", p.cases, p.recordings, p.repaired);
    fprintf(say, "plans: %zu files repaired\n", p.planned_repairs);
    const bool enough = p.cases >= (p.every > 1 || !p.only.empty() ? 1 : least_cases);
    return p.failures.empty() && enough ? 0 : 1;
}
