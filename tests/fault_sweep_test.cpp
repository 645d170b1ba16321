/**
 * Fault sweeps: a scenario is run again and again while its 1st, 2nd, 3rd ... allocation or system call fails, until
 * there is none left to fail. Meanwhile free, close and the logger spoil errno.
 *
 * Whatever fails, the call of the library in which it happens returns the first failure's errno, nothing leaks, the
 * builder records the next file as if nothing had been, the samples of a journal are the first ones of the recording
 * without a hole, and of what reached the medium before the journal that names it every sample comes back. A repair
 * that fails changes no media, and can be repeated. The table says which failures are none: those that the library
 * passes over.
 */
#include <cstring>
#include <map>

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
    int error;         // 0: the call moves half of its bytes
    bool reported;     // by a call that returns -1
    bool torn = false; // the call before it moves half of its bytes
} all_faults[] = {
    {memory, ENOMEM, true}, // a recording goes on without what only the journal or a kept parameter set needs
    {output, EIO, true},         {output, EIO, true, true}, {output, ENOSPC, true},
    {output, EINTR, false}, // goes on where it stopped
    {output, 0, false},          {input, EIO, true},        {input, EINTR, false},
    {input, 0, false},           {seeking, EIO, true},      {seeking, ESPIPE, true},
    {seeking, EOVERFLOW, false}, // the offset has moved
    {advice, EINVAL, false},     // no data depends on it
    {advice, ENOSYS, false},     {opening, EMFILE, true},   {opening, EINTR, true},
    {sizing, EIO, true},         {cutting, EIO, true},      {cutting, ENOSPC, true},
    {cutting, EINTR, false}, // repeated
    {syncing, EIO, true},        {syncing, ENOSPC, true},   {syncing, EINTR, true},
};

const auto text = [](long number) { return std::to_string(number); };

/** Injections so far, by the rows of the table; printed when all tests have run, of which each row needs some. */
struct tally : testing::Environment {
    static inline long injected[std::size(all_faults)];

    void TearDown() override
    {
        static const char *const names[] = {"malloc", "write", "lseek", "fadvise",  "read",
                                            "open",   "fsync", "fstat", "ftruncate"};
        long all = 0, by_kind[faults::kinds] = {};
        const auto &run = *testing::UnitTest::GetInstance();
        for (size_t i = 0; i < std::size(all_faults); i++) {
            by_kind[all_faults[i].kind] += injected[i];
            all += injected[i];
            EXPECT_TRUE(injected[i] > 0 || run.test_to_run_count() < run.total_test_count())
                << "never injected: " << names[all_faults[i].kind] << ", " << strerror(all_faults[i].error);
        }
        std::string list;
        for (int kind = 0; kind < faults::kinds; kind++)
            list += std::string(", ") + names[kind] + " " + text(by_kind[kind]);
        printf("fault sweep: %s faults injected: %s\n", text(all).c_str(), list.c_str() + 2);
    }
};
[[maybe_unused]] const auto *const registered = testing::AddGlobalTestEnvironment(new tally);

#ifdef __arm__
constexpr long spread = 4; // of a sweep's steps after its first ones: emulation is slow
#else
constexpr long spread = 1;
#endif

/** Runs a scenario under a plan and sets whether it was hit. Returns what went wrong, leaks too. */
template <class Scenario>
std::string run(const Scenario &scenario, const faults::plan &plan, bool &hit)
{
    const int descriptor_before = free_descriptor();
    std::string wrong;
    {
        const silence hush;
        faults::injection injection(plan);
        wrong = scenario(injection);
        hit = injection.hit;
        if (injection.held) wrong += " leak: " + text(injection.held);
    }
    return free_descriptor() == descriptor_before ? wrong : wrong + " descriptor left";
}

/**
 * Runs a scenario with each call of a kind failing, alone and with all that follow, until none is hit; of all kinds or
 * of one. `full` has the medium take 0, 1, 2 ... times so many bytes instead. The scenario returns what went wrong.
 */
template <class Scenario>
void sweep(const std::string &what, const Scenario &scenario, long full = 0, faults::call only = faults::kinds)
{
    for (size_t row = 0; row < std::size(all_faults); row++)
        for (const bool forever : {false, true}) {
            const fault &f = all_faults[row];
            const bool endless = forever && f.error == EINTR, other = only != faults::kinds && only != f.kind;
            if (endless || other || (full && (f.error != ENOSPC || f.kind != output || forever))) continue;
            faults::plan plan = {.kind = f.kind, .forever = forever, .error = f.error};
            plan.spoil = true;
            plan.torn = f.torn;
            plan.harmless = !f.reported;
            bool hit = true;
            for (long nth = 0; hit; nth += (full ? full : 1) * (nth < 8 ? 1 : spread)) {
                (full ? plan.room : plan.nth) = nth;
                const std::string wrong = run(scenario, plan, hit);
                tally::injected[row] += hit;
                ASSERT_EQ("", wrong) << what << ": " << (full ? "room" : "call") << " of kind " << f.kind << ", " << nth
                                     << (forever ? " and on" : "") << ", errno " << f.error;
            }
        }
}

/** Records of a journal, of kinds from one to another. */
std::vector<bytes> records_of(const bytes &journal, int first, int last)
{
    std::vector<bytes> found;
    for (auto at = journal.begin(); at != journal.end();) {
        const auto end = at + ((7 + at[2] + at[3] * 256) & ~3);
        if (at[0] >= first && at[0] <= last) found.emplace_back(at, end);
        at = end;
    }
    return found;
}
const auto samples_of = [](const bytes &journal) { return records_of(journal, MEMENTO_SAMPLE, MEMENTO_SAMPLE); };

const auto is_prefix = [](const auto &part, const auto &all) {
    return part.size() <= all.size() && std::equal(part.begin(), part.end(), all.begin());
};

/** The first of two files holds the beginning of the second, but for the size of mdat, which comes late. */
bool begins(bytes part, const bytes &all)
{
    for (size_t i = 24; i < 28 && i < part.size(); i++) part[i] = all[i];
    return is_prefix(part, all);
}

/** What is to be repaired, by mp4_fix or mp4_fix2; no file for the journal alone. */
struct interrupted {
    std::string what;
    bool has_file;
    bytes media, journal;
    int version = 1;
};
struct repaired {
    int error;
    mp4_fix_info info;
    bytes media;

    size_t end() const // of the media
    {
        return media.size() < 28
                   ? 0
                   : 24u + (size_t{media[24]} << 24 | size_t{media[25]} << 16 | size_t{media[26]} << 8 | media[27]);
    }
};

repaired repair(const interrupted &given)
{
    std::unique_ptr<faults::pause> pause(new faults::pause);
    const descriptor file, journal;
    fill(file, given.media);
    fill(journal, given.journal);
    const std::string path = path_of(file), journal_path = path_of(journal);
    repaired out;
    memset(&out.info, 0x5A, sizeof out.info);
    pause.reset();
    errno = 0;
    const auto fix = given.version == 1 ? mp4_fix : mp4_fix2;
    out.error = error_of(fix(given.has_file ? path.c_str() : nullptr, journal_path.c_str(), nullptr, &out.info));
    pause.reset(new faults::pause);
    out.media = file_content(file);
    return out;
}

/** A file without faults and its whole journal. */
struct reference {
    bytes media, journal;
    std::vector<place> samples = places(mp4::read(media));
    mutable std::map<std::string, bytes> repaired_by = {}; // of a journal: every one has one outcome

    /** What repair does not bring back of the samples that a journal names, all of which had reached the file. */
    std::string lost(const bytes &left, const bytes &acknowledged) const
    {
        const repaired after = repair({"", true, left, acknowledged});
        if (after.error) return " unrepaired";
        bytes &expected = repaired_by[std::string(acknowledged.begin(), acknowledged.end())];
        if (expected.empty()) {
            const size_t n = samples_of(acknowledged).size();
            const bool described = n && records_of(acknowledged, MEMENTO_VPS, MEMENTO_SEI).size() == 6; // by all sets
            const mp4::file result = mp4::read(after.media);
            const std::vector<place> there = places(result);
            const auto kept = std::span(after.media).first(after.end()).subspan(32);
            if (there.size() != n || !is_prefix(there, samples) || !is_prefix(kept, std::span(media).subspan(32)))
                return " samples lost";
            if (described && !result.sound()) return " unsound: " + result.problems[0].text;
            expected = acknowledged == journal ? media : after.media;
        }
        return after.media == expected ? "" : " another repair";
    }
};

const struct way_of_recording {
    const char *what;
    uint32_t buffer;
    int frames;     // of each track
    int every;      // so many frames the journal is drained, after a flush
    long room = -1; // bytes left on the medium when the first file is closed
    long full = 0;  // sweeps that number in such steps
    faults::call only = faults::kinds;
    int run = 1; // frames of a track one after another
} ways[] = {
    {"unbuffered, drained before the close", 0, 16, 8},
    {"buffered, not drained before the close", 512, 16, 10},
    {"so long that tables and the journal's buffer grow", 4096, 1100, 150, -1, 0, memory},
    {"in chunks of five, within which the journal's buffer grows", 4096, 60, 60, -1, 0, memory, 5},
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
    bool unexplained = false; // an allocation failed and no call reported it
    bytes acknowledged = {}, journaled = {}, media = {};

    /** An operation fails as the record has latched, or as the first failure within it was; else it works. */
    template <class Operation>
    bool works(const char *name, Operation operation)
    {
        const bool recording = builder && builder->file_stream;
        const int latched = recording ? builder->movie->error : 0;
        injection.cause = errno = 0;
        const int error = operation(), expected = latched ? latched : injection.cause;
        if (error == 0 && expected == ENOMEM && recording)
            unexplained = true;
        else if (error != expected)
            wrong += std::string(" ") + name + ": " + text(error) + " for " + text(expected);
        if (name == std::string("add_frame") && builder->movie->error != error) wrong += " not latched";
        const bool opened = name == std::string("open") ? error == 0 : recording && name != std::string("close");
        if (opened != (builder && builder->file_stream)) wrong += std::string(" open after ") + name;
        return error == 0;
    }

    bool create()
    {
        const auto made = [](auto object, auto &into) {
            into.reset(object);
            return object ? 0 : errno;
        };
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
        for (int i = 0; i < way.frames; i += way.run) {
            const bool backwards = i % 4 == 1; // two frames of a track in one chunk, now and then
            for (const int n : {0, 1, 2})
                for (int k = i; k < i + way.run; k++)
                    works("add_frame", [&] { return add_frame(b, backwards ? 2 - n : n, k); });
            const bool due = (i + way.run) % way.every == 0;
            if (due && works("flush", [&] { return error_of(b->flush(b)); }))
                overlay(acknowledged, acknowledged.size(), drain(journal));
        }
        if (room >= 0) injection.orders.room = std::exchange(room, -1);
        return works("close", [&] { return error_of(b->close(b)); });
    }

    /** A file, and what is left of it when it fails. */
    bool record()
    {
        const descriptor medium;
        acknowledged.clear();
        unexplained = false;
        const bool complete = file(medium);
        const faults::pause pause;
        media = file_content(medium);
        journaled = acknowledged;
        overlay(journaled, journaled.size(), drain(journal));
        if (!good) return complete;
        // Without memory the journal ends early, or a parameter set is kept and journaled when it comes again.
        const int ended = mediafile_caretaker_errcode(journal.get());
        const bool other = journaled != good->journal, excused = injection.orders.kind == memory && (ended || other);
        const std::vector<bytes> named = samples_of(journaled), all = samples_of(good->journal);
        if ((ended || unexplained) && !excused) wrong += " journal: " + text(ended);
        if (ended && ended != ENOMEM) wrong += " journal ended by " + text(ended);
        if (!is_prefix(named, all)) wrong += " journal with a hole";
        if (complete && !ended && named.size() != all.size()) wrong += " samples not journaled";
        if (complete && other && !excused) wrong += " other journal";
        if (builder->movie->error && media.size() > 27 && media[26] | media[27]) wrong += " ended in spite of an error";
        if (complete ? media != good->media : !begins(media, good->media)) wrong += " other media";
        if (!complete) wrong += good->lost(media, acknowledged);
        return complete;
    }
};

/** Two files in a row while something fails, and a third one when all is well again. */
std::string record_files(const way_of_recording &way, const reference &good, faults::injection &injection)
{
    recorder r = {way, &good, injection, std::exchange(injection.orders.room, -1)};
    if (r.room < 0) r.room = way.room;
    if (r.create()) {
        r.record();
        if (way.full) injection.orders.room = -1;
        r.record();
    }
    injection.orders = {};
    r.room = -1;
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

TEST(FaultSweep, Recording)
{
    for (const way_of_recording &way : ways) {
        const reference good = without_faults(way);
        EXPECT_TRUE(mp4::read(good.media).sound() && long(good.samples.size()) == 3 * way.frames);
        const auto scenario = [&](faults::injection &injection) { return record_files(way, good, injection); };
        sweep(way.what, scenario, way.full, way.only);
    }
}

/** More entries than there is room for on the stack. */
const bytes long_data(700000, 0xA5);
const std::vector<iovec> entries(200, iovec{const_cast<uint8_t *>(long_data.data()), 8});
const mp4_gather_list long_list = {entries.data(), 200, 0, 1600};

/** A scenario that gives an error and whether all is as that error says. */
template <class Scenario>
void sweep_memory(const std::string &what, const Scenario &scenario)
{
    const auto judged = [&scenario](faults::injection &injection) {
        const auto [error, right] = scenario(injection);
        return right && error == injection.cause ? "" : " " + text(error);
    };
    sweep(what, judged, 0, memory);
}

TEST(FaultSweep, LongListsToAFile)
{
    for (const uint32_t cache : {0u, 64u})
        sweep_memory("cache " + text(cache), [&](faults::injection &injection) {
            const descriptor file;
            const stream_ptr stream(mp4_file_stream_create(file, cache));
            if (!stream) return std::pair(errno, true);
            stream->write(stream.get(), long_data.data(), 3);
            injection.cause = errno = 0;
            const int error = error_of(stream->writev(stream.get(), &long_list));
            const uint32_t expected = error ? 3 : 1603;
            stream->flush(stream.get());
            return std::pair(error, stream->tell(stream.get()) == expected && file_size(file) == expected);
        });
}

TEST(FaultSweep, LongListsToMemory)
{
    sweep_memory("a memory stream", [](faults::injection &) {
        const stream_ptr stream(mp4_memory_stream_create());
        if (!stream) return std::pair(errno, true);
        fake_stream out;
        int error = error_of(stream->write(stream.get(), long_data.data(), uint32_t(long_data.size()))) ? ENOMEM : 0;
        if (!error) error = error_of(stream->copy_to(stream.get(), &out));
        return std::pair(error, out.content.size() == (error ? 0 : long_data.size()));
    });
}

TEST(FaultSweep, LongListsToATrack) // whose tables begin late
{
    sweep_memory("a track", [](faults::injection &injection) {
        std::unique_ptr<mp4_track, destroy_by<mp4_track_destroy>> track(
            mp4_track_create(1, MP4_MEDIA_AUDIO, 1000, 1000));
        if (!track) return std::pair(errno, true);
        fake_stream out;
        mp4_track_begin_record(track.get(), &out, nullptr, 0);
        int error = 0;
        for (int i = 0; i < 1100 && !error; i++)
            error = error_of(mp4_track_add_sample(track.get(), long_data.data(), 1, 1, 1));
        const size_t written = out.content.size(); // all but what is cached
        if (!error) error = error_of(__mp4_track_add_sample(track.get(), &long_list, 1, 0));
        const bool part = out.content.size() != written && out.content.size() != 2700;
        return std::pair(error, !(error && injection.made[memory] && part));
    });
}

/** Repairs while something fails, `good` being what comes of it when nothing does. */
std::string repair_once(const interrupted &given, const repaired &good, const bytes &cured,
                        const faults::injection &injection)
{
    const repaired out = repair(given);
    const faults::pause pause;
    std::string wrong;
    const int cause = injection.cause;
    const faults::call kind = injection.orders.kind;
    const std::vector<place> kept = places(mp4::read(out.media)), all = places(mp4::read(good.media));
    if (cause == 0 && (out.error || out.media != good.media || memcmp(&out.info, &good.info, sizeof out.info) != 0))
        wrong += " not as without a fault: " + text(out.error);
    // mp4_fix2 gives no cause once it has begun, and counts as far as it can read.
    const bool hidden = given.version == 2 && out.error == -1, miscounted = given.version == 2 && kind == input;
    if (out.error && out.error != cause && !hidden) wrong += " " + text(out.error) + " for " + text(cause);
    // A parameter set that finds no memory is left out; nothing else is missing after a success.
    if (cause && !out.error && !miscounted && (cause != ENOMEM || out.media == good.media || kept != all))
        wrong += " not reported";
    if (!out.error && !is_prefix(kept, all)) wrong += " other samples";
    const bool has_info = out.info.trackCount == good.info.trackCount, is_final = !out.error || kind == syncing;
    if (has_info ? !is_final || (given.has_file && !kept.empty() && out.info.fileSize != out.media.size())
                 : !out.error || out.info.trackCount != 0x5A5A5A5A)
        wrong += " other info";

    const size_t due = miscounted ? out.end() : good.end(),
                 end = due > 32 ? std::min(due, given.media.size()) : given.media.size();
    const auto media_of = [end](const bytes &file) {
        return std::span(file).first(end).subspan(std::min<size_t>(end, 32));
    };
    if (out.media.size() < end || !std::ranges::equal(media_of(out.media), media_of(given.media)))
        wrong += " media lost";
    if (!given.has_file) return wrong;
    // Whatever has become of the file, mp4_fix brings back all that is due: without a fault only mp4_fix2 cuts it off.
    const bytes again = repair({"", true, out.media, given.journal}).media;
    if (given.version == 1 || out.media == given.media ? again != cured
                                                       : !is_prefix(out.error ? all : kept, places(mp4::read(again))))
        wrong += " not repeatable";
    return wrong;
}

/** A file that ends in a sample that its journal does not name, and its journal, which ends in that sample's record. */
interrupted cut_recording()
{
    bytes journal;
    const reference whole = without_faults({"", 512, 110, 105}, &journal);
    const size_t end = size_t(whole.samples[samples_of(journal).size()].offset) + 100, size = journal.size();
    const bytes media = with(first(whole.media, end), 24, bytes(4));
    journal.insert(journal.end(), &whole.journal[size], &whole.journal[size + 13]);
    return {"an interrupted file", true, media, journal};
}

TEST(FaultSweep, Repair)
{
    for (const int level : {4, 5, 8}) __logLevels[16 * level + 15] = 1;
    const interrupted file = cut_recording();
    // Three tracks; of the second so many chunks of changing size that a table grows when the last one is closed.
    const bytes tracks(file.journal.begin(), file.journal.begin() + 60);
    bytes chunks = tracks, single = tracks;
    overlay(single, 60, records("m0:32,1,1"));
    for (int i = 0, at = 32; i < 65; i++)
        for (const int track : {0, i % 2, 1}) {
            const std::string where = text(at++);
            overlay(chunks, chunks.size(), records("m" + text(track) + ":" + where + ",1," + where));
        }
    const interrupted alone = {"a journal alone", false, {}, chunks}, one = {"one picture", true, file.media, single};
    for (interrupted given : {file, alone, one})
        for (const int version : {1, 2}) {
            const auto silently = [](const interrupted &what) {
                const silence hush;
                return repair(what);
            };
            given.version = 1;
            const bytes cured = silently(given).media;
            given.version = version;
            const repaired good = silently(given);
            EXPECT_EQ(0, good.error);
            const auto scenario = [&](faults::injection &i) { return repair_once(given, good, cured, i); };
            for (const long full : {0, 13}) sweep(given.what + ", mp4_fix" + text(version), scenario, full);
        }
}

} // namespace
