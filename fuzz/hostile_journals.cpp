/**
 * Feeds the journal target, or with PLAN the one of recovery's plan, with journals that mean harm: hostile-journals COUNT
 * [SEED]. First every field of every record at its extremes, beside media of several sizes; then COUNT journals that are
 * mutated or made up.
 */
#include <iomanip>
#include <iterator>
#include <random>
#include <sstream>
#include <utility>

#include <mediafiles/caretaker.h>

#include "fuzz.h"

namespace {

struct field {
    size_t at, width;
};

/** A good journal: three tracks with their parameter sets, a record of the application, six samples. */
const struct good_journal {
    bytes content = joined(
        {::records("avc aac hevc"), hex("07000400 6742c01e 08000400 68ce3c80 06020400 40010c01 09020400 4e010105"),
         hex("00090400 07000000"),
         ::records("m0:32,20,1,32000,0 m1:52,21,1,52000,1 m2:73,22,2,73000,0 m0:95,20,3,95000,0 m1:115,21,3,115000,1 "
                   "m0:136,20,4,136000,0")});
    std::vector<field> fields;
    std::vector<bytes> records;

    good_journal()
    {
        for (size_t at = 0, end; at < content.size(); at = end) {
            end = at + 4 + content[at + 2];
            records.emplace_back(content.begin() + ptrdiff_t(at), content.begin() + ptrdiff_t(end));
            for (const unsigned width : {1u, 1u, 2u}) fields.push_back({std::exchange(at, at + width), width});
            for (; at < end; at += 4) fields.push_back({at, 4});
        }
    }
} good;

/** Kinds, lengths and places, types, times. */
const std::vector<uint32_t> extremes = [] {
    std::istringstream in(
        "0 1 2 3 4 5 7 8 9 10 15 16 17 23 24 25 31 32 33 52 53 127 128 255 256 505 508 509 512 0x101 0x102 "
        "0x201 0x8101 0x7FFF 0x8000 0xFFFF 999999999 1000000000 0x7FFFFFFF 0x80000000 0xDFFFFFDE 0xDFFFFFFF "
        "0xE0000000 0xFFFFFFE0 0xFFFFFFFF ");
    return std::vector<uint32_t>(std::istream_iterator<uint32_t>(in >> std::setbase(0)), {});
}();

std::mt19937 engine; // the same numbers everywhere, unlike the distributions

const auto any = [](size_t limit) { return static_cast<uint32_t>(engine() % limit); };
const auto any_of = [](const auto &list) -> const auto &
{
    return list[any(std::size(list))];
};

void set(bytes &journal, field where, uint32_t value)
{
    for (size_t i = 0; i < where.width && where.at + i < journal.size(); i++)
        journal[where.at + i] = static_cast<uint8_t>(value >> 8 * i);
}

void run(const bytes &journal, size_t media)
{
#ifdef PLAN // any options, a recording's head, and after it the units of the good samples
    const bytes head = {static_cast<uint8_t>(any(256)), 1, static_cast<uint8_t>(journal.size()),
                        static_cast<uint8_t>(journal.size() >> 8)},
                units = hex("00000010 65 00*36 00000012 26 00*17 00000010 65 00*37 00000010 65 00*500"),
                input = joined({head, journal, first(units, media)});
#else
    const bytes size = {static_cast<uint8_t>(media), static_cast<uint8_t>(media >> 8)}, input = joined({size, journal});
#endif
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
