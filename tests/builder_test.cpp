/** The builder: its states, files in a row, a recording under every fault, and what it allocates. */
#include <gtest/gtest.h>

#include <set>

#include <fcntl.h>

#include <mediafiles/builder.h>
#include <mediafiles/movie.h>
#include <mediafiles/track.h>

#include "support/descriptors.h"
#include "support/faults.h"
#include "support/recording.h"

namespace {

using builder_ptr = std::unique_ptr<mp4_builder, destroy_by<[](mp4_builder *builder) { builder->destroy(builder); }>>;

constexpr mp4_track_desc tracks[] = {{MP4_TRACK_H264, {{640, 480, 0}}}, {MP4_TRACK_AAC, {{2, 8, 1000}}}};

/** Frame i of a track, about 25 a second, of changing size: every fifth of the video is a key with parameter sets. */
int add_frame(const builder_ptr &builder, int32_t track, int i)
{
    static const bytes head[] = {hex("00000001 41"), hex("00000001 6742c01e 00000001 68eeff3c 000001 65")};
    bytes data = track == 0 ? head[i % 5 == 0] : bytes();
    const int length = track == 0 ? 20 + i % 3 : 150 + i % 4 * 50;
    data.insert(data.end(), static_cast<size_t>(length), static_cast<uint8_t>(0x80 | i));
    const mp4_time time = {i / 25, i % 25 * 40000000 + i % 3 * 2000000};
    const mp4_frame frame = {track, data.data(), static_cast<uint32_t>(data.size()), time, i % 5 == 0};
    return error_of(builder->add_frame(builder.get(), &frame));
}

struct outcome {
    bool complete = false; // up to a close without error
    std::set<int> errors;  // of all operations
};

/** Records so many frames of each track; tracks that the builder does not have yet are added. */
outcome record(const builder_ptr &builder, int fd, uint32_t buffer, const journal_ptr &journal, int frames)
{
    outcome result;
    mp4_builder *const b = builder.get();
    const auto fails = [&](int error) { return errno = 0, error && (result.errors.insert(error), true); };
    while (b->movie->next_track_id <= 2)
        if (fails(error_of(b->add_track(b, &tracks[b->movie->next_track_id - 1])))) return result;
    if (fails(error_of(b->open(b, fd, buffer, journal.get())))) return result;
    for (int i = 0; i < frames; i++) {
        for (const int32_t track : {0, 1}) fails(add_frame(builder, track, i));
        EXPECT_TRUE(i != frames / 2 || fails(error_of(b->flush(b))) || !b->movie->error);
    }
    const int kept = b->movie->error;
    result.complete = !fails(error_of(b->close(b)));
    EXPECT_FALSE(kept && result.complete);
    return result;
}

/** The first of two files holds the beginning of the second, but for the size of mdat, which comes late. */
bool begins(bytes part, const bytes &all)
{
    for (size_t i = 24; i < 28 && i < part.size(); i++) part[i] = all[i];
    return part.size() <= all.size() && std::equal(part.begin(), part.end(), all.begin());
}

TEST(builder, survives_every_fault)
{
    using enum faults::call;
    const struct {
        const char *what; faults::plan plan; long calls; uint32_t buffer = 512; bool unseen = false;
    } cases[] = {
        {"an allocation", {.kind = memory, .error = ENOMEM, .spoil = true}, 40},
        {"allocations", {.kind = memory, .forever = true, .error = ENOMEM, .spoil = true}, 40},
        {"a write", {.kind = output, .error = EIO, .spoil = true}, 8},
        {"a write without buffer", {.kind = output, .error = EIO, .spoil = true}, 60, 0},
        {"writes", {.kind = output, .forever = true, .error = ENOSPC, .spoil = true}, 8},
        {"part of a write", {.kind = output, .error = EIO, .cut = 100, .spoil = true}, 100},
        {"a seek", {.kind = seeking, .error = EIO, .spoil = true}, 2},
        {"seeks", {.kind = seeking, .forever = true, .error = ESPIPE, .spoil = true}, 2},
        {"advice", {.kind = advice, .forever = true, .error = EINVAL}, 2, 512, true},
    };
    for (const auto &c : cases) {
        const int frames = c.plan.kind == memory ? 1100 : 60; // tables and the journal's buffer grow, or not
        const descriptor reference;
        journal_ptr journal(mediafile_caretaker_create());
        EXPECT_TRUE(record(builder_ptr(mp4_builder_create()), reference, 512, journal, frames).complete);
        const bytes expected = file_content(reference), expected_journal = drain(journal);
        journal.reset();
        long nth = 0;
        for (bool hit = true; hit; nth++) {
            SCOPED_TRACE(testing::Message() << c.what << ", call " << nth);
            const descriptor first, second;
            faults::injection injection(c.plan);
            injection.orders.nth = nth;
            outcome result;
            builder_ptr builder(mp4_builder_create());
            if (!builder || (journal.reset(mediafile_caretaker_create()), !journal)) result.errors = {errno};
            else result = record(builder, first, c.buffer, journal, frames);
            hit = injection.hit;
            injection.orders = {};

            const bool silent = !hit || c.unseen || (c.plan.kind == memory && result.complete);
            EXPECT_EQ(result.errors, silent ? std::set<int>() : std::set<int>{c.plan.error});
            EXPECT_TRUE(result.complete || !silent);
            const bytes content = file_content(first);
            EXPECT_TRUE(result.complete ? content == expected : begins(content, expected));
            EXPECT_GE(fcntl(first, F_GETFD), 0);
            const int lost = journal ? mediafile_caretaker_errcode(journal.get()) : 0; // of the journal alone
            EXPECT_EQ(lost, lost && hit && c.plan.kind == memory ? ENOMEM : 0);
            EXPECT_TRUE(!result.complete || lost || drain(journal).size() == expected_journal.size());

            if (!journal) journal.reset(mediafile_caretaker_create());
            if (builder) { // the next file knows nothing of all that
                EXPECT_TRUE(record(builder, second, c.buffer, journal, frames).complete);
                EXPECT_TRUE(file_content(second) == expected && drain(journal) == expected_journal);
            }
            builder.reset(), journal.reset();
            EXPECT_EQ(injection.held, 0);
        }
        EXPECT_GT(nth, c.calls);
    }
}

TEST(builder, opens_and_closes)
{
    builder_ptr builder(mp4_builder_create());
    mp4_builder *const b = builder.get();
    const bytes old(3000, 0xEE), head = hex("00000018 'ftypmp42' 00*4 'mp42isom' 00000000 'mdat'");
    const bytes media = hex("00000004 6742c01e 00000004 68eeff3c 00000015 65 80*20 80*150");
    const descriptor file;
    for (const mp4_track_desc &track : tracks) EXPECT_GE(b->add_track(b, &track), 0);
    for (const bool frames : {false, true, true}) { // a file without frames, and the second of two that are alike
        EXPECT_TRUE(error_of(b->flush(b)) == ESRCH && add_frame(builder, 0, 0) == ESRCH && b->close(b) == 0);
        EXPECT_EQ(pwrite(file, old.data(), old.size(), 0), 3000);
        EXPECT_EQ(lseek(file, frames ? 5 : 0, SEEK_SET), frames ? 5 : 0);
        const faults::injection injection({.kind = faults::seeking, .nth = frames ? -1 : 0, .error = EOVERFLOW});
        EXPECT_EQ(b->open(b, file, 4096, nullptr), 0);
        EXPECT_EQ(error_of(b->open(b, file, 4096, nullptr)), EBUSY);
        for (const int32_t track : {0, 1}) EXPECT_TRUE(!frames || add_frame(builder, track, 0) == 0);
        EXPECT_TRUE(file_content(file) == old); // all is cached yet
        EXPECT_EQ(b->flush(b), 0);
        bytes content = file_content(file), mdat = head;
        if (frames) mdat.insert(mdat.end(), media.begin(), media.end());
        const size_t moov = mdat.size();
        EXPECT_EQ(dump(bytes(content.begin(), content.begin() + static_cast<long>(moov))), dump(mdat));
        EXPECT_EQ(b->close(b), 0);
        content = file_content(file);
        const size_t end = moov + content[moov + 2] * 256u + content[moov + 3];
        EXPECT_EQ(content[27], moov - 24);
        EXPECT_EQ(std::string(&content[moov + 4], &content[moov + 8]), "moov");
        EXPECT_TRUE(content[end - 1] != 0xEE && content[end] == 0xEE && content.size() == 3000); // not truncated
    }
    const int full = open("/dev/full", O_WRONLY), readable = open("/dev/null", O_RDONLY);
    EXPECT_EQ(error_of(b->open(b, full, 0, nullptr)), ENOSPC);
    EXPECT_EQ(error_of(b->open(b, readable, 0, nullptr)), EBADF);
    EXPECT_EQ(b->open(b, full, 4096, nullptr) | add_frame(builder, 0, 0), 0);
    EXPECT_EQ(error_of(b->close(b)), ENOSPC);
    EXPECT_EQ(close(full) | close(readable) | ftruncate(file, 0), 0);
    EXPECT_EQ(b->open(b, file, 0, nullptr) | add_frame(builder, 0, 0), 0);
    builder.reset(); // without moov, and the descriptor stays
    EXPECT_EQ(lseek(file, 0, SEEK_END), 32 + 41);
}

TEST(builder, allocates_nothing_per_frame)
{
    constexpr int warm = 10000, frames = 100000;
    const mp4_track_desc stereo = {MP4_TRACK_AAC, {{2, 16, 48000}}};
    for (const bool even : {true, false}) {
        const builder_ptr builder(mp4_builder_create());
        const journal_ptr journal(mediafile_caretaker_create());
        mp4_builder *const b = builder.get();
        EXPECT_EQ(b->add_track(b, &tracks[0]) + b->add_track(b, &stereo), 1);
        const int fd = open("/dev/null", O_WRONLY);
        EXPECT_EQ(b->open(b, fd, 65536, journal.get()), 0);
        std::unique_ptr<faults::injection> seen;
        const uint8_t data[64] = {0, 0, 0, 1, 0x65};
        int64_t packets = 0;
        for (int i = 0; i < warm + frames; i++) {
            if (i == warm) seen = std::make_unique<faults::injection>();
            const int jitter = even ? 0 : i % 7 * 1000000;
            const uint32_t length = even ? 24 : 24 + static_cast<uint32_t>(i % 9);
            const mp4_frame picture = {0, data, length, {i / 25, i % 25 * 40000000 + jitter}, even || i % 25 == 0};
            ASSERT_EQ(b->add_frame(b, &picture), 0);
            for (int64_t ns; (ns = packets * 1024000000000 / 48000) <= int64_t{i} * 40000000; packets++) {
                const mp4_frame packet = {1, data + 5, length, {int(ns / 1000000000), int(ns % 1000000000)}, 1};
                ASSERT_EQ(b->add_frame(b, &packet), 0);
            }
            uint32_t count; // drained once a second, after a flush, as an application does
            ASSERT_TRUE(i % 25 || (b->flush(b) == 0 && mediafile_caretaker_read(journal.get(), &count)));
        }
        EXPECT_EQ(mediafile_caretaker_errcode(journal.get()), 0);
        const long made = seen->made[faults::memory], moved = static_cast<long>(seen->largest_growth);
        long allowed = 0; // blocks of tables that have outgrown what was set aside
        printf("%s frames: %ld allocations in %d frames of video, of %ld of audio; entries", even ? "even" : "uneven",
               made, frames, static_cast<long>(packets));
        for (const mp4_track *t : {b->movie->tracks[0], b->movie->tracks[1]})
            for (const auto *table : {t->stts_table, t->stss_table, t->stco_table, t->stsc_table, t->stsz_table}) {
                const uint32_t length = array_stream_length(table);
                allowed += length <= 64 ? 0 : 2 + length / 1024;
                printf(" %u", length);
            }
        printf("; %ld allowed, largest realloc %ld\n", allowed, moved);
        EXPECT_LE(made, allowed);
        EXPECT_LE(moved, 4096);
        seen.reset();
        EXPECT_EQ(b->close(b) | close(fd), 0);
    }
}

} // namespace
