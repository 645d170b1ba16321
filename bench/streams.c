/*
 * Records streams side by side, at the pace of their times.
 *
 *     STREAMS SET COUNT SPEED WARM FRAMES DIRECTORY
 *
 * COUNT streams record FRAMES frames each, SPEED times as fast as they were
 * captured, into directories that are made below DIRECTORY. Prints, in JSON,
 * what the frames after the first WARM took: time of the CPU, and with
 * libheap-count.so calls of the heap; and by how many bytes the process grew
 * from before the streams began. Nothing is closed.
 */
#include <dlfcn.h>
#include <errno.h>
#include <time.h>

#include "heap-count.h"
#include "streams.h"

enum { most = 64, second = 1000000000 };

static uint64_t now(clockid_t clock)
{
    struct timespec time;
    clock_gettime(clock, &time);
    return (uint64_t)time.tv_sec * second + (uint64_t)time.tv_nsec;
}

static void wait_until(uint64_t ns)
{
    const struct timespec time = {.tv_sec = (time_t)(ns / second), .tv_nsec = (long)(ns % second)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, NULL) == EINTR) {}
}

/* Bytes of memory that the process has, shared libraries among them. */
static uint64_t memory(void)
{
    unsigned long long all, resident;
    FILE *const file = fopen("/proc/self/statm", "r");
    if (!file || fscanf(file, "%llu %llu", &all, &resident) != 2) fail("/proc/self/statm");
    fclose(file);
    return resident * (uint64_t)sysconf(_SC_PAGESIZE);
}

int main(int argc, char **argv)
{
    if (argc != 7) return 2;
    const struct work work = work_open(argv[1]);
    const unsigned count = (unsigned)atoi(argv[2]), speed = (unsigned)atoi(argv[3]);
    const uint64_t warm = strtoull(argv[4], NULL, 10), frames = strtoull(argv[5], NULL, 10);
    static struct heap_counts none;
    struct heap_counts *heap = &none, *(*find)(void);
    *(void **)&find = dlsym(RTLD_DEFAULT, "heap_counts");
    if (find) heap = find();

    void *streams[most];
    const uint64_t before = memory();
    for (unsigned i = 0; i < count; ++i) {
        char directory[4096];
        snprintf(directory, sizeof directory, "%s/%u", argv[6], i);
        if (mkdir(directory, 0777) != 0) fail(directory);
        streams[i] = recording.begin(&work, directory, speed);
    }

    const uint64_t begin = now(CLOCK_MONOTONIC);
    uint64_t cpu = 0, calls = 0;
    for (uint64_t frame = 0; frame < frames; ++frame) {
        const struct work_unit unit = work_unit_at(&work, frame);
        wait_until(begin + unit.time_ns / speed);
        if (frame == warm) {
            cpu = now(CLOCK_PROCESS_CPUTIME_ID);
            calls = heap->calls;
        }
        for (unsigned i = 0; i < count; ++i) recording.add(streams[i], &unit);
    }
    cpu = now(CLOCK_PROCESS_CPUTIME_ID) - cpu;
    calls = heap->calls - calls;
    printf("{\"cpu_ns\": %llu, \"calls\": %llu, \"memory\": %llu}\n", (unsigned long long)cpu,
           (unsigned long long)calls, (unsigned long long)(memory() - before));
    fflush(stdout);
    _exit(0);
}
