/** Bytes in tests: spelled ("00000018 'ftyp' 00*4": hex digits, letters, so many of a byte), random, overlaid. */
#pragma once

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

using bytes = std::vector<uint8_t>;

inline bytes hex(const std::string &text)
{
    bytes out;
    for (size_t at = 0, used = 1; at < text.size(); at += used) {
        if (used = 1; text[at] == '\'') {
            used = text.find('\'', at + 1) + 1 - at;
            out.insert(out.end(), &text[at + 1], &text[at + used - 1]);
        } else if (text[at] == '*') {
            out.insert(out.end(), std::stoul(text.substr(at + 1), &used) - 1, uint8_t{out.back()});
            if (used++ > 4) std::abort(); // digits that belong to what follows
        } else if (text[at] != ' ') {
            out.push_back(static_cast<uint8_t>(std::stoul(text.substr(at, 2), &used, 16)));
            if (used != 2) std::abort();
        }
    }
    return out;
}

/** One form for what is expected and for what came out, so that a difference can be read. */
inline std::string dump(const bytes &data)
{
    std::string out;
    for (const uint8_t byte : data) out += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
    return out;
}
inline std::string dump(const std::string &text) { return dump(hex(text)); }

inline uint32_t below(size_t limit)
{
    static std::mt19937 random(1);
    return static_cast<uint32_t>(random() % limit);
}

inline bytes random_bytes(size_t length)
{
    bytes out(length);
    for (uint8_t &byte : out) byte = static_cast<uint8_t>(below(256));
    return out;
}

inline void overlay(bytes &all, size_t at, const bytes &data)
{
    if (all.size() < at + data.size()) all.resize(at + data.size());
    std::copy(data.begin(), data.end(), all.begin() + static_cast<ptrdiff_t>(at));
}
