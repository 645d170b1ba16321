/** The journals of tests, results as errors, sample tables as numbers. */
#pragma once

#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>
#include <sstream>

#include <mediafiles/builder.h>
#include <mediafiles/caretaker.h>
#include <mediafiles/support/array-stream.h>

#include "hex.h"

/**
 * A journal, a word for each record:
 *
 *     avc hevc aac raw unknown   a track of 640 x 16 or 48000 Hz; raw is H.264 in samples as they are stored
 *     m0:32,9,5                  a sample of track 0 that is stored: offset, size, second; may go on with nanosecond
 *                                (500) and key flag (1)
 *     p0:5  s0:9                 a sample of second 5 that is accepted; the size of one
 *     c0:32,1  w0:32,9           a chunk of one sample at offset 32; a sample that is written at 32
 *     7/508/0                    a record of kind 7 with 508 bytes of A5, of track 0; else of track 255
 */
inline bytes records(const std::string &text)
{
    static const std::map<std::string, uint32_t> codecs = {
        {"avc", 0x101}, {"hevc", 0x102}, {"aac", 0x201}, {"raw", 0x8101}, {"unknown", 0x103}};
    bytes all;
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        const auto codec = codecs.find(word);
        unsigned kind = MEMENTO_TRACK, length = 16, track = 255;
        std::vector<long long> fields;
        if (codec != codecs.end()) {
            fields = {codec->second, 640, 16, 48000}, track = 0;
        } else if (sscanf(word.c_str(), "%u/%u/%u", &kind, &length, &track) < 2) {
            long long a = 0, b = 0, c = 0, nanosecond = 500, key = 1;
            sscanf(word.c_str() + 1, "%u:%lli,%lli,%lli,%lli,%lli", &track, &a, &b, &c, &nanosecond, &key);
            kind = static_cast<unsigned>(std::string("??mscwp").find(word[0]));
            if (word[0] == 'p') kind = MEMENTO_SAMPLE, c = a, a = 77, b = 0; // the offset does not matter yet
            fields = {a, b, c, c >> 32, nanosecond, key};
            fields.resize(kind == MEMENTO_SAMPLE ? 6 : kind == MEMENTO_SAMPLE_SIZE ? 1 : 2);
            length = static_cast<unsigned>(4 * fields.size());
        }
        const size_t end = all.size() + 4 + length;
        fields.insert(fields.begin(), kind | track << 8 | length << 16);
        for (const long long field : fields)
            for (int shift = 0; shift < 32; shift += 8) all.push_back(static_cast<uint8_t>(field >> shift));
        all.resize(end, 0xA5);
        all.resize((end + 3) & ~size_t{3}); // padded with zeros
    }
    return all;
}

/** 0 for a result that is no failure, else the errno that came with -1. */
inline constexpr auto error_of = [](int result) { return result >= 0 ? 0 : result == -1 && errno != 0 ? errno : -1; };

/** An owner that calls the object's own destroy. */
template <auto Destroy>
struct destroy_by {
    void operator()(auto *object) const { Destroy(object); }
};
using journal_ptr = std::unique_ptr<mediafile_caretaker, destroy_by<mediafile_caretaker_destroy>>;
struct builder_destroy {
    void operator()(mp4_builder *builder) const { builder->destroy(builder); }
};
using builder_ptr = std::unique_ptr<mp4_builder, builder_destroy>;

/** Adds records, whatever becomes of each; the first error. */
inline int add(const journal_ptr &journal, const std::string &text)
{
    const bytes all = records(text);
    int first = 0;
    for (size_t at = 0; at < all.size(); at += (7 + (all[at + 2] | size_t{all[at + 3]} << 8)) & ~size_t{3}) {
        errno = 0;
        const int error = error_of(mediafile_caretaker_add(journal.get(), reinterpret_cast<const memento *>(&all[at])));
        if (first == 0) first = error;
    }
    return first;
}

/** The bytes that the journal has stored since it was drained last. */
inline bytes drain(const journal_ptr &journal)
{
    uint32_t count = 0;
    const auto *data = static_cast<const uint8_t *>(mediafile_caretaker_read(journal.get(), &count));
    return data ? bytes(data, data + count) : bytes();
}

/** The big-endian numbers of a sample table. */
inline std::vector<uint32_t> numbers(array_stream *table)
{
    std::vector<uint32_t> all;
    const uint32_t size = array_stream_element_size(table);
    for (uint32_t at = 0; at < array_stream_length(table) * size; at += 4) {
        const auto *be = static_cast<const uint8_t *>(array_stream_index(table, at / size)) + at % size;
        all.push_back(uint32_t{be[0]} << 24 | uint32_t{be[1]} << 16 | uint32_t{be[2]} << 8 | be[3]);
    }
    return all;
}
