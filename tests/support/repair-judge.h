/** A repair by the core, with all that it leaves held against the model of it. */
#pragma once

#include <functional>

#include <mediafiles/fix.h>

#include "repair-model.h"
#include "tools/reader/reader.h"

namespace model {

struct repaired {
    result due;
    bytes content = {}; // of the finished file; none when there is no success, or when it takes 16 MB
    mp4::file file = {};
};

/** Takes the name of a check and what it has found wrong. */
using complaint = std::function<void(const char *check, const std::string &what)>;
/** mp4_fix or mp4_fix2. */
using fixer = std::function<int(const char *file, const char *journal, mp4_fix_callback, mp4_fix_info *)>;

/**
 * Repairs a file that holds the media, or with_file=false the journal alone. No descriptor stays open; without success
 * the head alone changes; with it every sample lies where the journal says, no media byte before the end changes, and
 * the movie header follows.
 */
repaired judge(const fixer &fix, int version, const journal &content, std::span<const uint8_t> stored,
               std::span<const uint8_t> media, bool with_file, const complaint &complain);

} // namespace model
