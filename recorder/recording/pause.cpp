#include "pause.h"

#include <utility>

namespace mediafiles::recorder {

bool pause::begin(reason why)
{
    const std::lock_guard guard(lock_);
    if (why <= why_) return false;
    why_ = why;
    return true;
}

bool pause::let_go()
{
    const std::lock_guard guard(lock_);
    return why_ != none && !std::exchange(is_let_go_, true);
}

bool pause::is_let_go()
{
    const std::lock_guard guard(lock_);
    return is_let_go_;
}

void pause::end()
{
    const std::lock_guard guard(lock_);
    why_ = none;
    is_let_go_ = false;
}

} // namespace mediafiles::recorder
