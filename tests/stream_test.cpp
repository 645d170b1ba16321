// The three kinds of output stream: memory against a plain vector, file
// against what reaches its descriptor, null against plain counting.

#include <cstring>
#include <tuple>

#include <fcntl.h>

#include <gtest/gtest.h>

#include "support/descriptors.h"
#include "support/fake-stream.h"
#include "support/faults.h"

static int advices, refused, asked; // of the kernel; the result, and the latest advice as far as it is the right one

extern "C" int posix_fadvise64(int fd, off64_t offset, off64_t length, int kind) noexcept
{
    ++advices;
    asked = offset == 0 && length == 0 && kind == POSIX_FADV_DONTNEED ? fd : -1;
    if (refused == 0) errno = EDOM; // the result alone says how it went
    return refused;
}

namespace {

struct output {
    stream_ptr owner;
    uint32_t turn = 0;
    mp4_stream *const stream = owner.get();

    int flush() { return stream->flush(stream); }
    int seek(size_t to) { return stream->seek(stream, static_cast<uint32_t>(to)); }
    size_t tell() { return stream->tell(stream); }

    /** Writes random bytes, in turn as one buffer and as a gather list with empty entries, and gives them back. */
    bytes put(uint32_t length, int expected = 0)
    {
        bytes data = random_bytes(length);
        std::vector<iovec> list(1);
        for (size_t at = 0, n; at < length; at += n) {
            n = std::min<size_t>(below(3) == 0 ? 0 : below(2 * length / 3 + 2), length - at);
            list.push_back({&data[at], n});
        }
        const auto given = list;
        const mp4_gather_list all = {list.data(), static_cast<int32_t>(list.size()), 0, length};
        EXPECT_EQ(expected, turn++ % 2 ? stream->writev(stream, &all) : stream->write(stream, data.data(), length));
        EXPECT_EQ(0, std::memcmp(given.data(), list.data(), list.size() * sizeof(iovec))) << "the list has changed";
        return data;
    }
};

TEST(MemoryStream, KeepsItsBytesAndCopiesThemInOneCall)
{
    output memory{stream_ptr(mp4_memory_stream_create())};
    fake_stream first;
    for (bytes model; first.runs.size() <= 33;) { // until the list of runs has to grow
        fake_stream second, failing;
        overlay(model, model.size(), memory.put(1'000'000));
        ASSERT_LT(model.size(), 200'000'000u);
        EXPECT_EQ(0, memory.stream->copy_to(memory.stream, &first));
        size_t border = 0;
        for (size_t i = 0; i + 1 < first.runs.size(); ++i) { // patches across the borders
            EXPECT_EQ(0, memory.seek((border += first.runs[i]) - 2));
            overlay(model, border - 2, memory.put(4));
        }
        const size_t at = memory.tell();
        EXPECT_EQ(0, memory.stream->copy_to(memory.stream, &second));
        EXPECT_TRUE(model == second.content && second.log == " v" + std::to_string(model.size()));
        failing.fail_at = 0;
        EXPECT_TRUE(memory.stream->copy_to(memory.stream, &failing) == -1 && errno == EIO && failing.content.empty());
        EXPECT_EQ(at, memory.tell()) << "copying moves the stream";
        EXPECT_EQ(0, memory.seek(model.size()));
    }
}

TEST(MemoryStream, IsEmptyAfterClear)
{
    output memory{stream_ptr(mp4_memory_stream_create())};
    fake_stream untouched;
    memory.put(10);
    EXPECT_TRUE(memory.flush() == 0 && memory.stream->clear(memory.stream) == 0 && memory.tell() == 0);
    EXPECT_TRUE(memory.stream->copy_to(memory.stream, &untouched) == 0 && untouched.log.empty());
    const iovec five = {&memory, 5};
    for (const int count : {0, -1, 1}) { // the entries count, not offset and length
        const mp4_gather_list list = {&five, count, 3, 99};
        EXPECT_TRUE(memory.stream->writev(memory.stream, &list) == 0 && memory.tell() == (count == 1 ? 5 : 0));
    }
}

TEST(FileStream, WritesWholeMultiplesOfTheCacheInOneCall)
{
    const uint32_t cases[][2] = {{0, 0}, {1, 1}, {2, 2}, {33, 64}, {1000, 1024}, {1024, 1024}};
    for (const auto &[asked, capacity] : cases) {
        const descriptor fd;
        output file{stream_ptr(mp4_file_stream_create(fd, asked))};
        bytes model;
        size_t from = 0, reached = 0; // the descriptor's offset, after the latest seek or flush and now
        for (int round = 0; round < 1500; ++round) {
            size_t at = file.tell();
            if (const uint32_t action = below(8); action < 2) {
                ASSERT_EQ(0, action == 0 ? file.flush() : file.seek(at = below(model.size() + 1)));
                ASSERT_EQ(model, file_content(fd)) << round;
                from = reached = at;
            }
            const faults::injection counter;
            overlay(model, at, file.put(below(10) == 0 ? below(5 * capacity + 9) : below(capacity / 4 + 9)));
            const size_t end = file.tell(), before = reached;
            reached = capacity == 0 ? end : from + (end - from) / capacity * capacity;
            ASSERT_EQ(static_cast<off_t>(reached), lseek(fd, 0, SEEK_CUR)) << round;
            ASSERT_LE(counter.made[faults::output], before < reached || capacity == 0 ? 1 : 0) << round;
        }
        EXPECT_EQ(0, file.seek(model.size()));
        file.put(capacity > 1 ? 1 : 0);
        file.owner.reset();
        EXPECT_EQ(model, file_content(fd)) << "destroy writes or closes";
    }
}

TEST(FileStream, TakesAListFromItsOffset)
{
    const descriptor fd;
    const output file{stream_ptr(mp4_file_stream_create(fd, 64))};
    bytes data = random_bytes(10);
    const iovec entries[] = {{&data[0], 4}, {&data[4], 6}};
    const mp4_gather_list list = {entries, 2, 3, 5};
    EXPECT_EQ(0, file.stream->writev(file.stream, &list) | file.stream->flush(file.stream));
    EXPECT_EQ(bytes(&data[3], &data[8]), file_content(fd));
}

TEST(FileStream, HasTheLimitsOf32Bits)
{
    EXPECT_TRUE(mp4_file_stream_create(0, 0x80000001u) == nullptr && errno == ENOMEM);
    if (sizeof(void *) == 4) return; // there is no such memory
    const stream_ptr largest(mp4_file_stream_create(0, 0x80000000u));
    EXPECT_NE(nullptr, largest);
    const size_t length = 0xFFFFFFF0u;
    const descriptor fd{open("/dev/null", O_WRONLY)};
    output file{stream_ptr(mp4_file_stream_create(fd, 1024))};
    void *zeros = mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    file.put(1000);
    EXPECT_EQ(0, file.stream->write(file.stream, zeros, length)); // 1000 and this are more than 32 bits hold
    EXPECT_EQ(1000 + length - (uint64_t{1} << 32), file.tell());
    munmap(zeros, length);
}

const std::tuple<const char *, uint32_t, uint32_t, uint32_t, int, uint32_t, uint32_t, uint32_t> failures[] = {
    {"no cache, some goes out", 0, 0, 3000, 'w', 5000, 3000, 3000},
    {"no cache, nothing goes out", 0, 0, 0, 'w', 10, 0, 0},
    {"cut inside the new bytes", 1024, 1000, 4000, 'w', 10'000, 4000, 4000},
    {"cut directly after the cached bytes", 8192, 4000, 4000, 'w', 5000, 4000, 4000},
    {"cut inside the cached bytes", 8192, 8000, 3000, 'w', 500, 8000, 3000},
    {"nothing goes out", 1024, 1000, 0, 'w', 100, 1000, 0},
    {"flush is cut", 8192, 8000, 3000, 'f', 0, 8000, 3000},
    {"flush writes nothing", 1024, 1000, 0, 'f', 0, 1000, 0},
    {"seek leaves a byte", 8192, 8000, 7999, 's', 0, 8000, 7999},
    {"seek writes nothing", 1024, 1000, 0, 's', 0, 1000, 0},
};

TEST(FileStream, ContinuesExactlyWhereAFailureStoppedIt)
{
    for (uint32_t i = 0; i < 2 * std::size(failures); ++i) {
        const auto &[what, cache, cached, limit, call, length, tell, out] = failures[i / 2];
        SCOPED_TRACE(what);
        const descriptor fd;
        output file{stream_ptr(mp4_file_stream_create(fd, cache)), i};
        bytes model = file.put(cached);
        advices = 0;
        limit_files(limit);
        if (call == 'w') overlay(model, cached, file.put(length, -1));
        const int result = call == 'f' ? file.flush() : call == 's' ? file.seek(0) : -1, error = errno;
        limit_files(RLIM_INFINITY);
        EXPECT_TRUE(result == -1 && error == EFBIG) << error;
        EXPECT_EQ(call == 'f', advices) << "a flush that fails advises as well";
        EXPECT_EQ(tell, file.tell());
        EXPECT_EQ(off_t{out}, lseek(fd, 0, SEEK_CUR));
        model.resize(tell);
        for (const uint32_t at : {tell, 5u}) {
            overlay(model, at, file.put(10));
            EXPECT_TRUE(file.flush() == 0 && model == file_content(fd));
            EXPECT_EQ(0, file.seek(5));
        }
    }
}

TEST(FileStream, AdvisesOnFlush)
{
    const descriptor fd;
    output file{stream_ptr(mp4_file_stream_create(fd, 64))};
    const int cases[][3] = {{ESPIPE, EIO, -1}, {ESPIPE, 0, 0}, {0, EIO, 0}, {0, 0, 0}};
    for (const auto &[advice, error, result] : cases) {
        asked = -1;
        refused = advice;
        errno = error;
        EXPECT_TRUE(file.flush() == result && (result == 0 || errno == error)) << advice << " " << error;
        EXPECT_EQ(fd, asked);
    }
}

TEST(FileStream, MovesTheDescriptor)
{
    const descriptor fd;
    output file{stream_ptr(mp4_file_stream_create(fd, 64))};
    file.put(9);
    for (const int error : {EINVAL, EOVERFLOW}) { // EOVERFLOW: too large for the call's result, not for the file
        const faults::injection failure({.kind = faults::seeking, .nth = 0, .error = error});
        EXPECT_EQ(error == EINVAL ? -1 : 0, file.seek(2));
        EXPECT_TRUE(file_content(fd).size() == 9 && file.tell() == (error == EINVAL ? 9 : 2) && failure.hit);
    }
    EXPECT_TRUE(file.seek(0xF0000000u) == 0 && lseek(fd, 0, SEEK_CUR) == off_t{0xF0000000u});
    EXPECT_TRUE(file.stream->clear(file.stream) == -1 && errno == ENOSYS);
    errno = 0;
    EXPECT_TRUE(file.stream->copy_to(file.stream, file.stream) == -1 && errno == ENOSYS);
}

TEST(NullStream, Counts)
{
    output null{stream_ptr(mp4_null_stream_create())};
    const mp4_gather_list list = {nullptr, 3, 0, 1000}; // neither bytes nor entries are read
    EXPECT_TRUE(null.stream->write(null.stream, nullptr, 5) == 0 && null.stream->writev(null.stream, &list) == 0);
    EXPECT_TRUE(null.flush() == 0 && null.tell() == 1005 && null.seek(0xFFFFFF00u) == 0);
    EXPECT_TRUE(null.stream->write(null.stream, nullptr, 4) == 0 && null.tell() == 0xFFFFFF04u);
    EXPECT_TRUE(null.stream->copy_to(null.stream, null.stream) == -1 && errno == ENOSYS);
    EXPECT_TRUE(null.stream->clear(null.stream) == 0 && null.tell() == 0);
}

} // namespace
