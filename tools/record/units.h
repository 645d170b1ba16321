/** Times and sizes as people write them. */
#ifndef TOOLS_RECORD_UNITS_H
#define TOOLS_RECORD_UNITS_H

#include <cstdint>
#include <optional>
#include <string>

namespace tools {

/** 90, 90s, 500ms, 2m, 1h, 1:30, 00:01:30, also with a fraction and a sign; nanoseconds. */
std::optional<int64_t> time_of(const std::string &text);

/** 4096, 4K and 4KiB (4096), 4KB (4000), likewise M, G and T; bytes. */
std::optional<int64_t> size_of(const std::string &text);

} // namespace tools

#endif
