/** Recovery of files and directories: cut off anywhere, on cards that are hostile, in use, full, or matched by name. */
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <mediafiles/recovery.h>

#include "recorder/recovery/sha256.h"
#include "recorder/safe-file.h"
#include "support/recorder-harness.h"
#include "support/three-codecs.h"

namespace {

namespace fs = std::filesystem;
using mediafiles::recovery::obstacle;

constexpr time_t old_time = 1'500'000'000;

/** A whole recording, and what a cut leaves of it: the media open, the journal whole. */
const recording &whole()
{
    static const recording made = record(40);
    return made;
}
bytes open_media()
{
    const bytes &media = whole().file;
    return with(first(media, 24 + size_t(media[25] << 16 | media[26] << 8 | media[27])), 24, bytes(4));
}

/** The journal as far as it names so many samples. */
bytes journal_with(size_t samples)
{
    const bytes &all = whole().journal;
    size_t at = 0;
    while (samples != 0 && at < all.size()) {
        samples -= all[at] == MEMENTO_SAMPLE;
        at += (7 + (all[at + 2] | size_t{all[at + 3]} << 8)) & ~size_t{3};
    }
    return first(all, at);
}

/** A card with recordings of some age. */
struct dated_card : card {
    int open(const std::string &name, int flags = O_RDONLY) const
    {
        return ::open((*this / name).c_str(), flags | O_CLOEXEC, 0644);
    }
    void put(const std::string &name, const bytes &content, time_t time = old_time) const
    {
        card::put(name, content);
        const struct timespec times[2] = {{time, 5}, {time, 123456789}};
        utimensat(AT_FDCWD, (*this / name).c_str(), times, 0);
    }
    void put(const std::string &name, const bytes &media, const bytes &journal, time_t time = old_time) const
    {
        put(name, media, time);
        put(name + ".journal", journal, time + 1);
    }
    /** Every name with what it is, media files with their times: the same when nothing has changed. */
    std::map<std::string, std::string> state() const
    {
        std::map<std::string, std::string> all;
        for (const auto &entry : fs::recursive_directory_iterator(path())) {
            struct stat status;
            lstat(entry.path().c_str(), &status);
            const std::string name = entry.path().lexically_relative(path());
            std::string text = std::to_string(status.st_mode) + " " + std::to_string(status.st_size);
            if (S_ISREG(status.st_mode) && status.st_size < 10'000'000) {
                const bytes content = get(name);
                text += " " + std::to_string(std::hash<std::string>{}({content.begin(), content.end()}));
            }
            if (name.ends_with(".mp4"))
                text += " " + std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
            all[name] = S_ISDIR(status.st_mode) ? "directory" : text;
        }
        return all;
    }
};

const char *const results[] = {"", "repaired", "salvaged", "finished", "removed", "not ours", "refused", "failed"};

/** What is reported, a line each: paths below the card, result, reason, and the rest where it is set. */
struct said {
    std::string root;
    std::vector<std::string> lines;
    size_t stop_after = SIZE_MAX;

    std::string below(const char *path) const
    {
        const std::string text = path;
        return text.starts_with(root + "/") ? text.substr(root.size() + 1) : text;
    }
    static int take(void *context, const mediafiles_report *r)
    {
        said &self = *static_cast<said *>(context);
        std::string line = self.below(r->path) + ": " + results[r->result];
        if (r->reason) line += ": " + std::string(mediafiles_reason_text(r->reason));
        if (r->error) line += " (" + std::string(strerrorname_np(r->error)) + ")";
        if (r->output && strcmp(r->output, r->path) != 0) line += " as " + self.below(r->output);
        if (r->problem_path) line += " because of " + self.below(r->problem_path);
        if (r->journal_kept) line += ", journal " + self.below(r->journal);
        self.lines.push_back(line);
        return self.lines.size() >= self.stop_after;
    }
};

using lines = std::vector<std::string>;

/** How to recover; a report is taken from a result on. */
struct order {
    uint32_t flags = 0;
    const char *output = nullptr, *journal = nullptr;
    mediafiles_progress progress = nullptr;
    size_t stop_after = SIZE_MAX;
    int error = 0; // that is due
};

lines recover(const dated_card &on, std::vector<std::string> paths = {}, const order &how = {})
{
    if (paths.empty()) paths = {on.path()};
    std::vector<const char *> pointers;
    for (const std::string &path : paths) pointers.push_back(path.c_str());
    const mediafiles_recover_options options = {sizeof options, how.flags,    how.journal,
                                                how.output,     how.progress, nullptr};
    said heard = {on.path(), {}, how.stop_after};
    const without_stdin first; // the first file's descriptor is 0
    const int free_before = free_descriptor();
    EXPECT_EQ(how.error, error_of(mediafiles_recover(pointers.data(), pointers.size(), &options, said::take, &heard)));
    EXPECT_EQ(free_before, free_descriptor());
    return heard.lines;
}

TEST(RecoveryFiles, HashesAsTheStandardDoes)
{
    const std::pair<std::string, const char *> cases[] = {
        // FIPS 180-4 and its examples
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"}};
    for (const auto &[text, digits] : cases)
        for (const size_t step : {size_t{1}, size_t{55}, size_t{64}, size_t{1000}, text.size()}) {
            const bytes data(text.begin(), text.end()); // nothing may be read after it
            mediafiles::recovery::sha256 hash;
            for (size_t at = 0; at < data.size(); at += step) hash.add(&data[at], std::min(step, data.size() - at));
            EXPECT_EQ(digits, hash.digits());
        }
}

void copy_all(const dated_card &from, const dated_card &to)
{
    if (system(("cp -a " + from.path() + "/. " + to.path()).c_str()) != 0) std::abort();
}

/** Five recordings in the states that cuts leave. */
void fill_with_cuts(const dated_card &on, const std::string &in = "")
{
    bytes torn = open_media(), longer = open_media();
    torn.resize(torn.size() - 5);
    longer.resize(longer.size() + 5000, 0xE5);
    on.put(in + "a.mp4", open_media(), whole().journal, old_time + 5);
    on.put(in + "b.mp4", longer, journal_with(70), old_time + 4);
    on.put(in + "below/c.mp4", torn, whole().journal, old_time + 3);
    on.put(in + "d.mp4", whole().file, journal_with(20), old_time + 2);
    on.put(in + "e.mp4", {}, bytes(), old_time + 1);
}

/**
 * Recovers a card in a process of its own, which stops before and after each
 * system call; whatever has changed then is what a kill at this moment leaves.
 *
 * @return how often it stopped; 0 where processes cannot be traced
 */
template <class Visit>
int trace_recovery(const dated_card &on, Visit visit)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(1);
        raise(SIGSTOP);
        const char *const paths[] = {on.path().c_str()};
        mediafiles_recover(
            paths, 1, nullptr, [](void *, const mediafiles_report *) { return 0; }, nullptr);
        _exit(0);
    }
    int status = 0, stops = 0;
    for (waitpid(child, &status, 0); WIFSTOPPED(status); waitpid(child, &status, 0), stops++) {
        visit();
        ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    }
    EXPECT_TRUE(WIFEXITED(status));
    return stops;
}

/** Recovers a copy of a card, cut off wherever that is chosen, and again: the same comes of it as of one recovery. */
template <class Choose>
int recover_with_kills(const dated_card &pristine, Choose is_chosen)
{
    const dated_card whole_run, on;
    copy_all(pristine, whole_run), copy_all(pristine, on);
    recover(whole_run);
    const auto wanted = whole_run.state();
    return trace_recovery(on, [&] {
        if (!is_chosen()) return;
        const dated_card cut;
        copy_all(on, cut);
        recover(cut);
        EXPECT_EQ(wanted, cut.state());
    });
}

/* RECOVERY_PAIRS and RECOVERY_KILLS say how many. */
TEST(RecoveryFiles, AKillAmongManyPairsEndsInTheSameBytes)
{
    const auto number = [](const char *name, int otherwise) {
        return getenv(name) ? std::stoi(getenv(name)) : otherwise;
    };
    const int pairs = number("RECOVERY_PAIRS", 10), due = number("RECOVERY_KILLS", 5);
    const dated_card on;
    for (int i = 0; i < pairs / 5; i++) fill_with_cuts(on, std::to_string(i) + "/");
    const int stops = recover_with_kills(on, [] { return false; });
    if (stops == 0) GTEST_SKIP() << "no ptrace";
    std::set<int> moments;
    std::mt19937 random(5);
    while (int(moments.size()) < due) moments.insert(int(random() % unsigned(stops)));
    int stop = 0, cuts = 0;
    recover_with_kills(on, [&] { return moments.contains(stop++) && ++cuts; });
    fprintf(stderr, "%d pairs, %d of %d moments\n", pairs, cuts, stops);
    EXPECT_LE(due - 1, cuts); // a name of a temporary file may be tried twice
}

const std::string line_feed = "new\nline\x1b.mp4",
                  foreign = ": it is a link, has several hard links, or is not a regular file",
                  not_regular = "not ours" + foreign + " (ELOOP)";

/** What stands on a hostile card, its journal, and what is reported; paths with two dots lead to another card. */
const struct {
    std::string name, media, journal, report;
} hostile[] = {
    {"link.mp4", "../victim.mp4", "journal", not_regular},
    {"dangling.mp4", "nowhere", "journal", not_regular},
    {"self.mp4", "self.mp4", "", not_regular},
    {"hard.mp4", "hard link", "journal", not_regular},
    {"fifo.mp4", "fifo", "journal", not_regular},
    {"device.mp4", "device", "", not_regular},
    {"linked-journal.mp4", "media", "../victim.journal",
     "refused" + foreign + " (ELOOP) because of linked-journal.mp4.journal, journal linked-journal.mp4.journal"},
    {"fifo-journal.mp4", "media", "fifo",
     "refused" + foreign + " (ELOOP) because of fifo-journal.mp4.journal, journal fifo-journal.mp4.journal"},
    {"finished.mp4", "finished", "fifo", "finished, journal finished.mp4.journal"},
    {line_feed, "media", "journal", "repaired"},
    {"._a.mp4", "apple", "apple", "not ours, journal ._a.mp4.journal"},
    {"ten/2/3/4/5/6/7/8/deep.mp4", "media", "journal", "repaired"},
    {"ten/2/3/4/5/6/7/8/9/10/deeper.mp4", "media", "journal", ""},
    {"ten/2/3/4/5/6/7/8/9", "", "", "not ours" + foreign + " (ENAMETOOLONG)"},
    {"lonely.mp4.journal", "journal", "", "refused: its media file is missing (ENOENT), journal lonely.mp4.journal"},
    {"gone.mp4.journal", "empty", "", "removed"},
    {"busy/a.mp4", "media", "journal", "repaired"},
    {"huge.mp4", "media", "journal", "refused: it is larger than a recording can be (4 GiB), journal huge.mp4.journal"},
    /* Nothing is reported of these; all but the first stay. */
    {".mediafiles-0123abcd.tmp", "nine", "", ""},
    {"loop", ".", "", ""},
    {"out", "..", "", ""},
    {"other.journal", "nine", "", ""},
    {"gone.journal", "empty", "", ""},
    {".mediafiles-0123abcd.tmp.mp4x", "nine", "", ""},
    {"mine.tmp", "nine", "", ""},
    {line_feed + ".journal.new", "nine", "", ""},
    {".mediafiles-0123ABCD.tmp", "empty", "", ""},
    {".mediafiles-00000000.tmp", "../victim.mp4", "", ""},
    {"busy/.mediafiles-00000001.tmp", "nine", "", ""}, // somebody has locked it
};

/** Makes a file of a card, a link if what it is to hold is no word. False where there are no devices. */
bool make(const dated_card &on, const dated_card &elsewhere, const std::string &name, const std::string &what)
{
    static const std::map<std::string, bytes> contents = {
        {"media", open_media()}, {"journal", whole().journal},     {"finished", whole().file}, {"nine", bytes(9)},
        {"empty", {}},           {"apple", hex("00051607 00*900")}};
    const std::string path = on / name;
    const auto content = contents.find(what);
    if (content != contents.end())
        on.put(name, content->second);
    else if (what == "fifo" || what == "device")
        return mknod(path.c_str(), (what == "fifo" ? S_IFIFO : S_IFCHR) | 0600, makedev(1, 3)) == 0;
    else if (what == "hard link")
        fs::create_hard_link(elsewhere / "victim.mp4", path);
    else if (!what.empty())
        fs::create_symlink(what.starts_with("..") ? elsewhere / what.substr(std::min<size_t>(3, what.size())) : what,
                           path);
    return true;
}

TEST(RecoveryFiles, AHostileCardIsLeftAlone)
{
    const dated_card on, elsewhere;
    elsewhere.put("victim.mp4", open_media());
    elsewhere.put("victim.journal", whole().journal);
    fs::create_directories(on / "directory.mp4");
    lines wanted;
    for (const auto &[name, media, journal, report] : hostile) {
        const bool there = make(on, elsewhere, name, media) && make(on, elsewhere, name + ".journal", journal);
        if (there && !report.empty()) wanted.push_back(name + ": " + report);
    }
    for (uint64_t size = INT64_MAX; truncate((on / "huge.mp4").c_str(), off_t(size)) != 0;) size /= 2;
    const descriptor busy{on.open("busy/.mediafiles-00000001.tmp")};
    flock(busy, LOCK_EX);

    const auto before = elsewhere.state();
    lines reports = recover(on);
    std::ranges::sort(reports), std::ranges::sort(wanted);
    EXPECT_EQ(wanted, reports);
    EXPECT_EQ(before, elsewhere.state());
    EXPECT_EQ(whole().file, on.get(line_feed));
    fs::remove(on / "self.mp4"); // the iterator of the test does not get past it
    const auto after = on.state();
    for (const auto &[name, media, journal, report] : hostile)
        EXPECT_TRUE(!report.empty() || after.contains(name) == (name != ".mediafiles-0123abcd.tmp")) << name;
}

TEST(RecoveryFiles, DirectoriesThatCannotBeSearchedDoNotStopTheOthers)
{
    const dated_card on;
    on.put("a.mp4", open_media(), whole().journal);
    fs::create_directory_symlink(on.path(), on / "link");
    on.put("deep/a.mp4", open_media(), whole().journal);
    int at = on.open("deep", O_DIRECTORY);
    for (int level = 0; level < 10'000; level++) { // longer than any path
        ASSERT_EQ(mkdirat(at, "d", 0755), 0);
        const int below = openat(at, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        close(std::exchange(at, below));
    }
    close(at);
    const lines reports = recover(on, {on / "nowhere", on / "link", on.path(), on / "a.mp4"}, {.error = ENOENT});
    ASSERT_EQ(reports.size(), 5u);
    EXPECT_EQ(reports[0], "nowhere: failed: a system call failed (ENOENT)");
    EXPECT_EQ(reports[1], "link: refused: it is a link, has several hard links, or is not a regular file (ELOOP)");
    EXPECT_EQ(reports[2], "deep/d/d/d/d/d/d/d/d: not ours: it is a link, has several hard links, or is not a regular "
                          "file (ENAMETOOLONG)");
    EXPECT_EQ(reports[3], "a.mp4: repaired");
    EXPECT_EQ(reports[4], "deep/a.mp4: repaired");
    /* What removes it for the test does not know such depths. */
    if (system(("rm -rf " + (on / "deep")).c_str()) != 0) FAIL();
}

/* While a name changes between a recording and a link to a file elsewhere, that file is never touched. */
TEST(RecoveryFiles, WhatIsSwappedBetweenLookAndOpenIsNotFollowed)
{
    const dated_card on, elsewhere;
    elsewhere.put("victim.mp4", open_media());
    const auto before = elsewhere.state();
    symlink((elsewhere / "victim.mp4").c_str(), (on / "link").c_str());
    std::jthread swapping([&](std::stop_token stop) {
        const std::string a = on / "a.mp4", b = on / "link";
        while (!stop.stop_requested())
            syscall(SYS_renameat2, AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), 2 /* EXCHANGE */);
    });
    int looked = 0;
    for (int i = 0; i < 300; i++) {
        on.put("a.mp4.journal", whole().journal);
        for (const std::string &line : recover(on)) looked += line.starts_with("a.mp4");
    }
    swapping.request_stop(), swapping.join();
    EXPECT_GT(looked, 100);
    EXPECT_EQ(elsewhere.state(), before);
}

TEST(RecoveryFiles, NoticesANameThatChanges)
{
    const dated_card on;
    on.put("b.mp4", open_media()), on.put("c.mp4", open_media());
    const descriptor directory{on.open(".", O_DIRECTORY)};
    try {
        const auto file = mediafiles::recovery::open_regular(directory, "b.mp4", O_RDONLY); // and before the lock
        fs::rename(on / "c.mp4", on / "b.mp4");
        mediafiles::recovery::claim(file, directory, "b.mp4");
        ADD_FAILURE() << "it is another file";
    } catch (const obstacle &cause) {
        EXPECT_EQ(cause.reason, uint32_t{MEDIAFILES_REASON_CHANGED});
    }
    /* And a copy whose name somebody takes while it is made. */
    try {
        mediafiles::recovery::temporary_file(directory, 0600).name("b.mp4");
        ADD_FAILURE() << "the name is taken";
    } catch (const obstacle &cause) {
        EXPECT_EQ(cause.reason, uint32_t{MEDIAFILES_REASON_EXISTS});
    }
    char byte;
    EXPECT_TRUE(mediafiles::recovery::read_at(directory, 0, &byte, 1) == -1 && errno == EISDIR);
}

TEST(RecoveryFiles, WhatSomebodyWritesIsLeftAlone)
{
    const dated_card on;
    const std::string busy = ": refused: another process is recording or repairing it (EAGAIN)";
    on.put("a.mp4", open_media(), whole().journal);
    const auto before = on.state();
    for (const char *name : {"a.mp4", "a.mp4.journal"}) {
        const std::string because =
            name == std::string("a.mp4") ? "" : " because of a.mp4.journal, journal a.mp4.journal";
        {
            const descriptor locker{on.open(name)};
            flock(locker, LOCK_EX);
            EXPECT_EQ(lines{"a.mp4" + busy + because}, recover(on));
        }
        /* One that does not lock is found by the lease, where there are leases. */
        if (fcntl(descriptor{on.open(name)}, F_SETLEASE, F_RDLCK) != 0) continue;
        const descriptor writer{on.open(name, O_WRONLY)};
        EXPECT_EQ(lines{"a.mp4" + busy + because}, recover(on));
    }
    EXPECT_EQ(on.state(), before);
    EXPECT_EQ(recover(on), lines{"a.mp4: repaired"});
}

TEST(RecoveryFiles, JournalsFindTheirMedia)
{
    const dated_card on;
    const auto cut = [&](const char *media, const char *journal, time_t time) {
        on.put(media, open_media(), time), on.put(journal, whole().journal, time);
    };
    cut("CLIP.MP4", "CLIP.MP4.JOURNAL", 9);
    cut("a-z.mp4", "A-Z.mp4.Journal", 8);
    cut("x.mp4", "x.mp4.journal", 7), on.put("X.mp4", open_media(), 6), on.put("X.MP4.journal", {}, 6);
    cut("film.mov", "film.mov.journal", 5);
    on.put("no.mp4", open_media(), 4);
    fs::create_directory(on / "others.journal");
    const std::string none = ": refused: it was cut off, and there is no journal that names its frames";
    /* Newest first; each once, whichever path leads to it; a journal stands for its media. */
    const lines dry = recover(on, {on / "x.mp4.journal", on / "no.mp4", on.path(), on / "x.mp4"}, {MEDIAFILES_DRY_RUN});
    EXPECT_EQ(dry, (lines{"CLIP.MP4: repaired", "a-z.mp4: repaired", "x.mp4: repaired", "X.mp4: removed",
                          "film.mov: repaired", "no.mp4" + none}));
    EXPECT_EQ(recover(on, {on / "A-Z.mp4.Journal", on / "others.journal", on / "no.mp4"}),
              (lines{"a-z.mp4: repaired", "no.mp4" + none}));
    EXPECT_EQ(on.get("a-z.mp4"), whole().file);

    /* The journal may be named, and lie elsewhere. */
    const dated_card elsewhere;
    elsewhere.put("kept", whole().journal);
    const std::string journal = elsewhere / "kept";
    EXPECT_EQ(lines{"no.mp4: repaired"}, recover(on, {on / "no.mp4"}, {.journal = journal.c_str()}));
    EXPECT_EQ(on.get("no.mp4"), whole().file);
    EXPECT_FALSE(fs::exists(journal));
}

TEST(RecoveryFiles, CopiesNeverTakeANameThatIsThere)
{
    const dated_card on, out;
    on.put("1/a.mp4", open_media(), whole().journal, 20), on.put("2/a.mp4", open_media(), whole().journal, 10);
    chmod((on / "1/a.mp4").c_str(), 04600);
    const lines wanted = {"1/a.mp4: repaired as " + (out / "a.mp4") + ", journal 1/a.mp4.journal",
                          "2/a.mp4: refused: the output exists already (EEXIST) because of " + (out / "a.mp4") +
                              ", journal 2/a.mp4.journal"};
    for (const uint32_t flags : {MEDIAFILES_DRY_RUN, 0u})
        EXPECT_EQ(recover(on, {on / "1", on / "2"}, {flags, out.path().c_str()}), wanted);
    EXPECT_EQ(out.get("a.mp4"), whole().file);
    EXPECT_EQ(out.state().size(), 1u);
    EXPECT_TRUE(out.state()["a.mp4"].starts_with("33152 ")); // 0600, without what gives rights to others
    EXPECT_TRUE(out.state()["a.mp4"].ends_with(" 20.123456789"));

    /* Into its own directory it gets another name; and is found, finished, by the next run. */
    const std::string own = on / "1";
    EXPECT_EQ(recover(on, {own}, {0, own.c_str()}),
              lines{"1/a.mp4: repaired as 1/a-recovered.mp4, journal 1/a.mp4.journal"});
    EXPECT_EQ(on.get("1/a-recovered.mp4"), whole().file);
    EXPECT_EQ(recover(on, {own}, {0, own.c_str()}),
              (lines{"1/a-recovered.mp4: finished", "1/a.mp4: refused: the output exists already (EEXIST) because of "
                                                    "1/a-recovered.mp4, journal 1/a.mp4.journal"}));
    EXPECT_EQ(on.get("1/a.mp4"), open_media());

    /* A link in the way leads nowhere. */
    const dated_card other;
    fs::create_directory_symlink(on / "2", other / "2");
    EXPECT_EQ(recover(on, {on.path(), on / "1"}, {0, other.path().c_str()}).back(),
              "2/a.mp4: failed: a system call failed (ENOTDIR) because of " + (other / "2/") +
                  ", journal 2/a.mp4.journal");
    EXPECT_EQ(recover(on, {own}, {.output = (on / "2/a.mp4").c_str(), .error = ENOTDIR}), lines());
    EXPECT_EQ(on.get("2/a.mp4"), open_media());
}

TEST(RecoveryFiles, RoomKeptAfterTheEndGoes)
{
    constexpr off_t room = 4 << 20;
    const dated_card on;
    on.put("a.mp4", open_media(), whole().journal);
    if (fallocate(descriptor{on.open("a.mp4", O_WRONLY)}, FALLOC_FL_KEEP_SIZE, 0, room) != 0)
        GTEST_SKIP() << "the file system keeps no room: " << strerror(errno);
    EXPECT_EQ(recover(on), lines{"a.mp4: repaired"});
    EXPECT_EQ(on.get("a.mp4"), whole().file);
    struct stat status;
    ASSERT_EQ(stat((on / "a.mp4").c_str(), &status), 0);
    EXPECT_LT(int64_t{status.st_blocks} * 512, room);
}

/* By the progress of a copy, or by whoever takes the reports. */
TEST(RecoveryFiles, ARecoveryCanBeStopped)
{
    const dated_card on, out;
    on.put("a.mp4", whole().file), on.put("b.mp4", open_media(), whole().journal, old_time + 9);
    const auto stop = [](void *, uint64_t, uint64_t total) {
        if (total == 0) usleep(250'000); // a few times a second it is asked
        return total == 0 ? 0 : 1;
    };
    for (const bool by_progress : {true, false}) {
        order how = {.output = out.path().c_str(), .error = ECANCELED};
        by_progress ? void(how.progress = stop) : void(how.stop_after = 1);
        const lines heard = recover(on, {}, how);
        ASSERT_EQ(1u, heard.size());
        EXPECT_EQ(by_progress, heard[0].starts_with("b.mp4: failed: stopped (ECANCELED)"));
        EXPECT_EQ(by_progress ? 0u : 1u, out.state().size());
    }
}

/** The functions for one file, with descriptors that a caller has opened. */
TEST(RecoveryFiles, APlanIsAppliedInPlaceAndToASink)
{
    const dated_card on;
    on.put("a.mp4", open_media(), whole().journal);
    const descriptor directory{on.open(".", O_DIRECTORY)};
    descriptor files[] = {{on.open("a.mp4")}, {on.open("a.mp4.journal")}};
    const auto read = [](void *file, uint64_t offset, void *to, uint32_t count) {
        return int64_t{pread(*static_cast<descriptor *>(file), to, count, off_t(offset))};
    };
    const mediafiles_source media = {&files[0], file_size(files[0]), read},
                            journal = {&files[1], file_size(files[1]), read};
    mediafiles_plan *plan = mediafiles_plan_create(&media, &journal, 0);
    bytes made;
    const auto collect = [](void *to, const void *from, size_t count) {
        const auto *begin = static_cast<const uint8_t *>(from);
        static_cast<bytes *>(to)->insert(static_cast<bytes *>(to)->end(), begin, begin + count);
        return 0;
    };
    const auto cancel = [](void *, uint64_t done, uint64_t total) { return int(done * 2 > total); };
    EXPECT_EQ(mediafiles_apply_to_sink(plan, collect, &made, nullptr, nullptr), 0);
    EXPECT_EQ(made, whole().file);
    EXPECT_EQ(error_of(mediafiles_apply_to_sink(plan, collect, &made, cancel, nullptr)), ECANCELED);
    const auto refuse = [](void *, const void *, size_t) { return errno = EDOM, 1; };
    EXPECT_EQ(error_of(mediafiles_apply_to_sink(plan, refuse, nullptr, nullptr, nullptr)), EDOM);
    EXPECT_EQ(error_of(mediafiles_apply_in_place(plan, directory, "../a.mp4", "a.mp4.journal", 0)), EINVAL);
    EXPECT_EQ(error_of(mediafiles_apply_in_place(plan, directory, "a.mp4", nullptr, 0)), EINVAL);
    on.put("b.mp4", bytes(9), whole().journal);
    EXPECT_EQ(error_of(mediafiles_apply_in_place(plan, directory, "b.mp4", "b.mp4.journal", 0)), ESTALE);
    EXPECT_EQ(on.get("b.mp4"), bytes(9));
    EXPECT_EQ(mediafiles_apply_in_place(plan, directory, "a.mp4", "a.mp4.journal", 0), 0);
    EXPECT_EQ(on.get("a.mp4"), whole().file);
    EXPECT_FALSE(fs::exists(on / "a.mp4.journal"));
    mediafiles_plan_destroy(plan);
}

} // namespace
