/** What mediafiles_recover needs of applying a plan beyond the public functions. */
#pragma once

#include "safe-file.h"

namespace mediafiles::recovery {

struct place {
    int directory;
    const char *name;
};

/**
 * As mediafiles_apply_in_place, of a media file that must still be the one that
 * the plan was made of.
 *
 * @param journal  or nullptr
 */
void apply_in_place(const mediafiles_plan &, const place &media, const identity &expected, const place *journal,
                    bool keep);

/** The modification time of the recording, which an earlier repair may have changed: see apply.cpp. */
struct timespec time_of_recording(const mediafiles_plan &, const struct timespec &media, const struct timespec &journal,
                                  int directory);

} // namespace mediafiles::recovery
