/** The dashcam of dashcam.c in C++, with a thread for each encoder. */
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <thread>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <mediafiles/recorder.hpp>

using namespace std::chrono_literals;

static void print_events(mediafiles::recorder &recorder)
{
    while (const auto event = recorder.next_event())
        std::cerr << mediafiles_event_text(event->kind) << ": " << event->path << ", count " << event->count
                  << (event->error ? ": " + event->error.message() : "") << '\n';
}

int main(int argc, char **argv)
try {
    if (argc < 6 || !std::freopen("/dev/null", "w", stdout)) return 2; /* there: the core's lines about its tracks */
    sigset_t signals;                                                  /* blocked in all threads, and read */
    sigemptyset(&signals);
    for (const int each : {SIGUSR1, SIGTERM, SIGINT}) sigaddset(&signals, each);
    sigprocmask(SIG_BLOCK, &signals, nullptr);

    mediafiles::recorder recorder({.directory = argv[1],
                                   .tracks = {mediafiles::h264_track(), mediafiles::aac_track(48000, 2)},
                                   .pattern = "{number}_%Y-%m-%d_%H-%M-%S.mp4",
                                   .segment = 1min,
                                   .quota_bytes = int64_t{8} << 30});
    std::atomic<int> running = 2;
    const auto encode = [&, start = std::chrono::steady_clock::now()](const std::stop_token &stop, uint32_t track) {
        std::ifstream media(argv[2 + 2 * track], std::ios::binary), frames(argv[3 + 2 * track]);
        std::string rest;
        std::vector<uint8_t> frame;
        int64_t index, offset, size, time;
        if (!std::getline(frames, rest) || !media) std::cerr << argv[2 + 2 * track] << " cannot be read\n";
        while (!stop.stop_requested() && frames >> index >> offset >> size >> time && std::getline(frames, rest)) {
            frame.resize(static_cast<size_t>(size));
            media.seekg(offset).read(reinterpret_cast<char *>(frame.data()), static_cast<std::streamsize>(size));
            std::this_thread::sleep_until(start + std::chrono::nanoseconds(time) / (argc > 6 ? std::atoi(argv[6]) : 1));
            recorder.push(track, frame, start.time_since_epoch() + std::chrono::nanoseconds(time));
        }
        --running;
    };
    std::jthread encoders[] = {std::jthread(encode, 0), std::jthread(encode, 1)};

    pollfd waits[] = {{signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK), POLLIN, 0},
                      {recorder.event_descriptor(), POLLIN, 0}};
    while (running != 0) {
        signalfd_siginfo signal;
        if (poll(waits, 2, 100) > 0 && waits[0].revents != 0 && read(waits[0].fd, &signal, sizeof signal) > 0) {
            if (signal.ssi_signo != SIGUSR1) break;
            recorder.protect(30s, 30s);
        }
        print_events(recorder);
    }
    for (std::jthread &each : encoders) each = std::jthread(); /* ends it */
    recorder.stop(5s);
    print_events(recorder);
} catch (const std::exception &problem) {
    std::cerr << "dashcam: " << problem.what() << '\n';
    return 1;
}
