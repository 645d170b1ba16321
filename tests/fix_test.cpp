/** Repair: what journals and files of every state give, and recordings that were cut off. */
#include <cstring>

#include <fcntl.h>
#include <gtest/gtest.h>

#include <mediafiles/fix.h>
#include <mediafiles/support/log.h>

#include "support/descriptors.h"
#include "support/faults.h"
#include "support/three-codecs.h"

namespace {

const bytes head = hex("00000018 'ftypmp42' 00*4 'mp42isom' 00000000 'mdat'");

/**
 * Words to a journal. "H", "h", "A" are tracks (H.264, H.265, AAC), "R" one that is marked raw already, "X" of no known
 * type; "v0" to "e0" a VPS, SPS, PPS or SEI of track 0; "m0:32,9,5" a sample of 9 bytes at 32 at second 5, which
 * nanoseconds and key flag may follow; "-3" takes three bytes off the end; others as records() has them.
 */
bytes journal_of(const std::string &text)
{
    static const std::string types = "HhARX", sets = "vspe";
    static const uint32_t codes[] = {MP4_TRACK_H264, MP4_TRACK_H265, MP4_TRACK_AAC, 0x8101, 0x103};
    bytes all;
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        const size_t type = types.find(word[0]), set = sets.find(word[0]);
        unsigned track = 0, offset = 0, size = 0, nanoseconds = 500;
        long long seconds = 0;
        int key = 1;
        std::vector<uint32_t> words;
        if (type != std::string::npos) words = {MEMENTO_TRACK | 16 << 16, codes[type], 640, 16, 48000};
        else if (set != std::string::npos)
            words = {uint32_t(MEMENTO_VPS + set) | uint32_t(word[1] - '0') << 8 | 3 << 16, 77};
        else if (sscanf(word.c_str(), "m%u:%u,%u,%lld,%u,%d", &track, &offset, &size, &seconds, &nanoseconds, &key) > 3)
            words = {MEMENTO_SAMPLE | track << 8 | 24 << 16, offset, size, uint32_t(seconds), uint32_t(seconds >> 32),
                     nanoseconds, uint32_t(key)};
        else if (word[0] == '-') all.resize(all.size() - std::stoul(word.substr(1)));
        else overlay(all, all.size(), records(word));
        for (const uint32_t number : words)
            for (int shift = 0; shift < 32; shift += 8) all.push_back(uint8_t(number >> shift));
    }
    return all;
}

struct outcome {
    int result, error;
    mp4_fix_info info;
    std::string printed, log, users; // lines; records by length
};
std::string users;

/** Runs one of both repairs; nothing may leak, whatever comes of it. */
outcome repair(int version, const char *path, const std::string &journal, bool ask = true)
{
    const int free_before = free_descriptor();
    const mp4_fix_callback user = [](const memento *record) { users += "u" + std::to_string(record->length) + " "; };
    outcome out;
    memset(&out.info, 0x5A, sizeof out.info);
    const mp4_fix_info before = out.info;
    users.clear(), faults::log_lines.clear();
    testing::internal::CaptureStdout();
    {
        const faults::injection injection;
        errno = 0;
        const auto fix = version == 1 ? mp4_fix : mp4_fix2;
        out.result = fix(path, journal.c_str(), ask ? user : nullptr, ask ? &out.info : nullptr);
        out.error = out.result ? errno : 0;
        EXPECT_EQ(injection.held, 0);
        fflush(stdout);
    }
    out.printed = testing::internal::GetCapturedStdout();
    for (const std::string &line : faults::log_lines) out.log += line;
    out.users = users;
    EXPECT_EQ(free_descriptor(), free_before);
    EXPECT_TRUE(out.result == 0 || out.result == -1);
    EXPECT_TRUE((ask && out.result == 0) || memcmp(&out.info, &before, sizeof before) == 0);
    return out;
}

/** "mdat 28 | 101x2@1.0 32+10 42+10": the size of mdat; of each track its type, frames, timespan and samples. */
std::string layout(const mp4_fix_info &info, const bytes &content)
{
    const mp4::file file = mp4::read(content);
    std::string text = file.boxes.size() < 2 ? "?" : "mdat " + std::to_string(file.boxes[1].size);
    int64_t latest = 0;
    const auto nanoseconds = [](mp4_time time) { return time.seconds * int64_t{1000000000} + time.nanoseconds; };
    for (uint32_t i = 0; i < 8; i++) {
        const auto &track = info.tracks[i];
        if (i >= info.trackCount) {
            const mp4_fix_track zero = {};
            EXPECT_EQ(memcmp(&track, &zero, sizeof zero), 0) << i;
            continue;
        }
        latest = std::max(latest, nanoseconds(track.timespan));
        char line[80];
        snprintf(line, sizeof line, " | %xx%u@%d.%d", track.desc.type, track.frameCount, track.timespan.seconds,
                 track.timespan.nanoseconds);
        text += line;
        EXPECT_TRUE(track.desc.audio.sample_bits == 16 && track.desc.audio.sample_rate == 48000);
        if (i < file.tracks.size())
            for (const mp4::sample &sample : file.tracks[i].samples)
                text += " " + std::to_string(sample.offset) + "+" + std::to_string(sample.size);
    }
    EXPECT_EQ(nanoseconds(info.timespan), latest);
    return text;
}

#define CUT(end, drop) "[writeMetadataToMP4Tail] ftruncate(), len=" #end ", ctx->dropSize=" #drop "\n"
#define LAST(track, len, key, drop, time) "[checkFrame] find last video frame! hStream=" #track ", len=" #len ", key=" \
    #key ". ctx->dropSize=" #drop ". (" time ")\n"
#define H265(id) "[src/mediafiles/mp4/h265-track:mp4_h265_track_create] id=" #id ", width=640, height=16.\n"
#define DROPPED "[fix2] ctx->videoCount=0, drop file!\n"
#define SINGLE "[fix2] ctx->videoCount=1, don't fixed file!\n"
#define FAILED(why) "5 fix [src/mediafiles/mp4/fix:mp4_fix:69]: " why "\n"
#define UNLOADED(why) "5 mediafile_caretaker_load [src/mediafiles/mp4/fix:mp4_fix:61]: " why "\n"
#define LATCHED(number, why) "4 caretaker->error=" #number "(" why ")\n"
#define UNREAD(number, why) LATCHED(number, why) \
    "5 mediafile_caretaker_errcode [src/mediafiles/mp4/fix:fix:265]: " why "\n" FAILED(why)
#define BAD(before) "5 bad_msg [src/mediafiles/caretaker:mediafile_caretaker_pop:579]: " before "\n"
#define BADMSG "Bad message"
#define TAIL(why) "5 exit fialed\n [src/mediafiles/mp4/fix:fix:295]: " why "\n" FAILED(why)
#define LEN(len) "8 [fix2] ctx->len=" #len "\n"

constexpr int none = -1; // no path of a file
#define AV "H A m0:32,10,1 m1:42,20,1 m1:62,20,3 m0:82,10,2 "
#define VVV "H A m0:32,10,1 m1:42,20,1 m0:62,10,2 m1:72,20,2 m0:92,10,3 m1:102,20,4 m1:122,8,5 "
#define V2 "H m0:32,10,1 m0:42,10,2 "

const struct row {
    int version, size; // of the file, before
    const char *journal;
    int error;
    const char *after, *printed, *log = "", *users = "";
    int seals = 0;
} rows[] = {
    // all inside; the last one begins at the end, straddles it; none inside; no byte of the head there
    {1, 99, AV, 0, "mdat 68 | 101x2@1.0 32+10 82+10 | 201x2@2.0 42+20 62+20", CUT(92, 0)},
    {1, 82, AV, 0, "mdat 58 | 101x1@0.0 32+10 | 201x2@2.0 42+20 62+20", CUT(82, 0)},
    {1, 60, AV, 0, "mdat 38 | 101x1@0.0 32+10 | 201x1@0.0 42+20", CUT(62, 0)},
    {1, 32, AV, 0, "mdat 8 | 101x0@0.0 | 201x0@0.0", CUT(32, 0)},
    {1, 0, AV, 0, "mdat 8 | 101x0@0.0 | 201x0@0.0", CUT(32, 0)},
    {1, 99, "", 0, "mdat 8", CUT(32, 0)},
    // a gap is closed up; the tracks' own bytes say nothing; a track that comes late; the raw flag; eight tracks
    {1, 99, "H m0:40,10,1 m0:52,10,2", 0, "mdat 28 | 101x2@1.0 32+10 42+10", CUT(52, 0)},
    {1, 99, "H m0:32,10,1 A m1:42,10,1,700", 0, "mdat 28 | 101x1@0.0 32+10 | 201x1@0.200 42+10", CUT(52, 0)},
    {1, 99, "R m0:32,10,4294967295 m0:42,9,4294967297", 0, "mdat 27 | 8101x2@2.0 32+10 42+9", CUT(51, 0)},
    {1, 32, "H H H H H H H A", 0, "mdat 8 | 101x0@0.0 | 101x0@0.0 | 101x0@0.0 | 101x0@0.0 | 101x0@0.0 | "
        "101x0@0.0 | 101x0@0.0 | 201x0@0.0", CUT(32, 0)},
    // what goes to the callback, to a track and nowhere
    {1, 99, "0/5 H s0 p0 e0 0/0 h v1 s1 p1 9/40 m0:32,10,1 0/508", 0, "mdat 18 | 101x1@0.0 32+10 | 102x0@0.0",
        H265(2) CUT(42, 0), "", "u5 u0 u508 "},
    {1, 99, "H 7/0/0 8/5/0 m0:32,10,1", 0, "mdat 18 | 101x1@0.0 32+10", CUT(42, 0)},
    // no file: nothing is beyond it
    {1, none, "H m0:32,9,1 m0:4294967294,5,3", 0, " | 101x2@2.0", ""},
    {1, none, "H m0:32,3758096383,1", 0, " | 101x1@0.0", ""},
    {1, none, "H m0:32,3758096383,1 m0:3758096415,1,2", EFBIG, "", "", FAILED("File too large")},
    // samples that contradict the replay, or the journal itself
    {1, 99, "H m0:31,5,1", EBADMSG, "head", "", FAILED(BADMSG)},
    {1, 99, "H m0:4294967290,16,1 m0:10,5,1", EBADMSG, "head", "", FAILED(BADMSG)},
    {1, 99, "0/1 H m0:32,10,1 m0:41,5,1 0/2", EBADMSG, "head", "", BAD("Success") UNREAD(74, BADMSG), "u1 "},
    {1, 99, "H m0:32,10,1 3/4 m0:42,5,1", EBADMSG, "head", "", BAD("Success") UNREAD(74, BADMSG)},
    // what the movie refuses
    {1, 99, "H H H H A A A A H", ENOBUFS, "head", "", FAILED("No buffer space available")},
    {1, 99, "H X", ENOSYS, "head", "", FAILED("Function not implemented")},
    {1, 99, "H v0", ENOSYS, "head", "", FAILED("Function not implemented")},
    {1, 99, "h v0 s0 p1", EINVAL, "head", H265(1), FAILED("Invalid argument")},
    {1, 99, "H m1:32,5,1", EINVAL, "head", "", FAILED("Invalid argument")},
    {1, 99, "H m1:99,5,1", 0, "mdat 8 | 101x0@0.0", CUT(32, 0)}, // not even tried
    {1, 99, "H m0:32,5,1,1000000000", EINVAL, "head", "", FAILED("Invalid argument")},
    // a file that lets itself not be cut, grown or written
    {1, 99, AV, EPERM, "head", CUT(92, 0), TAIL("Operation not permitted"), "", F_SEAL_SHRINK},
    {1, 60, AV, EPERM, "head", CUT(62, 0), TAIL("Operation not permitted"), "", F_SEAL_GROW},
    {1, 99, AV, EPERM, "untouched", "", FAILED("Operation not permitted"), "", F_SEAL_WRITE},

    // the last video sample goes, with what is listed behind it, inside the file, straddling its end or as the end
    {2, 199, VVV, 0, "mdat 68 | 101x2@1.0 32+10 62+10 | 201x2@1.0 42+20 72+20", LAST(0, 10, 1, 38, "3:500")
        CUT(92, 38), LEN(199)},
    {2, 95, VVV, 0, "mdat 68 | 101x2@1.0 32+10 62+10 | 201x2@1.0 42+20 72+20", LAST(0, 10, 1, 10, "3:500")
        CUT(92, 10), LEN(95)},
    {2, 92, VVV, 0, "mdat 38 | 101x1@0.0 32+10 | 201x1@0.0 42+20", LAST(0, 10, 1, 30, "2:500")
        LAST(1, 20, 1, 30, "2:500") CUT(62, 30), LEN(92)},
    {2, none, VVV, 0, " | 101x2@1.0 | 201x2@1.0", LAST(0, 10, 1, 38, "3:500"), LEN(-1)},
    // an audio sample of the same time before it; video samples of one time, as the journal's low bits have it
    {2, 99, "H A m0:32,5,1 m1:37,6,2,500,0 m1:43,6,1 m0:49,7,2,500,-1 m1:56,8,3", 0, "mdat 13 | 101x1@0.0 32+5 | "
        "201x0@0.0", LAST(1, 6, 0, 15, "2:500") LAST(0, 7, -1, 15, "2:500") CUT(37, 15), LEN(99)},
    {2, 99, "H m0:32,5,7 m0:37,5,4294967303", 0, "mdat 8 | 101x0@0.0", LAST(0, 5, 1, 5, "7:500")
        LAST(0, 5, 1, 5, "7:500") CUT(32, 5), LEN(99)},
    {2, 99, "H m0:32,5,-1,1 m0:37,5,-1,2 m0:42,6,-1,3", 0, "mdat 18 | 101x2@0.1 32+5 37+5", LAST(0, 6, 1, 6,
        "-1:3") CUT(42, 6), LEN(99)},
    // the first track is taken for video; other records count once, and to the journal's end
    {2, 99, "A H m0:32,5,1 m1:37,5,1 m0:42,6,2 m1:48,7,5", 0, "mdat 18 | 201x1@0.0 32+5 | 101x1@0.0 37+5",
        LAST(0, 6, 1, 13, "2:500") CUT(42, 13), LEN(99)},
    {2, 99, "0/1 " V2 "0/2 h v1 e1", 0, "mdat 18 | 101x1@0.0 32+10 | 102x0@0.0", LAST(0, 10, 1, 10, "2:500")
        H265(2) CUT(42, 10), LEN(99), "u1 u2 "},
    // no video sample inside, and one
    {2, 99, "H A m1:32,10,1 m1:42,10,2 m0:99,5,1", -1, "head", DROPPED, LEN(99)},
    {2, 99, "0/1 3/4 " V2, -1, "head", DROPPED, LEN(99) BAD("Success")},
    {2, none, "H", -1, "", DROPPED, LEN(-1)},
    {2, 99, "H A 0/4 m1:32,10,1 m0:42,10,2 m0:99,5,3", 0, "head", SINGLE, LEN(99)},
    {2, none, "H m0:32,1,1", 0, "", SINGLE, LEN(-1)},
    {2, 99, "H m0:31,1,1 m0:32,10,2", 0, "head", SINGLE, LEN(99)}, // the first is not in the media
    // everything else is an error without a name
    {2, 99, "H m0:31,1,1 m0:32,10,1 m0:42,10,2", -1, "head", "", LEN(99)},
    {2, 99, V2 "3/4", -1, "head", LAST(0, 10, 1, 10, "2:500"), LEN(99) BAD("Success") BAD(BADMSG)
        LATCHED(74, BADMSG)},
    {2, 99, V2 "X", -1, "head", LAST(0, 10, 1, 10, "2:500"), LEN(99)},
    {2, 99, "H m1:32,5,1 m0:37,5,1 m0:42,5,2", -1, "head", "", LEN(99)},
    {2, 99, V2, -1, "untouched", "", "", "", F_SEAL_WRITE},
    {2, 99, V2, -1, "head", LAST(0, 10, 1, 10, "2:500") CUT(42, 10), LEN(99), "", F_SEAL_SHRINK},
};

/** The lines of a log but those of a level; a line that begins with a blank goes on. */
std::string lines_without(const std::string &log, char off)
{
    std::string text;
    std::istringstream in(log);
    char level = 0;
    for (std::string line; std::getline(in, line); text += level == off ? "" : line + "\n")
        if (line[0] != ' ') level = line[0];
    return text;
}
void set_levels(uint32_t four, uint32_t five, uint32_t eight)
{
    __logLevels[16 * 4 + 15] = four, __logLevels[16 * 5 + 15] = five, __logLevels[16 * 8 + 15] = eight;
}

TEST(fix, does_what_journal_and_file_say)
{
    for (const row &r : rows)
        for (const char off : {'0', '4', '5', '8'}) { // the level that is switched off
            SCOPED_TRACE(testing::Message() << r.version << ": " << r.size << ", " << r.journal << ", off " << off);
            set_levels(off != '4', off != '5', off != '8');
            const bool ask = off != '4', whole = r.after[0] == 'm' || r.after[0] == ' ';
            const descriptor journal, file{memfd_create("sealed", MFD_CLOEXEC | MFD_ALLOW_SEALING)};
            bytes before(size_t(r.size == none ? 0 : r.size), 0xEE);
            fill(journal, journal_of(r.journal)), fill(file, before);
            fcntl(file, F_ADD_SEALS, r.seals);
            const std::string path = path_of(file);
            const outcome out = repair(r.version, r.size == none ? nullptr : path.c_str(), path_of(journal), ask);
            const bytes after = file_content(file);
            EXPECT_EQ(out.error, r.error);
            EXPECT_EQ(out.printed, r.printed);
            EXPECT_EQ(out.users, ask ? r.users : "");
            EXPECT_EQ(out.log, lines_without(r.log, off));
            if (ask && out.result == 0) {
                const std::string text = layout(out.info, whole ? after : bytes());
                EXPECT_EQ(text, (r.size == none || !whole ? "?" : "") + std::string(whole ? r.after : ""));
            }
            if (r.size == none) continue;
            if (r.after[0] != 'u') overlay(before, 0, head);
            if (whole) { // the media stays, what is missing is zeros
                EXPECT_TRUE(!ask || out.info.fileSize == after.size());
                before.resize(24 + size_t(std::stoi(r.after + 5)));
                overlay(before, 24, bytes(after.begin() + 24, after.begin() + 28));
                before.insert(before.end(), after.begin() + long(before.size()), after.end());
            }
            EXPECT_TRUE(after == before);
        }
    const descriptor file, journal;
    fill(file, bytes(99, 0xEE)), fill(journal, journal_of(V2));
    const std::string good = path_of(journal), path = path_of(file);
    const struct {
        int version; const char *path; std::string journal; int error; const char *printed, *log;
    } cases[] = {
        {1, "/nowhere", good, ENOENT, "", ""},
        {1, "/", good, EISDIR, "", ""},
        {1, "/dev/full", good, ENOSPC, "", FAILED("No space left on device")},
        {1, path.c_str(), "/nowhere", ENOENT, "", UNLOADED("No such file or directory")},
        {1, nullptr, "/", EISDIR, "", UNREAD(21, "Is a directory")},
        {2, "/nowhere", good, ENOENT, "", ""},
        {2, "/dev/full", good, -1, "", ""},
        {2, path.c_str(), "/nowhere", ENOENT, "", ""},
        {2, nullptr, "/", -1, DROPPED, LEN(-1)},
    };
    for (const auto &c : cases)
        for (const char off : {'0', '4', '5', '8'}) {
            SCOPED_TRACE(testing::Message() << c.version << ": " << (c.path ? c.path : "") << ", " << c.journal);
            set_levels(off != '4', off != '5', off != '8');
            const outcome out = repair(c.version, c.path, c.journal);
            EXPECT_EQ(out.error, c.error);
            EXPECT_EQ(out.printed, c.printed);
            EXPECT_EQ(out.log, lines_without(c.log, off));
            EXPECT_TRUE(file_content(file) == bytes(99, 0xEE));
        }
}

struct recording {
    bytes file, journal;
};

/** So many frames of each codec as the builder writes them. */
recording record(int frames)
{
    testing::internal::CaptureStdout();
    const journal_ptr journal(mediafile_caretaker_create());
    const descriptor out;
    const builder_ptr builder(mp4_builder_create());
    mp4_builder *const b = builder.get();
    for (const mp4_track_desc &track : three_tracks) EXPECT_GE(b->add_track(b, &track), 0);
    EXPECT_EQ(b->open(b, out, 512, journal.get()), 0);
    for (int i = 0; i < frames; i++)
        for (const int track : {0, 1, 2}) EXPECT_EQ(add_frame(b, track, i), 0);
    EXPECT_EQ(b->close(b), 0);
    testing::internal::GetCapturedStdout();
    return {file_content(out), drain(journal)};
}

TEST(fix, gives_back_the_file_that_was_closed)
{
    set_levels(1, 1, 0);
    for (const int frames : {0, 1, 12, 60}) {
        const recording whole = record(frames);
        bytes open = whole.file; // mdat's size is patched, and moov written, at the end
        open.resize(24 + size_t(open[25] << 16 | open[26] << 8 | open[27]));
        overlay(open, 24, bytes(4));
        const descriptor file, journal;
        fill(file, open), fill(journal, whole.journal);
        const outcome out = repair(1, path_of(file).c_str(), path_of(journal));
        const outcome dry = repair(1, nullptr, path_of(journal));
        EXPECT_TRUE(file_content(file) == whole.file && out.info.fileSize == whole.file.size()) << frames;
        EXPECT_TRUE(dry.result == 0 && memcmp(&dry.info, &out.info, sizeof dry.info) == 0);
    }
}

} // namespace
