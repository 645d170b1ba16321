/**
 * A lock, and the sleep of one thread which others end: what std::mutex and
 * std::condition_variable do for many purposes, for a part of their price. The
 * lock is held for every call of the sleeper but the two that reach the kernel,
 * `sleep` and `wake`.
 *
 *     await: lock; while (!due) { lie_down; unlock; sleep; lock; get_up }
 *     other: lock; make due; const bool wakes = call(); unlock; if (wakes) wake
 */
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace mediafiles::recorder {

/** A word that the kernel lets threads of this process wait for (futex(2)). */
class futex {
public:
    std::atomic<uint32_t> value = 0;

    /** While it has that value; `max` is for ever. Returns for no reason as well. */
    void wait(uint32_t expected, std::chrono::steady_clock::time_point until) // CLOCK_MONOTONIC, by which it counts
    {
        const int64_t ns = std::chrono::nanoseconds(until.time_since_epoch()).count();
        const int64_t seconds = std::min<int64_t>(ns / 1'000'000'000, std::numeric_limits<word>::max());
        const timespec_of_kernel time = {static_cast<word>(seconds), static_cast<word>(ns % 1'000'000'000)};
        const bool ends = until != std::chrono::steady_clock::time_point::max();
        syscall(number, &value, FUTEX_WAIT_BITSET_PRIVATE, expected, ends ? &time : nullptr, nullptr,
                FUTEX_BITSET_MATCH_ANY);
    }
    void wake_one() { syscall(number, &value, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0); }

private:
    /* What the kernel takes has nothing to do with the width of time_t. */
#ifdef SYS_futex
    static constexpr long number = SYS_futex;
    using word = long;
#else
    static constexpr long number = SYS_futex_time64;
    using word = int64_t;
#endif
    struct timespec_of_kernel {
        word seconds, nanoseconds;
    };
    static_assert(sizeof value == sizeof(uint32_t) && std::atomic<uint32_t>::is_always_lock_free);
};

/** For std::lock_guard and std::unique_lock. */
class light_lock {
public:
    void lock()
    {
        uint32_t found = is_free;
        if (state_.value.compare_exchange_strong(found, is_taken, std::memory_order_acquire)) return;
        while (state_.value.exchange(is_awaited, std::memory_order_acquire) != is_free)
            state_.wait(is_awaited, std::chrono::steady_clock::time_point::max());
    }
    void unlock()
    {
        if (state_.value.exchange(is_free, std::memory_order_release) == is_awaited) state_.wake_one();
    }

private:
    static constexpr uint32_t is_free = 0, is_taken = 1, is_awaited = 2;
    futex state_;
};

class sleeper {
public:
    using clock = std::chrono::steady_clock;

    void lie_down() { sleeps_.value.store(1, std::memory_order_relaxed); }

    /** Until it is called, or for no reason; `max` is for ever. @return false when the time has come */
    bool sleep(clock::time_point until)
    {
        if (!is_called()) sleeps_.wait(1, until);
        return until == clock::time_point::max() || is_called() || clock::now() < until;
    }

    void get_up() { sleeps_.value.store(0, std::memory_order_relaxed); }

    /** @return whether it sleeps: then wake is due, once the lock is free */
    bool call()
    {
        if (is_called()) return false;
        sleeps_.value.store(0, std::memory_order_relaxed);
        return true;
    }
    void wake() { sleeps_.wake_one(); }

private:
    bool is_called() const { return sleeps_.value.load(std::memory_order_relaxed) == 0; }

    futex sleeps_;
};

} // namespace mediafiles::recorder
