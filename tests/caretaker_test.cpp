/** The journal: what a writer stores, what a reader hands back, and how each fails. */
#include <gtest/gtest.h>

#include <mediafiles/support/log.h>

#include "support/descriptors.h"
#include "support/faults.h"
#include "support/recording.h"

namespace {

using lines = std::vector<std::string>;

/** USER records that fill so many bytes, a multiple of four. */
std::string filler(size_t length)
{
    std::string text;
    for (; length > 512; length -= 512) text += "0/508 ";
    return length == 0 ? text : text + "0/" + std::to_string(length - 4) + " ";
}
const std::string other_kinds = "6/1 " + filler(8188) + "7/508 " + filler(8000) + "8/2 9/3 1/16 0/0 0/505";

journal_ptr load(const std::string &path) { return journal_ptr(mediafile_caretaker_load(path.c_str())); }
journal_ptr load(const bytes &content, const descriptor &file = {})
{
    EXPECT_EQ(pwrite(file, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
    return load(path_of(file));
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
auto state(const journal_ptr &j) { return std::pair(mediafile_caretaker_errcode(&*j), mediafile_caretaker_eof(&*j)); }

void switch_log(uint32_t on) { faults::log_lines.clear(), __logLevels[16 * 4 + 15] = __logLevels[16 * 5 + 15] = on; }

TEST(writer, stores_what_is_complete_up_to_the_first_failure)
{
    EXPECT_EQ(dump(records("m1:1000,100,-2")), dump("02 01 1800 e8030000 64000000 feffffffffffffff f4010000 01000000"));
    const struct { std::string given, stored; int error = 0; lines bad = {""}; } cases[] = {
        {"p1:-2 s1:100 c1:1000,1", "m1:1000,100,-2"},
        {"p0:1 s0:9", ""},
        {"p0:1 p0:2 s0:100 p0:3 s0:200 s0:300 c0:10,3", "m0:10,100,1 m0:110,200,2 m0:310,300,3"},
        {"p0:1 p1:2 s1:20 s0:10 c1:50,1 c0:70,1", "m1:50,20,2 m0:70,10,1"}, // tracks do not mix
        {"p0:1 p0:2 s0:30 c0:40,1", "m0:40,30,1"}, // a frame that was dropped takes the next one's size
        {"p0:1 s0:4 p0:2 s0:2 c0:5,1 p0:3 s0:3 c0:9,2", "m0:5,4,1 m0:9,2,2 m0:11,3,3"},
        {"p0:1 p0:2 w0:8,4 s0:6 c0:12,1", "m0:8,4,1 m0:12,6,2"},
        {"p0:1 s0:9 w0:8,4 p0:2 s0:6 c0:12,1", "m0:8,4,1 m0:12,6,2"},
        {"m7:100,50,1 m0:150,1,2", "m7:100,50,1 m0:150,1,2"},
        {"m0:0xFFFFFFF0,32,1 m0:16,1,2 p1:3 s1:0xFFFFFFF0 c1:17,1 m0:1,1,4", // the least offset has 32 bits
         "m0:0xFFFFFFF0,32,1 m0:16,1,2 m1:17,0xFFFFFFF0,3 m0:1,1,4"},
        {other_kinds, other_kinds},
        {"0/508", "0/508", EFBIG, {"0/509", "7/65535"}},
        {"", "", EBADRQC, {"10/600", "255/4"}},
        {"", "", ENOBUFS, {"p8:1", "m8:1,1,1"}},
        {"m0:100,50,1", "m0:100,50,1", EILSEQ, {"m1:149,1,2", "c0:149,0", "w0:149,0"}},
        {"m0:0xFFFFFFFF,2,1", "m0:0xFFFFFFFF,2,1", EILSEQ, {"m0:0,1,2"}},
        {"p0:1 s0:1", "", EINVAL, {"s0:0", "c0:1,0", "c0:1,-1", "w0:1,0", "3/0/0", "4/4/0"}},
        {"p1:1 s1:5", "", ENOENT, {"s8:0", "c8:1,0", "w8:1,0", "s0:5", "s1:5", "c0:1,1", "w0:1,1"}},
        {"p0:1 p0:2 s0:9", "m0:100,9,1", ENOENT, {"c0:100,2"}},
    };
    const journal_ptr journal(mediafile_caretaker_create());
    for (auto *reset : {mediafile_caretaker_reset, mediafile_caretaker_reset2}) {
        for (const auto &c : cases) for (const auto &bad : c.bad) {
            SCOPED_TRACE(c.given + " | " + bad);
            switch_log(1);
            EXPECT_EQ(add(journal, c.given), 0);
            for (const std::string &next : {bad, std::string(c.error ? "0/4" : "")})
                EXPECT_EQ((errno = 0, add(journal, next)), c.error);
            EXPECT_EQ(state(journal), std::pair(c.error, 0));
            const auto code = std::to_string(c.error) + "(" + strerror(c.error) + ")\n";
            EXPECT_EQ(faults::log_lines, c.error ? lines{"4 caretaker->error=" + code} : lines());
            EXPECT_EQ(error_of(mediafile_caretaker_read(journal.get(), nullptr) ? 0 : -1), EINVAL);
            EXPECT_EQ(dump(drain(journal)) + dump(drain(journal)), dump(records(c.stored)));
            reset(journal.get());
            EXPECT_EQ(add(journal, "p0:9 s0:6 p1:8 s1:7 c0:0,1 c1:6,1"), 0); // nothing of before is left
            EXPECT_EQ(dump(drain(journal)), dump(records("m0:0,6,9 m1:6,7,8")));
            reset(journal.get());
        }
    }
    const journal_ptr fresh(mediafile_caretaker_create());
    const faults::injection injection({.nth = 2, .error = ENOMEM});
    for (int i = 0; i < 99; i++, mediafile_caretaker_reset(fresh.get())) EXPECT_EQ(add(fresh, "p0:1 s0:1 p1:1"), 0);
    EXPECT_EQ(injection.made[faults::memory], 2); // what was dropped is used again
    EXPECT_EQ(add(fresh, filler(4096)), 0);
    EXPECT_EQ(add(fresh, "0/0"), ENOMEM); // the buffer cannot grow, and keeps what it has
    EXPECT_EQ(drain(fresh), records(filler(4096)));
}

TEST(reader, drops_only_what_the_end_of_the_file_cut)
{
    std::string text;
    std::vector<size_t> ends = {0};
    for (int i = 1; ends.back() < 8700; i++) {
        const std::string n = std::to_string(i);
        text += i % 3 ? "m7:" + n + "000,1000,-5 " : i < 60 ? "6/" + n + " " : "0/508 ";
        ends.push_back(records(text).size());
    }
    const bytes all = records(text + "77/100"); // a kind that cannot be, once it is whole
    const descriptor file;
    const journal_ptr reader = load(all, file);
    for (size_t cut = all.size() - 1; cut > 0; cut--) {
        while (ends.back() > cut) ends.pop_back();
        ASSERT_EQ(ftruncate(file, static_cast<off_t>(cut)), 0);
        ASSERT_EQ(popped(reader), bytes(all.begin(), all.begin() + static_cast<long>(ends.back()))) << cut;
        ASSERT_EQ(state(reader), std::pair(0, 1)) << cut;
        mediafile_caretaker_reset2(reader.get());
        ASSERT_EQ(state(reader), std::pair(0, 0)) << cut;
    }
}

TEST(reader, stops_at_a_record_that_cannot_be)
{
    const std::string where = "[src/mediafiles/caretaker:mediafile_caretaker_pop:579]: ";
    const std::string impossible = "5 bad_msg " + where + strerror(EXDEV) + "\n";
    const struct { std::string lead; lines bad; std::string line; } cases[] = {
        {"", {"0/509"}, "4 len(516) > MEMENTO_MAX_SIZE(512)\n"},
        {"", {"9/65535"}, "4 len(65540) > MEMENTO_MAX_SIZE(512)\n"},
        {"", {"s0:5", "c0:0,1", "w0:0,1", "10/0", "1/15", "1/17", "2/20", "2/28", "m0:5,0,1"}, impossible},
        {"m0:100,50,1 m1:150,9,1", {"m0:158,1,1"}, impossible},
        {"m0:0xFFFFFFFF,2,1 m0:1,1,1", {"m0:1,1,1"}, impossible},
    };
    for (const size_t position : {0u, 28u, 8164u, 8168u, 8188u, 8192u, 8196u, 16380u})
        for (const auto &c : cases) for (const auto &bad : c.bad) {
            SCOPED_TRACE(bad + " at " + std::to_string(position));
            const std::string good = filler(position) + c.lead;
            const journal_ptr reader = load(records(good + " " + bad + " 0/8"));
            const faults::injection injection({.spoil = true});
            for (const uint32_t log : {1u, 1u, 0u}) {
                switch_log(log);
                for (const std::string &expected : {good, std::string()}) {
                    EXPECT_EQ(popped(reader), records(expected));
                    EXPECT_EQ(errno, EBADMSG);
                }
                EXPECT_EQ(faults::log_lines, log ? lines{c.line} : lines());
                EXPECT_EQ(state(reader), std::pair(EBADMSG, 0));
                EXPECT_EQ(faults::log_lines.size(), 2 * log);
                mediafile_caretaker_reset2(reader.get());
            }
        }
}

TEST(reader, reports_what_reading_reports)
{
    const bytes all = records(other_kinds);
    bool hit = true;
    for (long nth = 0; hit; nth++) { // short reads are no end, and before a failure only whole records come
        SCOPED_TRACE(nth);
        const journal_ptr reader = load(all);
        faults::injection injection({.kind = faults::input, .nth = nth, .error = EIO, .cut = 1000});
        const bytes before = popped(reader);
        hit = injection.hit;
        EXPECT_EQ(hit ? errno : EIO, EIO);
        EXPECT_EQ(before, hit ? bytes(all.begin(), all.begin() + static_cast<long>(before.size())) : all);
        EXPECT_EQ(state(reader), std::pair(hit ? EIO : 0, hit ? 0 : 1));
        injection.orders = {};
        mediafile_caretaker_reset2(reader.get());
        EXPECT_EQ(popped(reader), all);
        EXPECT_TRUE(hit || nth > 16);
    }
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(write(ends[1], all.data(), all.size()), static_cast<ssize_t>(all.size()));
    const journal_ptr directory = load(std::string("/")), fifo = load(path_of(ends[0]));
    close(ends[0]), close(ends[1]);
    EXPECT_EQ(popped(directory), bytes());
    EXPECT_EQ(state(directory), std::pair(EISDIR, 0));
    EXPECT_EQ(popped(fifo), all);
    EXPECT_EQ(state(fifo), std::pair(0, 1));

    const int lowest = dup(0);
    close(lowest);
    for (const long nth : {0, 1, 2}) {
        const faults::injection injection({.nth = nth, .error = ENOMEM, .spoil = true});
        EXPECT_EQ(mediafile_caretaker_load(nth < 2 ? "/dev/null" : "/nowhere/at/all"), nullptr);
        EXPECT_EQ(std::pair(errno, injection.held), std::pair(nth < 2 ? ENOMEM : ENOENT, 0l));
    }
    EXPECT_EQ(dup(0), lowest); // no descriptor was left open
    close(lowest);
}

TEST(journal, refuses_the_other_mode_without_keeping_the_error)
{
    const journal_ptr reader = load(records("0/1 0/2")), writer(mediafile_caretaker_create());
    uint32_t count = 0;
    EXPECT_EQ((errno = 0, add(reader, "0/1")), EACCES);
    EXPECT_EQ((errno = 0, error_of(mediafile_caretaker_read(reader.get(), &count) ? 0 : -1)), EACCES);
    EXPECT_NE(mediafile_caretaker_pop(reader.get()), nullptr);
    mediafile_caretaker_reset(reader.get()); // for writers only
    EXPECT_EQ(popped(reader), records("0/2"));
    EXPECT_EQ(mediafile_caretaker_pop(writer.get()), nullptr);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(std::pair(state(writer), state(reader)), std::pair(std::pair(0, 0), std::pair(0, 1)));
    EXPECT_EQ(add(writer, "0/1"), 0);
}

} // namespace
