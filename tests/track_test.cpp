/** The track: sample tables, cache, chunks, the journal that it feeds, and its hooks. */
#include <gtest/gtest.h>

#include <numeric>

#include <mediafiles/track.h>

#include "support/fake-stream.h"
#include "support/faults.h"
#include "support/recording.h"

namespace {

using track_ptr = std::unique_ptr<mp4_track, destroy_by<mp4_track_destroy>>;

/** What happens: samples; bytes of another track; a flush of the cache; the stream is about to fail once. */
enum kind { key, delta, other, flush, fault };
struct step {
    kind what;
    uint32_t size = 0, duration = 0;
};

/** Takes steps; each that does not fail adds its bytes to the result, unless they are another track's. */
bytes take(const track_ptr &track, fake_stream &stream, const journal_ptr &journal, const std::vector<step> &steps)
{
    bytes own;
    int due = 0;
    for (const step &next : steps) {
        if (next.what == fault) {
            stream.fail_at = stream.calls, stream.fail_errno = due = ENOSPC;
            continue;
        }
        const bytes data(next.size, next.what == other ? 0xFF : static_cast<uint8_t>(own.size()));
        if (next.what < other) add(journal, "p5:1");
        const int result = next.what == flush   ? mp4_track_flush_cache(track.get())
                           : next.what == other ? stream.write(&stream, data.data(), next.size)
                                                : mp4_track_add_sample(track.get(), data.data(), next.size,
                                                                       next.duration, next.what == key ? -7 : 0);
        EXPECT_EQ(due, error_of(result));
        if (next.what < other && due == 0) overlay(own, own.size(), data);
        due = 0;
    }
    return own;
}

/** stts, stss, stco, stsc, stsz, and the duration. */
using tables = std::vector<std::vector<uint32_t>>;
tables tables_of(const track_ptr &t)
{
    return {numbers(t->stts_table), numbers(t->stss_table), numbers(t->stco_table),
            numbers(t->stsc_table), numbers(t->stsz_table), {static_cast<uint32_t>(t->duration)}};
}

const step one = {key, 9}, of_5 = {key, 9, 5}, small = {delta, 8, 5}, gap = {other, 1}, fails = {fault};
const tables alone = {{1, 0}, {}, {0}, {1, 1, 1}, {9}, {0}};
/** Cache, steps; tables, and operations on the stream. */
const std::tuple<uint32_t, std::vector<step>, tables, int> table_cases[] = {
    // nothing; all alike; size and key change; no key at first, runs of time
    {100, {}, {{}, {}, {}, {}, {}, {0}}, 0},
    {0, {of_5, of_5, of_5}, {{3, 5}, {}, {0}, {1, 3, 1}, {9}, {10}}, 3},
    {0, {one, of_5, small, of_5}, {{1, 0, 3, 5}, {1, 2, 4}, {0}, {1, 4, 1}, {9, 9, 8, 9}, {15}}, 4},
    {0, {small, {key, 8, 5}, {delta, 8, 7}, {key, 8, 5}}, {{2, 5, 1, 7, 1, 5}, {2, 4}, {0}, {1, 4, 1}, {8}, {17}}, 4},
    // others between
    {0,
     {one, {other, 50}, one, gap, one, one, gap, one, one},
     {{6, 0}, {}, {0, 59, 69, 88}, {1, 1, 1, 3, 2, 1}, {9}, {0}},
     9},
    // what fills the cache goes out with it; a byte less stays
    {18, {one, one, gap}, {{2, 0}, {}, {0}, {1, 2, 1}, {9}, {0}}, 2},
    {19, {one, one, gap}, {{2, 0}, {}, {1}, {1, 2, 1}, {9}, {0}}, 2},
    // samples as large as the cache, and larger; flushed in between, twice
    {9, {one, gap, {key, 4}, {key, 25}, {key, 1}}, {{4, 0}, {}, {0, 10}, {1, 1, 1, 2, 3, 1}, {9, 4, 25, 1}, {0}}, 4},
    {9, {{key, 1}, {key, 25}}, {{2, 0}, {}, {0}, {1, 2, 1}, {1, 25}, {0}}, 1},
    {100, {one, {flush}, {flush}, gap, one}, {{2, 0}, {}, {0, 10}, {1, 1, 1}, {9}, {0}}, 3},
    // failures: of a sample; of one that the cache cannot take; of cache and sample, when the cache is tried again
    {0, {one, fails, small}, alone, 2},
    {10, {one, fails, {key, 11}}, alone, 2},
    {10, {one, fails, one}, alone, 2},
};

TEST(Track, FillsItsTables)
{
    for (const auto &[cache, steps, filled, writes] : table_cases) {
        SCOPED_TRACE(testing::PrintToString(filled));
        const track_ptr track(mp4_track_create(3, MP4_MEDIA_VIDEO, 90000, cache));
        track->flags = 0x80; // not the track's
        for (int file = 0; file < 2; file++) {
            fake_stream stream, later;
            const journal_ptr journal(mediafile_caretaker_create());
            mp4_track_begin_record(track.get(), &stream, journal.get(), 5);
            const bytes own = take(track, stream, journal, steps);
            mp4_track_begin_record(track.get(), &later, nullptr, 6); // has begun already
            for (int twice = 0; twice < 2; twice++) EXPECT_EQ(0, mp4_track_finish_record(track.get(), 1));
            EXPECT_EQ(filled, tables_of(track));
            const int flags =
                (filled[1].empty() ? MP4_TRACK_ALL_SYNC : 0) | (filled[4].size() < 2 ? MP4_TRACK_SAME_SIZE : 0);
            EXPECT_EQ(0x80 | flags, track->flags);
            EXPECT_EQ(writes, stream.calls);
            std::erase(stream.content, 0xFF);
            EXPECT_EQ(own, stream.content);
            EXPECT_EQ(28 * track->sample_count, drain(journal).size());
            EXPECT_EQ(0, mediafile_caretaker_errcode(journal.get()));
        }
    }
}

TEST(Track, WritesASampleWhoseSumWithTheCacheWraps)
{
    const stream_ptr stream(mp4_null_stream_create());
    const track_ptr track(mp4_track_create(1, MP4_MEDIA_AUDIO, 8000, 100));
    mp4_track_begin_record(track.get(), stream.get(), nullptr, 0);
    EXPECT_EQ(0, mp4_track_add_sample(track.get(), bytes(40).data(), 40, 0, 1));
    EXPECT_EQ(0, mp4_track_add_sample(track.get(), nullptr, UINT32_MAX - 7, 0, 1));
    EXPECT_EQ((tables{{2, 0}, {}, {0}, {}, {40, UINT32_MAX - 7}, {0}}), tables_of(track));
}

TEST(Track, TakesAnOddSampleAfterAnHourOfEqualOnes)
{
    constexpr uint32_t hour = 108'000; // frames, 30 a second
    const stream_ptr stream(mp4_null_stream_create());
    const track_ptr track(mp4_track_create(1, MP4_MEDIA_VIDEO, 90000, 0));
    std::vector<uint32_t> sizes(hour, 9), syncs(hour);
    std::iota(syncs.begin(), syncs.end(), 1);
    mp4_track_begin_record(track.get(), stream.get(), nullptr, 0);
    for (uint32_t i = 0; i < hour; i++) mp4_track_add_sample(track.get(), nullptr, 9, 3000, 1);
    const faults::injection count;
    EXPECT_EQ(0, mp4_track_add_sample(track.get(), nullptr, 8, 3000, 0));
    EXPECT_GT(long{2 * hour / 4096 + 8}, count.made[faults::memory]); // a block takes 4096 entries
    sizes.push_back(8);
    EXPECT_TRUE(sizes == numbers(track->stsz_table) && syncs == numbers(track->stss_table));
}

TEST(Track, FeedsItsJournal)
{
    const bytes set(65537, 0xA5);
    const stream_ptr stream(mp4_null_stream_create());
    const journal_ptr journal(mediafile_caretaker_create());
    const track_ptr track(mp4_track_create(2, MP4_MEDIA_VIDEO, 90000, 0));
    saveCodecExtraDataToCaretaker(track.get(), MEMENTO_SPS, "", 1); // no journal: nothing
    mp4_track_begin_record(track.get(), stream.get(), journal.get(), 255);
    EXPECT_EQ(0, mp4_track_add_sample(track.get(), nullptr, 1000, 0, 1));
    EXPECT_EQ(ENOENT, mediafile_caretaker_errcode(journal.get())); // a journal's failure is its own
    mediafile_caretaker_reset(journal.get());
    for (const uint32_t length : {0u, 1u, 505u, 508u, 509u, 65535u, 65536u, 65537u}) {
        saveCodecExtraDataToCaretaker(track.get(), MEMENTO_SEI, set.data(), length);
        EXPECT_EQ(length > 508 ? EFBIG : 0, mediafile_caretaker_errcode(journal.get())) << length;
        EXPECT_EQ(length > 508 ? "" : dump(records("9/" + std::to_string(length))), dump(drain(journal)));
        mediafile_caretaker_reset(journal.get());
    }
}

} // namespace
