/**
 * Recordings beyond 2 GiB, up to the last byte that a movie takes: every position has 32 bits and no sign, whatever the
 * processor. Large writes leave holes in sparse files in memory, so that such a recording costs neither time nor space.
 */
#include <gtest/gtest.h>

#include <cstring>
#include <sys/mman.h>
#include <sys/uio.h>

#include <mediafiles/builder.h>
#include <mediafiles/fix.h>
#include <mediafiles/movie.h>
#include <mediafiles/stream.h>

#include "support/descriptors.h"
#include "support/recording.h"
#include "tools/reader/reader.h"

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

uint64_t size_of(int fd) { return static_cast<uint64_t>(lseek(fd, 0, SEEK_END)); }

struct placed {
    uint32_t track;
    uint64_t offset, size;
};

/** Fills a recording, pictures and packets in turn, to its last byte; a picture is as large in the file. */
std::vector<placed> record(int fd, int journal_fd, uint32_t buffer, uint32_t picture, bool finish)
{
    const size_t mapped = picture + 2 * packet;
    void *memory = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    EXPECT_NE(memory, MAP_FAILED);
    const bytes key = hex("00000001 6742C00A88682C4E40 00000001 68CE3C80 00000001 65"), other = hex("00000001 41 00*16");
    const mp4_track_desc tracks[] = {{MP4_TRACK_H264, {{176, 144, 0}}}, {MP4_TRACK_AAC, {{1, 16, 8000}}}};
    const journal_ptr journal(mediafile_caretaker_create());
    mp4_builder *const b = mp4_builder_create();
    for (const mp4_track_desc &track : tracks) EXPECT_GE(b->add_track(b, &track), 0);
    EXPECT_EQ(b->open(b, fd, buffer, journal.get()), 0);

    std::vector<placed> samples;
    const auto add = [&](uint32_t track, uint64_t size) {
        memcpy(memory, samples.empty() ? key.data() : other.data(), samples.empty() ? key.size() : other.size());
        const int32_t second = static_cast<int32_t>(samples.size());
        const mp4_frame frame = {static_cast<int32_t>(track), memory, static_cast<uint32_t>(size), {second, 0},
                                 samples.empty() || track == 1};
        return error_of(b->add_frame(b, &frame));
    };
    for (uint64_t total = 0; total < limit && !testing::Test::HasFailure();) {
        const uint32_t track = samples.size() % 2;
        const uint64_t left = limit - total, size = track == 1 ? packet : left < 2 * packet + picture ? left : picture;
        EXPECT_EQ(add(0, left + 1), EFBIG); // refused without a trace
        EXPECT_EQ(add(track, size), 0);
        samples.push_back({track, media + total, size});
        total += size;
    }
    for (const uint32_t more : {1u, UINT32_MAX}) EXPECT_EQ(add(1, more), EFBIG);
    EXPECT_EQ(b->movie->bytes, limit);
    EXPECT_EQ(b->flush(b), 0);
    const bytes notes = drain(journal);
    EXPECT_EQ(write(journal_fd, notes.data(), notes.size()), static_cast<ssize_t>(notes.size()));
    EXPECT_TRUE(!finish || b->close(b) == 0);
    b->destroy(b);
    munmap(memory, mapped);
    return samples;
}

void expect_samples(int fd, const std::vector<placed> &samples)
{
    const mp4::file file = mp4::read(path_of(fd));
    EXPECT_TRUE(file.sound()) << (file.problems.empty() ? "" : file.problems[0].text);
    ASSERT_TRUE(file.tracks.size() == 2 && file.mdat.size() == 1);
    EXPECT_EQ(file.mdat[0].end, samples.back().offset + samples.back().size);
    size_t next[2] = {};
    for (const placed &s : samples) {
        ASSERT_LT(next[s.track], file.tracks[s.track].samples.size());
        const mp4::sample &found = file.tracks[s.track].samples[next[s.track]++];
        EXPECT_TRUE(found.offset == s.offset && found.size == s.size) << s.offset << ": " << found.offset;
    }
    EXPECT_EQ(next[0] + next[1], file.tracks[0].samples.size() + file.tracks[1].samples.size());
}

TEST(limits, a_recording_of_all_bytes_and_its_repair)
{
    const struct { const char *what; uint32_t picture, buffer; } cases[] = {
        {"pictures of 32 MiB", 0x2000000, 0},
        {"that fill the buffer unevenly", 0x1FFFFF7, 65536},
        {"of 1 GiB, a buffer of 1 MiB", 0x3FFFC001, 1 << 20},
        {"one of 3.5 GB", static_cast<uint32_t>(limit), 0}, // more than a call writes, and than 32 bits address
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        if (sizeof(void *) == 4 && c.picture > INT32_MAX) continue;
        const descriptor whole, whole_journal;
        const std::vector<placed> samples = record(whole, whole_journal, c.buffer, c.picture, true);
        expect_samples(whole, samples);
        for (const auto repair : {mp4_fix, mp4_fix2}) {
            const descriptor cut, journal;
            record(cut, journal, c.buffer, c.picture, false);
            EXPECT_EQ(size_of(cut), media + limit);
            mp4_fix_info info = {};
            const bool all = repair == mp4_fix; // the other leaves out the last picture, and leaves a single one alone
            ASSERT_EQ(repair(path_of(cut).c_str(), path_of(journal).c_str(), nullptr, &info), 0);
            if (!all && samples.size() == 1) continue;
            EXPECT_EQ(info.fileSize, size_of(cut));
            EXPECT_EQ(info.tracks[0].frameCount + info.tracks[1].frameCount, samples.size() - !all);
            expect_samples(cut, {samples.begin(), samples.end() - !all});
            bytes ends[2] = {bytes(100'000), bytes(100'000)};
            for (const int fd : {0, 1}) pread(fd ? cut : whole, ends[fd].data(), 100'000, off_t{media + limit});
            EXPECT_EQ(ends[0] == ends[1], all);
        }
    }
}

TEST(limits, a_journal_with_gaps)
{
    const bytes track = hex("01 00 1000 01010000 B0000000 90000000 00000000"
                            "07 00 0900 6742C00A88682C4E40 000000  08 00 0400 68CE3C80");
    const bytes notes = records("m0:32,0x7FFFFFF0,5 m0:0x80000100,4096,6 m0:0x9FFFFFF7,9,7 m0:0xA0000000,9,8");
    const descriptor file, journal;
    ASSERT_EQ(ftruncate(file, 0xA0000000), 0); // the last sample begins there
    for (const auto &[at, unit] : {std::pair(32u, "7FFFFFEC"), {0x80000010u, "00000FFC"}, {0x80001010u, "00000005"}})
        ASSERT_EQ(pwrite(file, hex(unit).data(), 4, at), 4); // each sample is one NAL unit
    for (const bytes &part : {track, notes}) ASSERT_EQ(write(journal, part.data(), part.size()), ssize_t(part.size()));
    mp4_fix_info info;
    EXPECT_EQ(mp4_fix(path_of(file).c_str(), path_of(journal).c_str(), nullptr, &info), 0);
    EXPECT_EQ(info.tracks[0].frameCount, 3u);
    const mp4::file repaired = mp4::read(path_of(file));
    ASSERT_EQ(repaired.mdat.size(), 1u);
    EXPECT_EQ(repaired.mdat[0].end, media + 0x7FFFFFF0 + 4096 + 9); // the gaps are closed
    EXPECT_TRUE(repaired.sound()) << (repaired.problems.empty() ? "" : repaired.problems[0].text);
}

TEST(limits, positions_of_streams_and_of_the_journal)
{
    for (const uint32_t at : {0x7FFFFFFFu, 0x80000000u, 0xDFFFFFFFu, 0xFFFFFFFEu})
        for (const uint32_t buffer : {0u, 512u}) {
            const descriptor file;
            for (mp4_stream *stream : {mp4_file_stream_create(file, buffer), mp4_null_stream_create()}) {
                EXPECT_EQ(stream->seek(stream, at) | stream->write(stream, "x", 1) | stream->flush(stream), 0);
                EXPECT_EQ(stream->tell(stream), at + 1);
                stream->destroy(stream);
            }
            EXPECT_EQ(size_of(file), uint64_t{at} + 1);
        }
    const journal_ptr journal(mediafile_caretaker_create());
    EXPECT_EQ(add(journal, "p0:5 s0:9 c0:0x7FFFFFFC,1 p0:6 s0:9 c0:0x80000005,1 p0:7 s0:1 c0:0xFFFFFFF0,1"), 0);
    EXPECT_EQ(dump(drain(journal)), dump(records("m0:0x7FFFFFFC,9,5 m0:0x80000005,9,6 m0:0xFFFFFFF0,1,7")));
    EXPECT_EQ(add(journal, "p0:8 s0:1 c0:0xFFFFFFF0,1"), EILSEQ);
}

} // namespace
