// A source seen through a window that moves: what is read stays until the
// window moves on. A 32-bit device has no room for a mapping of a whole file.
#pragma once

#include <cstdint>
#include <cstdlib>

#include <mediafiles/recovery.h>

namespace mediafiles::recovery {

inline uint32_t be16(const uint8_t *from)
{
    return uint32_t{from[0]} << 8 | from[1];
}

inline uint32_t be32(const uint8_t *from)
{
    return be16(from) << 16 | be16(from + 2);
}

inline void store_be32(uint8_t *to, uint32_t value)
{
    for (int i = 0; i < 4; ++i) to[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

// Whether so many bytes were read. What cannot be read is the end of a source.
inline bool read_all(const mediafiles_source &source, uint64_t offset, void *to, uint32_t count)
{
    uint32_t got = 0;
    while (got < count) {
        const int64_t n = source.read(source.context, offset + got, static_cast<uint8_t *>(to) + got, count - got);
        if (n <= 0) return false;
        got += static_cast<uint32_t>(n);
    }
    return true;
}

// Where what can be read ends: the whole source, unless its last byte cannot be read. A chain of clusters that is broken
// ends before the size of the file. A bad block before the end of what can be read ends nothing.
inline uint64_t readable_end(const mediafiles_source &source, uint64_t begin, uint64_t end)
{
    const auto ends_there = [&](uint64_t at) {
        uint8_t last;
        return at <= begin || read_all(source, at - 1, &last, 1);
    };
    uint64_t good = end, bad = end;
    for (uint64_t step = 512; !ends_there(good); step *= 2) {
        bad = good;
        good = good - begin > step ? good - step : begin;
    }
    while (bad - good > 1) {
        const uint64_t middle = good + (bad - good) / 2;
        (ends_there(middle) ? good : bad) = middle;
    }
    return good;
}

class window {
public:
    // A source without size gives nothing. The memory comes with the first look.
    window(const mediafiles_source &source, uint32_t capacity) : source_(source), capacity_(capacity) {}
    ~window() { free(buffer_); }
    window(const window &) = delete;
    window &operator=(const window &) = delete;

    const mediafiles_source &source() const { return source_; }

    // count bytes (at most the capacity) at offset, valid until the next call; NULL where they cannot be read.
    const uint8_t *view(uint64_t offset, uint32_t count)
    {
        if (offset > source_.size || count > source_.size - offset) return nullptr;
        if (!holds(offset, count)) move_to(offset);
        return holds(offset, count) ? buffer_ + (offset - begin_) : nullptr;
    }

    bool out_of_memory() const { return out_of_memory_; }

private:
    bool holds(uint64_t offset, uint32_t count) const
    {
        return offset >= begin_ && offset - begin_ <= length_ && count <= length_ - (offset - begin_);
    }

    void move_to(uint64_t offset)
    {
        length_ = 0;
        begin_ = offset;
        if (!buffer_ && !(buffer_ = static_cast<uint8_t *>(malloc(capacity_)))) {
            out_of_memory_ = true;
            return;
        }
        const uint64_t left = source_.size - offset;
        const uint32_t wanted = left < capacity_ ? static_cast<uint32_t>(left) : capacity_;
        while (length_ < wanted) {
            const int64_t n = source_.read(source_.context, offset + length_, buffer_ + length_, wanted - length_);
            if (n <= 0) return;
            length_ += static_cast<uint32_t>(n);
        }
    }

    mediafiles_source source_;
    uint32_t capacity_;
    uint8_t *buffer_ = nullptr;
    uint64_t begin_ = 0;  // offset of the buffer's first byte
    uint32_t length_ = 0; // bytes in the buffer
    bool out_of_memory_ = false;
};

} // namespace mediafiles::recovery
