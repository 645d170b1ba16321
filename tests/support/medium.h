/**
 * The calls with which a recorder touches the medium, and its allocations: tests hold them up, watch them and make them
 * fail. A program that uses this links `medium`, whose wrappers the linker puts before the system's functions.
 */
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <span>

#include <sys/uio.h>

/** Calls wait here while it is closed. */
class gate {
public:
    void close() { set(true); }
    void open() { set(false); }
    void pass();
    void await_someone();

private:
    void set(bool closed);
    std::mutex lock_;
    std::condition_variable moved_;
    bool closed_ = false;
    int waiting_ = 0;
};
extern gate &syncs, &writes;
extern std::atomic<int> failing_sync;  // errno of the next fdatasync
extern std::atomic<int64_t> free_room; // bytes; -1: what there is
extern std::atomic<long> system_type;  // magic number of the file system; 0: what it is

namespace medium {

enum call { writing, syncing, opening, unlinking, renaming, cutting, reserving, memory, kinds };
inline constexpr const char *call_names[] = {"write",  "sync",      "open",      "unlink",
                                             "rename", "ftruncate", "fallocate", "memory"};

struct operation {
    call what;
    int file;                           // or the directory of a name
    const char *name = nullptr;         // of open, unlink, rename
    const char *to = nullptr;           // of rename
    bool makes = false;                 // open: a file; or a directory, with is_directory
    bool is_directory = false;          // mkdir, rmdir
    std::span<const iovec> pieces = {}; // of write
    int64_t at = -1;                    // of write and ftruncate; -1: where the file stands
};

/** The call itself. */
class real_call {
public:
    template <class Call>
    real_call(Call &call)
        : call_(&call), make_([](void *of) { return static_cast<int64_t>((*static_cast<Call *>(of))()); })
    {
    }
    int64_t operator()() const { return make_(call_); }

private:
    void *call_;
    int64_t (*make_)(void *);
};

/** While it lives all calls go through it, from any thread; one at a time. */
class watch {
public:
    watch() { current = this; }
    virtual ~watch() { current = nullptr; }
    virtual int64_t carry_out(const operation &, real_call call) { return call(); }
    virtual bool allocates() { return true; }

    static inline std::atomic<watch *> current = nullptr;
};

/** Allocations of a thread count unless it says so: those of a test are its own, but for the calls of the recorder. */
inline thread_local bool is_own_memory = false;

/** Fails the nth call of a kind, alone or with all that follow. */
class failing : public watch {
public:
    struct plan {
        call kind = memory;
        long nth = -1; // from 0; -1: none
        bool forever = false;
        int error = 0;
    };
    explicit failing(plan orders) : orders_(orders) {}
    int64_t carry_out(const operation &, real_call call) override;
    bool allocates() override { return !fails(memory); }
    bool has_hit() const { return has_hit_; }
    void lift() { is_lifted_ = true; }

private:
    bool fails(call kind);

    const plan orders_;
    std::array<std::atomic<long>, kinds> made_ = {};
    std::atomic<bool> has_hit_ = false, is_lifted_ = false;
};

} // namespace medium
