/** The options of a recorder, checked and complete. */
#pragma once

#include <mediafiles/recorder.h>

#include "state.h"

namespace mediafiles::recorder {

/** Throws recovery::obstacle with EINVAL or ENOTSUP. */
settings complete(const mediafiles_recorder_options &given);

} // namespace mediafiles::recorder
