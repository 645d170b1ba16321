// The search for Annex-B start codes, the same for H.264 and H.265.
#pragma once

#include <cstdint>

namespace mediafiles {

struct start_code {
    uint32_t offset; // of its first byte; without a code, the number of positions examined
    uint32_t length; // 3 or 4; 0 when there is none

    bool found() const { return length != 0; }
};

// The first 00 00 01, with one zero byte before it when there is one. No byte
// outside the data is read.
start_code find_start_code(const uint8_t *data, uint32_t len);

} // namespace mediafiles
