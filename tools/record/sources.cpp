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

/* What one input may hold ready. */
constexpr size_t most_queued_frames = 256;
constexpr size_t most_queued_bytes = 8u << 20;

/* Video frames of a stream that show whether it is reordered, as a rule; more than a decoder may keep back. */
constexpr ptrdiff_t frames_to_look_ahead = 32;
constexpr auto time_to_look_ahead = 1s;

/* How long an input without a frame keeps the others waiting for it. */
constexpr auto patience = 500ms;

/* How often a wait looks whether it was cancelled by a signal, which wakes no condition variable. */
constexpr auto attention = 50ms;

/* The readers leave signals to the main thread, but for this one: it interrupts a read that would wait for ever. */
constexpr int wake_up = SIGUSR1;

/* The signals of threads that are made while it lives. */
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
        auto made = std::make_unique<lane>();
        made->start = several ? source->start() : 0;
        made->source = std::move(source);
        made->last_frame = steady::now();
        lanes_.push_back(std::move(made));
    }
    const reader_signals inherited;
    for (auto &each : lanes_) {
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
    for (auto &each : lanes_) {
        if (!each->reader.joinable()) continue;
        std::unique_lock lock(mutex_);
        changed_.notify_all();
        while (!changed_.wait_for(lock, attention, [&] { return each->ended; }))
            pthread_kill(each->reader.native_handle(), wake_up);
        lock.unlock();
        each->reader.join();
    }
}

void sources::read_all(lane &own)
{
    std::optional<std::string> error;
    try {
        while (auto next = own.source->read()) {
            next->time -= own.start;
            std::unique_lock lock(mutex_);
            while (is_full(own) && !cancelled_) changed_.wait_for(lock, attention);
            own.queued_bytes += static_cast<size_t>(next->packet->size);
            own.queue.push_back(std::move(*next));
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

bool sources::is_full(const lane &own) const
{
    return own.queue.size() >= most_queued_frames || own.queued_bytes >= most_queued_bytes;
}

bool sources::has_looked_ahead(const lane &own) const
{
    if (own.ended || is_full(own)) return true;
    const auto &streams = own.source->streams();
    for (size_t i = 0; i < streams.size(); ++i) {
        const auto queued = std::ranges::count(own.queue, i, &frame::stream);
        if (streams[i].kind() != codec::aac && queued < frames_to_look_ahead) return false;
    }
    return true;
}

std::optional<sources::place> sources::look_ahead_for_reordering()
{
    const auto until = steady::now() + time_to_look_ahead;
    std::unique_lock lock(mutex_);
    const auto waits = [this](auto &each) { return !has_looked_ahead(*each); };
    while (std::ranges::any_of(lanes_, waits) && !cancelled_ && steady::now() < until)
        changed_.wait_for(lock, attention);

    for (size_t i = 0; i < lanes_.size(); ++i) {
        const auto found = std::ranges::find(lanes_[i]->queue, true, &frame::reordered);
        if (found != lanes_[i]->queue.end()) return place{i, found->stream};
    }
    return std::nullopt;
}

/* The lane with the earliest frame; none while it is worth waiting for a lane that has none. */
sources::lane *sources::earliest(steady::time_point now)
{
    lane *first = nullptr;
    for (auto &each : lanes_) {
        if (each->queue.empty()) {
            if (!each->ended && now - each->last_frame < patience) return nullptr;
        } else if (!first || each->queue.front().time < first->queue.front().time) {
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
        if (lane *from = earliest(now)) {
            source_frame taken{0, std::move(from->queue.front())};
            while (lanes_[taken.input].get() != from) ++taken.input;
            from->queue.pop_front();
            from->queued_bytes -= static_cast<size_t>(taken.content.packet->size);
            from->last_frame = now;
            changed_.notify_all();
            return taken;
        }
        if (none_left() || cancelled_ || now >= until) return std::nullopt;
        changed_.wait_until(lock, std::min(until, now + attention));
    }
}

bool sources::ended()
{
    const std::lock_guard lock(mutex_);
    return none_left();
}

bool sources::none_left() const
{
    return std::ranges::all_of(lanes_, [](auto &each) { return each->ended && each->queue.empty(); });
}

std::optional<std::string> sources::take_error()
{
    const std::lock_guard lock(mutex_);
    for (auto &each : lanes_) {
        if (!each->queue.empty() || !each->error) continue;
        return std::exchange(each->error, std::nullopt);
    }
    return std::nullopt;
}

} // namespace tools
