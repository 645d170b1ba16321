/**
 * Whatever is called in whatever order, while any call to the medium fails or memory is short: the recorder ends when it
 * is told to, and after a recovery the directory holds sound files alone, with all samples that it had called safe.
 *
 * A byte for the tracks, two for the options, three for what fails; then a byte for each call, and its arguments.
 */
#include <filesystem>
#include <string>

#include <mediafiles/recorder.h>

#include "fuzz.h"
#include "tests/support/medium.h"

using namespace fuzz;
namespace fs = std::filesystem;

namespace {

constexpr int64_t millisecond = 1'000'000;

/** What a frame begins with: one that is no key, and one that is. */
const bytes units[2][2] = {
    {hex("00000001 41"),
     hex("00000001 6742c01ed900a02ff97011000003000100000300328f162e48 00000001 68cb8cb2 000001 65")},
    {hex("00000001 0201"), hex("00000001 40010c01ffff01600000030090000003000003003f928090 00000001 42010101600000"
                               "030090000003000003003fa0050201696592a4932bc04040000003004000000642 000001 "
                               "4401c172b46240 000001 2601")}};

/** The recorder's allocations may fail, those of the target do not. */
struct of_recorder {
    of_recorder() { medium::is_own_memory = false; }
    ~of_recorder() { medium::is_own_memory = true; }
};

template <class Call>
auto call(Call made)
{
    const of_recorder fails;
    return made();
}

class program {
public:
    explicit program(std::span<const uint8_t> input) : input_{input}
    {
        const char *const place = access("/dev/shm", W_OK) == 0 ? "/dev/shm/fuzz-XXXXXX" : "/tmp/fuzz-XXXXXX";
        directory_ = place;
        REQUIRE(mkdtemp(directory_.data()));
    }
    ~program() { fs::remove_all(directory_); }

    void run()
    {
        {
            const mediafiles_recorder_options options = take_options();
            medium::failing faults(take_faults());
            recorder_ = call([&] { return mediafiles_recorder_start(&options); });
            REQUIRE(recorder_ || faults.has_hit());
            for (int calls = 0; recorder_ && !input_.is_empty() && calls < 150; ++calls) make_call(faults);
            end();
        }
        judge();
    }

private:
    mediafiles_recorder_options take_options()
    {
        const mp4_track_desc h264 = {MP4_TRACK_H264, {{640, 360, 0}}}, h265 = {MP4_TRACK_H265, {{640, 360, 0}}},
                             aac = {MP4_TRACK_AAC, {{2, 16, 48000}}}, late = {MP4_TRACK_H264, {{0, 0, 0}}};
        const std::vector<mp4_track_desc> choices[] = {{h264}, {h264, aac}, {h264, h265, aac}, {aac}, {late, aac}};
        tracks_ = choices[input_.take() % std::size(choices)];
        const size_t how = input_.take(), sizes = input_.take();
        mediafiles_recorder_options options = {};
        options.size = sizeof options;
        options.track_count = uint32_t(tracks_.size());
        options.tracks = tracks_.data();
        options.directory = directory_.c_str();
        options.pattern = how & 1 ? "%Y/{number}.mp4" : nullptr;
        options.sync_ns = how & 2 ? millisecond : 50 * millisecond;
        options.segment_ns = how & 4 ? 200 * millisecond : 0;
        options.flags = (how & 8 ? MEDIAFILES_ANY_START : 0) | (how & 16 ? MEDIAFILES_JOIN_STEPS : 0);
        options.pre_event_ns = how & 32 ? 100 * millisecond : 0;
        options.pre_event_bytes = how & 32 ? 32 << 10 : 0;
        options.quota_bytes = how & 64 ? 100'000 : 0;
        options.protected_bytes = how & 128 ? 50'000 : 0;
        options.keep_free_bytes = -1;
        options.queue_bytes = int64_t{8 << 10} << sizes % 6;
        options.segment_bytes = sizes & 64 ? 20'000 : 0;
        return options;
    }

    medium::failing::plan take_faults()
    {
        const size_t kind = input_.take(), nth = input_.take(), how = input_.take();
        const int errors[] = {EIO, ENOSPC, EROFS, ENODEV};
        const auto failing = medium::call(kind % medium::kinds);
        return {failing, kind & 128 ? long(nth + 256 * (how >> 4)) : -1, (how & 1) != 0,
                failing == medium::memory ? ENOMEM : errors[how / 2 % 4]};
    }

    void make_call(medium::failing &faults)
    {
        const size_t what = input_.take();
        if (what < 200) return push(what);
        const int64_t some = int64_t(input_.take()) * 10 * millisecond;
        call([&] {
            mediafiles_recorder_stats stats = {};
            stats.size = sizeof stats;
            if (what < 205)
                mediafiles_recorder_split(recorder_);
            else if (what < 210)
                mediafiles_recorder_protect(recorder_, some, some);
            else if (what < 215)
                mediafiles_recorder_trigger(recorder_, some);
            else if (what < 220)
                REQUIRE(mediafiles_recorder_get_stats(recorder_, &stats) == 0);
            else if (what < 225)
                take_events();
            else if (what < 230)
                mediafiles_recorder_await_room(recorder_, size_t(some % 20'000), some / 1'000);
            else if (what < 235)
                usleep(useconds_t(some / 1'000'000));
            else if (what < 238)
                faults.lift();
            else if (what == 255)
                mediafiles_recorder_stop(recorder_, some / 100);
        });
    }

    void push(size_t what)
    {
        const int64_t steps[] = {40, 40, 40, 21, 0, -1'000, 15'000, 3'600'000};
        const auto track = uint32_t(what % (tracks_.size() + 1));
        now_ += steps[what / 4 % 8] * millisecond;
        const size_t length = input_.take();
        bytes data;
        const bool is_video = track < tracks_.size() && tracks_[track].type != MP4_TRACK_AAC, is_key = what & 32;
        if (is_video && what < 190) data = units[tracks_[track].type == MP4_TRACK_H265][is_key];
        if (what < 190)
            data.resize(data.size() + 1 + length * 16, uint8_t(0x80 | length));
        else
            for (size_t n = 0; n < length % 64; ++n) data.push_back(uint8_t(input_.take()));
        call(
            [&] { mediafiles_recorder_push(recorder_, track, data.data(), data.size(), now_, what == 150 ? 2u : 0u); });
    }

    void take_events()
    {
        mediafiles_recorder_event event = {};
        event.size = sizeof event;
        while (mediafiles_recorder_next_event(recorder_, &event, 0) == 1) {
            REQUIRE(event.kind >= MEDIAFILES_EVENT_BEGUN && *mediafiles_event_text(event.kind));
            REQUIRE(!event.path || *event.path);
            has_deleted_ |= event.kind == MEDIAFILES_EVENT_DELETED || event.kind == MEDIAFILES_EVENT_LOST;
        }
    }

    void end()
    {
        if (!recorder_) return;
        call([&] {
            const auto begin = std::chrono::steady_clock::now();
            REQUIRE(mediafiles_recorder_stop(recorder_, -1) == 0);
            REQUIRE(std::chrono::steady_clock::now() - begin < std::chrono::seconds(30));
            take_events();
            mediafiles_recorder_stats stats = {};
            stats.size = sizeof stats;
            mediafiles_recorder_get_stats(recorder_, &stats);
            REQUIRE(stats.frames_out + stats.frames_dropped + stats.frames_refused <= stats.frames_in);
            for (const uint64_t each : stats.safe) safe_ += each;
            mediafiles_recorder_destroy(recorder_);
        });
    }

    void judge() const
    {
        const char *const path = directory_.c_str();
        const auto ignore = [](void *, const mediafiles_report *) { return 0; };
        REQUIRE(mediafiles_recover(&path, 1, nullptr, ignore, nullptr) == 0);
        uint64_t samples = 0;
        for (const auto &each : fs::recursive_directory_iterator(directory_)) {
            if (!each.is_regular_file()) continue;
            REQUIRE(each.path().extension() == ".mp4"); // no journal, no temporary file
            const mp4::file read = mp4::read(each.path().string());
            REQUIRE(sound_but_for(read, any_content));
            for (const mp4::track &track : read.tracks) samples += track.samples.size();
        }
        REQUIRE(has_deleted_ || samples >= safe_);
    }

    program_bytes input_;
    std::string directory_;
    std::vector<mp4_track_desc> tracks_;
    mediafiles_recorder *recorder_ = nullptr;
    int64_t now_ = 0;
    uint64_t safe_ = 0;
    bool has_deleted_ = false;
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    medium::is_own_memory = true;
    program({data, size}).run();
    return 0;
}
