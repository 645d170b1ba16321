#include "tools/record/access-unit.h"

#include <algorithm>

#include <mediafiles/caretaker.h>
#include <mediafiles/h264-parser.h>

namespace tools {

namespace {

constexpr unsigned most_units = 32;
constexpr size_t most_payload = MEMENTO_MAX_SIZE - sizeof(memento);

struct h264_rules {
    static constexpr uint32_t header_size = 1;
    static constexpr unsigned journaled_sei = ~0u; // none
    static unsigned type(const uint8_t *unit) { return unit[0] & 0x1Fu; }
    static bool runs_to_end(unsigned type) { return type == 1 || type == 5; }
    static bool is_key(unsigned type) { return type == 5; }
    static bool resets_order(unsigned type) { return type == 5; }
};

struct h265_rules {
    static constexpr uint32_t header_size = 2;
    static constexpr unsigned journaled_sei = 39; // prefix SEI
    static unsigned type(const uint8_t *unit) { return (unit[0] >> 1) & 0x3Fu; }
    static bool runs_to_end(unsigned type) { return type == 1 || type == 19; }
    static bool is_key(unsigned type) { return type >= 16 && type <= 21; }
    static bool resets_order(unsigned type) { return type >= 16 && type <= 20; } // BLA and IDR, not CRA
};

struct start_code {
    uint32_t offset = 0;
    uint32_t length = 0; // 0: there is none
};

/* The search of H.264 serves both codecs. */
start_code find_start_code(std::span<const uint8_t> data)
{
    start_code code;
    h264_parser_find_start_code(data.data(), static_cast<uint32_t>(data.size()), &code.offset, &code.length);
    return code;
}

/*
 * Goes through the units as the library takes them and hands each to visit:
 * its type, where its start code begins, and where it begins and ends.
 */
template <class Rules>
verdict walk(std::span<const uint8_t> frame, auto visit)
{
    if (frame.empty()) return verdict::empty;
    const start_code first = find_start_code(frame);
    if (first.length == 0) return verdict::no_start_code;

    size_t code = first.offset;
    size_t begin = code + first.length;
    for (unsigned count = 1;; ++count) {
        const auto rest = frame.subspan(begin);
        if (rest.size() < Rules::header_size) return verdict::truncated_header;
        if (count > most_units) return verdict::too_many_units;
        const unsigned type = Rules::type(rest.data());

        const start_code next = Rules::runs_to_end(type) ? start_code{} : find_start_code(rest);
        const size_t end = next.length != 0 ? begin + next.offset : frame.size();
        visit(type, code, begin, end);
        if (next.length == 0) return verdict::usable;
        code = end;
        begin = end + next.length;
    }
}

template <class Rules>
access_unit inspect(std::span<const uint8_t> frame)
{
    access_unit unit;
    unit.result = walk<Rules>(frame, [&unit](unsigned type, size_t, size_t begin, size_t end) {
        unit.key |= Rules::is_key(type);
        unit.resets |= Rules::resets_order(type);
        unit.long_sei |= type == Rules::journaled_sei && end - begin > most_payload;
        unit.stored_size += static_cast<uint32_t>(4 + end - begin);
    });
    return unit;
}

} // namespace

const char *name(verdict result)
{
    switch (result) {
    case verdict::usable:
        return "usable";
    case verdict::empty:
        return "it is empty";
    case verdict::no_start_code:
        return "it has no start code";
    case verdict::truncated_header:
        return "a NAL unit header is cut off";
    case verdict::too_many_units:
        return "it has more than 32 NAL units";
    case verdict::unreadable:
        return "its framing is broken";
    case verdict::other_format:
        return "its ADTS header does not fit the track";
    }
    return "";
}

access_unit inspect_h264(std::span<const uint8_t> frame)
{
    return inspect<h264_rules>(frame);
}
access_unit inspect_h265(std::span<const uint8_t> frame)
{
    return inspect<h265_rules>(frame);
}

size_t without_long_sei(std::span<uint8_t> frame)
{
    uint8_t *const data = frame.data();
    size_t looked_at = 0;
    size_t kept = 0;
    const auto keep_until = [&](size_t position) {
        std::copy(data + looked_at, data + position, data + kept);
        kept += position - looked_at;
    };
    walk<h265_rules>(frame, [&](unsigned type, size_t code, size_t begin, size_t end) {
        if (type != h265_rules::journaled_sei || end - begin <= most_payload) return;
        keep_until(code);
        looked_at = end;
    });
    keep_until(frame.size());
    return kept;
}

} // namespace tools
