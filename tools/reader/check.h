/** The second half of the reader: what the boxes of a file say together. */
#ifndef TOOLS_READER_CHECK_H
#define TOOLS_READER_CHECK_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/reader/byte-source.h"

namespace mp4 {

constexpr uint64_t max_samples = 1 << 25; // of all tracks

/** The first box of that type, however deep, or nullptr. */
const box *find(const std::vector<box> &boxes, const std::string &type);

/** Joins the tables of each track into samples, and holds the whole file against itself. */
void check(byte_source &, file &);

} // namespace mp4

#endif
