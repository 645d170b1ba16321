/** The movie: capture times become durations and delays, frames are refused or kept, one error ends a recording. */
#include <gtest/gtest.h>

#include <tuple>

#include <mediafiles/movie.h>
#include <mediafiles/track.h>

#include "support/fake-stream.h"
#include "support/faults.h"
#include "support/recording.h"

namespace {

using std::pair, std::tuple;

constexpr mp4_track_desc video = {MP4_TRACK_H264 | MP4_TRACK_RAW, {{640, 480, 0}}};
constexpr mp4_track_desc cached = {MP4_TRACK_AAC, {{1, 8, 8000}}};
constexpr auto audio = [](uint32_t rate) { return mp4_track_desc{MP4_TRACK_AAC | MP4_TRACK_RAW, {{2, 16, rate}}}; };

/** A movie, its stream, and what they make of frames. */
struct film {
    fake_stream stream;
    mp4_movie *const movie = mp4_movie_create();

    explicit film(const std::vector<mp4_track_desc> &tracks)
    {
        for (const mp4_track_desc &desc : tracks) mp4_movie_add_track(movie, &desc);
    }
    ~film() { mp4_movie_destroy(movie); }
    void begin(const journal_ptr &journal = nullptr) { mp4_movie_begin_record(movie, &stream, journal.get()); }
    int add(int32_t track, mp4_time time, uint32_t len = 1)
    {
        const mp4_frame frame = {track, "abcdefghi", len, time, 1};
        return errno = 0, error_of(mp4_movie_add_frame(movie, &frame));
    }
    int flush() { return errno = 0, error_of(mp4_movie_flush_cache(movie)); }
    /** The latest time, of one track or of all. */
    std::string latest(mp4_track *track = nullptr)
    {
        mp4_time time;
        track ? mp4_movie_track_timespan(movie, track, &time) : mp4_movie_timespan(movie, &time);
        return std::to_string(time.seconds) + "." + std::to_string(1000000000 + time.nanoseconds).substr(1);
    }
};

/** Capture times; stts, and the latest time. */
const tuple<mp4_track_desc, std::vector<mp4_time>, std::vector<uint32_t>, std::string> clock_cases[] = {
    {video, {{9, 980000000}, {10, 20000000}, {10, 60000000}}, {1, 0, 2, 3600}, "10.060000000"},
    {audio(48000), {{0, 0}, {0, 21333333}, {0, 42666666}}, {1, 0, 2, 1024}, "0.042666666"},
    {audio(96000), {{0, 0}, {0, 10000000}}, {1, 0, 1, 960}, "0.010000000"}, // a rate of more than 16 bits
    // half up; nothing is carried over
    {audio(8000), {{5, 0}, {5, 62500}, {5, 124999}, {5, 312499}}, {1, 0, 1, 1, 1, 0, 1, 2}, "5.000312499"},
    {video, {{-1, 0}, {-1, 999999999}, {0, 11111}}, {1, 0, 1, 90000, 1, 1}, "0.000011111"},
    {video, {{10, 0}, {9, 900000000}, {10, 0}, {10, 40000000}}, {3, 0, 1, 3600}, "10.040000000"}, // back, equal
    {video, {{0, 0}, {23860, 929416000}}, {1, 0, 1, 2147483647}, "23860.929416000"},              // the longest
    {video, {{0, 0}, {23860, 929422222}}, {1, 0, 1, 2147483647}, "23860.929411111"},              // one tick is cut off
    {video, {{0, 0}, {30000, 0}, {30000, 40000000}}, {1, 0, 1, 2147483647, 1, 552519953}, "30000.040000000"},
    {audio(96000), {{0, 0}, {22370, 0}}, {1, 0, 1, 2147483647}, "22369.621322917"},
    {audio(14000), {{0, 0}, {153392, 0}}, {1, 0, 1, 2147483647}, "153391.689071429"}, // the nearest
    {video, {{0, 0}, {204964, 0}}, {1, 0, 1, 15926}, "204964.000000000"},             // 64 bits wrap
    {video, {{INT32_MIN, 0}, {INT32_MAX, 0}}, {1, 0, 1, 2147483647}, "-2147459788.929411111"},
};

TEST(Movie, TurnsTimesIntoDurations)
{
    for (const auto &[track, times, stts, latest] : clock_cases) {
        film f({track});
        f.begin();
        for (const mp4_time &time : times) EXPECT_EQ(0, f.add(0, time));
        EXPECT_EQ(stts, numbers(f.movie->tracks[0]->stts_table));
        EXPECT_EQ(latest, f.latest(f.movie->tracks[0]));
    }
}

TEST(Movie, MakesTimesRelativeAtTheEnd)
{
    film f({video, audio(48000), audio(8000), video}), none({});
    f.begin(), none.begin();
    EXPECT_EQ(0, f.add(0, {10, 500000000}) | f.add(1, {10, 200000000}));
    EXPECT_EQ(0, f.add(1, {11, 199999999}) | f.add(2, {10, 200062500}));
    EXPECT_EQ(11199u, mp4_movie_duration(f.movie)); // on the capture clock yet
    for (mp4_movie *ends : {f.movie, f.movie, none.movie}) mp4_movie_finish_record(ends);
    const auto times = [&](uint32_t i) { // delay in ticks and in milliseconds, milliseconds and time of the end
        mp4_track *const t = f.movie->tracks[i];
        return tuple(t->delay, mp4_movie_track_delay_duration(f.movie, t), mp4_movie_track_duration(f.movie, t),
                     f.latest(t));
    };
    EXPECT_EQ(tuple(27000u, 300u, 300u, "0.300000000"), times(0));
    EXPECT_EQ(tuple(0u, 0u, 999u, "0.999999999"), times(1));
    EXPECT_EQ(tuple(1u, 0u, 0u, "0.000062500"), times(2));
    EXPECT_EQ(tuple(0u, 0u, 0u, "0.000000000"), times(3));
    EXPECT_EQ(tuple("0.999999999", 999u), tuple(f.latest(), mp4_movie_duration(f.movie)));
    EXPECT_EQ(tuple("0.000000000", 0u), tuple(none.latest(), mp4_movie_duration(none.movie)));
}

TEST(Movie, RefusesFramesWithoutATrace)
{
    film f({video, audio(8000)});
    const journal_ptr journal(mediafile_caretaker_create());
    f.begin(journal);
    drain(journal);
    const auto refused = [&](int32_t track, int32_t nanoseconds, uint32_t length, uint32_t before = 0) {
        f.movie->bytes = before;
        const int error = f.add(track, {1, nanoseconds}, length);
        EXPECT_EQ(pair(0, before), pair(f.movie->error, f.movie->bytes));
        return error;
    };
    for (const int32_t track : {-1, 2, INT32_MIN}) EXPECT_EQ(EINVAL, refused(track, 0, 1));
    for (const int32_t nanoseconds : {1000000000, -1}) EXPECT_EQ(EINVAL, refused(0, nanoseconds, 1));
    EXPECT_EQ(EINVAL, refused(0, 0, 0));
    EXPECT_EQ(EINVAL, refused(2, 0, UINT32_MAX, UINT32_MAX));
    EXPECT_EQ(EFBIG, refused(0, 0, 101, 0xDFFFFFFF - 100));
    for (const uint32_t before : {0u, 0xDFFFFFFF}) EXPECT_EQ(EFBIG, refused(0, 0, UINT32_MAX - 0x1FFFFFFF, before));
    f.movie->bytes = 0xDFFFFFFF - 9;
    EXPECT_EQ(0, f.add(0, {7, 500}, 9));
    EXPECT_EQ(EFBIG, f.add(0, {8, 500}));
    EXPECT_EQ(dump(records("m0:0,9,7")), dump(drain(journal)));
    EXPECT_EQ(pair(1u, 7), pair(f.movie->tracks[0]->sample_count, f.movie->spans[0]->last.seconds));
    EXPECT_EQ(pair(0u, 0u), pair(f.movie->tracks[1]->sample_count, f.movie->spans[1]->started));
}

TEST(Movie, KeepsTheFirstErrorUntilTheNextRecord)
{
    enum { frame, flush, finish };
    for (const int failing : {frame, flush, finish}) {
        SCOPED_TRACE(failing);
        film f({cached, cached, video, video});
        f.begin();
        for (int i = 0; i < 65; i++) // chunks of changing size: at the end a table of track 2 has to grow
            for (const int track : {2, i % 2 ? 2 : 3, 3}) EXPECT_EQ(0, f.add(track, {1, 0}));
        EXPECT_EQ(0, f.add(0, {1, 0}) | f.add(1, {1, 0}, 2));
        f.stream.fail_at = f.stream.calls, f.stream.fail_errno = ENOSPC, f.stream.log = "";
        EXPECT_EQ(ENOSPC, failing == frame ? f.add(2, {1, 0}) : failing == flush ? f.flush() : ENOSPC);
        EXPECT_TRUE(failing == finish || (f.add(9, {1, 0}) == ENOSPC && f.flush() == ENOSPC));
        {
            const faults::injection injection({.nth = 0, .error = ENOMEM});
            mp4_movie_finish_record(f.movie);
            EXPECT_TRUE(injection.hit);
        }
        EXPECT_EQ(tuple(ENOSPC, nullptr, " v1"), tuple(f.movie->error, f.movie->stream, f.stream.log));
        f.begin(); // what was cached is gone, and so is the error
        EXPECT_EQ(0, f.add(0, {1, 0}) | f.add(1, {1, 0}, 2) | f.add(2, {1, 0}, 3) | f.flush());
        EXPECT_EQ(tuple(6u, " v1 v3 v1 v2"), tuple(f.movie->bytes, f.stream.log));
    }
}

TEST(Movie, JournalsTracksAndFramesInOrder)
{
    film f({audio(8000), video}), elsewhere({});
    const journal_ptr journal(mediafile_caretaker_create());
    EXPECT_EQ(EBADRQC, add(journal, "10/0")); // forgotten by begin
    f.begin(journal);
    mp4_movie_begin_record(f.movie, &elsewhere.stream, nullptr); // has begun already
    EXPECT_EQ(0, f.add(1, {-3, 500}, 5));
    EXPECT_EQ(2, mp4_movie_add_track(f.movie, &cached));
    EXPECT_EQ(0, f.add(2, {4, 500}, 7) | f.add(0, {5, 500}, 9) | f.flush());
    EXPECT_EQ(dump("01001000 01820000 02000000 10000000 401f0000 01011000 01810000 80020000 e0010000 00000000") +
                  dump(records("m1:0,5,-3")) + dump("01021000 01020000 01000000 08000000 401f0000") +
                  dump(records("m0:5,9,5 m2:14,7,4")),
              dump(drain(journal)));
}

TEST(Movie, LeavesAJournalAloneThatHasFailed)
{
    film f({cached, video});
    const journal_ptr journal(mediafile_caretaker_create());
    f.begin(journal);
    EXPECT_EQ(EBADRQC, add(journal, "10/0"));
    const faults::injection injection;
    for (const int32_t track : {0, 1, 0, 1}) EXPECT_EQ(0, f.add(track, {1, 0}));
    EXPECT_EQ(0, f.flush());
    EXPECT_EQ(EBADRQC, mediafile_caretaker_errcode(journal.get()));
    EXPECT_EQ(0, injection.made[faults::memory]); // no more samples wait in it
}

} // namespace
