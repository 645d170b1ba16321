/**
 * The proof that a recording survives a power cut: whatever a cut leaves of the media file and of the journal is
 * repaired both ways and held against what was recorded, and against what a model foretells that reads the journal by
 * itself. A case is a distinct pair of media and journal bytes; support/power-cut.h has them and their IDs.
 *
 *     power_cut_test STREAMS                 every case; STREAMS is the directory testdata/
 *     power_cut_test STREAMS --every=N       every Nth
 *     power_cut_test STREAMS --case=ID       one again
 *     power_cut_test STREAMS --faults        whether the proof sees faults that are built in
 *     power_cut_test STREAMS --dump=N DIR    writes every Nth case, for other judges, and repairs nothing
 *
 * A dumped case is DIR/ID.mp4, DIR/ID.mp4.journal and DIR/ID.want, which has a line for each sample of the uncut
 * recording in the order of the file:
 *
 *     TRACK OFFSET SIZE NANOSECONDS KEY CRC32 KEPT
 *
 * the track from 0, the place in the file, the capture time since the epoch, the key flag as it was given, the CRC-32
 * of the sample's bytes as zlib has it, and 1 for a sample that no repair may lose: up to the first one whose record or
 * bytes are not there in full. In each case that the order of writes and syncs allows (all but some of media, journal
 * and pair) these hold all samples that were synced.
 */
#include <functional>
#include <map>
#include <string_view>
#include <unordered_set>

#include <mediafiles/fix.h>

#include "support/power-cut.h"

namespace {

const mp4_track_desc avc = {MP4_TRACK_H264, {{176, 144, 0}}}, large = {MP4_TRACK_H264, {{640, 360, 0}}},
                     hevc = {MP4_TRACK_H265, {{640, 360, 0}}}, aac = {MP4_TRACK_AAC, {{2, 16, 48000}}},
                     voaac = {MP4_TRACK_AAC, {{2, 16, 44100}}};
const char *const mw = "ext_MPS_MW_A_176x144_30.h264", *const base = "h264_base_640x360_25.h264",
           *const high = "h264_high_aud_4slices_640x360_30.h264", *const cra = "h265_cra_2slices_640x360_30.h265",
           *const aud = "h265_aud_sei_640x360_25.h265", *const lc = "aac_lc_48000_2.aac",
           *const vo = "aac_voaac_44100_2.aac";

const plan plans[] = {
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

/* ---- the model: what a journal says and what repair makes of it, from their descriptions alone ---- */

struct record { uint8_t kind, track; uint32_t length; const uint8_t *payload; };
struct parsed { std::vector<record> all; bool bad = false; }; // bad: the record behind them is damaged

uint32_t word(const uint8_t *at) { return uint32_t(at[0] | at[1] << 8 | at[2] << 16) | uint32_t{at[3]} << 24; }

sample named(const record &r)
{
    const uint8_t *p = r.payload;
    return {r.track, word(p), word(p + 4), int32_t(word(p + 8)), word(p + 16), int32_t(word(p + 20))};
}

parsed parse(const bytes &journal)
{
    parsed out = {};
    uint32_t free = 0; // the least offset of the next sample
    for (size_t at = 0, size; journal.size() - at >= 4; at += size) {
        const record r = {journal[at], journal[at + 1], word(&journal[at]) >> 16, &journal[at] + 4};
        size = 4 + ((r.length + 3) & ~3u);
        if (size <= 512 && size > journal.size() - at) break;
        out.bad = size > 512 || r.kind > 9 || (r.kind >= 3 && r.kind <= 5) || (r.kind == 1 && r.length != 16) ||
                  (r.kind == 2 && (r.length != 24 || named(r).offset < free || named(r).size == 0));
        if (out.bad) break;
        if (r.kind == 2) free = named(r).offset + named(r).size;
        out.all.push_back(r);
    }
    return out;
}

struct prognosis {
    int result = 0, error = 0;
    bool repaired = false;  // else only the head of the file is written
    std::vector<sample> kept;
    std::vector<uint32_t> timescales;
    uint32_t end = 32;      // of the media
    size_t stop = SIZE_MAX; // the sample at which mp4_fix2 stops
};

prognosis foretell(const bytes &journal, size_t length, int version)
{
    const parsed in = parse(journal);
    prognosis out;
    const auto fails = [&](int error) { return out.result = -1, out.error = version == 1 ? error : -1, out; };
    const auto inside = [&](const record &r) { return r.kind == 2 && named(r).offset < length; };
    uint32_t videos = 0, total = 0;
    sample last = {};
    for (const record &r : in.all)
        if (inside(r) && r.track == 0 && named(r).offset >= 32) videos++, last = named(r);
    if (version == 2 && videos == 0) return fails(-1);
    if (version == 2 && videos == 1) return out;

    std::vector<uint32_t> types;
    for (const record &r : in.all) {
        const uint32_t type = r.kind == 1 ? word(r.payload) & ~0x8000u : r.track < types.size() ? types[r.track] : 0;
        if (r.kind == 1) {
            if (types.size() == 8) return fails(ENOBUFS);
            if (type != 0x101 && type != 0x102 && type != 0x201) return fails(ENOSYS);
            types.push_back(type);
            out.timescales.push_back(type == 0x201 ? word(r.payload + 12) : 90000);
        } else if (r.kind >= 6 && r.kind <= 8) {
            if (type == 0) return fails(EINVAL);
            if (type == 0x201 || (type == 0x101 && r.kind == 6)) return fails(ENOSYS);
        } else if (r.kind == 2) {
            const sample s = named(r);
            if (s.offset < out.end) return fails(EBADMSG);
            if (!inside(r)) continue;
            if (version == 2 && s.seconds == last.seconds && s.nanoseconds == last.nanoseconds)
                out.stop = std::min(out.stop, out.kept.size());
            if (out.stop != SIZE_MAX) continue;
            if (type == 0 || s.nanoseconds > 999'999'999) return fails(EINVAL);
            if (uint64_t{total} + s.size > 0xDFFFFFFF) return fails(EFBIG);
            total += s.size, out.end += s.size;
            out.kept.push_back(s);
        }
    }
    if (in.bad) return fails(EBADMSG);
    return out.repaired = true, out;
}

/* ---- samples as a file shows them ---- */

using place = std::tuple<uint64_t, size_t, uint64_t, uint64_t, bool, uint64_t>;
// offset, track, size, ticks from the track's first sample, key, the track's delay in milliseconds

std::vector<place> places(std::span<const sample> samples, const std::vector<uint32_t> &timescales)
{
    struct { uint64_t first, last, ticks; } tracks[8] = {};
    uint64_t start = UINT64_MAX;
    std::vector<place> out;
    for (const sample &s : samples) {
        auto &t = tracks[s.track];
        if (t.first == 0) t = {s.time(), s.time(), 0};
        start = std::min(start, s.time());
        t.ticks += ((s.time() - t.last) * timescales[s.track] + second / 2) / second;
        t.last = s.time();
        out.emplace_back(s.offset, s.track, s.size, t.ticks, s.key != 0, 0);
    }
    for (place &p : out) std::get<5>(p) = (tracks[std::get<1>(p)].first - start) / 1'000'000;
    return out;
}

std::vector<place> places(const mp4::file &file)
{
    std::vector<place> out;
    for (size_t i = 0; i < file.tracks.size(); i++) {
        const mp4::track &t = file.tracks[i];
        const uint64_t delay = !t.edits.empty() && t.edits[0].media_time == -1 ? t.edits[0].duration : 0;
        for (const mp4::sample &s : t.samples)
            out.emplace_back(s.offset, i, s.size, s.time + s.duration, s.sync, delay);
    }
    return std::ranges::sort(out), out;
}

/** The samples before the first whose record or bytes are not there as they were recorded. */
size_t intact(const recording &r, const power_cut &c)
{
    size_t n = 0;
    for (const record &each : parse(c.journal).all) {
        if (each.kind != 2) continue;
        if (n == r.samples.size() || named(each) != r.samples[n]) break;
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
    size_t cases = 0, recordings = 0, repaired = 0;
    std::map<std::string, size_t> failures = {}; // by check
    descriptor file = {}, journal = {};

    void for_each(const std::function<void(const recording &, const power_cut &)> &use)
    {
        std::unordered_set<uint64_t> seen;
        const auto hash = [](const bytes &b) {
            return std::hash<std::string_view>()({reinterpret_cast<const char *>(b.data()), b.size()});
        };
        size_t number = 0;
        for (const plan &p : plans)
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

    void judge(const recording &r, const power_cut &c, int version)
    {
        const auto expect = [&](bool good, const char *check, const std::string &text) {
            if (!good && failures[check]++ < 5 && built_in == fault::none)
                fprintf(stderr, "%s: mp4_fix%s, %s: %s\n", c.id.c_str(), version == 1 ? "" : "2", check, text.c_str());
        };
        const auto fill = [](int fd, const bytes &content) {
            return ftruncate(fd, 0) == 0 && pwrite(fd, content.data(), content.size(), 0) == ssize_t(content.size());
        };
        expect(fill(file, c.media) && fill(journal, c.journal), "files", strerror(errno));
        const auto free_descriptor = [] { const int fd = dup(STDERR_FILENO); return close(fd), fd; };
        const int free_before = free_descriptor();
        mp4_fix_info info = {};
        faults::injection injection({.kind = faults::cutting, .nth = built_in == fault::cut ? 0 : -1, .pretend = true});
        const auto fix = version == 1 ? mp4_fix : mp4_fix2;
        const int result = fix(path_of(file).c_str(), path_of(journal).c_str(), nullptr, &info);
        const int error = result ? errno : 0;
        expect(injection.held == 0 && free_descriptor() == free_before, "leak", "memory or a descriptor");

        const prognosis due = foretell(c.journal, c.media.size(), version);
        expect(result == due.result && error == due.error, "result", std::to_string(result) + ", errno " +
               std::to_string(error) + " instead of " + std::to_string(due.result) + ", " + std::to_string(due.error));
        if (c.spoilt || result != due.result) return;

        const bytes after = file_content(file);
        if (!due.repaired) {
            bytes before = c.media;
            overlay(before, 0, hex("00000018 'ftypmp42' 00*4 'mp42isom' 00000000 'mdat'"));
            expect(after == before, "refused", "more than the head has changed");
            return;
        }
        repaired++;
        const mp4::file got = mp4::read(after);
        const bool cut = due.end > 32 && due.end > c.media.size(); // the last sample is; zeros stand for the rest
        for (const mp4::problem &p : got.problems)
            expect(!p.fault || (cut && p.offset >= due.kept.back().offset && p.offset < due.end), "structure", p.text);
        expect(got.boxes.size() == 3 && got.boxes[2].offset == due.end && info.fileSize == after.size() &&
                   got.tracks.size() == due.timescales.size(), "structure", "not head, media and moov in their places");

        const std::vector<place> shown = places(got);
        expect(shown == places(due.kept, due.timescales), "prefix", "not the samples that the journal names");
        const auto recorded = std::span(r.samples).first(std::min(shown.size(), r.samples.size()));
        bytes media = r.open; // with zeros for what the cut took
        media.resize(std::min(media.size(), c.media.size())), media.resize(due.end);
        const bool same = after.size() > due.end && std::equal(media.begin() + 32, media.end(), after.begin() + 32);
        expect(shown == places(recorded, r.timescales) && same, "recorded", "not what was recorded");

        size_t owed = intact(r, c);
        if (c.possible) // then the journal names nothing that is not there in full
            owed = std::max({owed, c.promised, size_t(std::ranges::count(parse(c.journal).all, 2, &record::kind))});
        expect(shown.size() >= std::min(owed, due.stop) && !(cut && c.possible), "durable", "kept " +
               std::to_string(shown.size()) + " samples of " + std::to_string(owed));
    }

    void run()
    {
        for_each([this](const recording &r, const power_cut &c) { judge(r, c, 1), judge(r, c, 2); });
    }
};

uint32_t crc32(const uint8_t *data, size_t size)
{
    uint32_t crc = ~0u;
    for (size_t i = 0; i < 8 * size; i++) crc = crc >> 1 ^ ((crc ^ data[i / 8] >> i % 8) & 1 ? 0xEDB88320u : 0);
    return ~crc;
}

void dump_case(const recording &r, const power_cut &c, const std::string &name)
{
    std::ofstream media(name + ".mp4"), journal(name + ".mp4.journal"), want(name + ".want");
    std::ranges::copy(c.media, std::ostreambuf_iterator<char>(media));
    std::ranges::copy(c.journal, std::ostreambuf_iterator<char>(journal));
    size_t n = 0;
    for (const size_t kept = intact(r, c); const sample &s : r.samples)
        want << +s.track << ' ' << s.offset << ' ' << s.size << ' ' << s.time() << ' ' << s.key << ' '
             << crc32(&r.open[s.offset], s.size) << ' ' << (n++ < kept) << '\n';
    if (!media.flush() || !journal.flush() || !want.flush()) throw std::runtime_error("cannot write " + name);
}

/** Each fault has to be seen by the check that is meant for it. */
int prove_faults(const std::string &streams, FILE *say)
{
    const struct { const char *what; fault built_in; const char *check; } faults[] = {
        {"the journal is written before the media is flushed", fault::order, "durable"},
        {"a repair does not truncate", fault::cut, "structure"},
        {"a key flag is lost", fault::key, "recorded"},
    };
    size_t unseen = 0;
    for (const auto &f : faults) {
        proof p = {.streams = streams, .built_in = f.built_in, .every = 50};
        p.run();
        unseen += p.failures[f.check] == 0;
        fprintf(say, "%s: %zu cases;", f.what, p.cases);
        for (const auto &[check, count] : p.failures) fprintf(say, " %s: %zu", check.c_str(), count);
        fprintf(say, "%s\n", p.failures[f.check] ? "" : ": NOT SEEN");
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
    if (dump) p.for_each([&](const recording &r, const power_cut &c) { dump_case(r, c, words.back() + "/" + c.id); });
    else p.run();
    for (const auto &[check, count] : p.failures) fprintf(say, "%s: %zu failures\n", check.c_str(), count);
    fprintf(say, "power cuts: %zu cases, %zu recordings, %zu files repaired\n", p.cases, p.recordings, p.repaired);
    const bool enough = p.cases >= (p.every > 1 || !p.only.empty() ? 1 : least_cases);
    return p.failures.empty() && enough ? 0 : 1;
}
