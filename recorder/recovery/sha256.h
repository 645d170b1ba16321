/** SHA-256, FIPS 180-4. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace mediafiles::recovery {

class sha256 {
public:
    void add(const void *bytes, size_t count);
    /** 64 hexadecimal digits; nothing can be added afterwards. */
    std::string digits();

private:
    void add_block(const uint8_t *block);

    uint32_t state_[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                          0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    uint64_t length_ = 0; // bytes
    uint8_t pending_[64]; // length_ % 64 of them
};

} // namespace mediafiles::recovery
