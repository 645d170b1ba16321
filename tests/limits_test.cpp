/**
 * Recordings beyond 2 GiB, up to the last byte that a movie takes: every position has 32 bits and no sign, whatever the
 * processor. Large writes leave holes in sparse files in memory, so that such a recording costs neither time nor space.
 * As nothing is replaced here but write and writev, the bundled logger is at hand as well.
 */
#include <gtest/gtest.h>

#include <sys/uio.h>

#include <mediafiles/fix.h>
#include <mediafiles/stream.h>
#include <mediafiles/support/log.h>

#include "support/descriptors.h"
#include "support/three-codecs.h"

extern "C" {

ssize_t __real_write(int, const void *, size_t);

/** Entries of a megabyte and more become holes. Like the system's, a call moves 0x7FFFF000 bytes at most. */
ssize_t __wrap_writev(int fd, const iovec *list, int count)
{
    ssize_t done = 0;
    for (const iovec *entry = list; entry != list + count; ++entry) {
        const size_t n = std::min(entry->iov_len, size_t{0x7FFFF000} - static_cast<size_t>(done));
        if (n < 1 << 20 ? __real_write(fd, entry->iov_base, n) != static_cast<ssize_t>(n)
                        : ftruncate(fd, lseek(fd, static_cast<off_t>(n), SEEK_CUR)) != 0)
            return -1;
        done += static_cast<ssize_t>(n);
        if (n < entry->iov_len) break;
    }
    return done;
}

ssize_t __wrap_write(int fd, const void *data, size_t n)
{
    const iovec whole = {const_cast<void *>(data), n};
    return __wrap_writev(fd, &whole, 1);
}

} // extern "C"

namespace {

constexpr uint64_t limit = 0xDFFFFFFF, media = 32; // frame bytes of a recording; where they begin
constexpr uint32_t packet = 0x5000;                // more than the audio track caches

using placed = std::tuple<uint64_t, size_t, uint32_t>; // offset, track, size

/** Fills a recording, pictures and packets in turn, to its last byte; a picture is as large in the file. */
std::vector<placed> record(int fd, int journal_fd, uint32_t buffer, uint32_t picture, bool finish)
{
    const size_t mapped = picture + 2 * packet;
    void *memory = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    const bytes key = hex("00000001 6742C00A88682C4E40 00000001 68CE3C80 00000001 65"),
                other = hex("00000001 41 00*16");
    const mp4_track_desc tracks[] = {{MP4_TRACK_H264, {{176, 144, 0}}}, {MP4_TRACK_AAC, {{1, 16, 8000}}}};
    const journal_ptr journal(mediafile_caretaker_create());
    const builder_ptr builder(mp4_builder_create());
    mp4_builder *const b = builder.get();
    for (const mp4_track_desc &track : tracks) EXPECT_LE(0, b->add_track(b, &track));
    EXPECT_EQ(0, b->open(b, fd, buffer, journal.get()));
    std::vector<placed> samples;
    const auto add = [&](uint32_t track, uint64_t size) {
        std::ranges::copy(samples.empty() ? key : other, static_cast<uint8_t *>(memory));
        const int32_t second = static_cast<int32_t>(samples.size());
        const mp4_frame frame = {static_cast<int32_t>(track),
                                 memory,
                                 static_cast<uint32_t>(size),
                                 {second, 0},
                                 samples.empty() || track == 1};
        return error_of(b->add_frame(b, &frame));
    };
    for (uint64_t total = 0; total < limit && !testing::Test::HasFailure();) {
        const uint32_t track = samples.size() % 2;
        const uint64_t left = limit - total, size = track == 1 ? packet : left < 2 * packet + picture ? left : picture;
        EXPECT_EQ(EFBIG, add(0, left + 1)); // refused without a trace
        EXPECT_EQ(0, add(track, size));
        samples.emplace_back(media + total, track, size);
        total += size;
    }
    for (const uint32_t more : {1u, UINT32_MAX}) EXPECT_EQ(EFBIG, add(1, more));
    EXPECT_EQ(limit, b->movie->bytes);
    EXPECT_EQ(0, b->flush(b));
    fill(journal_fd, drain(journal));
    EXPECT_TRUE(!finish || b->close(b) == 0);
    munmap(memory, mapped);
    return samples;
}

void expect_samples(int fd, const std::vector<placed> &samples)
{
    const mp4::file file = mp4::read(path_of(fd));
    EXPECT_TRUE(file.sound()) << file.problems.front().text;
    std::vector<placed> found;
    for (const place &s : places(file)) found.emplace_back(s.offset, s.track, s.size);
    EXPECT_EQ(samples, found);
    EXPECT_EQ(std::get<0>(samples.back()) + std::get<2>(samples.back()), file.mdat.at(0).end);
}

const std::tuple<const char *, uint32_t, uint32_t> pictures[] = {
    {"of 32 MiB", 0x2000000, 0},
    {"that fill the buffer unevenly", 0x1FFFFF7, 65536},
    {"of 1 GiB, a buffer of 1 MiB", 0x3FFFC001, 1 << 20},
    {"one of 3.5 GB", static_cast<uint32_t>(limit), 0}, // more than a call writes, and than 32 bits address
};

TEST(Limits, HoldForARecordingOfAllBytesAndItsRepair)
{
    for (const auto &[what, picture, buffer] : pictures) {
        SCOPED_TRACE(what);
        if (sizeof(void *) == 4 && picture > INT32_MAX) continue;
        const descriptor whole, whole_journal;
        std::vector<placed> samples = record(whole, whole_journal, buffer, picture, true);
        expect_samples(whole, samples);
        for (const auto repair : {mp4_fix, mp4_fix2}) {
            const descriptor cut, journal;
            record(cut, journal, buffer, picture, false);
            EXPECT_EQ(media + limit, file_size(cut));
            mp4_fix_info info = {};
            ASSERT_EQ(0, repair(path_of(cut).c_str(), path_of(journal).c_str(), nullptr, &info));
            if (repair == mp4_fix2) samples.pop_back(); // the last picture; a single one is left alone
            if (samples.empty()) continue;
            EXPECT_EQ(file_size(cut), info.fileSize);
            EXPECT_EQ(samples.size(), info.tracks[0].frameCount + info.tracks[1].frameCount);
            expect_samples(cut, samples);
            EXPECT_EQ(repair == mp4_fix, file_content(whole, media + limit) == file_content(cut, media + limit));
        }
    }
}

TEST(Limits, HoldForAJournalWithGaps)
{
    bytes notes = hex("01 00 1000 01010000 B0000000 90000000 00000000"
                      "07 00 0900 6742C00A88682C4E40 000000  08 00 0400 68CE3C80");
    overlay(notes, notes.size(),
            records("m0:32,0x7FFFFFF0,5 m0:0x80000100,4096,6 m0:0x9FFFFFF7,9,7 m0:0xA0000000,9,8"));
    const descriptor file, journal;
    ASSERT_EQ(0, ftruncate(file, 0xA0000000)); // the last sample begins there
    for (const auto &[at, unit] : {std::pair(32u, "7FFFFFEC"), {0x80000010u, "00000FFC"}, {0x80001010u, "00000005"}})
        ASSERT_EQ(4, pwrite(file, hex(unit).data(), 4, at)); // each sample is one NAL unit
    fill(journal, notes);
    mp4_fix_info info;
    EXPECT_EQ(0, mp4_fix(path_of(file).c_str(), path_of(journal).c_str(), nullptr, &info));
    EXPECT_EQ(3u, info.tracks[0].frameCount);
    const mp4::file repaired = mp4::read(path_of(file));
    EXPECT_EQ(media + 0x7FFFFFF0 + 4096 + 9, repaired.mdat.at(0).end); // the gaps are closed
    EXPECT_TRUE(repaired.sound()) << repaired.problems.front().text;
}

TEST(BundledLogger, WritesToStandardErrorAtTwoLevels)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    __printLog(5, "line %d\n", 1);
    EXPECT_EQ("line 1\n", testing::internal::GetCapturedStderr());
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    for (unsigned word = 0; word < 256; ++word) EXPECT_EQ(word == 79 || word == 95, __logLevels[word]) << word;
}

} // namespace
