/** What tests of the recorder share: a card that stalls and fails, streams as an encoder delivers them, what was stored. */
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <thread>

#include <mediafiles/recorder.hpp>

#include "hex.h"
#include "medium.h"
#include "tools/reader/reader.h"

constexpr int64_t second = 1'000'000'000, millisecond = 1'000'000;

/** A directory for a test. */
class card {
public:
    card();
    ~card() { std::filesystem::remove_all(path_); }
    card(const card &) = delete;
    card &operator=(const card &) = delete;
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }
    std::vector<std::string> names() const; // of all files, sorted
    void put(const std::string &name, const bytes &content) const;
    bytes get(const std::string &name) const;

private:
    std::string path_;
};

/* ---- Streams, as an encoder delivers them ---- */

struct frame {
    bytes data;
    int64_t time; // nanoseconds
    bool key;
    uint32_t flags = 0; // with which it is pushed
};
using stream = std::vector<frame>;

/** A stream of testdata/. */
stream load(const std::string &name, const std::string &extension);

/** One run after the other; a frame between them lasts as long as the last two are apart. */
stream repeated(const stream &once, int times, int64_t from = 0);

/** Ten frames of a group each: the first is a key frame of the size that is asked for, the others are small. */
stream camera(int groups, size_t key_size, int64_t from = 0);

/** Frames that are all different, so that each is known again; sound without its header. */
stream numbered(stream all, size_t from = 0);

/** The NAL units of an Annex-B frame, each after its length; sound without its header. */
bytes sample_of(const frame &given, bool video);

struct source {
    mp4_track_desc track;
    stream frames;
    int64_t lag = 0;   // nanoseconds that its frames come late
    int64_t slack = 0; // by which sound may be off its capture, beside a tick
    bool video() const { return (track.type & 0x200) == 0; }
};
inline constexpr auto h264 = [] { return mediafiles::h264_track(); };
inline constexpr auto h265 = [](uint32_t width, uint32_t height) { return mediafiles::h265_track(width, height); };
inline constexpr auto aac = [](uint32_t rate) { return mediafiles::aac_track(rate, 2); };

/* ---- Recordings ---- */

struct recorder_ptr {
    mediafiles_recorder *recorder = nullptr;
    ~recorder_ptr() { mediafiles_recorder_destroy(recorder); }
    operator mediafiles_recorder *() const { return recorder; }
};

/** They borrow the card's path and the tracks. */
mediafiles_recorder_options options_for(const card &on, const std::vector<mp4_track_desc> &tracks);

using change_of_options = std::function<void(mediafiles_recorder_options &)>;
recorder_ptr start(
    const card &on, const std::vector<mp4_track_desc> &tracks, const change_of_options &change = [](auto &) {});

mediafiles_recorder_stats stats_of(mediafiles_recorder *recorder);

/** The events that wait: how many of each kind. */
std::map<uint32_t, uint64_t> events_of(mediafiles_recorder *recorder);

/** Until something is true, for ten seconds at most. */
template <class Condition>
bool comes_true(Condition condition)
{
    for (int i = 0; i < 2000; ++i) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

inline int push(mediafiles_recorder *recorder, uint32_t track, const frame &given)
{
    return mediafiles_recorder_push(recorder, track, given.data.data(), given.data.size(), given.time, given.flags);
}

/** All sources, in the order in which their frames come, as fast as the recorder stores them, or with pauses (microseconds). */
void push_all(mediafiles_recorder *recorder, const std::vector<source> &sources, unsigned pause = 0);

/* ---- What was stored ---- */

struct played {
    std::vector<mp4::file> files;
    std::map<uint32_t, std::vector<bytes>> samples; // of each track ID, over all files
};

/** Recovers a card without a recorder. */
void recover(const card &on);

/** All files of a card, by the strict reader: they are sound, and each begins with a key frame. */
played play(const card &on);

/** Each frame of each source is there, and nothing else. */
void expect_all_samples(const played &all, const std::vector<source> &sources);

/** Each sample is a frame of the source, none twice, in their order. @return which ones are there */
std::set<size_t> found_frames(const std::vector<bytes> &samples, const stream &frames, bool video);

/**
 * Each sample begins when its frame was captured, to a tick, but for the second one of a file; one at a seam may wait for
 * it. A file is as long as it takes until the next one begins, and the last one until another frame was due: what leads
 * is the first source.
 */
void expect_times(const played &all, const std::vector<source> &sources);

/** What comes of sources that are recorded from their beginning to their end. */
struct recorded {
    played all;
    mediafiles_recorder_stats stats;
    std::map<uint32_t, uint64_t> events;
};
recorded record(const std::vector<source> &sources, const change_of_options &change);
