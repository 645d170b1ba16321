// The life of a journal: made as a writer or as a reader, reset, released.

#include "mediafiles/journal/caretaker.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "mediafiles/log.h"
#include "mediafiles/ownership.h"

namespace mediafiles {
namespace {

constexpr uint32_t writer_capacity = 4096;
constexpr uint32_t reader_capacity = 8192;

mediafile_caretaker *make(int fd, uint32_t capacity)
{
    owned<mediafile_caretaker, free> caretaker(create<mediafile_caretaker>());
    if (!caretaker) return nullptr;
    caretaker->buffer = static_cast<uint8_t *>(malloc(capacity));
    if (!caretaker->buffer) return nullptr;
    caretaker->fd = fd;
    caretaker->capacity = capacity;
    return caretaker.release();
}

void free_list(pending_sample *node)
{
    while (node) free(std::exchange(node, node->next));
}

void reset(mediafile_caretaker *caretaker)
{
    caretaker->length = 0;
    caretaker->error = 0;
    caretaker->next_offset = 0;
    for (pending_queue &queue : caretaker->slots) {
        if (queue.first) {
            queue.last->next = caretaker->free_nodes;
            caretaker->free_nodes = queue.first;
        }
        queue = {};
    }
}

} // namespace

int fail(mediafile_caretaker *caretaker, int error)
{
    caretaker->error = error;
    return refuse(error);
}

} // namespace mediafiles

using namespace mediafiles;

mediafile_caretaker *mediafile_caretaker_create(void)
{
    return make(-1, writer_capacity);
}

mediafile_caretaker *mediafile_caretaker_load(const char *path)
{
    const int fd = open(path, O_RDONLY);
    if (fd < 0) return nullptr;
    mediafile_caretaker *caretaker = make(fd, reader_capacity);
    if (!caretaker) {
        errno_saver keep;
        close(fd);
    }
    return caretaker;
}

void mediafile_caretaker_destroy(mediafile_caretaker *caretaker)
{
    for (pending_queue &queue : caretaker->slots) free_list(queue.first);
    free_list(caretaker->free_nodes);
    if (is_reader(caretaker)) close(caretaker->fd);
    free(caretaker->buffer);
    free(caretaker);
}

void mediafile_caretaker_reset(mediafile_caretaker *caretaker)
{
    if (!is_reader(caretaker)) reset(caretaker);
}

void mediafile_caretaker_reset2(mediafile_caretaker *caretaker)
{
    reset(caretaker);
    caretaker->eof = false;
    caretaker->read_pos = 0;
    // Without the error, a second pass that starts at the end would look like an empty journal.
    if (is_reader(caretaker) && lseek(caretaker->fd, 0, SEEK_SET) == -1 && errno != EOVERFLOW) fail(caretaker, errno);
}

int mediafile_caretaker_errcode(mediafile_caretaker *caretaker)
{
    if (caretaker->error != 0 && log_enabled(log_warning))
        __printLog(log_warning, "caretaker->error=%d(%s)\n", caretaker->error, strerror(caretaker->error));
    return caretaker->error;
}
