/**
 * The sleep of one thread, which others end: what a condition variable does for
 * many, for a part of its price. The caller's mutex is held for every call but
 * the two that reach the kernel, `sleep` and `wake`.
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

class sleeper {
public:
    using clock = std::chrono::steady_clock; // CLOCK_MONOTONIC, which a futex counts by

    void lie_down() { sleeps_.store(1, std::memory_order_relaxed); }

    /** Until it is called, or for no reason; `max` is for ever. @return false when the time has come */
    bool sleep(clock::time_point until)
    {
        if (sleeps_.load(std::memory_order_relaxed) == 0) return true;
        const int64_t ns = std::chrono::nanoseconds(until.time_since_epoch()).count();
        const int64_t seconds = std::min<int64_t>(ns / 1'000'000'000, std::numeric_limits<word>::max());
        const timespec_of_kernel time = {static_cast<word>(seconds), static_cast<word>(ns % 1'000'000'000)};
        const bool ends = until != clock::time_point::max();
        syscall(number, &sleeps_, FUTEX_WAIT_BITSET_PRIVATE, 1, ends ? &time : nullptr, nullptr,
                FUTEX_BITSET_MATCH_ANY);
        return !ends || sleeps_.load(std::memory_order_relaxed) == 0 || clock::now() < until;
    }

    void get_up() { sleeps_.store(0, std::memory_order_relaxed); }

    /** @return whether it sleeps: then wake is due, once the mutex is free */
    bool call()
    {
        if (sleeps_.load(std::memory_order_relaxed) == 0) return false;
        sleeps_.store(0, std::memory_order_relaxed);
        return true;
    }
    void wake() { syscall(number, &sleeps_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0); }

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

    std::atomic<uint32_t> sleeps_ = 0;
    static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) && std::atomic<uint32_t>::is_always_lock_free);
};

} // namespace mediafiles::recorder
