// MPEG-4 Systems descriptors. Like a box, a descriptor begins with its size,
// which is filled in after the subtree is written. It always has the four-byte
// form, which has room for every size that can occur.

#include <cstddef>

#include <mediafiles/descriptor.h>
#include <mediafiles/stream.h>

#include "mediafiles/ownership.h"

namespace mediafiles {
namespace {

void make_empty(mp4_list *list)
{
    list->next = list->prev = list;
}

void unlink(mp4_list *node)
{
    node->prev->next = node->next;
    node->next->prev = node->prev;
    make_empty(node);
}

mp4_descriptor *node_of(mp4_list *link)
{
    return reinterpret_cast<mp4_descriptor *>(reinterpret_cast<char *>(link) - offsetof(mp4_descriptor, link));
}

// ISO/IEC 14496-1, 8.3.3: seven bits a byte, the top bit set on all but the last.
int write_size(uint32_t value, mp4_stream *stream)
{
    for (unsigned shift = 21;; shift -= 7) {
        const auto byte = static_cast<uint8_t>((shift > 0 ? 0x80 : 0) | ((value >> shift) & 0x7F));
        if (stream->write(stream, &byte, 1) != 0) return -1;
        if (shift == 0) return 0;
    }
}

} // namespace
} // namespace mediafiles

using namespace mediafiles;

mp4_descriptor *mp4_descriptor_create(uint32_t tag, uint32_t size)
{
    owned<mp4_descriptor, mp4_descriptor_destroy> node(create<mp4_descriptor>());
    if (!node) return nullptr;
    node->tag = tag;
    node->size = size;
    make_empty(&node->children);
    make_empty(&node->link);
    if (size > 0 && !(node->data = malloc(size))) return nullptr;
    return node.release();
}

void mp4_descriptor_destroy(mp4_descriptor *descriptor)
{
    while (descriptor->children.next != &descriptor->children) {
        mp4_list *first = descriptor->children.next;
        unlink(first);
        mp4_descriptor_destroy(node_of(first));
    }
    free(descriptor->data);
    free(descriptor);
}

void *mp4_descriptor_buf(mp4_descriptor *descriptor)
{
    return descriptor->data;
}

void mp4_descriptor_append(mp4_descriptor *parent, mp4_descriptor *child)
{
    mp4_list *head = &parent->children;
    child->link = {.next = head, .prev = head->prev};
    head->prev->next = &child->link;
    head->prev = &child->link;
}

int mp4_descriptor_write_to_stream(mp4_descriptor *descriptor, mp4_stream *stream)
{
    const auto tag = static_cast<uint8_t>(descriptor->tag);
    if (stream->write(stream, &tag, 1) != 0) return -1;
    const uint32_t size_position = stream->tell(stream);
    if (write_size(0, stream) != 0) return -1;
    const uint32_t start = stream->tell(stream);
    if (descriptor->data && stream->write(stream, descriptor->data, descriptor->size) != 0) return -1;
    for (mp4_list *link = descriptor->children.next; link != &descriptor->children; link = link->next)
        if (mp4_descriptor_write_to_stream(node_of(link), stream) != 0) return -1;

    const uint32_t end = stream->tell(stream);
    if (stream->seek(stream, size_position) != 0) return -1;
    if (write_size(end - start, stream) != 0) return -1;
    return stream->seek(stream, end) != 0 ? -1 : 0;
}
