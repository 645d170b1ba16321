/** The recorder on a card that is full, that goes away and that comes back: what is there can be played, and it goes on. */
#include <algorithm>
#include <cstring>
#include <fstream>
#include <list>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/recorder-harness.h"

namespace {

namespace fs = std::filesystem;

/** A file system of its own, in a mount namespace of its own: nobody else sees it. */
class mounted_card : public card {
public:
    explicit mounted_card(const std::string &type = "tmpfs", const char *size = "64M")
        : aside_(path() + "-aside"), image_(path() + ".image")
    {
        fs::create_directory(aside_);
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return;
        is_mounted_ =
            (type == "tmpfs" ? mount("none", aside_.c_str(), "tmpfs", 0, (std::string("size=") + size).c_str()) == 0
                             : mount_image(type)) &&
            give_back();
    }
    ~mounted_card()
    {
        take_away();
        umount2(aside_.c_str(), MNT_DETACH);
        fs::remove(aside_);
        fs::remove(image_);
    }
    bool is_mounted() const { return is_mounted_; }

    /* As it is pulled out, and put in again: its file system stays in its other place. */
    bool take_away() { return umount2(path().c_str(), MNT_DETACH) == 0; }
    bool give_back() { return mount(aside_.c_str(), path().c_str(), nullptr, MS_BIND, nullptr) == 0; }
    bool protect(bool on)
    {
        return mount(nullptr, path().c_str(), nullptr, MS_REMOUNT | MS_BIND | (on ? MS_RDONLY : 0), nullptr) == 0;
    }

private:
    bool mount_image(const std::string &type) const
    {
        const std::string make = "truncate -s 64M " + image_ + " && mke2fs -q -F -m 0 -t " + type + ' ' + image_;
        return system((make + " && mount -o loop " + image_ + ' ' + aside_ + " 2>&1").c_str()) == 0;
    }

    const std::string aside_, image_;
    bool is_mounted_ = false;
};

#define NEEDS_MOUNTED(card) \
    if (!(card).is_mounted()) GTEST_SKIP() << "mounting is not permitted here: " << strerror(errno)

/** A recorder, its frames group by group, and its events as they come. */
struct recording {
    explicit recording(const card &on, int64_t quota = 0, const std::string &directory = "", bool small = false)
        : key_size(small ? 20'000 : 400'000), recorder(start(on, {h264()}, [&](auto &o) {
              if (!directory.empty()) o.directory = directory.c_str();
              o.segment_ns = 2 * second;
              o.sync_ns = 10 * millisecond;
              o.keep_free_bytes = small ? 300'000 : int64_t{4} << 20;
              o.quota_bytes = quota;
          }))
    {
    }

    /** At least one round of syncs for each group. */
    void record(int count)
    {
        for (; count > 0; --count, ++groups) {
            for (const frame &each : camera(1, key_size, groups * 400 * millisecond))
                EXPECT_GE(push(recorder, 0, each), 0);
            usleep(10'000);
        }
    }
    uint64_t count(uint32_t kind)
    {
        mediafiles_recorder_event event = {};
        event.size = sizeof event;
        while (mediafiles_recorder_next_event(recorder, &event, 0) == 1) {
            ++seen[event.kind];
            if (event.kind != MEDIAFILES_EVENT_DELETED) continue;
            EXPECT_GT(event.number, last_deleted);
            last_deleted = event.number;
        }
        return seen[kind];
    }
    bool sees(uint32_t kind, uint64_t number = 1)
    {
        return comes_true([&] { return count(kind) >= number; });
    }
    /** Records until it does. */
    bool goes_on_to(uint32_t kind, uint64_t number = 1)
    {
        return comes_true([&] { return record(1), count(kind) >= number; });
    }
    void stop() { EXPECT_EQ(mediafiles_recorder_stop(recorder, -1), 0); }

    const size_t key_size;
    const recorder_ptr recorder;
    int groups = 0;
    std::map<uint32_t, uint64_t> seen;
    uint64_t last_deleted = 0;
};

/** Each file is finished and sound, begins with a key frame, and each frame in it follows those that it needs. */
void expect_playable(const card &on, size_t key_size = 400'000)
{
    for (const std::string &name : on.names()) EXPECT_TRUE(name.ends_with(".mp4")) << name;
    const stream group = camera(1, key_size);
    for (const mp4::file &file : play(on).files) {
        size_t next = 0;
        for (const mp4::sample &sample : file.tracks.at(0).samples) {
            if (sample.sync) next = 0;
            ASSERT_LT(next, group.size());
            ASSERT_EQ(sample.size, sample_of(group[next++], true).size());
        }
    }
}

/* ---- A full card ---- */

struct full_card {
    const char *name, *type;
    int64_t quota;
    long magic; // of the file system that it says it is
};
class FullCard : public testing::TestWithParam<full_card> {};

/** While it lives each file system says that it is another one. */
struct pretence {
    explicit pretence(long magic) { system_type = magic; }
    ~pretence() { system_type = 0; }
};

/* ext2 keeps no room ahead of a file: there the spare file has to do. */
INSTANTIATE_TEST_SUITE_P(, FullCard,
                         testing::Values(full_card{"tmpfs", "tmpfs", 0, 0}, full_card{"quota", "tmpfs", 24 << 20, 0},
                                         full_card{"ext2", "ext2", 0, 0},
                                         full_card{"whole", "tmpfs", 0, MSDOS_SUPER_MAGIC}),
                         [](const auto &row) { return row.param.name; });

TEST_P(FullCard, IsShared)
{
    mounted_card on(GetParam().type);
    NEEDS_MOUNTED(on);
    const pretence type(GetParam().magic);
    recording made(on, GetParam().quota);
    made.record(20);
    ASSERT_TRUE(made.sees(MEDIAFILES_EVENT_FINISHED, 2));
    ASSERT_EQ(chmod((on / "00000001.mp4").c_str(), 0444), 0);
    made.record(160); /* more than the card holds */
    EXPECT_EQ(made.count(MEDIAFILES_EVENT_FULL), 0u);
    EXPECT_GT(made.count(MEDIAFILES_EVENT_DELETED), 4u);

    /* Somebody else takes everything at once, between two rounds, and again what is deleted for him. */
    const std::string others = on / "others";
    int other = open(others.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const bytes block(1 << 20, 7);
    const auto fill = [&] {
        while (write(other, block.data(), block.size()) > 0) {}
    };
    ASSERT_TRUE(comes_true([&] { return fill(), made.record(1), made.count(MEDIAFILES_EVENT_FULL) != 0; }));
    made.record(5);
    const uint32_t files = stats_of(made.recorder).files;
    ASSERT_EQ(ftruncate(other, 1000), 0);
    close(other);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(comes_true([&] { return made.record(1), stats_of(made.recorder).files > files; }));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    made.record(20);
    made.stop();
    EXPECT_GE(made.count(MEDIAFILES_EVENT_GOES_ON), 1u);
    fs::remove(others);
    EXPECT_EQ(on.names().front(), "00000001.mp4") << "it is protected";
    expect_playable(on);
}

/* What is kept free before it goes on is small on a small card. */
TEST(SmallCard, GoesOnOnceThereIsRoom)
{
    mounted_card on("tmpfs", "1M");
    NEEDS_MOUNTED(on);
    recording made(on, 0, "", true);
    ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_DELETED, 20));
    {
        std::ofstream(on / "others") << std::string(1 << 20, 7);
    }
    ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_FULL));
    made.record(50);
    fs::remove(on / "others");
    const uint64_t went_on = made.count(MEDIAFILES_EVENT_GOES_ON);
    ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_GOES_ON, went_on + 1));
    const uint64_t finished = made.count(MEDIAFILES_EVENT_FINISHED);
    ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_FINISHED, finished + 10));
    made.stop();
    expect_playable(on, made.key_size);
}

TEST(FatCard, GivesAFileItsRoomFromTheBeginning)
{
    const card on;
    const pretence fat(MSDOS_SUPER_MAGIC);
    recording made(on);
    const auto room = [&](const std::string &name) {
        struct stat status = {};
        stat((on / name).c_str(), &status);
        return std::pair(int64_t{status.st_size}, int64_t{status.st_blocks} * 512);
    };
    ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_BEGUN, 2));
    ASSERT_TRUE(made.sees(MEDIAFILES_EVENT_FINISHED));
    const int64_t whole = room("00000001.mp4").first;
    EXPECT_LT(room("00000002.mp4").first, whole / 2);
    EXPECT_GE(room("00000002.mp4").second, whole);
    made.stop();
    EXPECT_LT(room("00000002.mp4").second, whole) << "what it did not need is free again";
    expect_playable(on);
}

TEST(F2fsCard, CallsFramesSafeOneRoundLater)
{
    const card on;
    const pretence f2fs(F2FS_SUPER_MAGIC);
    const recorder_ptr recorder = start(on, {h264()}, [](auto &o) { o.sync_ns = millisecond; });
    const auto safe = [&] { return stats_of(recorder).safe[0]; };
    push_all(recorder, {{h264(), camera(1, 5'000)}});
    usleep(200'000);
    EXPECT_LT(safe(), 10) << "the last round's";
    push_all(recorder, {{h264(), camera(1, 5'000, 400 * millisecond)}});
    EXPECT_TRUE(comes_true([&] { return safe() >= 10; }));
    EXPECT_EQ(0, mediafiles_recorder_stop(recorder, -1));
    EXPECT_EQ(20, safe());
}

/** Counts the names that the directory's sync took off the medium while the file was still open. */
class deletions : public medium::watch {
public:
    int64_t carry_out(const medium::operation &what, medium::real_call call) override
    {
        if (what.what == medium::unlinking && std::string_view(what.name).ends_with(".mp4")) {
            name_ = what.name;
        } else if (what.what == medium::syncing && !name_.empty()) {
            struct stat status;
            if (fstat(what.file, &status) == 0 && S_ISDIR(status.st_mode) && is_open(name_ + " (deleted)")) ++orderly;
            name_.clear();
        }
        return call();
    }
    uint64_t orderly = 0;

private:
    static bool is_open(const std::string &end)
    {
        std::error_code none;
        return std::ranges::any_of(fs::directory_iterator("/proc/self/fd"), [&](const auto &link) {
            return fs::read_symlink(link, none).string().ends_with(end);
        });
    }
    std::string name_;
};

TEST(FatCard, LosesAFilesNameBeforeItsClusters)
{
    const card on;
    deletions seen;
    recording made(on, 8 << 20);
    EXPECT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_DELETED, 3));
    made.stop();
    EXPECT_EQ(seen.orderly, made.count(MEDIAFILES_EVENT_DELETED));
}

/* ---- A card that goes away ---- */

TEST(MissingCard, GetsNothingBelowItsMountPoint)
{
    for (const std::string below : {"", "/recordings"}) {
        SCOPED_TRACE(below);
        mounted_card on;
        NEEDS_MOUNTED(on);
        fs::create_directories(on.path() + below);
        recording made(on, 0, on.path() + below);
        made.record(8);
        ASSERT_TRUE(made.sees(MEDIAFILES_EVENT_FINISHED));

        ASSERT_TRUE(on.take_away());
        fs::create_directories(on.path() + below);
        ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_NO_MEDIUM));
        made.record(20);
        usleep(1'500'000); /* it is looked for each second */
        EXPECT_EQ(made.count(MEDIAFILES_EVENT_GOES_ON), 0u);
        EXPECT_TRUE(on.names().empty());

        ASSERT_TRUE(on.give_back());
        ASSERT_TRUE(made.sees(MEDIAFILES_EVENT_GOES_ON));
        ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_FINISHED, 3));
        made.stop();
        EXPECT_GE(made.count(MEDIAFILES_EVENT_RECOVERED), 1u);
        EXPECT_EQ(made.count(MEDIAFILES_EVENT_NOT_RECOVERED), 0u);
        EXPECT_EQ(made.count(MEDIAFILES_EVENT_NO_MEDIUM), 1u);
        expect_playable(on);
    }
}

TEST(MissingCard, IsOneThatIsMountedLater)
{
    mounted_card on;
    NEEDS_MOUNTED(on);
    ASSERT_TRUE(on.take_away());
    recording made(on);
    ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_BEGUN));
    ASSERT_TRUE(on.give_back());
    ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_GOES_ON));
    ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_FINISHED));
    ASSERT_TRUE(on.take_away());
    const std::vector<std::string> hidden = on.names();
    ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_NO_MEDIUM, 2));
    usleep(1'500'000);
    EXPECT_EQ(made.count(MEDIAFILES_EVENT_GOES_ON), 1u);
    made.stop();
    EXPECT_EQ(on.names(), hidden);
    ASSERT_TRUE(on.give_back());
    EXPECT_FALSE(on.names().empty());
}

/* Its directory may still be in memory. */
TEST(MissingCard, IsOneWithWhichEverySyncFails)
{
    const card on;
    medium::failing gone({.kind = medium::syncing, .nth = 20, .forever = true, .error = EIO});
    recording made(on);
    ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_NO_MEDIUM));
    EXPECT_GE(made.count(MEDIAFILES_EVENT_WRITE_ERROR), 2u);
    const uint32_t files = stats_of(made.recorder).files;
    made.record(20);
    usleep(1'500'000);
    EXPECT_EQ(stats_of(made.recorder).files, files);
    gone.lift();
    ASSERT_TRUE(made.sees(MEDIAFILES_EVENT_GOES_ON));
    ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_FINISHED, 2));
    made.stop();
    expect_playable(on);
}

/* The file before goes on; each time it is reported once. */
TEST(MissingCard, IsNoneThatTakesNoNewFileForAWhile)
{
    const card on;
    std::list<medium::failing> each;
    recording made(on);
    made.record(1);
    for (uint64_t times = 1; times <= 2; ++times) {
        auto &opening =
            each.emplace_back(medium::failing::plan{.kind = medium::opening, .nth = 0, .forever = true, .error = EIO});
        ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_WRITE_ERROR, times));
        opening.lift();
        ASSERT_TRUE(made.goes_on_to(MEDIAFILES_EVENT_BEGUN, times + 1));
        EXPECT_EQ(made.count(MEDIAFILES_EVENT_WRITE_ERROR), times);
    }
    made.stop();
    expect_playable(on);
}

TEST(MissingCard, IsOneThatCannotBeWritten)
{
    mounted_card on;
    NEEDS_MOUNTED(on);
    ASSERT_TRUE(on.protect(true));
    recording made(on);
    made.record(4);
    ASSERT_TRUE(made.sees(MEDIAFILES_EVENT_NO_MEDIUM));
    ASSERT_TRUE(on.protect(false));
    ASSERT_TRUE(made.sees(MEDIAFILES_EVENT_GOES_ON));
    made.stop();
    EXPECT_EQ(stats_of(made.recorder).frames_out, 40u) << "they waited in the queue";
    expect_playable(on);
}

} // namespace
