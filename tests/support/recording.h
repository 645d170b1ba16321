/** Journal records as a person writes them, sample tables as text, results as errors. */
#pragma once

#include <cerrno>
#include <cstdio>
#include <memory>
#include <sstream>

#include <mediafiles/caretaker.h>
#include <mediafiles/support/array-stream.h>

#include "hex.h"

/**
 * Records, KIND TRACK : NUMBERS each. "p0:5" is a pending sample of second 5, "s0:9" its size, "c0:32,1" a chunk of one
 * at offset 32, "w0:32,9" a placed sample, "m0:32,9,5" what is stored of them. "7/508" is kind 7 with 508 bytes; a track may follow.
 */
inline bytes records(const std::string &text)
{
    bytes all;
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        unsigned track = 255, length = 0, kind = 0;
        long long a = 0, b = 0, c = 0;
        std::vector<long long> numbers;
        if (sscanf(word.c_str(), "%u/%u/%u", &kind, &length, &track) < 2) {
            sscanf(word.c_str() + 1, "%u:%lli,%lli,%lli", &track, &a, &b, &c);
            kind = static_cast<unsigned>(std::string("??mscwp").find(word[0]));
            if (word[0] == 'p') kind = MEMENTO_SAMPLE, c = a, a = 77, b = 0; // a pending sample's offset says nothing
            numbers = {a, b, c, c >> 32, 500, 1};
            numbers.resize(kind == MEMENTO_SAMPLE ? 6 : kind == MEMENTO_SAMPLE_SIZE ? 1 : 2);
            length = static_cast<unsigned>(4 * numbers.size());
        }
        const size_t end = all.size() + 4 + length;
        numbers.insert(numbers.begin(), kind | track << 8 | length << 16);
        for (const long long number : numbers)
            for (int shift = 0; shift < 32; shift += 8) all.push_back(static_cast<uint8_t>(number >> shift));
        all.resize(end, 0xA5);
        all.resize((end + 3) & ~size_t{3}); // padded with zeros
    }
    return all;
}

/** 0 for a result that is no failure, else the errno that came with -1. */
inline int error_of(int result) { return result >= 0 ? 0 : result == -1 && errno != 0 ? errno : -1; }

/** An owner that calls the object's own destroy. */
template <auto Destroy>
struct destroy_by { void operator()(auto *object) const { Destroy(object); } };
using journal_ptr = std::unique_ptr<mediafile_caretaker, destroy_by<mediafile_caretaker_destroy>>;

/** Appends records up to the first that is refused; its error. */
inline int add(const journal_ptr &journal, const std::string &text)
{
    const bytes all = records(text);
    int error = 0;
    for (size_t at = 0; at < all.size() && !error; at += (7 + (all[at + 2] | size_t{all[at + 3]} << 8)) & ~size_t{3})
        error = error_of(mediafile_caretaker_add(journal.get(), reinterpret_cast<const memento *>(&all[at])));
    return error;
}

/** The bytes that the journal has stored since it was drained last. */
inline bytes drain(const journal_ptr &journal)
{
    uint32_t count = 0;
    const auto *data = static_cast<const uint8_t *>(mediafile_caretaker_read(journal.get(), &count));
    return data ? bytes(data, data + count) : bytes();
}

/** The big-endian numbers of a table: "1 0 2 3600". */
inline std::string numbers(array_stream *table)
{
    std::string text;
    const uint32_t size = array_stream_element_size(table);
    for (uint32_t at = 0; at < array_stream_length(table) * size; at += 4) {
        const auto *be = static_cast<const uint8_t *>(array_stream_index(table, at / size)) + at % size;
        text += (text.empty() ? "" : " ") + std::to_string(be[0] << 24 | be[1] << 16 | be[2] << 8 | be[3]);
    }
    return text;
}
