/**
 * Feeds the journal target with journals that mean harm: hostile-journals COUNT [SEED]. First every field of every
 * record at its extremes, beside media of several sizes; then COUNT journals that are mutated or made up.
 */
#include <random>

#include <mediafiles/caretaker.h>

#include "fuzz.h"

namespace {

struct field {
    size_t at, width;
};

/** A good journal: three tracks with their parameter sets, a record of the application, six samples. */
const struct good_journal {
    bytes content;
    std::vector<field> fields;
    std::vector<bytes> records;

    void add(uint32_t kind, uint32_t track, const std::vector<uint32_t> &words)
    {
        const size_t begin = content.size();
        const auto put = [this](uint32_t value, size_t width) {
            fields.push_back({content.size(), width});
            for (size_t i = 0; i < width; i++) content.push_back(static_cast<uint8_t>(value >> 8 * i));
        };
        put(kind, 1);
        put(track, 1);
        put(static_cast<uint32_t>(4 * words.size()), 2);
        for (const uint32_t word : words) put(word, 4);
        records.emplace_back(content.begin() + static_cast<ptrdiff_t>(begin), content.end());
    }
    good_journal()
    {
        for (const uint32_t type : {MP4_TRACK_H264, MP4_TRACK_AAC, MP4_TRACK_H265})
            add(MEMENTO_TRACK, 0, {type, 640, 16, 48000});
        add(MEMENTO_SPS, 0, {0x1EC04267});
        add(MEMENTO_PPS, 0, {0x803CCE68});
        add(MEMENTO_VPS, 2, {0x010C0140});
        add(MEMENTO_SEI, 2, {0x0501014E});
        add(MEMENTO_USER, 9, {7});
        uint32_t offset = 32;
        for (const uint32_t track : {0u, 1u, 2u, 0u, 1u, 0u}) {
            add(MEMENTO_SAMPLE, track, {offset, 20 + track, offset / 30, 0, offset * 1000, track & 1});
            offset += 20 + track;
        }
    }
} good;

/** Kinds, lengths and places, types, times. */
constexpr uint32_t extremes[] = {0,           1,
                                 2,           3,
                                 4,           5,
                                 7,           8,
                                 9,           10,
                                 15,          16,
                                 17,          23,
                                 24,          25,
                                 31,          32,
                                 33,          52,
                                 53,          127,
                                 128,         255,
                                 256,         505,
                                 508,         509,
                                 512,         0x101,
                                 0x102,       0x201,
                                 0x8101,      0x7FFF,
                                 0x8000,      0xFFFF,
                                 999'999'999, 1'000'000'000,
                                 0x7FFFFFFF,  0x80000000,
                                 0xDFFFFFDE,  0xDFFFFFFF,
                                 0xE0000000,  0xFFFFFFE0,
                                 0xFFFFFFFF};

std::mt19937 engine; // the same numbers everywhere, unlike the distributions

uint32_t any(size_t limit)
{
    return static_cast<uint32_t>(engine() % limit);
}

const auto &any_of(const auto &list)
{
    return list[any(std::size(list))];
}

void set(bytes &journal, field where, uint32_t value)
{
    for (size_t i = 0; i < where.width && where.at + i < journal.size(); i++)
        journal[where.at + i] = static_cast<uint8_t>(value >> 8 * i);
}

void run(const bytes &journal, size_t media)
{
    bytes input = {static_cast<uint8_t>(media), static_cast<uint8_t>(media >> 8)};
    input.insert(input.end(), journal.begin(), journal.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

bytes mutated()
{
    bytes journal = good.content;
    for (uint32_t changes = 1 + any(6); changes > 0; changes--) {
        const size_t at = any(journal.size() + 1);
        const auto place = journal.begin() + static_cast<ptrdiff_t>(at);
        const bytes &more = any_of(good.records);
        const uint32_t way = any(6);
        if (way == 0) set(journal, any_of(good.fields), any_of(extremes));
        if (way == 1) set(journal, any_of(good.fields), any(UINT32_MAX));
        if (way == 2) set(journal, {at, 1}, any(256));
        if (way == 3) journal.insert(place, any(9), static_cast<uint8_t>(any(256)));
        if (way == 4) journal.erase(place, journal.end() - any(journal.size() - at + 1) / 2);
        if (way == 5) journal.insert(journal.end(), more.begin(), more.end());
    }
    return journal;
}

/** Records of all kinds in any order, with lengths that are mostly right; or bytes alone. */
bytes made_up()
{
    bytes journal;
    for (uint32_t count = any(200); count > 0; count--) {
        bytes more = any_of(good.records);
        if (any(8) == 0) more.resize(4 * any(130));
        if (any(8) == 0) std::ranges::generate(more, [] { return static_cast<uint8_t>(any(256)); });
        if (any(4) == 0 && !more.empty()) more[any(more.size())] = static_cast<uint8_t>(any(256));
        journal.insert(journal.end(), more.begin(), more.end());
    }
    return journal;
}

} // namespace

int main(int argc, char **argv)
{
    const long count = argc > 1 ? atol(argv[1]) : 20000;
    const unsigned long seed = argc > 2 ? strtoul(argv[2], nullptr, 0) : 1;
    LLVMFuzzerInitialize(&argc, &argv);
    long tabled = 0;
    for (const size_t media : {size_t{100}, size_t{999}})
        for (const field &where : good.fields)
            for (const uint32_t value : extremes) {
                if (where.width < 4 && value >> 8 * where.width) continue;
                bytes journal = good.content;
                set(journal, where, value);
                run(journal, media);
                tabled++;
            }
    fprintf(stderr, "%ld journals with one field at an extreme, %ld mutated and made up, seed %lu\n", tabled, count,
            seed);
    for (long i = 0; i < count; i++) {
        engine.seed(static_cast<std::mt19937::result_type>(seed * 1'000'003 + static_cast<unsigned long>(i)));
        run(i % 4 ? mutated() : made_up(), any(400));
    }
    return 0;
}
