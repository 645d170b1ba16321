/** The journal: what a writer stores, what a reader hands back, and how each fails. */
#include <optional>

#include <gtest/gtest.h>

#include "support/descriptors.h"
#include "support/faults.h"
#include "support/recording.h"

namespace {

using faults::lines;

/** USER records that fill so many bytes, a multiple of four. */
std::string filler(size_t length)
{
    if (length > 512) return "0/508 " + filler(length - 512);
    return length == 0 ? "" : "0/" + std::to_string(length - 4) + " ";
}
const std::string other_kinds = "6/1 " + filler(8188) + "7/508 " + filler(8000) + "8/2 9/3 1/16 0/0 0/505";

journal_ptr load(const bytes &content, const descriptor &file = {})
{
    fill(file, content);
    return journal_ptr(mediafile_caretaker_load(path_of(file).c_str()));
}

/** Every record up to the end or to the failure, whose errno is left. */
bytes popped(const journal_ptr &reader)
{
    for (bytes all;;) {
        errno = EXDEV;
        const auto *next = mediafile_caretaker_pop(reader.get());
        if (!next) return all;
        const auto *data = reinterpret_cast<const uint8_t *>(next);
        all.insert(all.end(), data, data + 4 + ((next->length + 3) & ~3));
    }
}

/** The kept error, and whether the end was reached. */
const auto state = [](const journal_ptr &journal) {
    return std::pair(mediafile_caretaker_errcode(journal.get()), mediafile_caretaker_eof(journal.get()));
};

const auto error_line = [](int error) {
    return "4 caretaker->error=" + std::to_string(error) + "(" + strerror(error) + ")\n";
};

/** What a writer is given, and what it stores of that. */
const std::pair<std::string, std::string> stored_cases[] = {
    {"p1:-2 s1:100 c1:1000,1", "m1:1000,100,-2"},
    {"p0:1 p0:2 s0:100 p0:3 s0:200 s0:300 c0:10,3", "m0:10,100,1 m0:110,200,2 m0:310,300,3"},
    {"p0:1 p1:2 s1:20 s0:10 c1:50,1 c0:70,1", "m1:50,20,2 m0:70,10,1"}, // tracks do not mix
    {"p0:1 p0:2 s0:30 c0:40,1", "m0:40,30,1"}, // a frame that was dropped takes the next one's size
    {"p0:1 s0:4 p0:2 s0:2 c0:5,1 p0:3 s0:3 c0:9,2", "m0:5,4,1 m0:9,2,2 m0:11,3,3"},
    {"p0:1 p0:2 w0:8,4 s0:6 c0:12,1", "m0:8,4,1 m0:12,6,2"},
    {"p0:1 s0:9 w0:8,4 p0:2 w0:12,6", "m0:8,4,1 m0:12,6,2"},
    {"m7:100,50,1 m0:150,1,2 p0:9 s0:1", "m7:100,50,1 m0:150,1,2"},
    {"m0:0xFFFFFFF0,32,1 m0:16,1,2 p1:3 s1:0xFFFFFFF0 c1:17,1 m0:1,1,4", // the least offset has 32 bits
     "m0:0xFFFFFFF0,32,1 m0:16,1,2 m1:17,0xFFFFFFF0,3 m0:1,1,4"},
    {"p0:5 s0:9 c0:0x7FFFFFFC,1 p0:6 s0:9 c0:0x80000005,1 p0:7 s0:1 c0:0xFFFFFFF0,1",
     "m0:0x7FFFFFFC,9,5 m0:0x80000005,9,6 m0:0xFFFFFFF0,1,7"},
    {other_kinds, other_kinds},
};

TEST(JournalWriter, StoresASampleOnceItsPlaceIsKnown)
{
    EXPECT_EQ(dump("02 01 1800 e8030000 64000000 feffffffffffffff f4010000 01000000"), dump(records("m1:1000,100,-2")));
    const journal_ptr journal(mediafile_caretaker_create());
    for (const auto &[given, stored] : stored_cases) {
        SCOPED_TRACE(given);
        EXPECT_EQ(0, add(journal, given));
        EXPECT_EQ(dump(records(stored)), dump(drain(journal)));
        EXPECT_EQ(bytes(), drain(journal));
        mediafile_caretaker_reset(journal.get());
    }
}

/** What a writer is given and stores; an error, and records each of which causes it then. */
const std::tuple<std::string, std::string, int, lines> refused_cases[] = {
    {"0/508", "0/508", EFBIG, {"0/509", "7/65535"}},
    {"", "", EBADRQC, {"10/600", "255/4"}},
    {"", "", ENOBUFS, {"p8:1", "m8:1,1,1"}},
    {"m0:100,50,1", "m0:100,50,1", EILSEQ, {"m1:149,1,2", "c0:149,0", "w0:149,0"}},
    {"m0:0xFFFFFFF0,1,7 p0:8 s0:1", "m0:0xFFFFFFF0,1,7", EILSEQ, {"c0:0xFFFFFFF0,1"}},
    {"m0:0xFFFFFFFF,2,1", "m0:0xFFFFFFFF,2,1", EILSEQ, {"m0:0,1,2"}},
    {"p0:1 s0:1", "", EINVAL, {"s0:0", "c0:1,0", "c0:1,-1", "w0:1,0", "3/0/0", "4/4/0"}},
    {"p1:1 s1:5", "", ENOENT, {"s8:0", "c8:1,0", "w8:1,0", "s0:5", "s1:5", "c0:1,1", "w0:1,1"}},
    {"p0:1 p0:2 s0:9", "m0:100,9,1", ENOENT, {"c0:100,2"}},
    {filler(4096) + "p0:1 s0:1", filler(4096), ENOMEM, {"0/8", "m0:8,1,1", "c0:8,1"}}, // its buffer does not grow
};

TEST(JournalWriter, KeepsTheFirstErrorUntilItIsReset)
{
    for (auto *reset : {mediafile_caretaker_reset, mediafile_caretaker_reset2})
        for (const auto &[given, stored, error, refused] : refused_cases)
            for (const std::string &bad : refused) {
                SCOPED_TRACE(given + " | " + bad);
                const journal_ptr journal(mediafile_caretaker_create());
                faults::log_all_but(0);
                EXPECT_EQ(0, add(journal, given));
                std::optional<faults::injection> memory;
                if (error == ENOMEM) memory.emplace(faults::plan{.nth = 0, .forever = true, .error = error});
                for (const std::string &next : {bad, std::string("0/4")}) EXPECT_EQ(error, add(journal, next));
                EXPECT_EQ(std::pair(error, 0), state(journal));
                EXPECT_EQ(lines{error_line(error)}, faults::log_lines);
                EXPECT_EQ(dump(records(stored)), dump(drain(journal)));
                memory.reset();
                reset(journal.get());
                EXPECT_EQ(0, add(journal, "p0:9 s0:6 p1:8 s1:7 c0:0,1 c1:6,1")); // nothing of before is left
                EXPECT_EQ(dump(records("m0:0,6,9 m1:6,7,8")), dump(drain(journal)));
            }
}

constexpr size_t positions[] = {0, 28, 8164, 8168, 8188, 8192, 8196, 16380}; // around the reader's buffer

TEST(JournalReader, DropsARecordThatTheEndOfTheFileCuts)
{
    for (const size_t position : positions)
        for (const std::string last : {"m7:1000,1000,-5", "0/508", "77/100"}) { // the last: invalid, once it is whole
            const bytes good = records(filler(position)), all = records(filler(position) + last);
            const descriptor file;
            const without_stdin first; // the reader's file is descriptor 0
            const journal_ptr reader = load(all, file);
            for (size_t size = all.size() - 1; size > good.size(); size--) {
                ASSERT_EQ(0, ftruncate(file, static_cast<off_t>(size)));
                ASSERT_TRUE(good == popped(reader) && std::pair(0, 1) == state(reader)) << size;
                ASSERT_EQ(0, ftruncate(file, static_cast<off_t>(all.size() + 4)));
                ASSERT_EQ(bytes(), popped(reader)) << size; // it has ended
                mediafile_caretaker_reset2(reader.get());
                ASSERT_EQ(std::pair(0, 0), state(reader)) << size;
            }
        }
}

/** Reads a journal again and again; of the levels of the log each is off once. */
void expect_bad_message(const journal_ptr &reader, const bytes &good, const std::string &line)
{
    for (const int off : {0, 4, 5}) {
        faults::log_all_but(off);
        for (const bytes &expected : {good, bytes()}) {
            EXPECT_EQ(expected, popped(reader));
            EXPECT_EQ(EBADMSG, errno);
        }
        EXPECT_EQ(std::pair(EBADMSG, 0), state(reader));
        EXPECT_EQ(faults::logged({line, error_line(EBADMSG)}), faults::log_lines);
        mediafile_caretaker_reset2(reader.get());
    }
}

TEST(JournalReader, StopsAtAnInvalidRecord)
{
    const std::string where = "[src/mediafiles/caretaker:mediafile_caretaker_pop:579]: ";
    const std::string invalid = "5 bad_msg " + where + strerror(EXDEV) + "\n";
    const std::tuple<std::string, lines, std::string> cases[] = {
        {"", {"0/509"}, "4 len(516) > MEMENTO_MAX_SIZE(512)\n"},
        {"", {"9/65535"}, "4 len(65540) > MEMENTO_MAX_SIZE(512)\n"},
        {"", {"s0:5", "c0:0,1", "w0:0,1", "10/0", "1/15", "1/17", "2/20", "2/28", "m0:5,0,1"}, invalid},
        {"m0:100,50,1 m1:150,9,1", {"m0:158,1,1"}, invalid},
        {"m0:0xFFFFFFFF,2,1 m0:1,1,1", {"m0:1,1,1"}, invalid},
    };
    for (const size_t position : positions)
        for (const auto &[lead, refused, line] : cases)
            for (const std::string &bad : refused) {
                SCOPED_TRACE(bad + " at " + std::to_string(position));
                const std::string good = filler(position) + lead;
                const journal_ptr reader =
                    load(records(good + " " + bad + " " + filler(16384))); // more than its buffer
                const faults::injection injection({.spoil = true});
                expect_bad_message(reader, records(good), line);
            }
}

TEST(Journal, RefusesTheOtherModeWithoutKeepingTheError)
{
    const journal_ptr reader = load(records("0/1 0/2")), writer(mediafile_caretaker_create());
    uint32_t count = 0;
    const auto read = [](const journal_ptr &from, uint32_t *to) {
        return errno = 0, mediafile_caretaker_read(from.get(), to) ? 0 : errno;
    };
    EXPECT_EQ(EACCES, add(reader, "0/1"));
    EXPECT_EQ(EACCES, read(reader, &count));
    EXPECT_EQ(EINVAL, read(writer, nullptr));
    EXPECT_NE(nullptr, mediafile_caretaker_pop(reader.get()));
    mediafile_caretaker_reset(reader.get()); // for writers only
    EXPECT_EQ(records("0/2"), popped(reader));
    EXPECT_EQ(bytes(), popped(writer));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(std::pair(0, 1), state(reader));
    EXPECT_EQ(0, add(writer, "0/1"));
}

} // namespace
