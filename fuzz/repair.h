/** A repair, with all that it leaves held against the model of it. */
#pragma once

#include "fuzz.h"
#include "tests/support/repair-model.h"

namespace fuzz {

/**
 * Repairs a file that holds the media, by mp4_fix or mp4_fix2. No descriptor stays open; without success no byte after
 * the head changes; with it every sample lies where the journal says, and no media byte before the end changes.
 *
 * @return the finished file as the strict reader has it, when it is smaller than 1 MB; else one of size 0
 */
mp4::file check_repair(int version, const model::journal &content, std::span<const uint8_t> journal,
                       std::span<const uint8_t> media);

} // namespace fuzz
