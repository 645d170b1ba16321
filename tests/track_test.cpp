/** The track: sample tables, cache, chunks, the journal that it feeds, and its hooks. */
#include <gtest/gtest.h>

#include <mediafiles/track.h>

#include "support/fake-stream.h"
#include "support/faults.h"
#include "support/recording.h"

namespace {

using track_ptr = std::unique_ptr<mp4_track, destroy_by<mp4_track_destroy>>;

/**
 * Takes steps: "k9:5" is a key sample of 9 bytes that lasts 5, "d9:5" one that is no key, "f" flushes the cache, "o9"
 * are bytes of another track. Stops at a failure; own receives the bytes of the samples.
 */
int take(const track_ptr &track, const std::string &steps, bytes &own)
{
    std::istringstream in(steps);
    for (std::string step; in >> step;) {
        uint32_t length = 0, duration = 0;
        sscanf(step.c_str() + 1, "%u:%u", &length, &duration);
        const bytes data(length, step[0] == 'o' ? 0xFF : static_cast<uint8_t>(own.size()));
        if (step[0] == 'd' || step[0] == 'k') own.insert(own.end(), data.begin(), data.end());
        const int result = step[0] == 'f' ? mp4_track_flush_cache(track.get())
            : step[0] == 'o' ? track->stream->write(track->stream, data.data(), length)
            : mp4_track_add_sample(track.get(), data.data(), length, duration, step[0] == 'k' ? -7 : 0);
        if (result != 0) return error_of(result);
    }
    return 0;
}

std::string tables(const track_ptr &t)
{
    std::string text;
    for (auto *table : {t->stts_table, t->stss_table, t->stco_table, t->stsc_table, t->stsz_table})
        text += numbers(table) + "|";
    return text + std::to_string(t->duration);
}

TEST(track, fills_its_tables)
{
    const struct { const char *what; uint32_t cache; std::string steps, tables, writes; } cases[] = {
        {"nothing", 100, "", "|||||0", ""},
        {"all alike", 0, "k9:5 k9:5 k9:5", "3 5||0|1 3 1|9|10", " v9 v9 v9"},
        {"size and key change", 0, "k9:0 k9:5 d8:5 k9:5", "1 0 3 5|1 2 4|0|1 4 1|9 9 8 9|15", " v9 v9 v8 v9"},
        {"no key at first, runs of time", 0, "d9:7 k9:7 d9:8 k9:7", "2 7 1 8 1 7|2 4|0|1 4 1|9|22", " v9 v9 v9 v9"},
        {"others between", 0, "k9 o50 k9 o1 k9 k9 o1 k9 k9", "6 0||0 59 69 88|1 1 1 3 2 1|9|0",
         " v9 w50 v9 w1 v9 v9 w1 v9 v9"},
        {"a short last chunk", 0, "k9 k9 o50 k9", "3 0||0 68|1 2 1 2 1 1|9|0", " v9 v9 w50 v9"},
        {"what fills the cache goes out with it", 100, "k40 k40 k20 o1", "3 0||0|1 3 1|40 40 20|0", " v100 w1"},
        {"a byte less stays", 100, "k40 k40 k19 o1", "3 0||1|1 3 1|40 40 19|0", " w1 v99"},
        {"samples as large as the cache", 100, "k100 o1 k40 k250 k10", "4 0||0 101|1 1 1 2 3 1|100 40 250 10|0",
         " v100 w1 v290 v10"},
        {"flushed in between, twice", 100, "k10 f f o9 k10", "2 0||0 19|1 1 1|10|0", " v10 w9 v10"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const track_ptr track(mp4_track_create(3, MP4_MEDIA_VIDEO, 90000, c.cache));
        track->flags = 0x80; // not the track's business
        for (int file = 0; file < 2; file++) {
            fake_stream stream, later;
            bytes own;
            mp4_track_begin_record(track.get(), &stream, nullptr, 5);
            EXPECT_EQ(take(track, c.steps, own), 0);
            mp4_track_begin_record(track.get(), &later, nullptr, 6); // has begun already
            EXPECT_EQ(mp4_track_finish_record(track.get(), 1) | mp4_track_finish_record(track.get(), 1), 0);
            EXPECT_EQ(tables(track), c.tables);
            EXPECT_EQ(track->flags, 0x80 | (numbers(track->stss_table).empty() ? MP4_TRACK_ALL_SYNC : 0) |
                                    (array_stream_length(track->stsz_table) < 2 ? MP4_TRACK_SAME_SIZE : 0));
            EXPECT_EQ(stream.log, c.writes);
            std::erase(stream.content, 0xFF);
            EXPECT_EQ(stream.content, own);
        }
    }
}

TEST(track, keeps_its_tables_when_the_stream_fails)
{
    const std::string alone = "1 0||0|1 1 1|9|0";
    const std::string dropped = "2 0||0|1 1 1|9 5|0", written = "2 0||0|1 2 1|9 5|0", unclosed = "2 0||0||9 5|0";
    const struct { uint32_t cache; std::string before, failing; int flush, error; std::string end, kept; } cases[] = {
        {0, "k9", "k8", 1, 0, alone, "m4:0,9,1"},                     // a sample
        {9, "k9", "k10", 1, 0, alone, "m4:0,9,1"},                    // one that the cache cannot take
        {9, "k9 k5", "k5", 1, 0, written, "m4:0,9,1 m4:9,5,2"},       // cache and sample: the cache is tried again
        {9, "k9 k5", "k5", 0, 0, dropped, "m4:0,9,1"},
        {9, "k9 k5", "f", 1, ENOSPC, unclosed, "m4:0,9,1"},
        {9, "k9 k5", "f", 0, 0, dropped, "m4:0,9,1"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.before + " | " + c.failing);
        fake_stream stream;
        bytes own;
        const journal_ptr journal(mediafile_caretaker_create());
        const track_ptr track(mp4_track_create(1, MP4_MEDIA_AUDIO, 8000, c.cache));
        mp4_track_begin_record(track.get(), &stream, journal.get(), 4);
        EXPECT_EQ(add(journal, "p4:1 p4:2 p4:3"), 0);
        EXPECT_EQ(take(track, c.before, own), 0);
        stream.fail_at = stream.calls;
        stream.fail_errno = ENOSPC;
        EXPECT_EQ(take(track, c.failing, own), ENOSPC);
        stream.fail_at = c.error ? stream.calls : -1;
        EXPECT_EQ(error_of(mp4_track_finish_record(track.get(), c.flush)), c.error);
        EXPECT_FALSE(track->flags & MP4_TRACK_RECORDING);
        EXPECT_EQ(tables(track), c.end);
        EXPECT_EQ(dump(drain(journal)), dump(records(c.kept)));
        EXPECT_EQ(mediafile_caretaker_errcode(journal.get()), 0); // what failed had told its size
    }
}

TEST(track, takes_an_odd_sample_after_an_hour_of_equal_ones)
{
    constexpr uint32_t hour = 108'000; // frames, 30 a second
    const stream_ptr stream(mp4_null_stream_create());
    const track_ptr track(mp4_track_create(1, MP4_MEDIA_VIDEO, 90000, 0));
    mp4_track_begin_record(track.get(), stream.get(), nullptr, 0);
    for (uint32_t i = 0; i < hour; i++) mp4_track_add_sample(track.get(), nullptr, 9, 3000, 1);
    const std::vector<array_stream *> lists = {track->stsz_table, track->stss_table};
    const void *const first = array_stream_index(lists[0], 0);
    {
        const faults::injection count;
        EXPECT_EQ(mp4_track_add_sample(track.get(), nullptr, 8, 3000, 0), 0);
        EXPECT_LT(count.made[faults::memory], long{2 * hour / 4096 + 8}); // a block takes 4096 entries
    }
    EXPECT_EQ(array_stream_index(lists[0], 0), first);
    ASSERT_EQ(array_stream_length(lists[0]), hour + 1);
    ASSERT_EQ(array_stream_length(lists[1]), hour);
    const auto entry = [&](size_t list, uint32_t i) { // big-endian
        return __builtin_bswap32(*static_cast<const uint32_t *>(array_stream_index(lists[list], i)));
    };
    for (uint32_t i = 0; i < hour; i++) ASSERT_TRUE(entry(0, i) == 9 && entry(1, i) == i + 1) << i;
    EXPECT_EQ(entry(0, hour), 8u);
}

int calls;

TEST(track, calls_its_hooks_and_feeds_its_journal)
{
    const stream_ptr stream(mp4_null_stream_create());
    const journal_ptr journal(mediafile_caretaker_create());
    track_ptr track(mp4_track_create(2, MP4_MEDIA_VIDEO, 90000, 0));
    EXPECT_FALSE(track->on_begin_record || track->on_destroy || track->add_sample || track->write_sample_entry);
    EXPECT_FALSE(track->set_vps || track->set_sps || track->set_pps || track->set_sei || track->codec_data);
    saveCodecExtraDataToCaretaker(track.get(), MEMENTO_SPS, "", 1); // no journal: nothing

    mp4_track_begin_record(track.get(), stream.get(), journal.get(), 255);
    for (const uint32_t length : {1000u, 500u}) EXPECT_EQ(mp4_track_add_sample(track.get(), nullptr, length, 0, 1), 0);
    EXPECT_EQ(stream->tell(stream.get()), 1500u); // data is not looked at
    EXPECT_EQ(tables(track), "2 0||0||1000 500|0");
    EXPECT_EQ(mediafile_caretaker_errcode(journal.get()), ENOENT); // a journal's failure is its own
    mediafile_caretaker_reset(journal.get());
    saveCodecExtraDataToCaretaker(track.get(), MEMENTO_SEI, nullptr, 0);
    saveCodecExtraDataToCaretaker(track.get(), MEMENTO_SEI, bytes(505, 0xA5).data(), 505);
    EXPECT_EQ(dump(drain(journal)), dump(records("9/0 9/505")));
    saveCodecExtraDataToCaretaker(track.get(), MEMENTO_SEI, bytes(509).data(), 509);
    EXPECT_EQ(mediafile_caretaker_errcode(journal.get()), EFBIG);
    EXPECT_EQ(mp4_track_finish_record(track.get(), 1), 0);

    track->on_begin_record = [](mp4_track *t) {
        const bool reset = array_stream_length(t->stsz_table) == 0 && t->sample_count == 0 && t->chunk_count == 0;
        return calls += reset && t->index == 3 && t->flags == 7 ? 1 : 100, -1;
    };
    track->add_sample = [](mp4_track *, const void *data, uint32_t len, uint32_t duration, int key) {
        return calls += data == &calls && len == 5 && duration == 6 && key == -8 ? 10 : 100, errno = EPROTO, -1;
    };
    track->on_destroy = [](mp4_track *t) { calls += array_stream_length(t->stts_table) == 0 ? 1000 : 100; };
    for (int twice = 0; twice < 2; twice++) mp4_track_begin_record(track.get(), stream.get(), nullptr, 3);
    EXPECT_EQ(error_of(mp4_track_add_sample(track.get(), &calls, 5, 6, -8)), EPROTO);
    track.reset();
    EXPECT_EQ(calls, 1011);
}

} // namespace
