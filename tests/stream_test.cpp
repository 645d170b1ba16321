// The three kinds of output stream: memory against a plain vector, file
// against what reaches its descriptor, null against plain counting.

#include <cstring>
#include <fcntl.h>

#include <gtest/gtest.h>

#include "support/descriptors.h"
#include "support/fake-stream.h"
#include "support/faults.h"

static struct { int calls, fd, kind, result; off64_t offset, length; } advised; // the latest advice to the kernel

extern "C" int posix_fadvise64(int fd, off64_t offset, off64_t length, int kind) noexcept
{
    advised = {advised.calls + 1, fd, kind, advised.result, offset, length};
    if (advised.result == 0) errno = EDOM; // the result alone tells how it went
    return advised.result;
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
    fake_stream first, untouched;
    for (bytes model; first.runs.size() <= 33;) { // until the list of runs has to grow
        fake_stream second, failing;
        overlay(model, model.size(), memory.put(1'000'000));
        ASSERT_LT(model.size(), 200'000'000u);
        EXPECT_EQ(0, memory.stream->copy_to(memory.stream, &first));
        size_t border = first.runs[0];
        for (size_t i = 1; i < first.runs.size(); border += first.runs[i++]) { // patches across the borders
            EXPECT_EQ(0, memory.seek(border - 2));
            overlay(model, border - 2, memory.put(4));
        }
        EXPECT_EQ(0, memory.stream->copy_to(memory.stream, &second));
        EXPECT_TRUE(model == second.content && second.log == " v" + std::to_string(model.size()));
        EXPECT_EQ(border - first.runs.back() + 2, memory.tell()) << "copying moves the stream";
        failing.fail_at = 0;
        EXPECT_TRUE(memory.stream->copy_to(memory.stream, &failing) == -1 && errno == EIO && failing.content.empty());
        EXPECT_EQ(border - first.runs.back() + 2, memory.tell()) << "a failed copy moves the stream";
        EXPECT_EQ(0, memory.seek(model.size()));
    }
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
    for (const auto &[asked, capacity] : std::initializer_list<std::pair<uint32_t, uint32_t>>{
             {0, 0}, {1, 1}, {33, 64}, {1000, 1024}, {1024, 1024}}) {
        const descriptor fd;
        output file{stream_ptr(mp4_file_stream_create(fd, asked))};
        bytes model;
        size_t from = 0, reached = 0; // the descriptor's offset, after the latest seek or flush and now
        for (int round = 0; round < 1500; ++round) {
            SCOPED_TRACE(std::to_string(asked) + " " + std::to_string(round));
            size_t at = file.tell();
            if (const uint32_t action = below(8); action < 2) {
                ASSERT_EQ(0, action == 0 ? file.flush() : file.seek(at = below(model.size() + 1)));
                ASSERT_TRUE(model == file_content(fd));
                from = reached = at;
            }
            const faults::injection counter;
            overlay(model, at, file.put(below(10) == 0 ? below(5 * capacity + 9) : below(capacity / 4 + 9)));
            const size_t end = file.tell(), before = reached;
            reached = capacity == 0 ? end : from + (end - from) / capacity * capacity;
            ASSERT_EQ(static_cast<off_t>(reached), lseek(fd, 0, SEEK_CUR));
            ASSERT_LE(counter.made[faults::output], before < reached || capacity == 0 ? 1 : 0);
        }
        EXPECT_EQ(0, file.seek(model.size()));
        file.put(capacity > 1 ? 1 : 0);
        file.owner.reset();
        EXPECT_TRUE(model == file_content(fd)) << "destroy writes or closes";
    }
    EXPECT_TRUE(mp4_file_stream_create(0, 0x80000001u) == nullptr && errno == ENOMEM);
}

TEST(FileStream, ContinuesExactlyWhereAFailureStoppedIt)
{
    const struct { const char *what; uint32_t cache, cached, limit; int call; uint32_t length, tell, out; } cases[] = {
        {"no cache, some goes out", 0, 0, 3000, 'w', 5000, 3000, 3000},
        {"no cache, nothing goes out", 0, 0, 0, 'w', 10, 0, 0},
        {"cut inside the new bytes", 1024, 1000, 4000, 'w', 10'000, 4000, 4000},
        {"cut right behind the cached bytes", 8192, 4000, 4000, 'w', 5000, 4000, 4000},
        {"cut inside the cached bytes", 8192, 8000, 3000, 'w', 500, 8000, 3000},
        {"nothing goes out", 1024, 1000, 0, 'w', 100, 1000, 0},
        {"flush is cut", 8192, 8000, 3000, 'f', 0, 8000, 3000},
        {"flush writes nothing", 1024, 1000, 0, 'f', 0, 1000, 0},
        {"seek is cut", 8192, 8000, 3000, 's', 0, 8000, 3000},
        {"seek writes nothing", 1024, 1000, 0, 's', 0, 1000, 0},
    };
    for (uint32_t i = 0; i < 2 * std::size(cases); ++i) {
        const auto &c = cases[i / 2];
        SCOPED_TRACE(c.what);
        const descriptor fd;
        output file{stream_ptr(mp4_file_stream_create(fd, c.cache)), i};
        bytes model = file.put(c.cached);
        advised.calls = 0;
        limit_files(c.limit);
        if (c.call == 'w') overlay(model, c.cached, file.put(c.length, -1));
        const int result = c.call == 'f' ? file.flush() : c.call == 's' ? file.seek(0) : -1, error = errno;
        limit_files(RLIM_INFINITY);
        EXPECT_TRUE(result == -1 && error == EFBIG) << error;
        EXPECT_EQ(c.call == 'f', advised.calls) << "a flush that fails advises as well";
        EXPECT_EQ(c.tell, file.tell());
        EXPECT_EQ(off_t{c.out}, lseek(fd, 0, SEEK_CUR));
        model.resize(c.tell);
        overlay(model, c.tell, file.put(10));
        EXPECT_TRUE(file.flush() == 0 && model == file_content(fd));
        EXPECT_EQ(0, file.seek(5));
        overlay(model, 5, file.put(4));
        EXPECT_TRUE(file.flush() == 0 && model == file_content(fd));
    }
}

TEST(FileStream, KeepsTheCacheOverAFullDeviceAndAFullPipe)
{
    const descriptor fd{open("/dev/full", O_WRONLY)};
    output file{stream_ptr(mp4_file_stream_create(fd, 4096))};
    bytes accepted = file.put(4000), received(9000);
    EXPECT_TRUE(file.flush() == -1 && errno == ENOSPC && file.tell() == 4000);
    int ends[2];
    ASSERT_TRUE(pipe2(ends, O_NONBLOCK) == 0 && fcntl(ends[1], F_SETPIPE_SZ, 4096) == 4096 && dup2(ends[1], fd) == fd);
    overlay(accepted, 4000, file.put(9000, -1));
    EXPECT_TRUE(errno == EAGAIN && file.tell() == 4096);
    EXPECT_EQ(4096, read(ends[0], received.data(), received.size()));
    EXPECT_TRUE(std::equal(&received[0], &received[4096], accepted.begin()));
    close(ends[0]), close(ends[1]);
}

TEST(FileStream, AdvisesOnFlushAndMovesTheDescriptorOnSeek)
{
    const descriptor fd;
    output file{stream_ptr(mp4_file_stream_create(fd, 64))};
    const struct { int advice, error, result; } cases[] = {{0, 0, 0}, {0, EIO, 0}, {ESPIPE, 0, 0}, {ESPIPE, EIO, -1}};
    for (const auto &c : cases) {
        advised = {0, 0, 0, c.advice, 7, 7};
        errno = c.error;
        EXPECT_TRUE(file.flush() == c.result && (c.result == 0 || errno == c.error)) << c.advice << " " << c.error;
        EXPECT_TRUE(advised.calls == 1 && advised.fd == fd && advised.kind == POSIX_FADV_DONTNEED);
        EXPECT_TRUE(advised.offset == 0 && advised.length == 0);
    }
    file.put(9);
    for (const int error : {EINVAL, EOVERFLOW}) { // EOVERFLOW: too large for the call's result, not for the file
        const faults::injection failure({.kind = faults::seeking, .nth = 0, .error = error});
        EXPECT_EQ(error == EINVAL ? -1 : 0, file.seek(2));
        EXPECT_TRUE(file_content(fd).size() == 9 && file.tell() == (error == EINVAL ? 9 : 2) && failure.hit);
    }
    EXPECT_TRUE(file.seek(0xF0000000u) == 0 && lseek(fd, 0, SEEK_CUR) == off_t{0xF0000000u});
    EXPECT_TRUE(file.stream->clear(file.stream) == -1 && errno == ENOSYS && advised.calls == 1);
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
