// Failing with an errno of the function's own choice.
#pragma once

#include <cerrno>

namespace mediafiles {

// Separate, so that the common path saves no registers.
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
