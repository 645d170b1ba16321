/**
 * A strict reader of finished MP4 files, written from ISO/IEC 14496-12, -14 and -15.
 *
 * It judges what the library writes, so it shares no code with the library and
 * trusts nothing in the file: every size is checked against its parent,
 * every count against the bytes that are there. It returns what it can read;
 * faults are listed in file::problems. Movie fragments, composition offsets
 * (ctts) and compact sample sizes (stz2) are not read.
 */
#ifndef TOOLS_READER_READER_H
#define TOOLS_READER_READER_H

#include <cstdint>
#include <span>
#include <string>

#include "tools/reader/mp4-file.h"

namespace mp4 {

/**
 * Read a file, or the bytes of one. Neither throws: a file that cannot be
 * opened, is cut, damaged or hostile gives a file with problems. Of the
 * media bytes only the length prefixes of NAL units are read.
 */
file read(const std::string &path);
file read(std::span<const uint8_t> data);

} // namespace mp4

#endif
