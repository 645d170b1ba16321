/** The bytes of an MP4 file and how fields are taken from them. */
#ifndef TOOLS_READER_BYTE_SOURCE_H
#define TOOLS_READER_BYTE_SOURCE_H

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <span>
#include <string>
#include <unistd.h>

#include "tools/reader/mp4-file.h"

namespace mp4 {

/**
 * The bytes of a file, seen through a window: all of it when it is in memory,
 * else what pread() brought last. It is not mapped, because a 32-bit process
 * has no address space for a whole recording.
 */
class byte_source {
public:
    explicit byte_source(std::span<const uint8_t> all) : size(all.size()), window(all) {}
    byte_source(int descriptor, uint64_t length) : size(length), fd(descriptor) {}

    /** @return count bytes (8 at most) at offset, valid until the next call; nullptr where the file has none */
    const uint8_t *view(uint64_t offset, size_t count)
    {
        if (offset > size || count > size - offset) return nullptr;
        if (!visible(offset, count)) load(offset);
        if (visible(offset, count)) return window.data() + (offset - window_begin);
        failed = true;
        return nullptr;
    }

    const uint64_t size;
    bool failed = false; // bytes that should be there could not be read

private:
    bool visible(uint64_t offset, size_t count) const
    {
        return offset >= window_begin && offset - window_begin <= window.size() &&
               count <= window.size() - (offset - window_begin);
    }
    void load(uint64_t offset)
    {
        size_t filled = 0;
        while (filled < buffer.size()) {
            const auto position = static_cast<off_t>(offset + filled);
            const ssize_t got = pread(fd, buffer.data() + filled, buffer.size() - filled, position);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            filled += static_cast<size_t>(got);
        }
        window = {buffer.data(), filled};
        window_begin = offset;
    }

    std::span<const uint8_t> window;
    uint64_t window_begin = 0;
    int fd = -1;
    std::array<uint8_t, 4096> buffer;
};

/** Takes fields from a part of the file. After its end it gives zeros and sets ran_out. */
class cursor {
public:
    cursor(byte_source &source, uint64_t first, uint64_t after) : at(first), end(after), in(source) {}

    uint64_t left() const { return end - at; }
    cursor part(uint64_t length)
    {
        if (length > left()) ran_out = true;
        cursor inner(in, at, at + std::min(length, left()));
        at = inner.end;
        return inner;
    }
    uint64_t be(size_t width)
    {
        const uint8_t *field = width <= left() ? in.view(at, width) : nullptr;
        ran_out |= !field;
        at = field ? at + width : end;
        uint64_t value = 0;
        for (size_t i = 0; field && i < width; i++) value = value << 8 | field[i];
        return value;
    }
    uint8_t u8() { return static_cast<uint8_t>(be(1)); }
    uint16_t u16() { return static_cast<uint16_t>(be(2)); }
    uint32_t u32() { return static_cast<uint32_t>(be(4)); }
    bytes take(uint64_t count)
    {
        bytes taken;
        cursor inner = part(count);
        while (inner.left()) taken.push_back(inner.u8());
        return taken;
    }
    std::string four()
    {
        const bytes taken = take(4);
        return std::string(taken.begin(), taken.end());
    }

    uint64_t at, end; // file offsets
    bool ran_out = false;

private:
    byte_source &in;
};

} // namespace mp4

#endif
