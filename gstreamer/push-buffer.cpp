#include "push-buffer.h"

#include <array>
#include <cerrno>

#include <sys/uio.h>

namespace mediafiles::gstreamer {

namespace {

constexpr guint most_memories = 16; // of a buffer

/* The bytes of a buffer, where they lie. */
class mapped_buffer {
public:
    explicit mapped_buffer(GstBuffer *buffer)
    {
        const guint all = gst_buffer_n_memory(buffer);
        while (mapped_ < all && mapped_ < most_memories) {
            GstMapInfo &map = maps_[mapped_];
            if (!gst_memory_map(gst_buffer_peek_memory(buffer, mapped_), &map, GST_MAP_READ)) break;
            pieces_[mapped_++] = {map.data, map.size};
        }
        is_whole_ = mapped_ == all;
    }
    ~mapped_buffer()
    {
        while (mapped_ > 0) {
            GstMapInfo &map = maps_[--mapped_];
            gst_memory_unmap(map.memory, &map);
        }
    }
    mapped_buffer(const mapped_buffer &) = delete;
    mapped_buffer &operator=(const mapped_buffer &) = delete;

    bool is_whole() const { return is_whole_; }
    const iovec *pieces() const { return pieces_.data(); }
    int count() const { return static_cast<int>(mapped_); }

private:
    std::array<GstMapInfo, most_memories> maps_;
    std::array<iovec, most_memories> pieces_;
    guint mapped_ = 0;
    bool is_whole_;
};

} // namespace

int push_buffer(mediafiles_recorder *to, uint32_t track, GstBuffer *buffer, int64_t time)
{
    const mapped_buffer mapped(buffer);
    if (mapped.is_whole()) return mediafiles_recorder_pushv(to, track, mapped.pieces(), mapped.count(), time, 0);
    errno = EIO;
    return -1;
}

} // namespace mediafiles::gstreamer
