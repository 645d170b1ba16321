// The support operations: the array stream against a plain vector, descriptor
// I/O under short and interrupted transfers, and copies out of gather lists.

#include <climits>
#include <cstring>
#include <memory>

#include <gtest/gtest.h>

#include <mediafiles/support/array-stream.h>
#include <mediafiles/support/io.h>

#include "support/descriptors.h"
#include "support/faults.h"

namespace {

class ArrayStream : public testing::TestWithParam<uint32_t> {
protected:
    const uint32_t size = GetParam();
    array_stream *const array = array_stream_create(size, 3);
    bytes model; // what the array holds

    ~ArrayStream() override { array_stream_destroy(array); }
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
    EXPECT_TRUE(!array_stream_create(UINT32_MAX, UINT32_MAX) && errno == ENOMEM);
    constexpr uint32_t count = 3'000'000;
    std::vector<void *> addresses(count);
    for (const bool again : {false, true}) { // the second filling takes the storage that clear kept
        array_stream_clear(array);
        model.clear();
        EXPECT_TRUE(seek(0, 1) == 0 && walk().size() == 1);
        model = random_bytes(size_t{count} * size);
        for (uint32_t i = 0, one = 1; i < count; ++i) {
            void *space = array_stream_write(array, &one);
            ASSERT_TRUE(space != nullptr && one == 1);
            std::memcpy(space, &model[size_t{i} * size], size);
            if (!again) addresses[i] = space;
        }
        const auto ends = walk();
        ASSERT_GT(ends.size(), 3u);
        for (size_t i = 1; i < ends.size() + 300; ++i) { // over the borders of the runs, over the end, anywhere
            const uint32_t at = i < ends.size() ? ends[i] - 2 : below(array_stream_length(array)), from = seek(0, 1);
            EXPECT_EQ(at, at < from ? seek(at, 0) : seek(at - from, 1));
            put(random_bytes((i < ends.size() ? 4 : below(below(2) == 0 ? 9 : 20'000)) * size));
        }
        walk();
        for (uint32_t i = 0; i < count; ++i) ASSERT_EQ(addresses[i], array_stream_index(array, i)) << i;
    }
    EXPECT_EQ(size, array_stream_element_size(array));
}

INSTANTIATE_TEST_SUITE_P(ElementSizes, ArrayStream, testing::Values(1, 4, 8, 12));

TEST(DescriptorIo, GoesOnUntilARealFailureAndCountsWhatWentOut)
{
    const struct { const char *what; size_t empty, entries, size, cut; long interrupted; rlim_t limit; } cases[] = {
        {"more entries than one call takes", 0, 5000, 3, 0, -1, RLIM_INFINITY},
        {"more empty entries than one call takes", 1500, 100, 3, 0, -1, RLIM_INFINITY},
        {"only empty entries", 1500, 0, 0, 0, -1, RLIM_INFINITY},
        {"a byte at a time", 2, 1500, 3, 1, -1, RLIM_INFINITY},
        {"interrupted at the start", 0, 30, 300, 0, 0, RLIM_INFINITY},
        {"interrupted inside an entry", 0, 30, 300, 70, 2, RLIM_INFINITY},
        {"nothing goes out", 0, 2000, 4, 0, -1, 0},
        {"failure inside the second call", 0, 2000, 4, 0, -1, 6001},
        {"failure between two calls", 0, 2000, 4, 0, -1, 4 * IOV_MAX},
    };
    for (size_t i = 0; i < 2 * std::size(cases); ++i) {
        const auto &c = cases[i / 2];
        SCOPED_TRACE(c.what);
        bytes data = random_bytes(c.entries * c.size), back(data.size() + 10);
        std::vector<iovec> list(c.empty, iovec{nullptr, 0});
        for (size_t entry = 0; entry < c.entries; ++entry) list.push_back({&data[entry * c.size], c.size});
        const descriptor file;
        faults::injection injection({.kind = faults::output, .nth = c.interrupted, .error = EINTR, .cut = c.cut});
        limit_files(c.limit);
        const ssize_t result = i % 2 == 0 ? writevn(file, list.data(), static_cast<int>(list.size()))
                                          : writen(file, data.data(), data.size());
        EXPECT_TRUE(c.limit == RLIM_INFINITY || errno == EFBIG) << errno;
        limit_files(RLIM_INFINITY);
        if (c.limit < data.size()) data.resize(static_cast<size_t>(c.limit));
        EXPECT_EQ(c.limit == 0 ? -1 : static_cast<ssize_t>(data.size()), result);
        EXPECT_EQ(c.interrupted >= 0, injection.hit);
        lseek(file, 0, SEEK_SET);
        injection.orders.kind = faults::input;
        EXPECT_EQ(static_cast<ssize_t>(data.size()), readn(file, back.data(), back.size()));
        EXPECT_TRUE(std::equal(data.begin(), data.end(), back.begin()));
        EXPECT_EQ(0, readn(file, back.data(), 1)) << "at the end";
        EXPECT_TRUE(readn(-1, back.data(), 1) == -1 && errno == EBADF);
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
