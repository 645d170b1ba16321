/**
 * Drives a recorder by a plan, for judges that read what it has stored.
 *
 *     recorder-drive DIRECTORY MEDIA PLAN TRACK... [OPTION=VALUE]...
 *
 * A TRACK is h264, h265 or aac:CHANNELS:RATE; options are those of the recorder, and
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
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <thread>

#include <unistd.h>

#include <mediafiles/recorder.hpp>

#include "medium.h"

namespace {

using mediafiles::recorder, std::chrono::nanoseconds, std::chrono::steady_clock;

std::string content_of(const char *path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

recorder::options options_of(char **words, int64_t &speed)
{
    recorder::options options;
    options.keep_free_bytes = -1; /* whatever the machine has */
    const std::map<std::string, std::function<void(int64_t)>> names = {
        {"sync_ns", [&](int64_t value) { options.sync = nanoseconds(value); }},
        {"segment_ns", [&](int64_t value) { options.segment = nanoseconds(value); }},
        {"quota_bytes", [&](int64_t value) { options.quota_bytes = value; }},
        {"queue_bytes", [&](int64_t value) { options.queue_bytes = value; }},
        {"flags", [&](int64_t value) { options.flags = uint32_t(value); }},
        {"speed", [&](int64_t value) { speed = value; }}};
    for (; *words; ++words) {
        const std::string word = *words;
        unsigned channels = 0, rate = 0;
        if (sscanf(*words, "aac:%u:%u", &channels, &rate) == 2)
            options.tracks.push_back(mediafiles::aac_track(rate, channels));
        else if (const size_t at = word.find('='); at != word.npos)
            names.at(word.substr(0, at))(std::stoll(word.substr(at + 1)));
        else
            options.tracks.push_back(word == "h264" ? mediafiles::h264_track() : mediafiles::h265_track());
    }
    return options;
}

long resident_kilobytes()
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
        if (long value = 0; word == "VmRSS:" && status >> value) return value;
    return 0;
}

void look(recorder &of, const std::string &directory)
{
    while (const auto event = of.next_event())
        fprintf(stderr, "{\"event\": %u, \"number\": %ju, \"count\": %ju, \"from\": %jd, \"path\": \"%s\"}\n",
                event->kind, uintmax_t{event->number}, uintmax_t{event->count}, intmax_t{event->from.count()},
                event->path.c_str());
    uint64_t bytes = 0, files = 0;
    for (const auto &each : std::filesystem::recursive_directory_iterator(directory)) {
        std::error_code gone;
        const uintmax_t size = each.file_size(gone);
        if (gone) continue;
        bytes += size;
        ++files;
    }
    const auto descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    const mediafiles_recorder_stats s = of.stats();
    fprintf(stderr,
            "{\"look\": 1, \"in\": %ju, \"dropped\": %ju, \"refused\": %ju, \"worst_push\": %jd, \"worst_write\": %jd, "
            "\"worst_sync\": %jd, \"queue_most\": %ju, \"rss\": %ld, \"descriptors\": %td, \"bytes\": %ju, "
            "\"files\": %ju}\n",
            uintmax_t{s.frames_in}, uintmax_t{s.frames_dropped}, uintmax_t{s.frames_refused}, intmax_t{s.worst_push},
            intmax_t{s.worst_write}, intmax_t{s.worst_sync}, uintmax_t{s.queue_most}, resident_kilobytes(), descriptors,
            uintmax_t{bytes}, uintmax_t{files});
    fflush(stderr);
}

void wait_until(const auto &holds)
{
    while (!holds()) std::this_thread::sleep_for(std::chrono::microseconds(200));
}

void stall(gate &calls, int64_t time)
{
    calls.close();
    std::thread([&calls, time] {
        std::this_thread::sleep_for(nanoseconds(time));
        calls.open();
    }).detach();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 5) return 2;
    setvbuf(stderr, nullptr, _IOFBF, 1 << 20);
    const std::string directory = argv[1], media = content_of(argv[2]);
    std::istringstream plan(content_of(argv[3])); // no system call while frames are pushed
    int64_t speed = 0;
    std::optional<int64_t> first;
    recorder::options options = options_of(argv + 4, speed);
    options.directory = directory;
    recorder made(options);
    const uint64_t half = options.queue_bytes ? uint64_t(options.queue_bytes) / 2 : 4 << 20;
    const steady_clock::time_point begin = steady_clock::now();
    for (std::string word; plan >> word;) {
        uint32_t track = 0, flags = 0;
        size_t offset = 0, length = 0;
        int64_t number = 0; // a frame's time; of others what is said
        if (word == "look") {
            look(made, directory);
        } else if (word == "mark") {
            [[maybe_unused]] const pid_t parent = getppid();
        } else if (word == "kill") {
            fflush(stderr);
            raise(SIGKILL);
        } else if (word == "stall") {
            plan >> word >> number;
            stall(word == "writes" ? writes : syncs, number);
        } else if (word == "safe") {
            plan >> track >> number;
            wait_until([&] { return made.stats().safe[track] >= uint64_t(number); });
        } else {
            plan >> offset >> length >> number >> flags;
            first = first.value_or(number);
            if (speed == 0)
                wait_until([&] { return made.stats().queue_used < half; });
            else
                std::this_thread::sleep_until(begin + nanoseconds((number - *first) / speed));
            const auto *const frame = reinterpret_cast<const uint8_t *>(media.data()) + offset;
            made.push(uint32_t(std::stoul(word)), {frame, length}, nanoseconds(number), flags);
        }
    }
    made.stop();
    look(made, directory);
}
