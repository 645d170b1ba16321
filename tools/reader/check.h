/** The second pass of the reader: whether the boxes of a file agree. */
#ifndef TOOLS_READER_CHECK_H
#define TOOLS_READER_CHECK_H

#include <cstdint>

#include "tools/reader/byte-source.h"
#include "tools/reader/mp4-file.h"

namespace mp4 {

constexpr uint64_t max_samples = 1 << 25; // of all tracks

/** Joins the tables of each track into samples, and checks that all parts of the file agree. */
void check(byte_source &, file &);

} // namespace mp4

#endif
