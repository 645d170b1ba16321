/** One recording under a name that a user has chosen, from sources that can wait: what is there stays, or goes last. */
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include "support/recorder-harness.h"

namespace fs = std::filesystem;

namespace {

constexpr const char *name = "100% {number} \xff.mov";
constexpr uint32_t replacing = MEDIAFILES_PLAIN_NAME | MEDIAFILES_OVERWRITE;

recorder_ptr start(const card &on, uint32_t flags, const char *pattern = name)
{
    return start(on, {h264()}, [=](auto &o) { o.pattern = pattern, o.flags = flags, o.queue_bytes = 256 << 10; });
}

const auto error_of_start = [](const card &on, uint32_t flags, const char *pattern = name) {
    return start(on, flags, pattern).recorder ? 0 : errno;
};

const auto text = [](const std::string &of) { return bytes(of.begin(), of.end()); };

} // namespace

TEST(SingleRecording, HasItsNameAsItIs)
{
    const card on;
    const std::string second_file = "100% {number} \xff-2.mov", third_file = "100% {number} \xff-3.mov";
    on.put(second_file, text("somebody else's"));
    const source base = {h264(), load("h264_base_640x360_25", ".h264")};
    {
        const recorder_ptr recorder = start(on, MEDIAFILES_PLAIN_NAME);
        ASSERT_TRUE(recorder);
        push(recorder, 0, base.frames[0]);
        ASSERT_TRUE(comes_true([&] { return stats_of(recorder).files == 1; }));
        EXPECT_EQ(mediafiles_recorder_split(recorder), 0);
        push_all(recorder, {{h264(), {base.frames.begin() + 1, base.frames.end()}}});
        ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
        EXPECT_EQ(stats_of(recorder).tracks[0].frames, base.frames.size());
        EXPECT_GT(stats_of(recorder).tracks[0].key_frames, 1u);
    }
    EXPECT_EQ(on.names(), (std::vector<std::string>{second_file, third_file, name}));
    EXPECT_EQ(on.get(second_file), text("somebody else's"));
    for (const char *astray : {"", ".", "..", "a/b", "/a"})
        EXPECT_EQ(error_of_start(on, replacing, astray), EINVAL) << astray;
}

TEST(SingleRecording, IsRefusedWhereSomethingIsInItsWay)
{
    const std::tuple<const char *, int, int, std::function<void(const std::string &path)>> cases[] = {
        // errno without and with the flag to replace it
        {"a file", EEXIST, 0, [](const std::string &path) { std::ofstream(path) << "old"; }},
        {"a link", EEXIST, ELOOP, [](const std::string &path) { fs::create_symlink("elsewhere", path); }},
        {"a directory", EEXIST, EEXIST, [](const std::string &path) { fs::create_directory(path); }},
        {"a protected file", EEXIST, EEXIST,
         [](const std::string &path) { close(open(path.c_str(), O_CREAT | O_WRONLY, 0444)); }},
    };
    for (const auto &[what, plain, replaced, put] : cases)
        for (const std::string suffix : {"", ".journal"}) {
            SCOPED_TRACE(what + suffix);
            const card on;
            put(on / name + suffix);
            EXPECT_EQ(error_of_start(on, MEDIAFILES_PLAIN_NAME), plain);
            EXPECT_EQ(error_of_start(on, replacing), replaced);
            EXPECT_EQ(on.names().size(), plain == EEXIST && fs::is_regular_file(on / name + suffix));
        }
}

TEST(SingleRecording, ReplacesAnotherOnceItCanBeMade)
{
    const card on;
    const std::string journal = std::string(name) + ".journal";
    on.put(name, text("old"));
    on.put(journal, text("stale"));
    const recorder_ptr recorder = start(on, replacing);
    ASSERT_TRUE(recorder);
    EXPECT_EQ(joined({on.get(name), on.get(journal)}), text("oldstale")); /* nothing was recorded yet */
    const source base = {h264(), load("h264_base_640x360_25", ".h264")};
    push_all(recorder, {base});
    ASSERT_TRUE(comes_true([&] { return stats_of(recorder).files == 1; }));
    EXPECT_EQ(error_of_start(on, replacing), EBUSY); /* it is recorded */
    ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
    EXPECT_EQ(on.names(), std::vector<std::string>{name});
    expect_all_samples(play(on), {base});
}

/* Between start and the first frame another recorder takes the name: its files are left alone. */
TEST(SingleRecording, LeavesWhatAnotherRecorderHasMeanwhile)
{
    const source base = {h264(), load("h264_base_640x360_25", ".h264")};
    for (const uint32_t flags : {uint32_t{MEDIAFILES_PLAIN_NAME}, replacing}) {
        const card on;
        const recorder_ptr recorder = start(on, flags);
        ASSERT_TRUE(recorder);
        on.put(name, text("another's"));
        const int other = open((on / name).c_str(), O_RDONLY);
        ASSERT_EQ(flock(other, LOCK_EX), 0);
        push(recorder, 0, base.frames[0]);
        mediafiles_recorder_event event = {};
        event.size = sizeof event;
        ASSERT_EQ(mediafiles_recorder_next_event(recorder, &event, 10'000), 1);
        EXPECT_EQ(event.kind, uint32_t{MEDIAFILES_EVENT_NO_MEDIUM});
        EXPECT_EQ(event.error, flags == replacing ? EBUSY : EEXIST);
        EXPECT_TRUE(comes_true([&] { return on.names() == std::vector<std::string>{name}; })); /* room was tried */
        EXPECT_EQ(on.get(name), text("another's"));
        close(other);
    }
}

TEST(Queue, LosesNothingFromASourceThatWaits)
{
    const card on;
    const recorder_ptr recorder = start(on, MEDIAFILES_PLAIN_NAME);
    const source frames = {h264(), repeated(load("h264_base_640x360_25", ".h264"), 5)};
    EXPECT_EQ(mediafiles_recorder_await_room(recorder, (256 << 10) + 1, -1), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(mediafiles_recorder_await_room(recorder, 256 << 10, 0), 1);
    writes.close();
    size_t next = 0;
    while (mediafiles_recorder_await_room(recorder, frames.frames[next].data.size(), 300 * millisecond) == 1)
        ASSERT_EQ(push(recorder, 0, frames.frames[next++]), 0);
    EXPECT_LT(next, frames.frames.size()) << "the queue has more room than it was given";
    EXPECT_GT(next, 5u);
    writes.open();
    for (; next < frames.frames.size(); ++next) {
        ASSERT_EQ(mediafiles_recorder_await_room(recorder, frames.frames[next].data.size(), -1), 1);
        ASSERT_EQ(push(recorder, 0, frames.frames[next]), 0);
    }
    ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
    EXPECT_EQ(mediafiles_recorder_await_room(recorder, 1, -1), -1);
    EXPECT_EQ(errno, ESHUTDOWN);
    expect_all_samples(play(on), {frames});
}

/* Parts of an access unit that has no picture do not keep the queue from being emptied. */
TEST(Queue, IsEmptiedOfPartsWithoutAPicture)
{
    const card on;
    const recorder_ptr recorder = start(on, MEDIAFILES_PLAIN_NAME);
    const stream base = load("h264_base_640x360_25", ".h264");
    for (size_t i = 0; i < 20; ++i) push(recorder, 0, base[i]);
    push(recorder, 0, {bytes{0, 0, 0, 1, 9, 0x30}, base[20].time, false}); /* an access unit delimiter */
    EXPECT_TRUE(comes_true([&] { return stats_of(recorder).queue_used == 0; }));
    ASSERT_EQ(mediafiles_recorder_stop(recorder, -1), 0);
    EXPECT_EQ(stats_of(recorder).frames_out, 20u);
    EXPECT_EQ(stats_of(recorder).frames_dropped, 1u);
}
