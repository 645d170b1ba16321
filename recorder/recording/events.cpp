#include "events.h"

#include <cerrno>
#include <chrono>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

namespace mediafiles::recorder {

namespace {

constexpr size_t most_waiting = 256;

} // namespace

event_list::event_list() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (!descriptor_.is_open()) throw recovery::system_failure();
}

/* An eventfd is memory: this waits for nothing. It is written when the list stops being empty. */
void event_list::signal() noexcept
{
    const uint64_t one = 1;
    const int error = errno;
    while (write(descriptor_, &one, sizeof one) < 0 && errno == EINTR) {}
    errno = error;
}

void event_list::add(const happening &what, std::string_view path) noexcept
{
    const std::lock_guard guard(lock_);
    const bool was_empty = waiting_.empty() && lost_ == 0;
    try {
        waiting_.push_back({what, std::string(path)});
        if (waiting_.size() > most_waiting) {
            waiting_.pop_front();
            ++lost_;
        }
    } catch (...) {
        ++lost_;
    }
    if (was_empty) signal();
    wake_.notify_one();
}

void event_list::end() noexcept
{
    const std::lock_guard guard(lock_);
    has_ended_ = true;
    signal();
    wake_.notify_all();
}

bool event_list::take(mediafiles_recorder_event &to, int32_t timeout_ms)
{
    std::unique_lock guard(lock_);
    const auto is_due = [this] { return !waiting_.empty() || lost_ != 0 || has_ended_; };
    if (timeout_ms < 0)
        wake_.wait(guard, is_due);
    else
        wake_.wait_for(guard, std::chrono::milliseconds(timeout_ms), is_due);
    to = {};
    path_.clear();
    if (lost_ != 0) {
        to.kind = MEDIAFILES_EVENT_LOST;
        to.count = std::exchange(lost_, 0);
    } else if (!waiting_.empty()) {
        const happening &what = waiting_.front().what;
        path_.swap(waiting_.front().path);
        to = {0,
              what.kind,
              what.track,
              what.result,
              what.reason,
              what.error,
              what.number,
              what.count,
              what.from,
              what.to,
              path_.empty() ? nullptr : path_.c_str()};
        waiting_.pop_front();
    } else {
        return false;
    }
    if (waiting_.empty() && !has_ended_) {
        uint64_t count;
        [[maybe_unused]] const ssize_t taken = read(descriptor_, &count, sizeof count);
    }
    return true;
}

} // namespace mediafiles::recorder
