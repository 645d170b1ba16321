// A growable array in blocks that never move.
//
// The first block holds the reserved elements and follows the record in
// memory. Each later block has the same power-of-two number of elements, so
// that an element is found by a shift and a mask. The addresses of the blocks
// are kept in pages. So growing never copies an element, and never asks the
// allocator for more than one block, however long the array is.

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <limits>

#include <mediafiles/support/array-stream.h>

struct array_stream {
    uint32_t element_size; // bytes
    uint32_t seek_length;  // elements, when the cursor was last set; writes may have passed it since
    uint32_t reserve;      // elements in the first block
    uint32_t shift;        // a later block holds 1 << shift elements
    uint32_t blocks;       // later blocks
    uint32_t pages;        // pages of block addresses
    uint32_t page_slots;   // room for pages
    uint8_t ***page;
    uint8_t *next; // the element at the cursor, while there is room
    uint32_t room; // elements from the cursor to the end of its block; 0: find_cursor looks for some
    uint32_t stop; // index of the room's end; the cursor is stop - room
};

namespace {

constexpr uint32_t block_bytes = 16384;
constexpr uint32_t blocks_per_page = 256;
constexpr uint32_t most_elements = std::numeric_limits<uint32_t>::max();
constexpr size_t header_size = (sizeof(array_stream) + alignof(max_align_t) - 1) & ~(alignof(max_align_t) - 1);

uint8_t *first_block(array_stream *array)
{
    return reinterpret_cast<uint8_t *>(array) + header_size;
}

// The index of the next element, 0 to length.
uint32_t cursor(const array_stream *array)
{
    return array->stop - array->room;
}

uint32_t length(const array_stream *array)
{
    const uint32_t at = cursor(array);
    return array->seek_length < at ? at : array->seek_length;
}

uint64_t capacity(const array_stream *array)
{
    return array->reserve + (uint64_t{array->blocks} << array->shift);
}

uint8_t *element(array_stream *array, uint32_t i)
{
    if (i < array->reserve) return first_block(array) + size_t{i} * array->element_size;
    i -= array->reserve;
    const uint32_t block = i >> array->shift;
    const uint32_t within = i & ((1u << array->shift) - 1);
    return array->page[block / blocks_per_page][block % blocks_per_page] + size_t{within} * array->element_size;
}

// Elements from i to the end of its block.
uint32_t contiguous(const array_stream *array, uint32_t i)
{
    if (i < array->reserve) return array->reserve - i;
    const uint32_t block_elements = 1u << array->shift;
    return block_elements - ((i - array->reserve) & (block_elements - 1));
}

// Makes room for the address of one more block.
bool add_page(array_stream *array)
{
    if (array->pages == array->page_slots) {
        const uint32_t slots = array->page_slots ? array->page_slots * 2 : 4;
        void *grown = realloc(array->page, slots * sizeof *array->page);
        if (!grown) return false;
        array->page = static_cast<uint8_t ***>(grown);
        array->page_slots = slots;
    }
    void *page = malloc(blocks_per_page * sizeof **array->page);
    if (!page) return false;
    array->page[array->pages++] = static_cast<uint8_t **>(page);
    return true;
}

bool add_block(array_stream *array)
{
    if (array->blocks == array->pages * blocks_per_page && !add_page(array)) return false;
    void *block = malloc(size_t{array->element_size} << array->shift);
    if (!block) return false;
    array->page[array->blocks / blocks_per_page][array->blocks % blocks_per_page] = static_cast<uint8_t *>(block);
    ++array->blocks;
    return true;
}

// Finds the room at the cursor. Indexes have 32 bits.
void find_cursor(array_stream *array)
{
    const uint32_t at = cursor(array);
    const uint32_t left = most_elements - at;
    const uint32_t room = contiguous(array, at);
    array->next = element(array, at);
    array->room = room < left ? room : left;
    array->stop = at + array->room;
}

// Makes room at the cursor.
bool make_room(array_stream *array)
{
    if (cursor(array) == most_elements) {
        errno = ENOMEM;
        return false;
    }
    if (cursor(array) == capacity(array) && !add_block(array)) return false;
    find_cursor(array);
    return true;
}

// Moves the cursor over up to `count` elements of its block. Every frame does,
// so cursor and length follow from what changes here.
void *advance(array_stream *array, uint32_t *count)
{
    const uint32_t n = *count < array->room ? *count : array->room;
    uint8_t *at = array->next;
    *count = n;
    array->next = at + size_t{n} * array->element_size;
    array->room -= n;
    return at;
}

// Separate, so that the common path saves no registers (8 instructions a frame).
[[gnu::noinline]] void *advance_to_new_room(array_stream *array, uint32_t *count)
{
    return make_room(array) ? advance(array, count) : nullptr;
}

} // namespace

[[gnu::weak]] array_stream *array_stream_create(uint32_t element_size, uint32_t reserve)
{
    const uint64_t bytes = header_size + uint64_t{element_size} * reserve;
    if (bytes > std::numeric_limits<ptrdiff_t>::max()) {
        errno = ENOMEM;
        return nullptr;
    }
    auto *array = static_cast<array_stream *>(malloc(static_cast<size_t>(bytes)));
    if (!array) return nullptr;
    *array = {};
    array->element_size = element_size;
    array->reserve = reserve;
    while (uint64_t{element_size} << (array->shift + 1) <= block_bytes) ++array->shift;
    return array;
}

[[gnu::weak]] void array_stream_destroy(array_stream *array)
{
    for (uint32_t i = 0; i < array->blocks; ++i) free(array->page[i / blocks_per_page][i % blocks_per_page]);
    for (uint32_t i = 0; i < array->pages; ++i) free(array->page[i]);
    free(array->page);
    free(array);
}

[[gnu::weak]] void array_stream_clear(array_stream *array)
{
    array->seek_length = array->room = array->stop = 0;
}

[[gnu::weak]] void *array_stream_write(array_stream *array, uint32_t *count)
{
    return array->room != 0 ? advance(array, count) : advance_to_new_room(array, count);
}

[[gnu::weak]] void *array_stream_read(array_stream *array, uint32_t *count)
{
    *count = length(array) - cursor(array);
    if (*count == 0) return nullptr;
    if (array->room == 0) find_cursor(array);
    return advance(array, count);
}

[[gnu::weak]] uint32_t array_stream_seek(array_stream *array, uint32_t offset, int whence)
{
    const uint32_t target = whence == 0 ? offset : cursor(array) + offset;
    array->seek_length = length(array);
    array->stop = target < array->seek_length ? target : array->seek_length; // not beyond the end
    array->room = 0;
    return array->stop;
}

[[gnu::weak]] void *array_stream_index(array_stream *array, uint32_t i)
{
    return element(array, i);
}

[[gnu::weak]] uint32_t array_stream_length(const array_stream *array)
{
    return length(array);
}

[[gnu::weak]] uint32_t array_stream_element_size(const array_stream *array)
{
    return array->element_size;
}
