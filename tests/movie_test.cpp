/** The movie: capture times become durations and delays, frames are refused or kept, one error ends a recording. */
#include <gtest/gtest.h>

#include <tuple>

#include <mediafiles/movie.h>
#include <mediafiles/track.h>

#include "support/fake-stream.h"
#include "support/recording.h"

namespace {

constexpr mp4_track_desc video = {MP4_TRACK_H264 | MP4_TRACK_RAW, {{640, 480, 0}}};
constexpr mp4_track_desc cached = {MP4_TRACK_AAC, {{1, 8, 8000}}};
constexpr mp4_track_desc audio(uint32_t rate) { return {MP4_TRACK_AAC | MP4_TRACK_RAW, {{2, 16, rate}}}; }

struct recording {
    fake_stream stream;
    mp4_movie *const movie = mp4_movie_create();

    explicit recording(const std::vector<mp4_track_desc> &tracks)
    {
        for (const mp4_track_desc &desc : tracks) mp4_movie_add_track(movie, &desc);
    }
    ~recording() { mp4_movie_destroy(movie); }
    void begin(const journal_ptr &journal = nullptr) { mp4_movie_begin_record(movie, &stream, journal.get()); }
    int add(int32_t track, mp4_time time, uint32_t len = 1)
    {
        const mp4_frame frame = {track, "abcdefghi", len, time, 1};
        return error_of(mp4_movie_add_frame(movie, &frame));
    }
};

std::string text(mp4_time time)
{
    return std::to_string(time.seconds) + "." + std::to_string(1000000000 + time.nanoseconds).substr(1);
}

TEST(movie, turns_times_into_durations)
{
    const struct { mp4_track_desc track; std::vector<mp4_time> times; const char *stts, *last; } cases[] = {
        {video, {{9, 980000000}, {10, 20000000}, {10, 60000000}}, "1 0 2 3600", "10.060000000"},
        {audio(48000), {{0, 0}, {0, 21333333}, {0, 42666666}}, "1 0 2 1024", "0.042666666"},
        {audio(96000), {{0, 0}, {0, 10000000}}, "1 0 1 960", "0.010000000"}, // a rate of more than 16 bits
        {audio(8000), {{5, 0}, {5, 62500}, {5, 124999}, {5, 312499}, {5, 312500}}, // half up; nothing is carried over
         "1 0 1 1 1 0 1 2 1 0", "5.000312500"},
        {video, {{-2, 500000000}, {-1, 0}, {-1, 999999999}, {0, 11111}}, "1 0 1 45000 1 90000 1 1", "0.000011111"},
        {video, {{10, 0}, {9, 900000000}, {10, 0}, {10, 40000000}}, "3 0 1 3600", "10.040000000"}, // backwards, equal
        {video, {{0, 0}, {23860, 929416000}}, "1 0 1 2147483647", "23860.929416000"},             // the longest
        {video, {{0, 0}, {23860, 929422222}}, "1 0 1 2147483647", "23860.929411111"},             // one tick is cut off
        {video, {{0, 0}, {30000, 0}, {30000, 40000000}}, "1 0 1 2147483647 1 552519953", "30000.040000000"}, // made up
        {audio(96000), {{0, 0}, {22370, 0}}, "1 0 1 2147483647", "22369.621322917"},
        {video, {{0, 0}, {204964, 0}}, "1 0 1 15926", "204964.000000000"}, // 64 bits wrap
        {video, {{INT32_MIN, 0}, {INT32_MAX, 0}}, "1 0 1 2147483647", "-2147459788.929411111"},
    };
    for (const auto &c : cases) {
        recording r({c.track});
        r.begin();
        for (const mp4_time &time : c.times) EXPECT_EQ(r.add(0, time), 0);
        EXPECT_EQ(numbers(r.movie->tracks[0]->stts_table), c.stts);
        mp4_time last;
        mp4_movie_track_timespan(r.movie, r.movie->tracks[0], &last);
        EXPECT_EQ(text(last), c.last);
    }
}

TEST(movie, makes_times_relative_at_the_end)
{
    recording r({video, audio(48000), audio(8000), video}), none({});
    mp4_time last;
    r.begin(), none.begin();
    EXPECT_EQ(r.add(0, {10, 500000000}) | r.add(1, {10, 200000000}), 0);
    EXPECT_EQ(r.add(1, {11, 199999999}) | r.add(2, {10, 200062500}), 0);
    EXPECT_EQ(mp4_movie_duration(r.movie), 11199u); // on the capture clock yet
    for (mp4_movie *ends : {r.movie, r.movie, none.movie}) mp4_movie_finish_record(ends);
    const struct { uint64_t delay, delay_ms, duration_ms; const char *last; } expected[] = {
        {27000, 300, 300, "0.300000000"}, {0, 0, 999, "0.999999999"},
        {1, 0, 0, "0.000062500"}, {0, 0, 0, "0.000000000"}};
    for (int i = 0; i < 4; i++) {
        mp4_track *track = r.movie->tracks[i];
        mp4_movie_track_timespan(r.movie, track, &last);
        EXPECT_EQ(std::pair(track->delay, text(last)), std::pair(expected[i].delay, std::string(expected[i].last)));
        EXPECT_EQ(mp4_movie_track_delay_duration(r.movie, track), expected[i].delay_ms) << i;
        EXPECT_EQ(mp4_movie_track_duration(r.movie, track), expected[i].duration_ms) << i;
    }
    mp4_movie_timespan(r.movie, &last);
    EXPECT_EQ(text(last) + " " + std::to_string(mp4_movie_duration(r.movie)), "0.999999999 999");
    mp4_movie_timespan(none.movie, &last);
    EXPECT_EQ(text(last) + " " + std::to_string(mp4_movie_duration(none.movie)), "0.000000000 0");
    EXPECT_EQ(none.movie->stream, nullptr);
}

TEST(movie, refuses_frames_without_a_trace)
{
    recording r({video, audio(8000)});
    const journal_ptr journal(mediafile_caretaker_create());
    r.begin(journal);
    drain(journal);
    const struct { int32_t track; int32_t nanoseconds; uint32_t len, bytes; int error; } cases[] = {
        {-1, 0, 1, 0, EINVAL}, {2, 0, 1, 0, EINVAL}, {INT32_MIN, 0, 1, 0, EINVAL}, {0, 0, 0, 0, EINVAL},
        {0, 1000000000, 1, 0, EINVAL}, {0, -1, 1, 0, EINVAL}, {2, 0, UINT32_MAX, UINT32_MAX, EINVAL},
        {0, 0, 101, 0xDFFFFFFF - 100, EFBIG}, {0, 0, 0xE0000000, 0, EFBIG}, {0, 0, UINT32_MAX, 0xDFFFFFFF, EFBIG}};
    for (const auto &c : cases) {
        r.movie->bytes = c.bytes;
        EXPECT_EQ(r.add(c.track, {1, c.nanoseconds}, c.len), c.error) << &c - cases;
        EXPECT_EQ(std::pair(r.movie->error, r.movie->bytes), std::pair(0, c.bytes));
    }
    r.movie->bytes = 0xDFFFFFFF - 9;
    EXPECT_EQ(r.add(0, {7, 500}, 9), 0);
    EXPECT_EQ(r.add(0, {8, 500}), EFBIG);
    EXPECT_EQ(dump(drain(journal)), dump(records("m0:0,9,7")));
    EXPECT_EQ(std::pair(r.movie->tracks[0]->sample_count, r.movie->spans[0]->last.seconds), std::pair(1u, 7));
    EXPECT_EQ(std::pair(r.movie->tracks[1]->sample_count, r.movie->spans[1]->started), std::pair(0u, 0u));
}

TEST(movie, keeps_the_first_error_until_the_next_record)
{
    enum { frame, flush, finish };
    for (const int failing : {frame, flush, finish}) {
        SCOPED_TRACE(failing);
        recording r({cached, cached, video});
        r.begin();
        EXPECT_EQ(r.add(0, {1, 0}) | r.add(1, {1, 0}, 2), 0);
        r.stream.fail_at = 0;
        r.stream.fail_errno = ENOSPC;
        const auto flushed = [&] { return errno = 0, error_of(mp4_movie_flush_cache(r.movie)); };
        EXPECT_EQ(failing == frame ? r.add(2, {1, 0}) : failing == flush ? flushed() : ENOSPC, ENOSPC);
        EXPECT_TRUE(failing == finish || (r.add(9, {1, 0}) == ENOSPC && flushed() == ENOSPC));
        mp4_movie_finish_record(r.movie);
        EXPECT_EQ(std::tuple(r.movie->error, r.movie->stream, r.stream.log), std::tuple(ENOSPC, nullptr, " v1"));
        for (int i = 0; i < 3; i++) EXPECT_FALSE(r.movie->tracks[i]->flags & MP4_TRACK_RECORDING);
        r.begin(); // what was cached is gone, and so is the error
        EXPECT_EQ(r.add(0, {1, 0}) | r.add(1, {1, 0}, 2) | r.add(2, {1, 0}, 3) | flushed(), 0);
        EXPECT_EQ(std::pair(r.movie->bytes, r.stream.log), std::pair(6u, std::string(" v1 v3 v1 v2")));
    }
}

TEST(movie, takes_eight_tracks_of_the_types_it_knows)
{
    const struct { uint32_t type; bool converts, setters; uint32_t cache; } known[] = {
        {0x101, true, false, 0}, {0x8101, false, true, 0}, {0x201, true, false, 16000}, {0x8201, false, false, 0}};
    recording r({});
    const auto add_track = [&](uint32_t type) {
        const mp4_track_desc desc = {type, {{1, 16, 8000}}};
        return mp4_movie_add_track(r.movie, &desc);
    };
    for (const uint32_t type : {0u, 0x103u, 0x8103u, 0x10101u, 0x200u}) EXPECT_EQ(error_of(add_track(type)), ENOSYS);
    for (uint32_t i = 0; i < 8; i++) {
        const auto &c = known[i / 2];
        SCOPED_TRACE(c.type);
        EXPECT_EQ(std::pair(add_track(c.type), r.movie->next_track_id), std::pair(static_cast<int>(i), i + 2));
        const mp4_track *track = r.movie->tracks[i];
        EXPECT_EQ(std::pair(track->id, r.movie->track_desc[i].type), std::pair(i + 1, c.type));
        EXPECT_EQ(std::pair(track->add_sample != nullptr, track->cache_size), std::pair(c.converts, c.cache));
        for (auto *set : {mp4_movie_set_track_sps, mp4_movie_set_track_pps, mp4_movie_set_track_vps}) {
            EXPECT_EQ(error_of(set(r.movie, i, "x", 1)), c.setters && set != mp4_movie_set_track_vps ? 0 : ENOSYS);
            for (const uint32_t none : {i + 1, UINT32_MAX}) EXPECT_EQ(error_of(set(r.movie, none, "x", 1)), EINVAL);
        }
    }
    EXPECT_EQ(error_of(add_track(0x103)), ENOBUFS);
    EXPECT_EQ(r.movie->next_track_id, 9u);
}

TEST(movie, journals_tracks_and_frames_in_order)
{
    recording r({audio(8000), video}), elsewhere({});
    const journal_ptr journal(mediafile_caretaker_create());
    EXPECT_EQ(add(journal, "10/0"), EBADRQC); // forgotten by begin
    r.begin(journal);
    mp4_movie_begin_record(r.movie, &elsewhere.stream, nullptr); // has begun already
    EXPECT_EQ(r.add(1, {-3, 500}, 5) | (mp4_movie_add_track(r.movie, &cached) ^ 2), 0);
    EXPECT_EQ(r.add(2, {4, 500}, 7) | r.add(0, {5, 500}, 9) | mp4_movie_flush_cache(r.movie), 0);
    EXPECT_EQ(dump(drain(journal)), dump("01001000 01820000 02000000 10000000 401f0000") +
              dump("01011000 01810000 80020000 e0010000 00000000") + dump(records("m1:0,5,-3")) +
              dump("01021000 01020000 01000000 08000000 401f0000") + dump(records("m0:5,9,5 m2:14,7,4")));
}

} // namespace
