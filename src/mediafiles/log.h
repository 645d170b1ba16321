// Diagnostics. Callers check the level first, so that a line that is off costs
// nothing more.
#pragma once

#include <mediafiles/support/log.h>

namespace mediafiles {

constexpr int log_warning = 4;
constexpr int log_failure = 5;

inline bool log_enabled(int level)
{
    return __logLevels[16 * level + 15] != 0;
}

} // namespace mediafiles
