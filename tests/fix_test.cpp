/**
 * Repair: what it prints and logs, and files that it cannot use. The error is that of support/repair-model.h. What a
 * repair makes of journals and files of every state, power_cut_test and hostile-journals hold against the same model.
 */
#include <cstring>

#include <fcntl.h>
#include <gtest/gtest.h>

#include <mediafiles/fix.h>

#include "support/descriptors.h"
#include "support/faults.h"
#include "support/recording.h"
#include "support/repair-model.h"

namespace {

using faults::lines;

struct outcome {
    int error;
    mp4_fix_info info;
    std::string printed;
};

std::vector<size_t> users; // lengths of the records that the last mp4_fix handed out; mp4_fix2 gets no callback

/** What a summary is before a repair that leaves it as it is. */
mp4_fix_info untouched()
{
    mp4_fix_info info;
    memset(&info, 0x5A, sizeof info);
    return info;
}

/** Runs one of both repairs, with descriptor 0 free; nothing may leak, whatever comes of it. No path: no file. */
outcome repair(int version, const std::string &path, const std::string &journal, const faults::plan &plan = {})
{
    outcome out = {0, untouched(), ""};
    testing::internal::CaptureStdout();
    {
        const without_stdin first;
        const faults::injection injection(plan);
        const auto fix = version == 1 ? mp4_fix : mp4_fix2;
        const mp4_fix_callback hand_out =
            version == 1 ? [](const memento *record) { users.push_back(record->length); } : mp4_fix_callback();
        users.clear();
        errno = 0;
        out.error = error_of(fix(path.empty() ? nullptr : path.c_str(), journal.c_str(), hand_out, &out.info));
        EXPECT_EQ(0, injection.held);
        EXPECT_EQ(0, free_descriptor());
        fflush(stdout);
    }
    out.printed = testing::internal::GetCapturedStdout();
    return out;
}

const auto text = [](long number) { return std::to_string(number); };

// What is printed.
const std::string dropped = "[fix2] ctx->videoCount=0, drop file!\n";
const std::string single = "[fix2] ctx->videoCount=1, don't fixed file!\n";
const auto cut = [](long end, long drop = 0) {
    return "[writeMetadataToMP4Tail] ftruncate(), len=" + text(end) + ", ctx->dropSize=" + text(drop) + "\n";
};
const auto last = [](int track, int size, int key, int drop, const std::string &time) {
    return "[checkFrame] find last video frame! hStream=" + text(track) + ", len=" + text(size) + ", key=" + text(key) +
           ". ctx->dropSize=" + text(drop) + ". (" + time + ")\n";
};
const auto hevc = [](int id) {
    return "[src/mediafiles/mp4/h265-track:mp4_h265_track_create] id=" + text(id) + ", width=640, height=16.\n";
};

// What is logged.
const auto line = [](const std::string &step, const std::string &where, int error) {
    return "5 " + step + " [src/mediafiles/" + where + "]: " + strerror(error) + "\n";
};
const auto bad = [](int before) { return line("bad_msg", "caretaker:mediafile_caretaker_pop:579", before); };
const auto not_loaded = [](int error) { return line("mediafile_caretaker_load", "mp4/fix:mp4_fix:61", error); };
const auto unread = [](int error) { return line("mediafile_caretaker_errcode", "mp4/fix:fix:265", error); };
const auto no_end = [](int error) { return line("mp4_movie_errcode", "mp4/fix:fix:273", error); };
const auto no_tail = [](int error) { return line("exit fialed\n", "mp4/fix:fix:295", error); };
const auto failed = [](int error) { return line("fix", "mp4/fix:mp4_fix:69", error); };
const auto kept = [](int error) { return "4 caretaker->error=" + text(error) + "(" + strerror(error) + ")\n"; };
const auto length = [](long size) { return "8 [fix2] ctx->len=" + text(size) + "\n"; };

constexpr int none = -1; // size of no file
const std::string av = "avc aac m0:32,10,1 m1:42,20,1 m1:62,20,3 m0:82,10,2 ";
const std::string three = "avc aac m0:32,10,1 m1:42,20,1 m0:62,10,2 m1:72,20,2 m0:92,10,3 m1:102,20,4 m1:122,8,5 ";
const std::string two = "avc m0:32,10,1 m0:42,10,2 ";

const struct row {
    int version, size; // of the file
    std::string journal, printed;
    lines log = {}; // but for what each repair logs
} rows[] = {
    // all inside; the last sample crosses the end; nothing there
    {1, 99, av, cut(92)},
    {1, 60, av, cut(62)},
    {1, 0, "", cut(32)},
    {1, 99, "0/5 avc 7/3/0 8/3/0 9/3/0 hevc 6/3/1 7/3/1 8/3/1 9/40 m0:32,10,1 0/508", hevc(2) + cut(42)},
    {1, none, "avc m0:32,9,1 m0:4294967294,5,3", ""},
    {1, 99, "avc m0:31,5,1", ""}, // before the media
    {1, 99, "hevc 6/3/0 7/3/0 8/3/1", hevc(1)},
    {1, 99, "avc m0:32,10,1 3/4 m0:42,5,1", "", {bad(0), kept(EBADMSG), unread(EBADMSG)}},

    // the last video sample goes, with all after it; two samples of one time; the low bits of the seconds count
    {2, 199, three, last(0, 10, 1, 38, "3:500") + cut(92, 38)},
    {2, 92, three, last(0, 10, 1, 30, "2:500") + last(1, 20, 1, 30, "2:500") + cut(62, 30)},
    {2, none, three, last(0, 10, 1, 38, "3:500")},
    {2, 99, "avc aac m0:32,5,1 m1:37,6,2,500,0 m1:43,6,1 m0:49,7,2,500,-1 m1:56,8,3",
     last(1, 6, 0, 15, "2:500") + last(0, 7, -1, 15, "2:500") + cut(37, 15)},
    {2, 99, "avc m0:32,5,7 m0:37,5,4294967303", last(0, 5, 1, 5, "7:500") + last(0, 5, 1, 5, "7:500") + cut(32, 5)},
    {2, 99, "avc m0:32,5,-1,1 m0:37,5,-1,2 m0:42,6,-1,3", last(0, 6, 1, 6, "-1:3") + cut(42, 6)},
    {2, 99, "0/1 " + two + "0/2 hevc 6/3/1 9/3/1", last(0, 10, 1, 10, "2:500") + hevc(2) + cut(42, 10)},
    // no video sample inside, and one: the file is left alone
    {2, 99, "avc aac m1:32,10,1 m1:42,10,2 m0:99,5,1", dropped},
    {2, 99, "0/1 3/4 " + two, dropped, {bad(0)}},
    {2, 99, "avc m0:31,1,1 m0:32,10,2 m0:42,10,3", ""}, // before the media
    {2, 99, "avc aac 0/4 m1:32,10,1 m0:42,10,2 m0:99,5,3", single},
    {2, none, "avc m0:32,1,1", single},
    {2, 99, two + "3/4", last(0, 10, 1, 10, "2:500"), {bad(0), bad(EBADMSG), kept(EBADMSG)}},
    {2, 99, two + "unknown", last(0, 10, 1, 10, "2:500")},
};

TEST(Repair, PrintsAndLogsWhatItDoes)
{
    for (const row &r : rows)
        for (const int off : {0, 4, 5, 8}) { // the level of the log that is switched off
            SCOPED_TRACE(testing::Message() << r.version << ": " << r.size << ", " << r.journal << ", off " << off);
            faults::log_all_but(off);
            const bytes content = records(r.journal);
            const descriptor journal, file;
            fill(journal, content), fill(file, bytes(size_t(std::max(r.size, 0)), 0xEE));
            const auto size = static_cast<uint32_t>(r.size);
            const model::result due = model::repair(model::read(content), size, r.version);
            const outcome out = repair(r.version, r.size == none ? "" : path_of(file), path_of(journal));
            EXPECT_EQ(due.error, out.error);
            EXPECT_EQ(r.version == 1 ? due.users : std::vector<size_t>(), users);
            EXPECT_EQ(r.printed, out.printed);
            lines log = r.log;
            if (r.version == 2) log.insert(log.begin(), length(r.size));
            if (r.version == 1 && due.error != 0) log.push_back(failed(due.error));
            EXPECT_EQ(faults::logged(log), faults::log_lines);
            const mp4_fix_info zero = {}, same = untouched(); // what a repair finds, golden_test and the others hold
            EXPECT_TRUE(due.finished || memcmp(due.error ? &same : &zero, &out.info, sizeof zero) == 0);
        }
}

TEST(Repair, ReportsFilesThatItCannotUse)
{
    const descriptor file{memfd_create("sealed", MFD_CLOEXEC | MFD_ALLOW_SEALING)}, journal;
    fill(file, bytes(99, 0xEE)), fill(journal, records(two)), fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK);
    const std::string path = path_of(file), absent = path + "/none", good = path_of(journal);
    const std::tuple<int, std::string, std::string, int, std::string, lines> cases[] = {
        {1, absent, good, ENOTDIR, "", {}},
        {1, path, absent, ENOTDIR, "", {not_loaded(ENOTDIR)}},
        {1, "", "/", EISDIR, "", {kept(EISDIR), unread(EISDIR), failed(EISDIR)}},
        {1, path, good, EPERM, cut(52), {no_tail(EPERM), failed(EPERM)}},
        {2, absent, good, ENOTDIR, "", {}},
        {2, path, absent, ENOTDIR, "", {}},
        {2, "", "/", -1, dropped, {length(-1)}},
        {2, path, good, -1, last(0, 10, 1, 10, "2:500") + cut(42, 10), {length(99)}},
    };
    for (const auto &[version, media, records, error, printed, log] : cases)
        for (const int off : {0, 5}) {
            SCOPED_TRACE(testing::Message() << version << ": " << media << ", " << records << ", off " << off);
            faults::log_all_but(off);
            const outcome out = repair(version, media, records);
            EXPECT_EQ(error, out.error);
            EXPECT_EQ(printed, out.printed);
            EXPECT_EQ(faults::logged(log), faults::log_lines);
        }
}

TEST(Repair, LogsAMovieThatFailsAtItsEnd)
{
    std::string chunks = "avc aac "; // of changing size: at the end a table has to grow
    for (int i = 0, at = 32; i < 65; i++)
        for (const int track : {0, i % 2, 1}) chunks += "m" + text(track) + ":" + text(at++) + ",1,1 ";
    const descriptor journal;
    fill(journal, records(chunks));
    bool seen = false;
    for (long nth = 0; nth < 100 && !seen; nth++) {
        faults::log_all_but(0);
        repair(1, "", path_of(journal), {.nth = nth, .error = ENOMEM});
        seen = faults::log_lines == lines{no_end(ENOMEM), failed(ENOMEM)};
    }
    EXPECT_TRUE(seen);
}

} // namespace
