/** Where the files of a recording are, by the location or the pattern that a user has set. */
#pragma once

#include <string>

namespace mediafiles::gstreamer {

struct place {
    std::string directory; // "." for the working directory
    std::string pattern;   // of the recorder, below the directory
};

/**
 * splitmuxsink's form: a path with exactly one %d or %0Nd, which is the number in at least one or N digits, 1 to 10.
 * Throws std::invalid_argument, whose text says what is wrong.
 */
place place_of_location(const std::string &location);

/** The recorder's own form, with a path before it. Fields may stand in names of directories, which the recorder makes. */
place place_of_pattern(const std::string &pattern);

} // namespace mediafiles::gstreamer
