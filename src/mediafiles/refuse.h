// How a function fails by its own decision.
#pragma once

#include <cerrno>

namespace mediafiles {

inline int refuse(int error)
{
    errno = error;
    return -1;
}

} // namespace mediafiles
