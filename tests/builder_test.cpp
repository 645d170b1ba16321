/** The builder: its states, files in a row, and what it allocates. */
#include <gtest/gtest.h>

#include <fcntl.h>

#include <mediafiles/track.h>

#include "support/descriptors.h"
#include "support/faults.h"
#include "support/three-codecs.h"

namespace {

TEST(builder, opens_and_closes)
{
    builder_ptr builder(mp4_builder_create());
    mp4_builder *const b = builder.get();
    const bytes old(3000, 0xEE), head = hex("00000018 'ftypmp42' 00*4 'mp42isom' 00000000 'mdat'");
    const bytes media = hex("00000004 6742c01e 00000004 68eeff3c 00000015 65 80*20 80*150");
    const descriptor file;
    for (const int track : {0, 1}) EXPECT_EQ(b->add_track(b, &three_tracks[track]), track);
    for (const bool frames : {false, true, true}) { // a file without frames, and the second of two that are alike
        EXPECT_TRUE(error_of(b->flush(b)) == ESRCH && add_frame(b, 0, 0) == ESRCH && b->close(b) == 0);
        EXPECT_EQ(pwrite(file, old.data(), old.size(), 0), 3000);
        EXPECT_EQ(lseek(file, frames ? 5 : 0, SEEK_SET), frames ? 5 : 0);
        const faults::injection injection({.kind = faults::seeking, .nth = frames ? -1 : 0, .error = EOVERFLOW});
        EXPECT_EQ(b->open(b, file, 4096, nullptr), 0);
        EXPECT_EQ(error_of(b->open(b, file, 4096, nullptr)), EBUSY);
        for (const int32_t track : {0, 1}) EXPECT_TRUE(!frames || add_frame(b, track, 0) == 0);
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
    EXPECT_EQ(b->open(b, full, 4096, nullptr) | add_frame(b, 0, 0), 0);
    EXPECT_EQ(error_of(b->close(b)), ENOSPC);
    EXPECT_EQ(close(full) | close(readable) | ftruncate(file, 0), 0);
    EXPECT_EQ(b->open(b, file, 0, nullptr) | add_frame(b, 0, 0), 0);
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
        EXPECT_EQ(b->add_track(b, &three_tracks[0]) + b->add_track(b, &stereo), 1);
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
