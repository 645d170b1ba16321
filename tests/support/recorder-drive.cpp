/**
 * Drives a recorder by a plan, for judges that read what it has stored.
 *
 *     recorder-drive DIRECTORY MEDIA PLAN TRACK... [OPTION=VALUE]...
 *
 * A TRACK is h264, h265, either with :WIDTHxHEIGHT, or aac:CHANNELS:RATE; options are those of the recorder, and
 * speed: 0 as fast as the queue takes frames, N as fast as N cameras would. A line of the plan is a frame, or
 * something else that is done at this place:
 *
 *     TRACK OFFSET LENGTH TIME FLAGS    bytes of MEDIA; several frames of one track and time are parts of one
 *     stall writes|syncs NANOSECONDS    the medium does not answer for so long
 *     safe TRACK COUNT                  waits until so many samples are safe
 *     look                              prints a line
 *     kill                              ends the process, as SIGKILL does
 *     mark                              makes a system call that nothing else makes
 *
 * What happens is printed on standard error, a JSON object a line: events and looks.
 */
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <mediafiles/recorder.h>

using std::chrono::nanoseconds, std::chrono::steady_clock;

/* ---- A medium that stalls ---------------------------------------------- */

static std::atomic<steady_clock::time_point> writes_answer_at, syncs_answer_at;
static const std::thread::id pusher = std::this_thread::get_id(); // has no calls but its own

extern "C" {
int __real_fdatasync(int file);
ssize_t __real_write(int file, const void *data, size_t size);
ssize_t __real_writev(int file, const struct iovec *pieces, int count);
int __wrap_fdatasync(int file)
{
    std::this_thread::sleep_until(syncs_answer_at.load());
    return __real_fdatasync(file);
}
ssize_t __wrap_write(int file, const void *data, size_t size)
{
    struct stat status;
    if (std::this_thread::get_id() != pusher && steady_clock::now() < writes_answer_at.load() &&
        fstat(file, &status) == 0 && S_ISREG(status.st_mode))
        std::this_thread::sleep_until(writes_answer_at.load());
    return __real_write(file, data, size);
}
ssize_t __wrap_writev(int file, const struct iovec *pieces, int count)
{
    std::this_thread::sleep_until(writes_answer_at.load());
    return __real_writev(file, pieces, count);
}
}

namespace {

/* ---- What is asked for ------------------------------------------------- */

struct step {
    enum { frame, stall, safe, look, kill, mark } what = frame;
    uint32_t track = 0, flags = 0;
    bool of_writes = false;
    size_t offset = 0, length = 0;
    int64_t number = 0; // a frame's time; of others what is said
};

[[noreturn]] void fail(const std::string &what)
{
    fprintf(stderr, "recorder-drive: %s: %s\n", what.c_str(), strerror(errno));
    exit(2);
}

std::vector<step> read_plan(const char *path)
{
    static const std::map<std::string, decltype(step::what)> words = {
        {"stall", step::stall}, {"safe", step::safe}, {"look", step::look}, {"kill", step::kill}, {"mark", step::mark}};
    std::ifstream in(path);
    std::vector<step> plan;
    for (std::string word; in >> word;) {
        step next;
        if (const auto known = words.find(word); known != words.end())
            next.what = known->second;
        else
            next.track = static_cast<uint32_t>(std::stoul(word));
        if (next.what == step::frame) in >> next.offset >> next.length >> next.number >> next.flags;
        if (next.what == step::safe) in >> next.track >> next.number;
        if (next.what == step::stall) {
            in >> word >> next.number;
            next.of_writes = word == "writes";
        }
        if (!in) fail(path);
        plan.push_back(next);
    }
    return plan;
}

mp4_track_desc track_of(const std::string &text)
{
    mp4_track_desc track = {};
    const std::string codec = text.substr(0, text.find(':'));
    const char *const rest = text.c_str() + codec.size();
    track.type = codec == "h264" ? MP4_TRACK_H264 : codec == "h265" ? MP4_TRACK_H265 : MP4_TRACK_AAC;
    unsigned a = 0, b = 0;
    sscanf(rest, codec == "aac" ? ":%u:%u" : ":%ux%u", &a, &b);
    if (codec == "aac")
        track.audio = {static_cast<uint16_t>(a), 16, b};
    else
        track.video = {a, b, 0};
    return track;
}

struct asked {
    mediafiles_recorder_options options = {};
    double speed = 0;
    std::vector<mp4_track_desc> tracks;

    void set(const std::string &name, const char *value)
    {
        using options_record = mediafiles_recorder_options;
        static const std::map<std::string, int64_t options_record::*> numbers = {
            {"sync_ns", &options_record::sync_ns},
            {"segment_ns", &options_record::segment_ns},
            {"longest_gap_ns", &options_record::longest_gap_ns},
            {"quota_bytes", &options_record::quota_bytes},
            {"queue_bytes", &options_record::queue_bytes},
        };
        if (name == "speed")
            speed = atof(value);
        else if (name == "flags")
            options.flags = static_cast<uint32_t>(atol(value));
        else
            options.*numbers.at(name) = atoll(value);
    }
};

/* ---- Doing it ---------------------------------------------------------- */

mediafiles_recorder_stats stats_of(mediafiles_recorder *recorder)
{
    mediafiles_recorder_stats stats = {};
    stats.size = sizeof stats;
    mediafiles_recorder_get_stats(recorder, &stats);
    return stats;
}

void print_events(mediafiles_recorder *recorder)
{
    mediafiles_recorder_event event = {};
    event.size = sizeof event;
    while (mediafiles_recorder_next_event(recorder, &event, 0) == 1)
        fprintf(stderr,
                "{\"event\": %u, \"track\": %u, \"result\": %u, \"reason\": %u, \"error\": %d, \"number\": %ju, "
                "\"count\": %ju, \"from\": %jd, \"to\": %jd, \"path\": \"%s\"}\n",
                event.kind, event.track, event.result, event.reason, event.error, uintmax_t{event.number},
                uintmax_t{event.count}, intmax_t{event.from}, intmax_t{event.to}, event.path ? event.path : "");
}

long resident_kilobytes()
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
        if (long value = 0; word == "VmRSS:" && status >> value) return value;
    return 0;
}

void look(mediafiles_recorder *recorder, const char *directory)
{
    print_events(recorder);
    uint64_t bytes = 0, files = 0;
    for (const auto &each : std::filesystem::recursive_directory_iterator(directory)) {
        std::error_code gone;
        const uintmax_t size = each.file_size(gone);
        if (gone) continue;
        bytes += size;
        ++files;
    }
    const auto descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    const mediafiles_recorder_stats s = stats_of(recorder);
    fprintf(stderr,
            "{\"look\": 1, \"begun\": %u, \"in\": %ju, \"out\": %ju, \"dropped\": %ju, \"refused\": %ju, "
            "\"worst_push\": %jd, \"worst_write\": %jd, \"worst_sync\": %jd, \"queue_most\": %ju, \"rss\": %ld, "
            "\"descriptors\": %td, \"bytes\": %ju, \"files\": %ju}\n",
            s.files, uintmax_t{s.frames_in}, uintmax_t{s.frames_out}, uintmax_t{s.frames_dropped},
            uintmax_t{s.frames_refused}, intmax_t{s.worst_push}, intmax_t{s.worst_write}, intmax_t{s.worst_sync},
            uintmax_t{s.queue_most}, resident_kilobytes(), descriptors, uintmax_t{bytes}, uintmax_t{files});
    fflush(stderr);
}

template <class Condition>
void wait_until(Condition holds)
{
    while (!holds()) std::this_thread::sleep_for(std::chrono::microseconds(200));
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 5) return 2;
    setvbuf(stderr, nullptr, _IOFBF, 1 << 20);
    std::ifstream in(argv[2], std::ios::binary);
    const std::string media((std::istreambuf_iterator<char>(in)), {});
    const std::vector<step> plan = read_plan(argv[3]);
    asked asked;
    asked.options.keep_free_bytes = -1; /* whatever the machine has */
    for (int i = 4; i < argc; ++i) {
        const std::string word = argv[i];
        if (const size_t at = word.find('='); at != word.npos)
            asked.set(word.substr(0, at), argv[i] + at + 1);
        else
            asked.tracks.push_back(track_of(word));
    }
    mediafiles_recorder_options &options = asked.options;
    options.size = sizeof options;
    options.directory = argv[1];
    options.tracks = asked.tracks.data();
    options.track_count = static_cast<uint32_t>(asked.tracks.size());
    mediafiles_recorder *const recorder = mediafiles_recorder_start(&options);
    if (!recorder) fail(argv[1]);

    const uint64_t half = options.queue_bytes ? static_cast<uint64_t>(options.queue_bytes) / 2 : 4 << 20;
    const steady_clock::time_point begin = steady_clock::now();
    const auto first = std::ranges::find(plan, step::frame, &step::what);
    for (const step &each : plan) {
        switch (each.what) {
        case step::frame: {
            if (asked.speed > 0)
                std::this_thread::sleep_until(
                    begin + nanoseconds(static_cast<int64_t>(double(each.number - first->number) / asked.speed)));
            else
                wait_until([&] { return stats_of(recorder).queue_used < half; });
            mediafiles_recorder_push(recorder, each.track, media.data() + each.offset, each.length, each.number,
                                     each.flags);
            break;
        }
        case step::stall:
            (each.of_writes ? writes_answer_at : syncs_answer_at) = steady_clock::now() + nanoseconds(each.number);
            break;
        case step::safe:
            wait_until([&] { return stats_of(recorder).safe[each.track] >= static_cast<uint64_t>(each.number); });
            break;
        case step::look:
            look(recorder, argv[1]);
            break;
        case step::kill:
            fflush(stderr);
            raise(SIGKILL);
            break;
        case step::mark:
            [[maybe_unused]] const pid_t parent = getppid();
            break;
        }
    }
    const int result = mediafiles_recorder_stop(recorder, -1);
    look(recorder, argv[1]);
    mediafiles_recorder_destroy(recorder);
    return result == 0 ? 0 : 1;
}
