/**
 * Every call of a recorder that touches the medium, and every allocation, fails: once, or from then on. A run records
 * three files beside the recovery of one that was interrupted. Whatever fails, the recorder ends when it is told to,
 * what was safe is there after a recovery, each file is sound, a failure that costs anything was reported, and the next
 * file is recorded.
 */

#include <gtest/gtest.h>

#include "support/descriptors.h"
#include "support/recorder-harness.h"

namespace {

using medium::failing;

#ifndef SPREAD
#define SPREAD 1 // of allocations; more where programs run slowly
#endif
/** Failures are shown while the library's lines are not. */
class to_errors : public testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult &what) override
    {
        fprintf(stderr, "%s:%d: %s\n", what.file_name(), what.line_number(), what.message());
    }
};
[[maybe_unused]] const bool is_shown = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new to_errors);
    return true;
}();

constexpr int64_t begin_of_extra = 5 * second;

const std::vector<source> &three_segments()
{
    static const std::vector<source> all = [] {
        stream sound = repeated(load("aac_lc_48000_2", ".aac"), 1);
        std::erase_if(sound, [](const frame &each) { return each.time > 1'160 * millisecond; });
        return std::vector<source>{{h264(), numbered(camera(3, 2'000))}, {aac(48000), numbered(sound)}};
    }();
    return all;
}

const stream &extra()
{
    static const stream all = numbered(camera(1, 3'000, begin_of_extra), 1'000);
    return all;
}

using kept = std::map<std::string, bytes>; // the files of a card

/** A recording that was interrupted, with parts of its last rounds. */
const kept &interrupted()
{
    static const kept made = [] {
        const card on;
        const recorder_ptr recorder = start(on, {h264(), aac(48000)}, [](auto &o) { o.sync_ns = millisecond; });
        push_all(recorder, three_segments());
        EXPECT_TRUE(comes_true([&] { return stats_of(recorder).safe[0] >= 25; }));
        kept all;
        for (const std::string &name : on.names()) all[name] = on.get(name);
        return all;
    }();
    return made;
}

struct outcome {
    int error_of_start = 0;
    bool has_hit = false, is_reported = false, goes_on = true;
    bool has_extra = false;                   // one file more was recorded, after the failure
    bool has_deleted = false;                 // files that were finished, to make room
    std::array<uint64_t, 2> safe_before = {}; // frames of each track that were safe before the failure
    uint64_t dropped_before = 0;              // likewise
};

void take_events(mediafiles_recorder *recorder, outcome &seen)
{
    const auto kinds = events_of(recorder);
    for (const auto &[kind, count] : kinds)
        seen.is_reported |=
            std::set<uint32_t>{MEDIAFILES_EVENT_NOT_RECOVERED, MEDIAFILES_EVENT_DROPPED,     MEDIAFILES_EVENT_FULL,
                               MEDIAFILES_EVENT_NO_MEDIUM,     MEDIAFILES_EVENT_WRITE_ERROR, MEDIAFILES_EVENT_LOST}
                .contains(kind);
    seen.has_deleted = kinds.contains(MEDIAFILES_EVENT_DELETED);
}

/** Records while a call fails; after a failure that does not last, one file more. */
outcome record(const card &on, const failing::plan &orders)
{
    const std::vector<mp4_track_desc> tracks = {h264(), aac(48000)};
    mediafiles_recorder_options options = options_for(on, tracks);
    options.sync_ns = millisecond;
    options.segment_ns = 400 * millisecond;
    options.queue_bytes = 256 << 10;
    outcome seen;
    failing faults(orders);
    medium::is_own_memory = false;
    const recorder_ptr recorder = {mediafiles_recorder_start(&options)};
    const int error = errno;
    medium::is_own_memory = true;
    seen.has_hit = faults.has_hit();
    if (!recorder) {
        seen.error_of_start = error;
        seen.is_reported = true;
        return seen;
    }
    const auto &sources = three_segments();
    size_t at = 0;
    for (const frame &each : sources[0].frames) {
        const mediafiles_recorder_stats stats = stats_of(recorder);
        if (!faults.has_hit()) {
            seen.safe_before = {stats.safe[0], stats.safe[1]};
            seen.dropped_before = stats.frames_dropped;
        }
        for (; at < sources[1].frames.size() && sources[1].frames[at].time <= each.time; ++at)
            push(recorder, 1, sources[1].frames[at]);
        push(recorder, 0, each);
        std::this_thread::sleep_for(std::chrono::microseconds(400));
    }
    if (!orders.forever && faults.has_hit()) {
        seen.has_extra = true;
        mediafiles_recorder_split(recorder);
        for (const frame &each : extra()) push(recorder, 0, each);
        const uint64_t due = sources[0].frames.size() + sources[1].frames.size() + extra().size();
        seen.goes_on = comes_true([&] {
            const mediafiles_recorder_stats stats = stats_of(recorder);
            return stats.frames_out + stats.frames_dropped + stats.frames_refused + 2 >= due;
        });
    }
    EXPECT_EQ(mediafiles_recorder_stop(recorder, 20 * second), 0);
    take_events(recorder, seen);
    seen.has_hit = faults.has_hit();
    const mediafiles_recorder_stats stats = stats_of(recorder);
    EXPECT_GE(stats.frames_in, stats.frames_out + stats.frames_dropped + stats.frames_refused);
    return seen;
}

/** The file that was interrupted is apart: it holds the same frames. */
void judge(const card &on, const outcome &seen)
{
    bool is_whole = true;
    for (const std::string &name : on.names()) is_whole &= name.ends_with(".mp4");
    const std::string path = on.path();
    recover(on);
    EXPECT_TRUE(seen.has_deleted || std::filesystem::exists(path + "/00000001.mp4"));
    if (std::filesystem::exists(path + "/00000001.mp4")) {
        const card apart; // the recovered one
        std::filesystem::rename(path + "/00000001.mp4", apart.path() + "/1.mp4");
        EXPECT_GE(play(apart).samples[1].size(), 25u);
    }
    const auto &sources = three_segments();
    played all = play(on);
    stream video = sources[0].frames;
    video.insert(video.end(), extra().begin(), extra().end());
    const std::set<size_t> pictures = found_frames(all.samples[1], video, true),
                           sounds = found_frames(all.samples[2], sources[1].frames, false);
    if (seen.has_deleted) return;
    EXPECT_EQ(seen.dropped_before, 0u);
    for (size_t n = 0; n < seen.safe_before[0]; ++n)
        EXPECT_TRUE(pictures.contains(n)) << "picture " << n << " of " << testing::PrintToString(seen.safe_before)
                                          << ", found " << testing::PrintToString(pictures);
    for (size_t n = 0; n < seen.safe_before[1]; ++n) EXPECT_TRUE(sounds.contains(n)) << "sound " << n;
    const size_t due = sources[0].frames.size() + sources[1].frames.size();
    is_whole &= pictures.size() + sounds.size() >= due + (seen.has_extra ? extra().size() : 0);
    EXPECT_TRUE(is_whole || seen.is_reported)
        << pictures.size() << " pictures and " << sounds.size() << " of sound, " << due << " due, and nobody knows";
    if (seen.has_extra) {
        EXPECT_TRUE(seen.goes_on && pictures.contains(video.size() - 2)) << "the next file was not recorded";
    }
}

/** Whatever has happened to it, the next recorder uses the card. */
void record_next(const card &on)
{
    const recorder_ptr recorder = start(on, {h264()});
    ASSERT_TRUE(recorder) << strerror(errno);
    push_all(recorder, {{h264(), camera(1, 2'000)}});
    EXPECT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
    EXPECT_EQ(events_of(recorder)[MEDIAFILES_EVENT_FINISHED], 1u);
    for (const std::string &name : on.names()) EXPECT_TRUE(name.ends_with(".mp4")) << name;
}

/** @return whether there was such a call */
bool fail(const failing::plan &orders)
{
    const card on;
    for (const auto &[name, content] : interrupted()) on.put(name, content);
    const outcome seen = record(on, orders);
    if (!seen.has_hit) return false;
    if (seen.error_of_start) { EXPECT_EQ(seen.error_of_start, orders.error); }
    judge(on, seen);
    record_next(on);
    return true;
}

TEST(RecorderFaults, WhateverFailsNothingSafeIsLost)
{
    medium::is_own_memory = true;
    const silence hush;
    interrupted();
    const std::tuple<medium::call, int, long> cases[] = {
        // the last: of so many one, after the first calls
        {medium::writing, EIO, 1},        {medium::writing, ENOSPC, 1},   {medium::syncing, EIO, 1},
        {medium::opening, EIO, 1},        {medium::unlinking, EIO, 1},    {medium::renaming, EIO, 1},
        {medium::cutting, EIO, 1},        {medium::reserving, ENOSPC, 1}, {medium::reserving, EOPNOTSUPP, 1},
        {medium::memory, ENOMEM, SPREAD},
    };
    for (const auto &[kind, error, spread] : cases)
        for (const bool forever : {false, true}) {
            long failed = 0;
            const auto begin = std::chrono::steady_clock::now();
            for (long nth = 0;; nth += nth < 10 ? 1 : spread, ++failed) {
                SCOPED_TRACE(std::string(medium::call_names[kind]) + " " + std::to_string(nth) + ", " +
                             strerror(error) + (forever ? ", for ever" : ""));
                if (!fail({kind, nth, forever, error}) || HasFatalFailure()) break;
            }
            const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
            fprintf(stderr, "%s, %s%s: %ld failures, %.1f s\n", medium::call_names[kind], strerror(error),
                    forever ? ", for ever" : "", failed, took);
        }
}

} // namespace
