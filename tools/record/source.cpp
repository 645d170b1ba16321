#include "tools/record/source.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include <pthread.h>
#include <signal.h>

#include "tools/print.h"

namespace tools {

namespace {

using namespace std::chrono_literals;

/* The most that one source queues. */
constexpr size_t most_queued_frames = 1024;
constexpr size_t most_queued_bytes = 8u << 20;

/* How many video frames usually show whether a stream is reordered: more than a decoder may hold back. */
constexpr ptrdiff_t frames_to_look_ahead = 32, most_looked_at = 4 * frames_to_look_ahead;

/* Between two attempts to open a source: twice as long each time, from the first again once it was read for a while. */
constexpr std::chrono::milliseconds first_pause = 250ms, longest_pause = 15s;
constexpr auto long_enough = 10s;

/* What opening takes beside the timeout: libavformat reads five seconds of media. */
constexpr auto time_to_probe = 10s;

/*
 * While a source is probed its frames collect. The first one that takes so long to come has just been made. It is looked
 * for among so many frames.
 */
constexpr auto a_wait = 5ms;
constexpr size_t most_collected = 256;

/* Interrupts a read that would wait for ever; a process has no other use for it. */
const int wake_up = SIGRTMIN;

void accept_wake_up()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(wake_up, &action, nullptr);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, wake_up);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

double in_seconds(steady::duration span)
{
    return std::chrono::duration<double>(span).count();
}

std::string no_data(std::chrono::nanoseconds timeout, const std::string &from, const char *what_follows)
{
    return failure(print("no data for %g s", in_seconds(timeout)), from, what_follows).what();
}

} // namespace

source::source(const input_options &options, bool retries, waker &changed)
    : options_(options), name_(options.name), retries_(retries && name_.comes_and_goes), waker_(changed)
{
}

void source::start()
{
    try {
        thread_ = std::thread([this] { work(); });
    } catch (const std::system_error &problem) {
        throw failure("cannot read", name_.shown, problem.code().value());
    }
}

source::~source()
{
    cancel();
    if (!thread_.joinable()) return;
    std::unique_lock lock(mutex_);
    /* Again and again: a signal that comes just before a call waits does not interrupt it. */
    while (!changed_.wait_for(lock, 50ms, [this] { return has_finished_; }))
        pthread_kill(thread_.native_handle(), wake_up);
    lock.unlock();
    thread_.join();
}

void source::cancel()
{
    const std::lock_guard lock(mutex_);
    cancelled_ = true;
    changed_.notify_all();
}

void source::work()
{
    accept_wake_up();
    auto pause = first_pause;
    for (;;) {
        const auto begun = steady::now();
        const outcome result = read_once();
        if (cancelled_) break;
        if (result.is_final) {
            const std::lock_guard lock(mutex_);
            error_ = result.why;
            state_ = result.is_lost ? source_state::lost : source_state::ended;
            break;
        }
        report_loss(result);
        pause = steady::now() - begun > long_enough ? first_pause : pause;
        if (!rest(pause)) break;
        pause = std::min(pause * 2, longest_pause);
    }
    const std::lock_guard lock(mutex_);
    if (cancelled_ && state_ != source_state::lost) state_ = source_state::ended;
    has_finished_ = true;
    changed_.notify_all();
    waker_.wake();
}

source::outcome source::read_once()
{
    outcome result{.is_final = !retries_};
    try {
        set_state(source_state::opening);
        patience_.until(may_take_long() ? steady::time_point::max() : steady::now() + options_.timeout + time_to_probe);
        input from(options_, name_, patience_);
        const bool is_live = from.facts().is_live;
        result.is_final |= !is_live;
        report_left_out(from.facts());
        if (from.facts().streams.empty()) {
            const failure nothing("nothing to record", name_.shown, from.why_nothing());
            if (is_live) throw nothing;
            return {.is_final = true, .is_lost = false, .why = nothing.what()};
        }
        set_state(source_state::reading);
        read_all(from);
        result.is_lost = is_live && name_.is_connection;
        if (is_live) result.why = "connection closed by the sender: " + name_.shown;
    } catch (const permanent_failure &problem) {
        return {.is_final = true, .why = problem.what()};
    } catch (const silence &) {
        result.was_silent = !cancelled_;
    } catch (const std::exception &problem) {
        result.why = problem.what();
    }
    if (result.was_silent)
        result.why = no_data(options_.timeout, name_.shown,
                             retries_ ? "it is opened again"
                                      : "given up (--retry never); --timeout sets how long it is waited for");
    if (result.is_final && !result.is_lost) result.why.clear();
    return result;
}

/* A file is read however long it takes; who listens waits for a sender. */
bool source::may_take_long() const
{
    const auto listens = [](const auto &option) {
        return option.first == "listen" || option.second.find("listen") != std::string::npos;
    };
    return !name_.comes_and_goes || name_.listens || std::ranges::any_of(options_.options, listens);
}

void source::report_left_out(const connection &known)
{
    std::string text;
    for (const auto &[index, what, why] : known.others)
        text += "left out: " + name_.shown + ": stream " + std::to_string(index) + " (" + what + "): " + why + "\n";
    const std::lock_guard lock(mutex_);
    if (text == left_out_) return;
    left_out_ = text;
    for (size_t begin = 0, end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1)
        notices_.push_back({true, text.substr(begin, end - begin)});
}

void source::read_all(input &from)
{
    auto known = std::make_shared<connection>(from.facts());
    if (options_.by_arrival) known->is_live = true;
    std::deque<frame> collected;
    bool is_at_edge = !known->is_live;
    for (;;) {
        const auto begun = steady::now();
        if (name_.is_connection) patience_.until(begun + options_.timeout);
        {
            const std::lock_guard lock(mutex_);
            reading_since_ = begun;
        }
        std::optional<frame> next;
        try {
            next = from.read();
        } catch (...) {
            publish(std::move(collected));
            throw;
        }
        if (!next) return publish(std::move(collected));
        next->from = known;
        if (options_.by_arrival) next->time = std::chrono::nanoseconds(next->arrival.time_since_epoch()).count();
        if (collected.empty() && options_.by_arrival && !is_at_edge) known->start = next->time;
        if (!is_at_edge) {
            known->edge_time = next->time;
            known->edge_arrival = next->arrival;
            is_at_edge = next->arrival - begun >= a_wait || collected.size() >= most_collected;
        }
        collected.push_back(std::move(*next));
        if (is_at_edge) publish(std::exchange(collected, {}));
    }
}

void source::publish(std::deque<frame> frames)
{
    std::unique_lock lock(mutex_);
    reading_since_.reset();
    if (frames.empty()) return;
    if (std::exchange(is_silent_, false) || lost_at_) {
        const double away = lost_at_ ? in_seconds(steady::now() - *lost_at_) : in_seconds(steady::now() - last_frame_);
        notices_.push_back(
            {false, name_.shown +
                        (counts_.connections > 1 || !lost_at_ ? print(" is back after %.1f s", away) : " is there")});
        lost_at_.reset();
        reported_.clear();
        waker_.wake();
    }
    for (frame &each : frames) {
        changed_.wait(lock, [this] { return cancelled_ || !is_full(); });
        queued_bytes_ += static_cast<size_t>(each.packet->size);
        frames_.push_back(std::move(each));
        last_frame_ = steady::now();
        waker_.wake();
    }
}

void source::set_state(source_state state)
{
    const std::lock_guard lock(mutex_);
    state_ = state;
    last_frame_ = steady::now();
    reading_since_ = last_frame_;
    if (state == source_state::reading) ++counts_.connections;
    waker_.wake();
}

void source::report_loss(const outcome &loss)
{
    const std::lock_guard lock(mutex_);
    state_ = source_state::opening;
    reading_since_.reset();
    if (!lost_at_) lost_at_ = loss.was_silent ? last_frame_ : steady::now();
    if (loss.was_silent) ++counts_.stalls;
    if (reported_ != loss.why && !is_silent_) { // else it was reported
        reported_ = loss.why;
        notices_.push_back({true, loss.why + (loss.was_silent ? "" : "; it is tried again until it is there")});
    }
    waker_.wake();
}

/* False when it was cancelled meanwhile. */
bool source::rest(std::chrono::milliseconds pause)
{
    std::unique_lock lock(mutex_);
    return !changed_.wait_for(lock, pause, [this] { return cancelled_.load(); });
}

bool source::is_full() const
{
    return frames_.size() >= most_queued_frames || queued_bytes_ >= most_queued_bytes;
}

source_state source::state() const
{
    const std::lock_guard lock(mutex_);
    return state_;
}

source_counts source::counts() const
{
    const std::lock_guard lock(mutex_);
    return counts_;
}

std::string source::error() const
{
    const std::lock_guard lock(mutex_);
    return error_;
}

std::optional<source_notice> source::take_notice()
{
    const std::lock_guard lock(mutex_);
    if (notices_.empty()) return std::nullopt;
    source_notice oldest = std::move(notices_.front());
    notices_.pop_front();
    return oldest;
}

frame *source::front()
{
    const std::lock_guard lock(mutex_);
    return frames_.empty() ? nullptr : &frames_.front(); // a deque leaves it where it is while others are added
}

bool source::is_idle() const
{
    const std::lock_guard lock(mutex_);
    return state_ != source_state::reading && frames_.empty();
}

frame source::take()
{
    const std::lock_guard lock(mutex_);
    frame oldest = std::move(frames_.front());
    frames_.pop_front();
    queued_bytes_ -= static_cast<size_t>(oldest.packet->size);
    last_frame_ = steady::now();
    changed_.notify_all();
    return oldest;
}

bool source::has_looked_ahead() const
{
    const std::lock_guard lock(mutex_);
    if (state_ != source_state::reading || is_full()) return true;
    if (frames_.empty()) return false;
    const auto &streams = frames_.front().from->streams;
    for (size_t i = 0; i < streams.size(); ++i) {
        const auto queued = std::ranges::count(frames_, i, &frame::stream);
        if (streams[i].kind != codec::aac && queued < frames_to_look_ahead) return false;
    }
    return true;
}

std::optional<std::pair<std::shared_ptr<const connection>, size_t>> source::reordered() const
{
    const std::lock_guard lock(mutex_);
    const auto end = frames_.begin() + std::min(std::ssize(frames_), most_looked_at);
    const auto found = std::find_if(frames_.begin(), end, [](const frame &each) { return each.reordered; });
    if (found == end) return std::nullopt;
    return std::pair(found->from, found->stream);
}

steady::time_point source::last_frame() const
{
    const std::lock_guard lock(mutex_);
    return last_frame_;
}

std::optional<steady::time_point> source::away_since() const
{
    const std::lock_guard lock(mutex_);
    return lost_at_;
}

/* A connection that is open notices that itself, because it is closed then. */
std::optional<steady::time_point> source::notice_silence(steady::time_point now)
{
    const std::lock_guard lock(mutex_);
    if (!reading_since_ || is_silent_ || (name_.is_connection && state_ == source_state::reading)) return std::nullopt;
    const auto due = *reading_since_ + options_.timeout;
    if (now < due) return due;
    is_silent_ = true;
    const bool is_open = state_ == source_state::reading;
    if (!is_open && lost_at_) return std::nullopt; // which was reported
    counts_.stalls += is_open;
    notices_.push_back({true, no_data(options_.timeout, name_.shown,
                                      is_open || name_.is_connection ? "it is waited for; check that it sends"
                                                                     : "nothing writes to it; it is waited for")});
    return std::nullopt;
}

} // namespace tools
