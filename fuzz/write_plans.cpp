/**
 * In the place of a fuzz target: writes what the plan makes of each input to the file that the environment calls PLANS,
 * for those who have to come to the same elsewhere. The input is that of fuzz_plan.cpp. Six numbers of 32 bits, little-endian: options, result,
 * reason, bytes of the media, of the journal (all ones: there is none) and of the file that is made (all ones: it is
 * larger than 1 MiB); then these bytes.
 */
#include "fuzz.h"
#include "tests/support/planned.h"

namespace {

constexpr uint32_t none = UINT32_MAX;

void write(const void *data, size_t size)
{
    static FILE *const file = fopen(getenv("PLANS"), "wb");
    if (!file || fwrite(data, 1, size, file) != size) std::abort();
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const size_t length = std::min<size_t>(data[2] + data[3] * 256u, size - 4);
    const bytes journal(data + 4, data + 4 + length);
    bytes media = data[1] & 1 ? hex("00000018 'ftypmp42' 00*4 'mp42isom' 00000000 'mdat'") : bytes();
    media.insert(media.end(), data + 4 + length, data + size);
    const bool beside = !(data[1] & 2);
    planned::input from = {media}, log = {journal};
    const planned p(from, beside ? &log : nullptr, data[0], 1 << 20);
    const auto length_of = [](const bytes &b) { return static_cast<uint32_t>(b.size()); };
    const uint32_t head[] = {data[0],
                             p.info.result,
                             p.info.reason,
                             length_of(media),
                             beside ? length_of(journal) : none,
                             p.keeps() && p.file.empty() ? none : length_of(p.file)};
    write(head, sizeof head);
    write(media.data(), media.size());
    if (beside) write(journal.data(), journal.size());
    write(p.file.data(), p.file.size());
    return 0;
}
