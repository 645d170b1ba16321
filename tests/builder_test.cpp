/** The builder: its states, the file that it is given, and what it allocates. */
#include <gtest/gtest.h>

#include <fcntl.h>

#include "support/descriptors.h"
#include "support/faults.h"
#include "support/three-codecs.h"

namespace {

struct Builder : testing::Test {
    const journal_ptr journal{mediafile_caretaker_create()};
    builder_ptr owner{mp4_builder_create()};
    mp4_builder *const b = owner.get();
    const descriptor file;

    Builder()
    {
        for (const int i : {0, 1}) EXPECT_EQ(i, b->add_track(b, &three_tracks[i]));
    }
    int open(int fd, uint32_t buffer) { return error_of(b->open(b, fd, buffer, journal.get())); }
};

TEST_F(Builder, WritesAFileFromItsBeginningAndDoesNotTruncateIt)
{
    const bytes old(3000, 0xEE);
    fill(file, old), lseek(file, 5, SEEK_SET);
    EXPECT_EQ(ESRCH, error_of(b->flush(b)));
    EXPECT_EQ(ESRCH, add_frame(b, 0, 0));
    EXPECT_EQ(0, open(file, 4096));
    EXPECT_EQ(EBUSY, open(file, 4096));
    EXPECT_EQ(0, add_frame(b, 0, 0) | add_frame(b, 1, 0));
    EXPECT_EQ(old, file_content(file)); // all is cached yet
    for (int twice = 0; twice < 2; twice++) EXPECT_EQ(0, b->close(b));
    EXPECT_EQ(dump("00000018 'ftyp'"), dump(file_content(file, 0, 8)));
    EXPECT_EQ(dump("EE*1000"), dump(file_content(file, 2000)));
}

TEST_F(Builder, FlushesWhatItHasWhenItClosesAfterAnError)
{
    EXPECT_EQ(0, open(file, 4096) | add_frame(b, 0, 0));
    b->movie->error = EPROTO;
    EXPECT_EQ(EPROTO, error_of(b->close(b)));
    EXPECT_EQ(32u + 41, file_size(file)); // and no moov
}

TEST_F(Builder, ReportsADescriptorThatTakesNothing)
{
    const descriptor full{::open("/dev/full", O_WRONLY)}, readable{::open("/dev/null", O_RDONLY)};
    EXPECT_EQ(ENOSPC, open(full, 0));
    EXPECT_EQ(EBADF, open(readable, 0));
    EXPECT_EQ(0, open(full, 4096) | add_frame(b, 0, 0));
    EXPECT_EQ(ENOSPC, error_of(b->close(b)));
    EXPECT_EQ(0, open(file, 0) | add_frame(b, 0, 0));
    owner.reset(); // without moov, and the descriptor stays
    EXPECT_EQ(32u + 41, file_size(file));
}

TEST_F(Builder, AllocatesNothingPerFrame)
{
    const uint8_t data[64] = {0, 0, 0, 1, 0x65};
    for (const bool even : {true, false}) {
        const descriptor nowhere{::open("/dev/null", O_WRONLY)};
        EXPECT_EQ(0, open(nowhere, 65536));
        std::unique_ptr<faults::injection> seen;
        for (int i = 0; i < 110000; i++) {
            if (i == 10000) seen = std::make_unique<faults::injection>();
            const mp4_time time = {i / 25, i % 25 * 40000000 + (even ? 0 : i % 7 * 1000000)};
            for (const int track : {0, 1}) {
                const mp4_frame frame = {track, data, even ? 24 : 24 + uint32_t(i) % 9, time, even || i % 25 == 0};
                ASSERT_EQ(0, b->add_frame(b, &frame));
            }
            if (i % 25 != 0) continue; // drained once a second, after a flush, as an application does
            ASSERT_EQ(0, b->flush(b));
            drain(journal);
        }
        EXPECT_GE(even ? 9 : 600, seen->made[faults::memory]); // blocks of tables
        EXPECT_GE(4096u, seen->largest_growth);
        seen.reset();
        EXPECT_EQ(0, mediafile_caretaker_errcode(journal.get()) | b->close(b));
    }
}

} // namespace
