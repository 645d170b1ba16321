#include "sha256.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "window.h"

namespace mediafiles::recovery {

namespace {

/* FIPS 180-4, 4.2.2 */
constexpr uint32_t constants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

} // namespace

void sha256::add_block(const uint8_t *block)
{
    uint32_t w[64];
    for (size_t t = 0; t < 16; ++t) w[t] = be32(block + 4 * t);
    for (int t = 16; t < 64; ++t) {
        const uint32_t x = w[t - 15], y = w[t - 2];
        w[t] = w[t - 16] + (std::rotr(x, 7) ^ std::rotr(x, 18) ^ x >> 3) + w[t - 7] +
               (std::rotr(y, 17) ^ std::rotr(y, 19) ^ y >> 10);
    }
    auto [a, b, c, d, e, f, g, h] = state_;
    for (int t = 0; t < 64; ++t) {
        const uint32_t t1 =
            h + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25)) + ((e & f) ^ (~e & g)) + constants[t] + w[t];
        const uint32_t t2 = (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
        h = g, g = f, f = e, e = d + t1, d = c, c = b, b = a, a = t1 + t2;
    }
    const uint32_t add[] = {a, b, c, d, e, f, g, h};
    for (int i = 0; i < 8; ++i) state_[i] += add[i];
}

void sha256::add(const void *bytes, size_t count)
{
    const auto *next = static_cast<const uint8_t *>(bytes);
    while (count != 0) {
        const size_t held = length_ % sizeof pending_;
        if (held == 0 && count >= sizeof pending_) {
            add_block(next);
            next += sizeof pending_;
            count -= sizeof pending_;
            length_ += sizeof pending_;
            continue;
        }
        const size_t taken = std::min(count, sizeof pending_ - held);
        std::memcpy(pending_ + held, next, taken);
        if (held + taken == sizeof pending_) add_block(pending_);
        next += taken;
        count -= taken;
        length_ += taken;
    }
}

std::string sha256::digits()
{
    const uint64_t bits = length_ * 8;
    uint8_t end[72] = {0x80};
    const size_t zeros = (sizeof pending_ * 2 - 9 - length_ % sizeof pending_) % sizeof pending_;
    for (int i = 0; i < 8; ++i) end[1 + zeros + static_cast<size_t>(i)] = static_cast<uint8_t>(bits >> (56 - 8 * i));
    add(end, 1 + zeros + 8);
    std::string text;
    for (const uint32_t word : state_)
        for (int shift = 28; shift >= 0; shift -= 4) text += "0123456789abcdef"[word >> shift & 15];
    return text;
}

} // namespace mediafiles::recovery
