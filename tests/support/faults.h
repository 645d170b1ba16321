/**
 * Fault injection: system calls and allocations of the code under test pass through wrappers that count them and can
 * make them fail; the logger is replaced by one that keeps its lines. A program that uses this is linked with the
 * static library, faults.cpp and -Wl,--wrap=NAME for malloc, calloc, realloc, free, write, writev, read, fsync, lseek,
 * lseek64, posix_fadvise, posix_fadvise64, open, open64, close, fstat, fstat64, ftruncate and ftruncate64. What lies in
 * shared libraries (operator new, pread, stdio) is not touched: tests use it freely meanwhile.
 */
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace faults {

using lines = std::vector<std::string>;
extern lines log_lines; // the logger's, each after its level: "5 text\n"

/** Forgets the lines, and switches levels 4, 5 and 8 on but for one. */
void log_all_but(int level);

/** Of lines those whose levels are on. */
lines logged(lines all);

enum call { memory, output, seeking, advice, input, opening, syncing, sizing, cutting, kinds }; // output: write, writev

struct plan {
    call kind = memory;
    long nth = -1;         // the call that fails, from 0; -1: none
    bool forever = false;  // and every later one
    int error = 0;         // errno of the failure; 0: the call does not fail, but moves half of its bytes
    size_t cut = 0;        // bytes that one read or write moves at most; 0: no limit
    bool spoil = false;    // free, close and the logger leave errno at EDOM
    bool pretend = false;  // the call that is not made claims success
    bool torn = false;     // the call before the one that fails moves half of its bytes
    bool harmless = false; // no call has to report the failure
    long room = -1;        // bytes that all writes together take before they fail with ENOSPC; -1: any number
};

/** Counts, and fails calls as planned, while it lives; one at a time. */
struct injection {
    explicit injection(const plan &plan = {}) : orders(plan) { current = this; }
    ~injection() { current = nullptr; }

    static inline injection *current = nullptr;
    plan orders;
    std::function<void(int, size_t)> wrote; // called with a descriptor and how many bytes it has just taken
    bool hit = false;                       // the planned failure took place, or without one the medium was full
    long made[kinds] = {};                  // calls, failed ones included
    int cause = 0;                          // errno of the first failure that is not harmless
    long made_then[kinds] = {};             // calls up to the latest of them
    long held = 0;                          // blocks allocated and not yet freed
    size_t largest_growth = 0;              // bytes of the largest realloc of a block that existed
};

/** While it lives nothing is counted, and nothing fails. */
struct pause {
    pause() : interrupted(std::exchange(injection::current, nullptr)) {}
    ~pause() { injection::current = interrupted; }

private:
    injection *const interrupted;
};

} // namespace faults
