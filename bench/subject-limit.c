/*
 * The physical limit, in the variants
 *
 *     nothing      does nothing: what driving a subject costs
 *     gather       hands each frame to writev, as a length and the bytes
 *     copy         copies the bytes through a buffer and writes that
 *     copy:TABLES  likewise; closing copies so many bytes of tables once and
 *                  writes them
 */
#include <string.h>
#include <sys/uio.h>

#include "subject.h"

static int file;
static int gathers, idle;
static uint8_t buffer[subject_buffer];
static size_t used;
static uint8_t *tables;
static size_t table_bytes;

static void begin(const char *variant, const struct work *work, int fd)
{
    (void)work;
    file = fd;
    idle = strcmp(variant, "nothing") == 0;
    gathers = strcmp(variant, "gather") == 0;
    if (strncmp(variant, "copy:", 5) != 0) return;
    table_bytes = strtoul(variant + 5, NULL, 10);
    tables = malloc(table_bytes);
    if (!tables) fail("tables");
    memset(tables, 1, table_bytes);
}

static void write_all(const void *data, size_t length)
{
    if (write(file, data, length) != (ssize_t)length) fail("write");
}

static void add(const struct work_unit *unit)
{
    if (idle) return;
    if (gathers) {
        uint32_t length = __builtin_bswap32(unit->length);
        const struct iovec list[] = {{&length, sizeof length}, {(void *)unit->data, unit->length}};
        if (writev(file, list, 2) < 0) fail("writev");
        return;
    }
    for (uint32_t done = 0; done < unit->length;) {
        const size_t room = sizeof buffer - used, left = unit->length - done, n = room < left ? room : left;
        memcpy(buffer + used, unit->data + done, n);
        used += n;
        done += (uint32_t)n;
        if (used < sizeof buffer) continue;
        write_all(buffer, sizeof buffer);
        used = 0;
    }
}

static void end(void)
{
    write_all(buffer, used);
    if (table_bytes == 0) return;
    uint8_t *copy = malloc(table_bytes);
    if (!copy) fail("copy");
    memcpy(copy, tables, table_bytes);
    write_all(copy, table_bytes);
}

const struct subject subject = {begin, add, without_journal, end, without_journal};
