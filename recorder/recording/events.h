/** What has happened, until the caller takes it. Any thread adds; one takes. */
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>

#include <mediafiles/recorder.h>

#include "safe-file.h"

namespace mediafiles::recorder {

/** An event without its path; see mediafiles_recorder_event. */
struct happening {
    uint32_t kind;
    uint32_t track = 0;
    uint32_t result = 0, reason = 0;
    int32_t error = 0;
    uint64_t number = 0, count = 0;
    int64_t from = 0, to = 0;
};

class event_list {
public:
    event_list();

    /** Keeps the latest ones where nobody takes them; for want of memory, the earlier ones. */
    void add(const happening &what, std::string_view path) noexcept;
    /** Nothing follows; the descriptor stays readable. */
    void end() noexcept;

    int descriptor() const { return descriptor_; }
    /** As mediafiles_recorder_next_event. */
    bool take(mediafiles_recorder_event &to, int32_t timeout_ms);

private:
    struct kept {
        happening what;
        std::string path;
    };
    void signal() noexcept;

    std::mutex lock_;
    std::condition_variable wake_;
    std::deque<kept> waiting_;
    std::string path_; // of the event that was taken last
    uint64_t lost_ = 0;
    bool has_ended_ = false;
    recovery::descriptor descriptor_;
};

} // namespace mediafiles::recorder
