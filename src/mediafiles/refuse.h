// How a function fails by its own decision.
#pragma once

#include <cerrno>

namespace mediafiles {

// Kept out of the way of what succeeds.
[[gnu::cold, gnu::noinline]] inline void set_errno(int error)
{
    errno = error;
}

inline int refuse(int error)
{
    set_errno(error);
    return -1;
}

} // namespace mediafiles
