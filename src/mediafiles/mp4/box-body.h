// The body of a box, composed big-endian in a local buffer and written once.
//
// The same code writes version 0 and version 1 of a box: time() writes 4 bytes
// in version 0 and 8 in version 1.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <span>

#include <mediafiles/stream.h>

#include "mediafiles/ownership.h"

namespace mediafiles {

// Four characters from a literal. A literal of another length does not compile.
struct fourcc {
    char chars[4];
    consteval fourcc(const char (&text)[5]) : chars{text[0], text[1], text[2], text[3]} {}
};

// Big-endian fields, one after another; Body::put takes a byte.
template <class Body>
class field_writer {
public:
    constexpr Body &u8(uint8_t value)
    {
        auto &body = static_cast<Body &>(*this);
        body.put(value);
        return body;
    }
    constexpr Body &u16(uint32_t value) { return u8(static_cast<uint8_t>(value >> 8)).u8(static_cast<uint8_t>(value)); }
    constexpr Body &u24(uint32_t value) { return u8(static_cast<uint8_t>(value >> 16)).u16(value); }
    constexpr Body &u32(uint32_t value) { return u16(value >> 16).u16(value); }
    constexpr Body &u64(uint64_t value)
    {
        return u32(static_cast<uint32_t>(value >> 32)).u32(static_cast<uint32_t>(value));
    }
    constexpr Body &text(fourcc value)
    {
        for (char c : value.chars) u8(static_cast<uint8_t>(c));
        return static_cast<Body &>(*this);
    }
    constexpr Body &zeros(uint32_t count)
    {
        while (count-- > 0) u8(0);
        return static_cast<Body &>(*this);
    }
    constexpr Body &bytes(std::span<const uint8_t> data)
    {
        for (uint8_t byte : data) u8(byte);
        return static_cast<Body &>(*this);
    }
};

// Durations beyond 31 bits need version 1.
constexpr uint8_t version_for(uint64_t duration)
{
    return duration > 0x7FFFFFFF;
}

template <uint32_t Capacity>
class box_body : public field_writer<box_body<Capacity>> {
public:
    constexpr box_body() = default;

    // A full box (ISO/IEC 14496-12, 4.2).
    constexpr box_body(uint8_t version, uint32_t flags) : wide(version != 0) { this->u8(version).u24(flags); }

    constexpr box_body &time(uint64_t value)
    {
        return wide ? this->u64(value) : this->u32(static_cast<uint32_t>(value));
    }

    constexpr void put(uint8_t byte) { buffer[used++] = byte; }
    constexpr const uint8_t *data() const { return buffer; }
    constexpr uint32_t size() const { return used; }

private:
    uint8_t buffer[Capacity] = {};
    uint32_t used = 0;
    bool wide = false;
};

// A body whose size is known only when it is written.
class heap_body : public field_writer<heap_body> {
public:
    // Check valid() before use: out of memory it is false, with errno ENOMEM.
    explicit heap_body(uint64_t capacity)
    {
        if (capacity > UINT32_MAX)
            errno = ENOMEM;
        else
            buffer.reset(static_cast<uint8_t *>(malloc(static_cast<size_t>(capacity))));
    }

    bool valid() const { return buffer != nullptr; }
    void put(uint8_t byte) { buffer.get()[used++] = byte; }
    const uint8_t *data() const { return buffer.get(); }
    uint32_t size() const { return used; }

private:
    owned_memory buffer;
    uint32_t used = 0;
};

inline int write_body(mp4_stream *stream, const auto &body)
{
    return stream->write(stream, body.data(), body.size()) ? -1 : 0;
}

} // namespace mediafiles
