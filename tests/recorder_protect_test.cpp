/** What an event asks of the recorder: files that are kept whatever happens, and what was seen before it. */

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/recorder-harness.h"

namespace fs = std::filesystem;

namespace {

constexpr int64_t group_time = 400 * millisecond;

std::vector<std::string> protected_files(const card &on)
{
    std::vector<std::string> all;
    for (const std::string &name : on.names())
        if ((fs::status(on / name).permissions() & fs::perms(0222)) == fs::perms::none)
            all.push_back(name.substr(7, 1));
    return all;
}

/** A recorder that makes a file of each group of pictures, and a camera for it. */
struct recording_of_groups {
    explicit recording_of_groups(const card &on, int64_t sync = 0, int64_t limit = 0)
        : recorder(start(on, {h264()},
                         [=](auto &o) { o.segment_ns = group_time, o.sync_ns = sync, o.protected_bytes = limit; }))
    {
    }
    void push_groups(int groups, int64_t step = 0)
    {
        const int before = std::exchange(pushed, pushed + groups);
        push_all(recorder, {{h264(), camera(groups, 100'000, before * group_time + step)}});
        EXPECT_TRUE(comes_true([&] { return stats_of(recorder).safe[0] >= uint64_t(10 * (pushed - 1)); }));
    }

    const recorder_ptr recorder;
    int pushed = 0;
};

TEST(RecorderProtect, EveryFileThatHoldsTheTimeLosesItsWritePermission)
{
    const std::tuple<const char *, int64_t, int64_t, int64_t, std::vector<std::string>> cases[] = {
        // before, after, a step of the capture clock before the last group
        {"the running one", 0, 0, 0, {"5"}},
        {"the previous one too", group_time, 0, 0, {"4", "5"}},
        {"more than there is", INT64_MAX, 0, 0, {"1", "2", "3", "4", "5"}},
        {"those that begin until then", 0, 2 * group_time, 0, {"5", "6", "7"}},
        {"the clock has stepped back", 2 * group_time, 0, -5 * second, {"3", "4", "5"}},
        {"and on", 2 * group_time, 0, 100 * 86400 * second, {"3", "4", "5"}},
    };
    for (const auto &[what, before, after, step, files] : cases) {
        SCOPED_TRACE(what);
        const card on;
        recording_of_groups all(on);
        all.push_groups(4);
        all.push_groups(1, step);
        ASSERT_EQ(mediafiles_recorder_protect(all.recorder, before, after), 0);
        all.push_groups(4, step);
        ASSERT_EQ(mediafiles_recorder_stop(all.recorder, -1), 0);
        EXPECT_EQ(protected_files(on), files);
        EXPECT_EQ(events_of(all.recorder)[MEDIAFILES_EVENT_PROTECTED], files.size());
        EXPECT_EQ(play(on).files.size(), 9u);
    }
}

TEST(RecorderProtect, ItIsSafeAtOnce)
{
    for (const bool by_recorder : {false, true}) {
        SCOPED_TRACE(by_recorder ? "the next recorder finds it" : "recovery finds it");
        const card on, after_cut;
        recording_of_groups all(on, -1); // no round but the first
        all.push_groups(1);
        ASSERT_EQ(mediafiles_recorder_protect(all.recorder, 0, 0), 0);
        ASSERT_TRUE(comes_true([&] { return events_of(all.recorder)[MEDIAFILES_EVENT_PROTECTED] != 0; }));
        EXPECT_TRUE(comes_true([&] { return stats_of(all.recorder).safe[0] >= 8; }));
        fs::copy(on.path(), after_cut.path(), fs::copy_options::recursive);

        if (by_recorder) {
            recording_of_groups next(after_cut);
            ASSERT_EQ(mediafiles_recorder_stop(next.recorder, -1), 0);
            EXPECT_EQ(events_of(next.recorder)[MEDIAFILES_EVENT_RECOVERED], 1u);
        } else {
            recover(after_cut);
        }
        EXPECT_EQ(protected_files(after_cut), std::vector<std::string>{"1"});
        EXPECT_EQ(after_cut.names().size(), 1u);
        play(after_cut);
    }
}

TEST(RecorderProtect, AFileThatIsGivenUpIsProtectedByItsRecovery)
{
    const card on;
    recording_of_groups all(on, 5 * millisecond);
    all.push_groups(1);
    syncs.close();
    push_all(all.recorder, {{h264(), camera(1, 100'000, group_time)}});
    syncs.await_someone();
    failing_sync = EIO;
    ASSERT_EQ(mediafiles_recorder_protect(all.recorder, 0, second), 0);
    syncs.open();
    ASSERT_TRUE(comes_true([&] { return events_of(all.recorder)[MEDIAFILES_EVENT_PROTECTED] != 0; }));
    ASSERT_EQ(mediafiles_recorder_stop(all.recorder, -1), 0);
    EXPECT_FALSE(protected_files(on).empty());
}

TEST(RecorderProtect, TheOldestGoWhereTheyTakeTooMuch)
{
    constexpr int64_t file_size = 120'000;
    const std::pair<int64_t, std::vector<std::string>> cases[] = {
        {0, {"1", "2", "3", "4"}}, // no limit
        {5 * file_size / 2, {"3", "4"}},
        {1, {"4"}}, // the last one stays
    };
    for (const auto &[limit, left] : cases) {
        SCOPED_TRACE(limit);
        const card on;
        recording_of_groups all(on, 0, limit);
        for (int file = 0; file < 4; ++file) {
            all.push_groups(1);
            ASSERT_EQ(mediafiles_recorder_protect(all.recorder, 0, 0), 0);
        }
        all.push_groups(2);
        ASSERT_EQ(mediafiles_recorder_stop(all.recorder, -1), 0);
        EXPECT_EQ(protected_files(on), left);
        EXPECT_EQ(events_of(all.recorder)[MEDIAFILES_EVENT_DELETED], 4 - left.size());
        EXPECT_EQ(on.names().size(), left.size() + 2);
    }
}

recorder_ptr in_event_mode(const card &on, const std::vector<mp4_track_desc> &tracks, int64_t before, int64_t memory)
{
    return start(on, tracks, [&](auto &options) { options.pre_event_ns = before, options.pre_event_bytes = memory; });
}

/** One call after the other: groups of pictures that are pushed, and triggers with their `after`. */
struct step {
    int groups;
    int64_t after;
};

TEST(RecorderEvents, AFileHoldsWhatCameBeforeAndAfter)
{
    constexpr int64_t large = 4 << 20, two_groups = 90'000;
    const struct {
        const char *what;
        std::vector<step> steps;
        int64_t pre_event, memory;
        std::vector<std::pair<size_t, size_t>> files; // of frames: the first, and the one after the last
    } cases[] = {
        {"no event", {{10, -1}}, second, large, {}},
        {"one", {{10, 500 * millisecond}, {10, -1}}, second, large, {{70, 120}}},
        {"at once", {{0, 0}, {3, -1}}, second, large, {{0, 10}}},
        {"until the end", {{10, 100 * second}, {3, -1}}, second, large, {{70, 130}}},
        {"stopped before a frame follows", {{10, second}}, second, large, {{70, 100}}},
        {"prolonged", {{10, 500 * millisecond}, {1, second}, {10, -1}}, second, large, {{70, 140}}},
        {"not shortened", {{10, second}, {1, 0}, {10, -1}}, second, large, {{70, 130}}},
        {"one after the other", {{10, 0}, {2, 0}, {10, -1}}, second, large, {{70, 100}, {100, 120}}},
        {"little memory", {{10, 0}, {10, -1}}, second, two_groups, {{80, 100}}},
        {"a group is larger than the memory", {{10, 0}, {10, -1}}, second, 1'000, {{100, 110}}},
        {"as much as there is room for", {{10, 0}, {10, -1}}, -1, large, {{0, 100}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const card on;
        const recorder_ptr recorder = in_event_mode(on, {h264()}, c.pre_event, c.memory);
        ASSERT_TRUE(recorder) << strerror(errno);
        int pushed = 0;
        for (const step &each : c.steps) {
            push_all(recorder, {{h264(), camera(each.groups, 20'000, pushed * group_time)}});
            pushed += each.groups;
            if (each.after >= 0) { ASSERT_EQ(mediafiles_recorder_trigger(recorder, each.after), 0); }
            const bool has_key = pushed > 0 && c.memory >= two_groups;
            EXPECT_TRUE(each.after < 0 || !has_key || comes_true([&] { return stats_of(recorder).files != 0; }));
        }
        ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);

        const played all = play(on);
        ASSERT_EQ(all.files.size(), c.files.size());
        const stream video = camera(pushed, 20'000);
        size_t stored = 0;
        for (size_t i = 0; i < c.files.size(); ++i) {
            const auto [first, last] = c.files[i];
            ASSERT_EQ(all.files[i].tracks[0].samples.size(), last - first);
            for (size_t n = first; n < last; ++n)
                ASSERT_EQ(all.samples.at(1)[stored++], sample_of(video[n], true)) << n;
        }
        const mediafiles_recorder_stats stats = stats_of(recorder);
        EXPECT_EQ(stats.frames_out, stored);
        EXPECT_EQ(stats.frames_let_go, video.size() - stored);
        EXPECT_EQ(stats.frames_dropped + stats.frames_refused, 0u);
    }
}

/** Events that follow each other at once, of all tracks; however early or late sound comes. */
TEST(RecorderEvents, NothingIsMissingBetweenEvents)
{
    const stream base = load("h264_base_640x360_25", ".h264"), aac_frames = load("aac_lc_48000_2", ".aac");
    for (const int64_t lag : {0, 200, -200}) {
        SCOPED_TRACE(lag);
        const card on;
        const recorder_ptr recorder = in_event_mode(on, {h264(), aac(48000), h264()}, 2 * second, 4 << 20);
        const stream video = repeated(base, 5), sound = repeated(aac_frames, 4), other = camera(50, 5'000);
        size_t at = 0, files = 0;
        for (size_t i = 0; i < video.size(); ++i) {
            for (; at < sound.size() && sound[at].time + lag * millisecond <= video[i].time; ++at)
                push(recorder, 1, sound[at]);
            push(recorder, 0, video[i]);
            push(recorder, 2, other[i]);
            if (i % 50 != 49 || i < 100 || i >= 400) continue;
            ASSERT_EQ(mediafiles_recorder_trigger(recorder, 0), 0);
            ASSERT_TRUE(comes_true([&] { return stats_of(recorder).files == files + 1; }));
            ++files;
        }
        ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);

        const played all = play(on);
        ASSERT_GE(all.files.size(), 3u);
        const stream *const sources[] = {&video, &sound, &other};
        for (uint32_t track = 0; track < 3; ++track) {
            SCOPED_TRACE(track);
            const std::vector<bytes> &samples = all.samples.at(track + 1);
            const stream &from = *sources[track];
            size_t first = 0;
            while (first < from.size() && sample_of(from[first], track != 1) != samples[0]) ++first;
            EXPECT_GE(samples.size(), track == 1 ? 280u : 200u);
            if (track == 2) continue; // the same pictures again and again
            for (size_t n = 0; n < samples.size(); ++n)
                ASSERT_EQ(samples[n], sample_of(from[first + n], track != 1)) << n;
        }
    }
}

TEST(RecorderEvents, RefusesWhatMakesNoSense)
{
    const card on;
    const auto error_of = [](int result) { return result == 0 ? 0 : errno; };
    {
        const recorder_ptr events = in_event_mode(on, {h264()}, second, 1 << 20);
        EXPECT_EQ(error_of(mediafiles_recorder_trigger(events, 0)), 0);
        mediafiles_recorder_stop(events, -1);
        EXPECT_EQ(error_of(mediafiles_recorder_trigger(events, 0)), ESHUTDOWN);
    }
    EXPECT_TRUE(!in_event_mode(on, {h264()}, second, 0) && errno == EINVAL);
    const recorder_ptr usual = start(on, {h264()});
    EXPECT_EQ(error_of(mediafiles_recorder_trigger(usual, 0)), ENOTSUP);
    EXPECT_EQ(error_of(mediafiles_recorder_protect(usual, 1, -1)), EINVAL);
}

} // namespace
