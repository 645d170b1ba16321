/*
 * Searches a megabyte of random bytes that are not in it, a number of times,
 * and prints the bytes searched in a nanosecond.
 *
 *     bench-search start-code|memchr TIMES
 */
#include <string.h>
#include <time.h>

#include <mediafiles/h264-parser.h>

#include "work.h"

enum { size = 1 << 20 };

static double seconds(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

int main(int argc, char **argv)
{
    static uint8_t data[size];
    if (argc != 3) return 2;
    const int for_byte = strcmp(argv[1], "memchr") == 0;
    uint32_t random = 1;
    for (uint32_t i = 0; i < size; ++i) {
        random = random * 1664525 + 1013904223;
        data[i] = (uint8_t)(random >> 24);
        if (for_byte ? data[i] == 0 : data[i] == 1 && i >= 2 && data[i - 1] == 0 && data[i - 2] == 0) data[i] = 2;
    }

    const long times = atol(argv[2]);
    const double begin = seconds();
    for (long i = 0; i < times; ++i) {
        uint32_t offset, length;
        __asm__ volatile("" ::"r"(data) : "memory"); /* each search is one */
        if (for_byte ? memchr(data, 0, size) != NULL : h264_parser_find_start_code(data, size, &offset, &length) != 0)
            return 1;
    }
    printf("%.3f\n", (double)times * size / (seconds() - begin) / 1e9);
}
