/**
 * Fault sweeps: a scenario is run again and again while its 1st, 2nd, 3rd ... allocation or system call fails, until
 * there is none left to fail. Meanwhile free, close and the logger spoil errno.
 *
 * Whatever fails, the call of the library in which it happens returns the first failure's errno, nothing leaks, the
 * builder records the next file as if nothing had been, and of what reached the medium before the journal that names
 * it every sample comes back. The table says which failures are none: those that the library passes over.
 */
#include <cstring>
#include <map>
#include <numeric>

#include <fcntl.h>
#include <gtest/gtest.h>

#include <mediafiles/fix.h>
#include <mediafiles/support/log.h>
#include <mediafiles/track.h>

#include "support/descriptors.h"
#include "support/fake-stream.h"
#include "support/faults.h"
#include "support/three-codecs.h"

namespace {

using enum faults::call;

const struct fault {
    faults::call kind;
    int error; // 0: the call moves half of its bytes
    bool told; // by a call that returns -1
    bool torn = false; // the call before it moves half of its bytes
} all_faults[] = {
    {memory, ENOMEM, true}, // but what only the journal or a kept parameter set needs, a recording goes on without
    {output, EIO, true}, {output, EIO, true, true}, {output, ENOSPC, true}, {input, EIO, true},
    {output, EINTR, false}, {output, 0, false}, {input, EINTR, false}, {input, 0, false}, // goes on where it stopped
    {seeking, EIO, true}, {seeking, ESPIPE, true}, {seeking, EOVERFLOW, false}, // the offset has moved
    {advice, EINVAL, false}, {advice, ENOSYS, false}, // no data depends on it
    {opening, EMFILE, true}, {opening, EINTR, true}, {sizing, EIO, true},
    {cutting, EIO, true}, {cutting, ENOSPC, true}, {cutting, EINTR, false}, // repeated
    {syncing, EIO, true}, {syncing, ENOSPC, true}, {syncing, EINTR, true},
};

std::string text(long number) { return std::to_string(number); }

/** Injections so far; told when all tests have run. */
struct tally : testing::Environment {
    static inline long injected[faults::kinds];
    void TearDown() override
    {
        static const char *const names[] = {"malloc", "write", "lseek", "fadvise", "read", "open", "fsync", "fstat",
                                            "ftruncate"};
        std::string list;
        for (int kind = 0; kind < faults::kinds; kind++)
            list += std::string(", ") + names[kind] + " " + grouped(injected[kind]);
        const long all = std::accumulate(injected, injected + faults::kinds, 0l);
        printf("fault sweep: %s faults injected: %s\n", grouped(all).c_str(), list.c_str() + 2);
    }
    static std::string grouped(long n)
    {
        return n < 1000 ? text(n) : grouped(n / 1000) + "," + text(1000 + n % 1000).substr(1);
    }
};
[[maybe_unused]] const auto *const registered = testing::AddGlobalTestEnvironment(new tally);

/** The library's own lines of output go nowhere. */
struct silence {
    silence() { turn(nowhere); }
    ~silence() { turn(terminal); }

private:
    static inline const int terminal = dup(1), nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    static void turn(int to) { fflush(stdout), dup2(to, 1); }
};

#ifdef __arm__
constexpr long spread = 4; // of a sweep's steps behind its first ones: emulation is slow
#else
constexpr long spread = 1;
#endif

/**
 * Runs a scenario with each call of a kind failing, alone and with all that follow, until none is hit; of all kinds or
 * of one. `full` has the medium take 0, 1, 2 ... times so many bytes instead. The scenario returns what went wrong.
 */
template <class Scenario>
void sweep(const std::string &what, Scenario scenario, long full = 0, faults::call only = faults::kinds)
{
    const int descriptor_before = free_descriptor();
    for (const fault &f : all_faults)
        for (const bool forever : {false, true}) {
            const bool endless = forever && f.error == EINTR, other = only != faults::kinds && only != f.kind;
            if (endless || other || (full && (f.error != ENOSPC || f.kind != output || forever))) continue;
            bool hit = true;
            for (long nth = 0; hit; nth += (full ? full : 1) * (nth < 8 ? 1 : spread)) {
                faults::plan plan = {.kind = f.kind, .nth = full ? -1 : nth, .forever = forever, .error = f.error,
                                     .spoil = true, .torn = f.torn, .harmless = !f.told, .room = full ? nth : -1};
                std::string wrong;
                {
                    const silence hush;
                    faults::injection injection(plan);
                    wrong = scenario(injection);
                    hit = injection.hit;
                    if (injection.held) wrong += " leak: " + text(injection.held);
                }
                if (free_descriptor() != descriptor_before) wrong += " descriptor left";
                tally::injected[f.kind] += hit;
                ASSERT_EQ(wrong, "") << what << ": " << (full ? "room" : "call") << " of kind " << f.kind << ", "
                                     << nth << (forever ? " and on" : "") << ", errno " << f.error;
            }
        }
}

/** Records of a journal, of kinds from one to another. */
long count(const bytes &journal, int first, int last)
{
    long n = 0;
    for (size_t at = 0; at < journal.size(); at += (7 + (journal[at + 2] | size_t{journal[at + 3]} << 8)) & ~size_t{3})
        n += journal[at] >= first && journal[at] <= last;
    return n;
}

/** The first of two files holds the beginning of the second, but for the size of mdat, which comes late. */
bool begins(bytes part, const bytes &all)
{
    for (size_t i = 24; i < 28 && i < part.size(); i++) part[i] = all[i];
    return part.size() <= all.size() && std::equal(part.begin(), part.end(), all.begin());
}

/** A file without faults and its whole journal. */
struct reference {
    bytes media, journal;
    std::vector<place> samples = places(mp4::read(media));
    mutable std::map<std::string, bytes> repaired = {}; // of a journal: every one has one outcome

    /** Whether a file holds so many of the first samples, and their bytes. */
    bool begun_by(const bytes &file, long n) const
    {
        const std::vector<place> there = places(mp4::read(file));
        if (long(there.size()) < n || !std::equal(there.begin(), there.begin() + n, samples.begin())) return false;
        const long end = n ? long(std::get<0>(samples[size_t(n) - 1]) + std::get<2>(samples[size_t(n) - 1])) : 32;
        return long(file.size()) >= end && std::equal(file.begin() + 32, file.begin() + end, media.begin() + 32);
    }

    /** What repair does not bring back of the samples that a journal names, all of which had reached the file. */
    std::string lost(const bytes &left, const bytes &acknowledged) const
    {
        const descriptor file, records;
        fill(file, left), fill(records, acknowledged);
        if (mp4_fix(path_of(file).c_str(), path_of(records).c_str(), nullptr, nullptr) != 0) return " unrepaired";
        const bytes after = file_content(file);
        bytes &expected = repaired[std::string(acknowledged.begin(), acknowledged.end())];
        if (expected.empty()) {
            const long n = count(acknowledged, MEMENTO_SAMPLE, MEMENTO_SAMPLE);
            const bool described = n && count(acknowledged, MEMENTO_VPS, MEMENTO_SEI) == 6; // by all parameter sets
            const mp4::file result = mp4::read(after);
            if (!begun_by(after, n) || long(places(result).size()) != n) return " samples lost";
            if (described && !result.sound()) return " unsound: " + result.problems[0].text;
            expected = acknowledged == journal ? media : after;
        }
        return after == expected ? "" : " another repair";
    }
};

const struct way_of_recording {
    const char *what;
    uint32_t buffer;
    int frames; // of each track
    int every;  // so many frames the journal is drained, after a flush
    long room = -1; // bytes left on the medium when the first file is closed
    long full = 0; // sweeps that number in such steps
    faults::call only = faults::kinds;
} ways[] = {
    {"unbuffered, drained before the close", 0, 16, 8},
    {"buffered, not drained before the close", 512, 16, 10},
    {"so long that tables and the journal's buffer grow", 4096, 1100, 150, -1, 0, memory},
    {"closed on a full medium", 512, 12, 9, 0},
    {"closed on a medium that takes a part of the end", 512, 12, 9, 2000},
    {"closed on a medium that takes so many bytes", 512, 12, 9, 0, 1},
};

/** Records files in a row with one builder, and holds every result against what was injected. */
struct recorder {
    const way_of_recording &way;
    const reference *good; // of a file without faults; NULL while it is made
    faults::injection &injection;
    long room = -1; // from the next close on
    std::string wrong = {};
    builder_ptr builder = nullptr;
    journal_ptr journal = nullptr;
    bool unexplained = false; // an allocation failed and no call told
    bytes acknowledged = {}, journaled = {}, media = {};

    /** An operation fails as the record has latched, or as the first failure within it was; else it works. */
    template <class Operation>
    bool works(const char *name, Operation operation)
    {
        const bool recording = builder && builder->file_stream;
        const int latched = recording ? builder->movie->error : 0;
        injection.cause = errno = 0;
        const int error = operation(), expected = latched ? latched : injection.cause;
        if (error == 0 && expected == ENOMEM && recording) unexplained = true;
        else if (error != expected) wrong += std::string(" ") + name + ": " + text(error) + " for " + text(expected);
        if (name == std::string("add_frame") && builder->movie->error != error) wrong += " not latched";
        const bool opened = name == std::string("open") ? error == 0 : recording && name != std::string("close");
        if (opened != (builder && builder->file_stream)) wrong += std::string(" open after ") + name;
        return error == 0;
    }

    bool create()
    {
        const auto made = [](auto object, auto &into) { return into.reset(object), into ? 0 : errno; };
        return works("builder", [&] { return made(mp4_builder_create(), builder); }) &&
               works("journal", [&] { return made(mediafile_caretaker_create(), journal); });
    }

    /** A file up to a close without error. */
    bool file(int fd)
    {
        mp4_builder *const b = builder.get();
        const auto add_track = [&] { return error_of(b->add_track(b, &three_tracks[b->movie->next_track_id - 1])); };
        while (b->movie->next_track_id <= 3)
            if (!works("add_track", add_track)) return false;
        if (!works("open", [&] { return error_of(b->open(b, fd, way.buffer, journal.get())); })) return false;
        for (int i = 0; i < way.frames; i++) {
            const bool backwards = i % 4 == 1; // two frames of a track in one chunk, now and then
            for (const int n : {0, 1, 2}) works("add_frame", [&] { return add_frame(b, backwards ? 2 - n : n, i); });
            if (i % way.every == way.every - 1 && works("flush", [&] { return error_of(b->flush(b)); }))
                overlay(acknowledged, acknowledged.size(), drain(journal));
        }
        if (room >= 0) injection.orders.room = std::exchange(room, -1);
        return works("close", [&] { return error_of(b->close(b)); });
    }

    /** A file, and what is left of it when it fails. */
    bool record()
    {
        const descriptor medium;
        acknowledged.clear(), unexplained = false;
        const bool complete = file(medium);
        const faults::pause pause;
        media = file_content(medium), journaled = acknowledged;
        overlay(journaled, journaled.size(), drain(journal));
        if (!good) return complete;
        // Without memory the journal ends early, or a parameter set is kept and journaled when it comes again.
        const int ended = mediafile_caretaker_errcode(journal.get());
        const bool excused = injection.orders.kind == memory && (ended == ENOMEM || journaled != good->journal);
        if ((ended || unexplained) && !excused) wrong += " journal: " + text(ended);
        if (builder->movie->error && media.size() > 27 && media[26] | media[27]) wrong += " ended in spite of an error";
        if (complete ? media != good->media : !begins(media, good->media)) wrong += " other media";
        if (complete && !excused && journaled != good->journal) wrong += " other journal";
        if (!complete) wrong += good->lost(media, acknowledged);
        return complete;
    }
};

/** Two files in a row while something fails, and a third one when all is well again. */
std::string record_files(const way_of_recording &way, const reference &good, faults::injection &injection)
{
    recorder r = {way, &good, injection, std::exchange(injection.orders.room, -1)};
    if (r.room < 0) r.room = way.room;
    if (r.create()) r.record(), injection.orders.room = way.full ? -1 : injection.orders.room, r.record();
    injection.orders = {}, r.room = -1;
    if (!r.builder || !r.journal) r.create();
    if (!r.record()) r.wrong += " the next file fails";
    return r.wrong;
}

reference without_faults(const way_of_recording &way, bytes *acknowledged = nullptr)
{
    const silence hush;
    faults::injection injection;
    recorder r = {way, nullptr, injection};
    EXPECT_TRUE(r.create() && r.record()) << r.wrong;
    if (acknowledged) *acknowledged = r.acknowledged;
    return {r.media, r.journaled};
}

TEST(fault_sweep, recording)
{
    for (const way_of_recording &way : ways) {
        const reference good = without_faults(way);
        EXPECT_TRUE(mp4::read(good.media).sound() && long(good.samples.size()) == 3 * way.frames);
        const auto scenario = [&](faults::injection &injection) { return record_files(way, good, injection); };
        sweep(way.what, scenario, way.full, way.only);
    }
}

/** Lists with more entries than there is room for on the stack, and tables that begin late. */
TEST(fault_sweep, long_lists)
{
    const bytes data(700000, 0xA5);
    const std::vector<iovec> entries(200, iovec{const_cast<uint8_t *>(data.data()), 8});
    const mp4_gather_list list = {entries.data(), 200, 0, 1600};
    for (const uint32_t cache : {0u, 64u})
        sweep("a file stream, cache " + text(cache), [&](faults::injection &injection) -> std::string {
            const descriptor file;
            const stream_ptr stream(mp4_file_stream_create(file, cache));
            if (!stream) return errno == ENOMEM ? "" : " untold";
            stream->write(stream.get(), data.data(), 3);
            injection.cause = errno = 0;
            const int error = error_of(stream->writev(stream.get(), &list));
            const uint32_t expected = error ? 3 : 1603;
            stream->flush(stream.get());
            return error == injection.cause && stream->tell(stream.get()) == expected && file_content(file).size() == expected
                ? "" : " " + text(error);
        }, 0, memory);
    sweep("a memory stream", [&](faults::injection &injection) -> std::string {
        const stream_ptr stream(mp4_memory_stream_create());
        fake_stream out;
        const int error = !stream ? errno : error_of(stream->write(stream.get(), data.data(), uint32_t(data.size())))
            ? ENOMEM : error_of(stream->copy_to(stream.get(), &out));
        return error == injection.cause && out.content.size() == (error ? 0 : data.size()) ? "" : " " + text(error);
    }, 0, memory);
    sweep("a track", [&](faults::injection &injection) -> std::string {
        std::unique_ptr<mp4_track, destroy_by<mp4_track_destroy>> track(mp4_track_create(1, MP4_MEDIA_AUDIO, 1000, 1000));
        if (!track) return errno == ENOMEM ? "" : " untold";
        fake_stream out;
        mp4_track_begin_record(track.get(), &out, nullptr, 0);
        int error = 0;
        for (int i = 0; i < 1100 && !error; i++) error = error_of(mp4_track_add_sample(track.get(), data.data(), 1, 1, 1));
        const size_t written = out.content.size(); // all but what is cached
        if (!error && error_of(__mp4_track_add_sample(track.get(), &list, 1, 0))) error = errno;
        if (error && injection.made[memory] && out.content.size() != written && out.content.size() != 2700) return " a part";
        return error == injection.cause ? "" : " " + text(error);
    }, 0, memory);
}

/** What is to be repaired; no file for the journal alone. */
struct patient {
    const char *what;
    bool file;
    bytes media, journal;
};
struct outcome {
    int error;
    mp4_fix_info info;
    bytes media;
};

outcome repair(int version, const patient &p)
{
    std::unique_ptr<faults::pause> pause(new faults::pause);
    const descriptor file, journal;
    fill(file, p.media), fill(journal, p.journal), faults::log_lines.clear();
    const std::string path = path_of(file), journal_path = path_of(journal);
    outcome out;
    memset(&out.info, 0x5A, sizeof out.info);
    pause.reset(), errno = 0;
    const auto fix = version == 1 ? mp4_fix : mp4_fix2;
    out.error = error_of(fix(p.file ? path.c_str() : nullptr, journal_path.c_str(), nullptr, &out.info));
    pause.reset(new faults::pause);
    out.media = file_content(file);
    return out;
}

/** What mp4_fix logs of a failure in one of its steps. */
std::string line(const char *step, const char *where, int error)
{
    return std::string("5 ") + step + " [src/mediafiles/mp4/fix:" + where + "]: " + strerror(error) + "\n";
}

/** What a patient's repair gives when nothing fails. */
struct prognosis {
    int version;
    const patient &p;
    outcome good = repair(version, p);
    bytes cured = repair(1, p).media;
    outcome early = repair(version, {"", p.file, p.media, bytes(p.journal.begin(), p.journal.begin() + first_read(p))});
    static constexpr size_t reader_buffer = 8192;
    static long first_read(const patient &p) { return long(std::min(reader_buffer, p.journal.size())); }
};

/** A repair, held against what the first failure among its calls leads to in the step into which it fell. */
std::string repair_once(const prognosis &known, const reference &whole, std::set<std::string> &said,
                        faults::injection &injection)
{
    const auto &[version, p, good, cured, early] = known;
    const outcome out = repair(version, p);
    const faults::pause pause;
    const int cause = injection.cause;
    const long *const then = injection.made_then;
    const faults::call kind = injection.orders.kind;
    const bool started = then[opening] + !p.file > 1, loaded = started && (then[output] || then[input]);
    const bool cut = then[cutting], synced = then[syncing];
    // The first pass of mp4_fix2 counts as far as it can read. Where the second can read it all, that stays unsaid.
    const bool miscounts = version == 2 && kind == input && !then[seeking] && !injection.orders.forever &&
                           then[input] > 1 && p.journal.size() > prognosis::reader_buffer;
    const outcome &best = cause && miscounts ? early : good;
    const bool unkept = out.error == 0 && cause == ENOMEM; // a parameter set that finds no memory is left out
    const int error = cause == 0 || miscounts || unkept ? 0 : version == 2 && loaded && !synced ? -1 : cause;
    std::string wrong, log;
    if (out.error != error) wrong += " " + text(out.error) + " for " + text(error);

    if (unkept) {
        const mp4::file without = mp4::read(out.media);
        if (out.media == best.media || places(without) != places(mp4::read(best.media))) wrong += " not told";
    } else if (error == 0 || synced ? out.media != best.media
               : cut && kind != cutting ? !begins(out.media, best.media) : out.media != p.media)
        wrong += " other media";
    mp4_fix_info info = best.info;
    if (unkept) info.fileSize = uint32_t(out.media.size());
    if (error != 0 && !synced) memset(&info, 0x5A, sizeof info); // as the caller left it
    if (memcmp(&out.info, &info, sizeof info) != 0) wrong += " other info";

    for (const std::string &told : faults::log_lines) log += version == 1 || told[0] == '5' ? told : "";
    const std::string step = cut ? line("exit fialed\n", "fix:295", cause) : kind != input ? "" :
        "4 caretaker->error=5(Input/output error)\n" + line("mediafile_caretaker_errcode", "fix:265", EDOM);
    const std::string end = line("fix", "mp4_fix:69", cause), expected = version == 2 || error == 0 || synced || !started
        ? "" : loaded ? step + end : line("mediafile_caretaker_load", "mp4_fix:61", cause);
    if (log != expected && (p.file || !log.ends_with(end) || !loaded)) wrong += " says " + log;
    said.insert(log.substr(0, log.find(" [")));
    if (!p.file) return wrong;
    // Whatever has become of the file, another repair brings all of it back that this one should have left.
    const bytes again = repair(1, {"", true, out.media, p.journal}).media;
    const bool shorter = version == 2 && out.media != p.media;
    const bool back = shorter ? whole.begun_by(again, long(places(mp4::read(best.media)).size())) : again == cured;
    return wrong + (back ? "" : " not repeatable");
}

TEST(fault_sweep, repair)
{
    for (const int level : {4, 5, 8}) __logLevels[16 * level + 15] = 1;
    bytes acknowledged;
    const way_of_recording way = {"", 512, 110, 105};
    const reference whole = without_faults(way, &acknowledged);
    const long n = count(acknowledged, MEMENTO_SAMPLE, MEMENTO_SAMPLE);
    const auto &last = whole.samples[size_t(n)]; // the journal ends in a part of it, the file somewhere behind it
    bytes cut(whole.media.begin(), whole.media.begin() + long(std::get<0>(last)) + 100), torn = acknowledged;
    overlay(cut, 24, bytes(4)), torn.insert(torn.end(), &whole.journal[torn.size()], &whole.journal[torn.size() + 13]);
    // Three tracks; of the second so many chunks of changing size that a table grows when the last one is closed.
    bytes tracks(whole.journal.begin(), whole.journal.begin() + 60), chunks = tracks, single = tracks;
    overlay(single, 60, records("m0:32,1,1"));
    for (int i = 0, at = 32; i < 65; i++)
        for (const int track : {0, i % 2, 1}) {
            const std::string where = text(at++);
            overlay(chunks, chunks.size(), records("m" + text(track) + ":" + where + ",1," + where));
        }
    const patient patients[] = {{"an interrupted file", true, cut, torn}, {"a journal alone", false, {}, chunks},
                                {"a file with one picture", true, cut, single}};
    std::set<std::string> said;
    for (const patient &p : patients)
        for (const int version : {1, 2}) {
            const auto expect = [&] { const silence hush; return prognosis{version, p}; };
            const prognosis known = expect();
            if (p.journal == torn) { // of mp4_fix2 all before the last picture
                long left = n;
                while (version == 2 && std::get<1>(whole.samples[size_t(--left)]) != 0) {}
                const bytes &media = known.good.media;
                EXPECT_TRUE(mp4::read(media).sound() && whole.begun_by(media, left));
                EXPECT_EQ(long(places(mp4::read(media)).size()), left);
            }
            const auto scenario = [&](faults::injection &i) { return repair_once(known, whole, said, i); };
            for (const long full : {0, 13}) sweep(p.what + (", mp4_fix" + text(version)), scenario, full);
        }
    const std::set<std::string> all = {"", "4 caretaker->error=5(Input/output error)\n5 mediafile_caretaker_errcode",
        "5 exit fialed\n", "5 fix", "5 mediafile_caretaker_load", "5 mp4_movie_errcode"};
    EXPECT_EQ(said, all);
}

} // namespace
