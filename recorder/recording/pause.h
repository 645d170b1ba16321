/**
 * Why nothing can be recorded now. Any thread begins a pause; the writing
 * thread then ends its files and lets go of the medium, and only after that
 * the syncing thread ends the pause.
 */
#pragma once

#include <atomic>
#include <mutex>

namespace mediafiles::recorder {

class pause {
public:
    enum reason { none, full, no_medium };

    reason why() const { return why_.load(); }

    /** @return whether it is news: that nothing is full any more does not matter once the medium is missing */
    bool begin(reason);
    /** The writing thread uses neither files nor the directory. @return whether that is news */
    bool let_go();
    bool is_let_go();
    void end();

private:
    std::mutex lock_; // around changes
    std::atomic<reason> why_ = none;
    bool is_let_go_ = false;
};

} // namespace mediafiles::recorder
