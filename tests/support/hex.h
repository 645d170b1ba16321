/** Bytes in tests: spelled, random, overlaid. */
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

using bytes = std::vector<uint8_t>;

/**
 * Hex digits; 'letters'; 00*4 for a byte four times; A0+4 for A0 A1 A2 A3, beginning again every 251 bytes; type( ... )
 * for a box with its size. A bracket too many is the end.
 */
inline bytes hex(const std::string &text)
{
    bytes out;
    std::vector<size_t> boxes; // where they begin
    for (size_t at = 0, used = 1; at < text.size(); at += used) {
        const char mark = text[at];
        if (used = 1; mark == '\'') {
            used = text.find('\'', at + 1) + 1 - at;
            out.insert(out.end(), &text[at + 1], &text[at + used - 1]);
        } else if (mark == '*' || mark == '+') {
            const size_t count = std::stoul(text.substr(at + 1), &used), first = out.back();
            for (size_t i = 1; i < count; i++) out.push_back(static_cast<uint8_t>(first + (mark == '*' ? 0 : i % 251)));
            if (used++ > 4) std::abort(); // digits that belong to what follows
        } else if (at + 4 < text.size() && text[at + 4] == '(') {
            boxes.push_back(out.size());
            out.resize(out.size() + 4);
            out.insert(out.end(), &text[at], &text[at + 4]);
            used = 5;
        } else if (mark == ')') {
            if (boxes.empty()) break;
            for (size_t i = 0, size = out.size() - boxes.back(); i < 4; i++)
                out[boxes.back() + i] = static_cast<uint8_t>(size >> (24 - 8 * i));
            boxes.pop_back();
        } else if (mark != ' ') {
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
inline std::string dump(const std::string &text)
{
    return dump(hex(text));
}

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

inline bytes first(const bytes &all, size_t count)
{
    return bytes(all.begin(), all.begin() + static_cast<ptrdiff_t>(std::min(count, all.size())));
}

inline bytes with(bytes all, size_t at, const bytes &data)
{
    overlay(all, at, data);
    return all;
}

inline bytes joined(std::initializer_list<bytes> parts)
{
    bytes all;
    for (const bytes &part : parts) overlay(all, all.size(), part);
    return all;
}

/** The NAL units of an Annex-B stream, each after its length of 4 bytes, found by the plainest search. */
inline bytes sized_units(const bytes &stream)
{
    bytes out;
    const auto ends = [&](size_t at) { // a unit: before 0 0 0 or 0 0 1
        return at + 3 <= stream.size() && !stream[at] && !stream[at + 1] && stream[at + 2] <= 1;
    };
    for (size_t at = 0; at + 3 <= stream.size(); at++) {
        if (!ends(at) || stream[at + 2] != 1) continue;
        size_t end = at + 3;
        while (end < stream.size() && !ends(end)) end++;
        while (stream[end - 1] == 0) end--;
        for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t((end - at - 3) >> shift));
        out.insert(out.end(), stream.begin() + ptrdiff_t(at) + 3, stream.begin() + ptrdiff_t(end));
        at = end - 1;
    }
    return out;
}
