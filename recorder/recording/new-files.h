/**
 * The two files of a recording: made under names that are free, or in place of
 * an older recording. The older one goes last: when both new files have been
 * made and are locked, they are renamed over the old ones.
 */
#pragma once

#include <cstdint>
#include <string>

#include "safe-file.h"

namespace mediafiles::recorder {

/**
 * Whether the names of a recording and of its journal are free, or may be replaced. Throws recovery::obstacle with
 * what mediafiles_recorder_start reports.
 *
 * @param name  of the media, below the directory
 */
void check_names(int directory, const std::string &name, bool replaces);

struct new_files {
    recovery::descriptor media, journal; // the media locked
};

/** @param mode  before umask. Throws like check_names, and what making a file fails with */
new_files make_files(int directory, const std::string &name, uint32_t mode, bool replaces);

} // namespace mediafiles::recorder
