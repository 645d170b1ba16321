// The support operations: the array stream against a plain vector, descriptor
// I/O under short and interrupted transfers, and copies out of gather lists.

#include <climits>
#include <cstring>
#include <tuple>

#include <gtest/gtest.h>

#include <mediafiles/support/array-stream.h>
#include <mediafiles/support/io.h>

#include "support/descriptors.h"
#include "support/faults.h"

namespace {

class ArrayStream : public testing::TestWithParam<uint32_t> {
protected:
    const uint32_t size = GetParam();
    const faults::injection memory;
    array_stream *const array = array_stream_create(size, 3);
    bytes model; // what the array holds

    ~ArrayStream() override
    {
        array_stream_destroy(array);
        EXPECT_EQ(0, memory.held);
    }
    uint32_t seek(uint32_t offset, int whence) { return array_stream_seek(array, offset, whence); }

    /** Writes elements at the cursor, in as many grants as it takes. */
    void put(const bytes &elements)
    {
        overlay(model, size_t{seek(0, 1)} * size, elements);
        for (uint32_t done = 0, asked; (asked = static_cast<uint32_t>(elements.size() / size) - done) > 0;) {
            uint32_t granted = asked;
            void *space = array_stream_write(array, &granted);
            ASSERT_TRUE(space != nullptr && granted >= 1 && granted <= asked) << granted;
            std::memcpy(space, &elements[size_t{done} * size], size_t{granted} * size);
            done += granted;
        }
    }

    /** Reads every run from the start and puts the cursor back; gives where the runs end. */
    std::vector<uint32_t> walk()
    {
        const uint32_t before = seek(0, 1);
        std::vector<uint32_t> ends{seek(0, 0)};
        for (uint32_t count = 0xDEADBEEF; const void *run = array_stream_read(array, &count);) {
            EXPECT_EQ(0, std::memcmp(&model.at(size_t{ends.back()} * size), run, size_t{count} * size));
            ends.push_back(ends.back() + count);
            EXPECT_EQ(ends.back(), seek(0, 1));
        }
        EXPECT_TRUE(model.size() == size_t{ends.back()} * size && ends.back() == array_stream_length(array));
        EXPECT_EQ(before, seek(before, 0));
        return ends;
    }
};

TEST_P(ArrayStream, KeepsEveryElementInItsPlace)
{
    std::vector<void *> places;
    for (int filling = 0; filling < 2; ++filling) { // the second takes the storage that clear kept
        array_stream_clear(array);
        model.clear();
        EXPECT_TRUE(seek(0, 1) == 0 && walk().size() == 1);
        while (model.size() < size_t{3'000'000} * size) put(random_bytes((below(2) == 0 ? 1 : below(20'000)) * size));
        for (const uint32_t end : walk()) { // over the borders of the runs, and anywhere
            for (const uint32_t at : {end < 2 ? 0 : end - 2, below(array_stream_length(array))}) {
                const uint32_t from = seek(0, 1);
                EXPECT_EQ(at, at < from ? seek(at, 0) : seek(at - from, 1));
                put(random_bytes(4 * size));
            }
        }
        walk();
        for (uint32_t i = 0; i < 3'000'000; ++i) {
            if (filling == 0) places.push_back(array_stream_index(array, i));
            ASSERT_EQ(places[i], array_stream_index(array, i)) << i;
            ASSERT_EQ(0, std::memcmp(&model[size_t{i} * size], places[i], size)) << i;
        }
    }
}

TEST_P(ArrayStream, SeeksToItsEndAtMost)
{
    put(bytes(10 * size));
    const uint32_t cases[][3] = {{10, 0, 10}, {11, 0, 10}, {9, 0, 9}, {1, 1, 10}, {1, 1, 10}, {4, 0, 4}, {0, 1, 4}};
    for (const auto &[offset, whence, cursor] : cases) EXPECT_EQ(cursor, seek(offset, static_cast<int>(whence)));
    EXPECT_EQ(size, array_stream_element_size(array));
}

INSTANTIATE_TEST_SUITE_P(ElementSizes, ArrayStream, testing::Values(1, 4, 8, 12));

TEST(ArrayStreamLimits, AreTheLastIndexAndTheMemory)
{
    EXPECT_TRUE(!array_stream_create(UINT32_MAX, UINT32_MAX) && errno == ENOMEM);
    if (sizeof(void *) == 4) return;
    array_stream *const full = array_stream_create(1, UINT32_MAX); // none of it is touched
    ASSERT_NE(nullptr, full);
    uint32_t count = UINT32_MAX, one = 1;
    EXPECT_TRUE(array_stream_write(full, &count) && count == UINT32_MAX);
    errno = 0;
    EXPECT_TRUE(!array_stream_write(full, &one) && errno == ENOMEM);
    EXPECT_EQ(UINT32_MAX, array_stream_length(full));
    array_stream_destroy(full);
}

const std::tuple<const char *, size_t, size_t, size_t, faults::plan, rlim_t, ssize_t> transfers[] = {
    {"more entries than one call takes", 0, 5000, 3, {}, RLIM_INFINITY, 15'000},
    {"more empty entries than one call takes", 1500, 100, 3, {}, RLIM_INFINITY, 300},
    {"only empty entries", 1500, 0, 0, {}, RLIM_INFINITY, 0},
    {"a byte at a time", 2, 1500, 3, {.cut = 1}, RLIM_INFINITY, 4500},
    {"interrupted at the start", 0, 30, 300, {.nth = 0, .error = EINTR}, RLIM_INFINITY, 9000},
    {"interrupted inside an entry", 0, 30, 300, {.nth = 2, .error = EINTR, .cut = 70}, RLIM_INFINITY, 9000},
    {"would block at the start", 0, 30, 300, {.nth = 0, .error = EAGAIN}, RLIM_INFINITY, -1},
    {"would block inside an entry", 0, 30, 300, {.nth = 2, .error = EAGAIN, .cut = 70}, RLIM_INFINITY, 140},
    {"takes nothing at the start", 0, 30, 300, {.nth = 0, .pretend = true}, RLIM_INFINITY, -1},
    {"takes nothing inside an entry", 0, 30, 300, {.nth = 2, .cut = 70, .pretend = true}, RLIM_INFINITY, 140},
    {"nothing goes out", 0, 2000, 4, {}, 0, -1},
    {"failure inside the second call", 0, 2000, 4, {}, 6001, 6001},
    {"failure between two calls", 0, 2000, 4, {}, 4 * IOV_MAX, 4 * IOV_MAX},
};

TEST(DescriptorIo, GoesOnUntilARealFailureAndCountsWhatWentOut)
{
    for (size_t i = 0; i < 2 * std::size(transfers); ++i) {
        const auto &[what, empty, entries, size, plan, limit, expected] = transfers[i / 2];
        SCOPED_TRACE(what);
        bytes data = random_bytes(entries * size), back(data.size() + 10);
        std::vector<iovec> list(empty, iovec{nullptr, 0});
        for (size_t at = 0; at < data.size(); at += size) list.push_back({&data[at], size});
        const descriptor file;
        faults::injection injection(plan);
        injection.orders.kind = faults::output;
        limit_files(limit);
        const ssize_t result = i % 2 == 0 ? writevn(file, list.data(), static_cast<int>(list.size()))
                                          : writen(file, data.data(), data.size());
        const int error = errno, cause = plan.pretend ? EIO : plan.nth < 0 ? EFBIG : plan.error;
        limit_files(RLIM_INFINITY);
        EXPECT_EQ(expected, result);
        EXPECT_TRUE(expected == static_cast<ssize_t>(data.size()) || error == cause) << error;
        data.resize(static_cast<size_t>(std::max<ssize_t>(expected, 0)));
        EXPECT_EQ(data, file_content(file));
        lseek(file, 0, SEEK_SET);
        injection.orders.kind = faults::input; // a read of nothing is the end of the file
        EXPECT_EQ(plan.error == EAGAIN ? -1 : std::max<ssize_t>(expected, 0), readn(file, back.data(), back.size()));
        EXPECT_TRUE(plan.error == EAGAIN || std::equal(data.begin(), data.end(), back.begin()));
    }
}

TEST(GatherCopies, TakeAnyPartOfTheList)
{
    uint8_t source[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    const iovec list[] = {{source, 3}, {nullptr, 0}, {source + 3, 4}, {source + 7, 1}, {source + 8, 4}};
    for (uint32_t offset = 0; offset <= 12; ++offset) {
        for (uint32_t length = 0; length <= 12 - offset; ++length) {
            bytes expected(14, 0xEE), part = expected, first = expected;
            std::copy_n(source + offset, length, &expected[1]);
            memcpy_fromiovecend(&part[1], list, offset, length);
            if (offset == 0) memcpy_fromiovec(&first[1], list, length);
            ASSERT_TRUE(expected == part && (offset != 0 || expected == first)) << offset << "+" << length;
        }
    }
}

} // namespace
