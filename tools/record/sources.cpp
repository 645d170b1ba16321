#include "tools/record/sources.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include <pthread.h>
#include <signal.h>

#include "tools/failure.h"

namespace tools {

namespace {

using namespace std::chrono_literals;

/* The most that one input queues. */
constexpr size_t most_queued_frames = 256;
constexpr size_t most_queued_bytes = 8u << 20;

/* How many video frames usually show whether a stream is reordered: more than a decoder may hold back. */
constexpr ptrdiff_t frames_to_look_ahead = 32;
constexpr auto time_to_look_ahead = 1s;

/* How long the others wait for an input without a frame. */
constexpr auto longest_wait = 500ms;

/* How often a wait checks for a cancellation by a signal, which wakes no condition variable. */
constexpr auto poll_interval = 50ms;

/* The readers block every signal but this one: it interrupts a read that would wait forever. */
constexpr int wake_up = SIGUSR1;

/* While it exists, new threads block every signal but wake_up. */
class reader_signals {
public:
    reader_signals()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(wake_up, &action, nullptr);

        sigset_t others;
        sigfillset(&others);
        sigdelset(&others, wake_up);
        pthread_sigmask(SIG_BLOCK, &others, &before_);
    }
    ~reader_signals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    reader_signals(const reader_signals &) = delete;
    reader_signals &operator=(const reader_signals &) = delete;

private:
    sigset_t before_;
};

} // namespace

sources::sources(std::vector<std::unique_ptr<input>> inputs, std::atomic<bool> &cancelled) : cancelled_(cancelled)
{
    const bool several = inputs.size() > 1;
    for (auto &source : inputs) {
        auto made = std::make_unique<input_queue>();
        made->start = several ? source->start() : 0;
        made->source = std::move(source);
        made->last_frame = steady::now();
        queues_.push_back(std::move(made));
    }
    const reader_signals inherited;
    for (auto &each : queues_) {
        try {
            each->reader = std::thread([this, &each] { read_all(*each); });
        } catch (const std::system_error &problem) {
            stop();
            throw failure("cannot read", each->source->name(), problem.code().value());
        }
    }
}

sources::~sources()
{
    stop();
}

void sources::stop()
{
    cancelled_ = true;
    for (auto &each : queues_) {
        if (!each->reader.joinable()) continue;
        std::unique_lock lock(mutex_);
        changed_.notify_all();
        while (!changed_.wait_for(lock, poll_interval, [&] { return each->ended; }))
            pthread_kill(each->reader.native_handle(), wake_up);
        lock.unlock();
        each->reader.join();
    }
}

void sources::read_all(input_queue &own)
{
    std::optional<std::string> error;
    try {
        while (auto next = own.source->read()) {
            next->time -= own.start;
            std::unique_lock lock(mutex_);
            while (is_full(own) && !cancelled_) changed_.wait_for(lock, poll_interval);
            own.queued_bytes += static_cast<size_t>(next->packet->size);
            own.frames.push_back(std::move(*next));
            own.last_frame = steady::now();
            changed_.notify_all();
        }
    } catch (const std::exception &problem) {
        error = problem.what();
    }
    const std::lock_guard lock(mutex_);
    own.error = std::move(error);
    own.ended = true;
    changed_.notify_all();
}

bool sources::is_full(const input_queue &own) const
{
    return own.frames.size() >= most_queued_frames || own.queued_bytes >= most_queued_bytes;
}

bool sources::has_looked_ahead(const input_queue &own) const
{
    if (own.ended || is_full(own)) return true;
    const auto &streams = own.source->streams();
    for (size_t i = 0; i < streams.size(); ++i) {
        const auto queued = std::ranges::count(own.frames, i, &frame::stream);
        if (streams[i].kind() != codec::aac && queued < frames_to_look_ahead) return false;
    }
    return true;
}

std::optional<sources::stream_index> sources::look_ahead_for_reordering()
{
    const auto until = steady::now() + time_to_look_ahead;
    std::unique_lock lock(mutex_);
    const auto waits = [this](auto &each) { return !has_looked_ahead(*each); };
    while (std::ranges::any_of(queues_, waits) && !cancelled_ && steady::now() < until)
        changed_.wait_for(lock, poll_interval);

    for (size_t i = 0; i < queues_.size(); ++i) {
        const auto found = std::ranges::find(queues_[i]->frames, true, &frame::reordered);
        if (found != queues_[i]->frames.end()) return stream_index{i, found->stream};
    }
    return std::nullopt;
}

/* The queue with the earliest frame; none while waiting for an empty queue. */
sources::input_queue *sources::earliest(steady::time_point now)
{
    input_queue *first = nullptr;
    for (auto &each : queues_) {
        if (each->frames.empty()) {
            if (!each->ended && now - each->last_frame < longest_wait) return nullptr;
        } else if (!first || each->frames.front().time < first->frames.front().time) {
            first = each.get();
        }
    }
    return first;
}

std::optional<source_frame> sources::take(steady::time_point until)
{
    std::unique_lock lock(mutex_);
    for (;;) {
        const auto now = steady::now();
        if (input_queue *from = earliest(now)) {
            source_frame taken{0, std::move(from->frames.front())};
            while (queues_[taken.input].get() != from) ++taken.input;
            from->frames.pop_front();
            from->queued_bytes -= static_cast<size_t>(taken.content.packet->size);
            from->last_frame = now;
            changed_.notify_all();
            return taken;
        }
        if (none_left() || cancelled_ || now >= until) return std::nullopt;
        changed_.wait_until(lock, std::min(until, now + poll_interval));
    }
}

bool sources::ended()
{
    const std::lock_guard lock(mutex_);
    return none_left();
}

bool sources::none_left() const
{
    return std::ranges::all_of(queues_, [](auto &each) { return each->ended && each->frames.empty(); });
}

std::optional<std::string> sources::take_error()
{
    const std::lock_guard lock(mutex_);
    for (auto &each : queues_) {
        if (!each->frames.empty() || !each->error) continue;
        return std::exchange(each->error, std::nullopt);
    }
    return std::nullopt;
}

} // namespace tools
